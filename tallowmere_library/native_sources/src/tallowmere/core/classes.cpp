#include "core/classes.hpp"

#include "core/python.hpp"

namespace tallowmere {

namespace {

// Instances of a plain class carry nothing but their managed __dict__ and weak
// references; the interpreter allocates both.
struct PlainObject {
    PyObject_HEAD
};

int plain_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    return _PyObject_VisitManagedDict(self, visit, arg);
}

int plain_clear(PyObject* self) {
    _PyObject_ClearManagedDict(self);
    return 0;
}

void plain_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    PyObject_ClearWeakRefs(self);
    _PyObject_ClearManagedDict(self);
    type->tp_free(self);
    Py_DECREF(type);
}

PyGetSetDef plain_getset[] = {
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

Ref function_object(PyObject* module, const Member& member) {
    Ref module_name = Ref::checked(PyModule_GetNameObject(module));
    return Ref::checked(PyCMethod_New(member.method_def(), module, module_name.get(), nullptr));
}

}  // namespace

Ref make_class(PyObject* module, const char* qualified_name, const char* doc) {
    PyType_Slot slots[] = {
        {Py_tp_doc, const_cast<char*>(doc)},
        {Py_tp_traverse, reinterpret_cast<void*>(plain_traverse)},
        {Py_tp_clear, reinterpret_cast<void*>(plain_clear)},
        {Py_tp_dealloc, reinterpret_cast<void*>(plain_dealloc)},
        {Py_tp_getset, plain_getset},
        {0, nullptr},
    };
    PyType_Spec spec = {
        qualified_name,
        sizeof(PlainObject),
        0,
        Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_MANAGED_DICT |
            Py_TPFLAGS_MANAGED_WEAKREF,
        slots,
    };
    return Ref::checked(PyType_FromModuleAndSpec(module, &spec, nullptr));
}

Ref make_exception_class(PyObject* module, const char* qualified_name, const char* doc, PyObject* base) {
    PyType_Slot slots[] = {
        {Py_tp_doc, const_cast<char*>(doc)},
        {0, nullptr},
    };
    // Size, __dict__, garbage-collection support and weak references come
    // from the exception base.
    PyType_Spec spec = {qualified_name, 0, 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, slots};
    return Ref::checked(PyType_FromModuleAndSpec(module, &spec, base));
}

void add_member(PyObject* module, const Ref& cls, const Member& member) {
    PyMethodDef* def = member.method_def();
    Ref name = text(def->ml_name);
    Ref value;
    switch (member.binding) {
        case Binding::instance_method:
            value = Ref::checked(PyDescr_NewMethod(reinterpret_cast<PyTypeObject*>(cls.get()), def));
            break;
        case Binding::static_method:
            value = Ref::checked(PyStaticMethod_New(function_object(module, member).get()));
            break;
        case Binding::class_method:
            value = Ref::checked(PyClassMethod_New(function_object(module, member).get()));
            break;
        case Binding::property_getter:
            value = call(Borrowed(reinterpret_cast<PyObject*>(&PyProperty_Type)), function_object(module, member));
            break;
        case Binding::module_function:
            value = function_object(module, member);
            break;
    }
    check_status(PyObject_SetAttr(cls.get(), name.get(), value.get()));
}

void add_function(PyObject* module, const Member& member) {
    Ref function = function_object(module, member);
    Ref name = text(member.method_def()->ml_name);
    check_status(PyObject_SetAttr(module, name.get(), function.get()));
}

void add_object(PyObject* module, PyObject* name, const Ref& value) {
    check_status(PyObject_SetAttr(module, name, value.get()));
}

}  // namespace tallowmere

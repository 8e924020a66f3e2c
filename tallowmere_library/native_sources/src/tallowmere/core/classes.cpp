#include "core/classes.hpp"

#include "core/python.hpp"

#include <cstddef>

namespace tallowmere {

namespace {

// ---- plain classes -------------------------------------------------------------------

// Instances of a plain class carry nothing but their managed __dict__ and weak
// references; the interpreter allocates both.
struct PlainObject {
    PyObject_HEAD
};

// The managed __dict__ has public visit and clear functions from 3.13 on; 3.12
// offers only these underscore-prefixed ones (its documented way to reach the
// dictionary or the inline values a managed-dict instance keeps).
#if PY_VERSION_HEX >= 0x030D0000
int visit_managed_dict(PyObject* self, visitproc visit, void* arg) { return PyObject_VisitManagedDict(self, visit, arg); }
void clear_managed_dict(PyObject* self) { PyObject_ClearManagedDict(self); }
#else
int visit_managed_dict(PyObject* self, visitproc visit, void* arg) { return _PyObject_VisitManagedDict(self, visit, arg); }
void clear_managed_dict(PyObject* self) { _PyObject_ClearManagedDict(self); }
#endif

int plain_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    return visit_managed_dict(self, visit, arg);
}

int plain_clear(PyObject* self) {
    clear_managed_dict(self);
    return 0;
}

void plain_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    // Freeing an object can free a long chain of others (a record whose
    // attribute holds the next record...): the trashcan turns that recursion
    // into a loop, as it does for the interpreter's own containers.
    Py_TRASHCAN_BEGIN(self, plain_dealloc)
    PyObject_ClearWeakRefs(self);
    clear_managed_dict(self);
    type->tp_free(self);
    Py_DECREF(type);
    Py_TRASHCAN_END
}

PyGetSetDef plain_getset[] = {
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

Ref function_object(PyObject* module, const Member& member) {
    Ref module_name = Ref::checked(PyModule_GetNameObject(module));
    return Ref::checked(PyCMethod_New(member.method_def(), module, module_name.get(), nullptr));
}

// ---- functions of a class ---------------------------------------------------------------

// An instance method as the class holds it. To Python it behaves as a function
// defined in the class body: the class attribute is the function itself,
// reading it from an instance gives a bound method (types.MethodType), `self`
// is an ordinary first parameter, and inspect.signature reports the
// parameters as written, `(self, graph, ...)` on the class and `(graph, ...)`
// on an instance. Calls go straight to `vectorcall`, with `self` first.
struct MethodObject {
    PyObject_HEAD
    vectorcallfunc vectorcall;
    SignatureView (*signature)();
    PyObject* module;
    PyObject* name;
    PyObject* qualname;
    PyObject* module_name;
    PyObject* inspected;  // the inspect.Signature, built on first request
};

MethodObject* as_method(PyObject* self) { return reinterpret_cast<MethodObject*>(self); }

int method_traverse(PyObject* self, visitproc visit, void* arg) {
    MethodObject* method = as_method(self);
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(method->module);
    Py_VISIT(method->inspected);
    return 0;
}

int method_clear(PyObject* self) {
    MethodObject* method = as_method(self);
    Py_CLEAR(method->module);
    Py_CLEAR(method->name);
    Py_CLEAR(method->qualname);
    Py_CLEAR(method->module_name);
    Py_CLEAR(method->inspected);
    return 0;
}

void method_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    method_clear(self);
    type->tp_free(self);
    Py_DECREF(type);
}

// function.__get__: the function itself from the class, a bound method from an instance.
PyObject* method_get(PyObject* self, PyObject* instance, PyObject*) {
    if (instance == nullptr || instance == Py_None) return Py_NewRef(self);
    return PyMethod_New(self, instance);
}

PyObject* method_repr(PyObject* self) {
    return PyUnicode_FromFormat("<function %U at %p>", as_method(self)->qualname, self);
}

PyObject* method_name(PyObject* self, void*) { return Py_NewRef(as_method(self)->name); }
PyObject* method_qualname(PyObject* self, void*) { return Py_NewRef(as_method(self)->qualname); }
PyObject* method_module_name(PyObject* self, void*) { return Py_NewRef(as_method(self)->module_name); }

PyObject* method_doc(PyObject* self, void*) {
    const char* doc = as_method(self)->signature().doc;
    if (doc == nullptr) Py_RETURN_NONE;
    return PyUnicode_FromString(doc);
}

// A method has no annotations (an empty dict, as a Python function without any).
PyObject* method_annotations(PyObject*, void*) { return PyDict_New(); }

// inspect.Signature([self, *parameters])
Ref inspect_signature(const MethodObject& method) {
    const SignatureView view = method.signature();
    const ModuleBase m(method.module);
    Ref inspect = Ref::checked(PyImport_ImportModule("inspect"));
    Ref parameter_class = Ref::checked(PyObject_GetAttrString(inspect.get(), "Parameter"));
    Ref positional_or_keyword = Ref::checked(PyObject_GetAttrString(parameter_class.get(), "POSITIONAL_OR_KEYWORD"));
    Ref keyword_only = Ref::checked(PyObject_GetAttrString(parameter_class.get(), "KEYWORD_ONLY"));
    Ref default_name = text("default");

    Ref parameters = new_list();
    list_append(parameters, call(parameter_class, text("self"), positional_or_keyword));
    for (size_t i = 0; i < view.count; ++i) {
        const Param& p = view.params[i];
        Ref kind = p.kind == ParamKind::keyword_only ? keyword_only : positional_or_keyword;
        Ref parameter;
        switch (p.default_value.type) {
            case DefaultValue::Type::required:
                parameter = call(parameter_class, text(p.name), kind);
                break;
            case DefaultValue::Type::none:
                parameter = call_kw(parameter_class, {text(p.name), kind}, {{default_name.get(), none()}});
                break;
            case DefaultValue::Type::constant:
                parameter = call_kw(parameter_class, {text(p.name), kind},
                                    {{default_name.get(), Borrowed(p.default_value.constant(m))}});
                break;
        }
        list_append(parameters, parameter);
    }
    Ref signature_class = Ref::checked(PyObject_GetAttrString(inspect.get(), "Signature"));
    return call(signature_class, parameters);
}

PyObject* method_signature(PyObject* self, void*) {
    MethodObject* method = as_method(self);
    if (method->inspected == nullptr) {
        PyObject* built = guarded([&] { return inspect_signature(*method); });
        if (built == nullptr) return nullptr;
        if (method->inspected == nullptr) {
            method->inspected = built;
        } else {
            Py_DECREF(built);
        }
    }
    return Py_NewRef(method->inspected);
}

// Pickled by reference, as module functions are: the qualified name in its module.
PyObject* method_reduce(PyObject* self, PyObject*) { return Py_NewRef(as_method(self)->qualname); }

PyGetSetDef method_getset[] = {
    {"__name__", method_name, nullptr, nullptr, nullptr},
    {"__qualname__", method_qualname, nullptr, nullptr, nullptr},
    {"__module__", method_module_name, nullptr, nullptr, nullptr},
    {"__doc__", method_doc, nullptr, nullptr, nullptr},
    {"__annotations__", method_annotations, nullptr, nullptr, nullptr},
    {"__signature__", method_signature, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef method_methods[] = {
    {"__reduce__", method_reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyMemberDef method_members[] = {
    {"__vectorcalloffset__", Py_T_PYSSIZET, offsetof(MethodObject, vectorcall), Py_READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

Ref make_method_type() {
    // No Py_tp_doc: the type's docstring would shadow each function's own
    // `__doc__` (the getset below).
    PyType_Slot slots[] = {
        {Py_tp_dealloc, reinterpret_cast<void*>(method_dealloc)},
        {Py_tp_traverse, reinterpret_cast<void*>(method_traverse)},
        {Py_tp_clear, reinterpret_cast<void*>(method_clear)},
        {Py_tp_descr_get, reinterpret_cast<void*>(method_get)},
        {Py_tp_call, reinterpret_cast<void*>(PyVectorcall_Call)},
        {Py_tp_repr, reinterpret_cast<void*>(method_repr)},
        {Py_tp_getset, method_getset},
        {Py_tp_methods, method_methods},
        {Py_tp_members, method_members},
        {0, nullptr},
    };
    PyType_Spec spec = {
        "tallowmere.compiled_function",
        sizeof(MethodObject),
        0,
        Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_METHOD_DESCRIPTOR |
            Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
        slots,
    };
    return Ref::checked(PyType_FromSpec(&spec));
}

// The function type of this extension in the running interpreter: made on
// first use and kept in the interpreter's state dictionary, under a key of
// this shared object's own (each extension module links its own core).
Ref method_type() {
    static const char anchor = 0;
    PyObject* interpreter_dict = PyInterpreterState_GetDict(PyInterpreterState_Get());
    if (interpreter_dict == nullptr) raise(PyExc_RuntimeError, "no interpreter state dictionary");
    Ref key = format_text("tallowmere.compiled_function.%p", static_cast<const void*>(&anchor));
    PyObject* known = PyDict_GetItemWithError(interpreter_dict, key.get());
    if (known != nullptr) return Ref(Borrowed(known));
    if (PyErr_Occurred()) propagate();
    Ref type = make_method_type();
    check_status(PyDict_SetItem(interpreter_dict, key.get(), type.get()));
    return type;
}

Ref make_method(PyObject* module, const Member& member) {
    const SignatureView view = member.signature();
    Ref type = method_type();
    Ref module_name = Ref::checked(PyModule_GetNameObject(module));
    Ref qualname = text(view.qualname);
    Ref name = text(unqualified_name(view.qualname));
    PyTypeObject* method_class = reinterpret_cast<PyTypeObject*>(type.get());
    Ref object = Ref::checked(method_class->tp_alloc(method_class, 0));
    MethodObject* method = as_method(object.get());
    method->vectorcall = member.method_call;
    method->signature = member.signature;
    method->module = Py_NewRef(module);
    method->name = name.release();
    method->qualname = qualname.release();
    method->module_name = module_name.release();
    method->inspected = nullptr;
    return object;
}

}  // namespace

PyObject* method_module(PyObject* method) { return as_method(method)->module; }

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

Ref add_member(PyObject* module, const Ref& cls, const Member& member) {
    Ref name = text(unqualified_name(member.signature().qualname));
    Ref function = member.binding == Binding::instance_method ? make_method(module, member)
                                                              : function_object(module, member);
    Ref value;
    switch (member.binding) {
        case Binding::instance_method:
        case Binding::module_function:
            value = function;
            break;
        case Binding::static_method:
            value = Ref::checked(PyStaticMethod_New(function.get()));
            break;
        case Binding::class_method:
            value = Ref::checked(PyClassMethod_New(function.get()));
            break;
        case Binding::property_getter:
            value = call(Borrowed(reinterpret_cast<PyObject*>(&PyProperty_Type)), function);
            break;
    }
    check_status(PyObject_SetAttr(cls.get(), name.get(), value.get()));
    return function;
}

Ref add_function(PyObject* module, const Member& member) {
    Ref function = function_object(module, member);
    Ref name = text(member.method_def()->ml_name);
    check_status(PyObject_SetAttr(module, name.get(), function.get()));
    return function;
}

void add_object(PyObject* module, PyObject* name, const Ref& value) {
    check_status(PyObject_SetAttr(module, name, value.get()));
}

}  // namespace tallowmere

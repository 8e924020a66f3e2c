#include "core/records.hpp"

namespace tallowmere {

namespace {

// Whether the dataclass `cls` is frozen: its __init__ then stores through
// object.__setattr__ around its own __setattr__.
bool frozen_dataclass(PyObject* cls) {
    Ref parameters = Ref::steal(PyObject_GetAttrString(cls, "__dataclass_params__"));
    Ref frozen = parameters ? Ref::steal(PyObject_GetAttrString(parameters.get(), "frozen")) : Ref();
    if (!frozen) {
        PyErr_Clear();
        return false;
    }
    return frozen.get() == Py_True;
}

bool plain_record_class(PyObject* cls, std::initializer_list<PyObject*> fields) {
    if (!PyType_Check(cls) || Py_TYPE(cls) != &PyType_Type) return false;
    PyTypeObject* type = reinterpret_cast<PyTypeObject*>(cls);
    if (type->tp_new != PyBaseObject_Type.tp_new) return false;
    Ref declared = Ref::steal(PyObject_GetAttrString(cls, "__dataclass_fields__"));
    if (!declared) {
        PyErr_Clear();
        return false;
    }
    if (!PyDict_CheckExact(declared.get()) || PyDict_GET_SIZE(declared.get()) != static_cast<Py_ssize_t>(fields.size())) {
        return false;
    }
    Py_ssize_t position = 0;
    PyObject *key, *value;
    for (PyObject* field : fields) {
        if (!PyDict_Next(declared.get(), &position, &key, &value) || !PyUnicode_CheckExact(key) ||
            PyUnicode_Compare(key, field) != 0) {
            return false;
        }
    }
    if (Ref post_init = Ref::steal(PyObject_GetAttrString(cls, "__post_init__"))) return false;
    PyErr_Clear();
    return type->tp_setattro == PyObject_GenericSetAttr || frozen_dataclass(cls);
}

}  // namespace

void capture_record(RecordClass& record, PyObject* cls, std::initializer_list<PyObject*> fields) {
    Py_XSETREF(record.cls, Py_XNewRef(cls));
    record.version_tag = 0;
    if (cls == nullptr || !plain_record_class(cls, fields)) return;
    PyTypeObject* type = reinterpret_cast<PyTypeObject*>(cls);
    if (PyUnstable_Type_AssignVersionTag(type)) record.version_tag = type->tp_version_tag;
}

Ref make_record(const RecordClass& record, PyObject* cls, std::initializer_list<Kw> fields) {
    PyTypeObject* type = reinterpret_cast<PyTypeObject*>(cls);
    if (cls != record.cls || record.version_tag == 0 || type->tp_version_tag != record.version_tag) {
        return call_kw(Ref(Borrowed(cls)), {}, fields);
    }
    Ref instance = Ref::checked(type->tp_alloc(type, 0));
    for (const Kw& field : fields) check_status(PyObject_GenericSetAttr(instance.get(), field.name, field.value.get()));
    return instance;
}

}  // namespace tallowmere

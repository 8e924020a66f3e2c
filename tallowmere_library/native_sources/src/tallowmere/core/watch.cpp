#include "core/watch.hpp"

#include "core/python.hpp"

namespace tallowmere {

void WatchedEntries::capture(PyObject* dict, std::initializer_list<PyObject*> keys, PyObject* owner,
                             std::initializer_list<PyObject*> absent) {
    Ref expected = new_dict();
    Ref absent_keys = Ref::checked(PyTuple_New(static_cast<Py_ssize_t>(absent.size())));
    Py_ssize_t index = 0;
    for (PyObject* key : absent) PyTuple_SET_ITEM(absent_keys.get(), index++, Py_NewRef(key));
    complete_ = dict != nullptr && PyDict_Check(dict);
    for (PyObject* key : keys) {
        if (!complete_) break;
        PyObject* value = PyDict_GetItemWithError(dict, key);
        if (value == nullptr) {
            if (PyErr_Occurred()) propagate();
            complete_ = false;
            break;
        }
        check_status(PyDict_SetItem(expected.get(), key, value));
    }
    for (PyObject* key : absent) {
        if (!complete_) break;
        complete_ = check_status(PyDict_Contains(dict, key)) == 0;
    }
    if (dict == nullptr) return;
    Py_XSETREF(dict_, Py_NewRef(dict));
    Py_XSETREF(expected_, expected.release());
    Py_XSETREF(absent_, absent_keys.release());
    Py_XSETREF(owner_, Py_XNewRef(owner));
    checked_version_ = dict_version(dict_);
    intact_ = complete_;
}

bool WatchedEntries::owner_keeps_dict() const {
    PyObject** slot = _PyObject_GetDictPtr(owner_);
    if (slot == nullptr) {
        PyErr_Clear();
        return false;
    }
    return *slot == dict_;
}

bool WatchedEntries::compare_entries() {
    // Lookups may compare a watched key with a foreign key of the dict (and
    // run its __eq__): every object is held meanwhile.
    Ref dict{Borrowed(dict_)};
    Ref expected{Borrowed(expected_)};
    Py_ssize_t position = 0;
    PyObject *raw_key, *raw_value;
    while (PyDict_Next(expected.get(), &position, &raw_key, &raw_value)) {
        Ref key{Borrowed(raw_key)};
        Ref value{Borrowed(raw_value)};
        PyObject* current = PyDict_GetItemWithError(dict.get(), key.get());
        if (current == nullptr && PyErr_Occurred()) propagate();
        if (current != value.get()) return false;
    }
    Ref absent{Borrowed(absent_)};
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(absent.get()); ++i) {
        if (check_status(PyDict_Contains(dict.get(), PyTuple_GET_ITEM(absent.get(), i)))) return false;
    }
    return true;
}

bool WatchedEntries::unchanged() {
    if (!complete_ || dict_ == nullptr) return false;
    if (owner_ != nullptr && !owner_keeps_dict()) return false;
    uint64_t version = dict_version(dict_);
    if (version != checked_version_) {
        // The version read before comparing: a change made meanwhile (by a
        // key's __eq__) is compared again next time.
        intact_ = compare_entries();
        checked_version_ = version;
    }
    return intact_;
}

}  // namespace tallowmere

// tallowmere.submissions.pool_identity: finding a signal pool in an era.
//
// The fast path reads eras and pools that are exact dicts (the decoded era
// catalog); pools that are attribute objects or mappings of other types are
// read by the Python implementation.
#include "_native/siblings/support.hpp"

namespace tallowmere::native {

namespace {

constexpr Sibling here = Sibling::pool_identity;

// Objects of these types have neither a "name" nor a "signal_pool_name"
// attribute and are no mappings: reading a field of them gives None.
bool has_no_fields(PyObject* value) {
    return is_exact_scalar(value) || PyList_CheckExact(value) || PyTuple_CheckExact(value) ||
           PyBytes_CheckExact(value);
}

// container.get(name) of an exact dict, None when the lookup raises an
// Exception (as the Python implementation's guard has it).
Ref guarded_get(PyObject* container, PyObject* name) {
    Ref dict{Borrowed(container)};
    Ref key{Borrowed(name)};
    PyObject* value = PyDict_GetItemWithError(dict.get(), key.get());
    if (value != nullptr) return Ref(Borrowed(value));
    if (PyErr_Occurred()) {
        if (!PyErr_ExceptionMatches(PyExc_Exception)) propagate();
        PyErr_Clear();
    }
    return Ref(none());
}

enum class Outcome { found, missing, python };

// The pool named `wanted` in a list or tuple of pools.
Outcome find_in_sequence(const Names& n, const Ref& pools, const Ref& wanted, Ref* found) {
    // The list may change while Python code runs in a lookup; as a for loop
    // does, read its length and item anew at every step.
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(pools.get()); ++i) {
        Ref pool{Borrowed(PySequence_Fast_GET_ITEM(pools.get(), i))};
        if (has_no_fields(pool.get())) continue;
        if (!PyDict_CheckExact(pool.get())) return Outcome::python;
        Ref name = guarded_get(pool.get(), n.sib_name);
        if (name.is_none()) name = guarded_get(pool.get(), n.sib_signal_pool_name);
        if (PyUnicode_CheckExact(name.get())) {
            if (PyUnicode_Compare(name.get(), wanted.get()) == 0) {
                *found = pool;
                return Outcome::found;
            }
        } else if (!has_no_fields(name.get()) && !PyDict_CheckExact(name.get())) {
            return Outcome::python;
        }
    }
    return Outcome::missing;
}

constexpr auto selected_signal_pool_signature =
    signature("selected_signal_pool_from_era_config", Binding::module_function,
              "Return the pool of ``era_config`` named ``signal_pool_name``, or None "
              "(compiled tallowmere.submissions.pool_identity.selected_signal_pool_from_era_config).",
              param("era_config"), param("signal_pool_name"));

}  // namespace

Ref selected_signal_pool_from_era_config(const Module& m, const Ref& era_config, const Ref& signal_pool_name) {
    const Names& n = m.n;
    if (sibling_intact(m, here)) {
        PyObject* wanted = signal_pool_name.get();
        if (!PyUnicode_Check(wanted) && (is_exact_scalar(wanted) || has_no_fields(wanted) || PyDict_CheckExact(wanted)))
            return Ref(none());
        if (PyUnicode_CheckExact(wanted)) {
            if (era_config.is_none()) return Ref(none());
            if (PyDict_CheckExact(era_config.get())) {
                Ref pools = guarded_get(era_config.get(), n.sib_signal_pools);
                if (PyDict_CheckExact(pools.get())) return guarded_get(pools.get(), wanted);
                if (has_no_fields(pools.get()) && !PyList_CheckExact(pools.get()) && !PyTuple_CheckExact(pools.get()))
                    return Ref(none());
                if (PyList_CheckExact(pools.get()) || PyTuple_CheckExact(pools.get())) {
                    Ref found;
                    Outcome outcome = find_in_sequence(n, pools, signal_pool_name, &found);
                    if (outcome == Outcome::found) return found;
                    if (outcome == Outcome::missing) return Ref(none());
                }
            }
        }
    }
    return call(python_implementation(m, here, n.sib_selected_signal_pool_from_era_config), era_config,
                signal_pool_name);
}


namespace sibling_members {
const Member selected_signal_pool_from_era_config =
    member<selected_signal_pool_signature, tallowmere::native::selected_signal_pool_from_era_config>();
}  // namespace sibling_members

}  // namespace tallowmere::native

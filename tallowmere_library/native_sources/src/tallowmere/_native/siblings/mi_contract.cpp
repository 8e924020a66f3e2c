// tallowmere.simulation.mi_contract: the number and field checks of the
// mutual-information contract.
#include "core/containers.hpp"
#include "_native/siblings/support.hpp"

#include <cmath>

namespace tallowmere::native {

namespace {

constexpr Sibling here = Sibling::mi_contract;

Ref defer(const Module& m, PyObject* name, const Ref& value) {
    return call(python_implementation(m, here, name), value);
}

// Containers and scalars of the exact built-in types, for which isinstance
// answers without running any Python code.
bool is_exact_builtin(PyObject* value) {
    return is_exact_scalar(value) || PyDict_CheckExact(value) || PyList_CheckExact(value) ||
           PyTuple_CheckExact(value) || PyBytes_CheckExact(value);
}

// ---- _is_finite_number ------------------------------------------------------------------------

constexpr auto is_finite_number_signature =
    signature("_is_finite_number", Binding::module_function,
              "True for an int or float (subclasses included) that is finite; False for bools "
              "(compiled tallowmere.simulation.mi_contract._is_finite_number).",
              param("value"));

}  // namespace

Ref is_finite_number(const Module& m, const Ref& value) {
    PyObject* v = value.get();
    if (!is_exact_builtin(v) || !sibling_intact(m, here)) return defer(m, m.n.sib__is_finite_number, value);
    if (PyLong_CheckExact(v)) return Ref(boolean(true));
    if (PyFloat_CheckExact(v)) return Ref(boolean(std::isfinite(PyFloat_AS_DOUBLE(v))));
    return Ref(boolean(false));
}

namespace {

// ---- _coerce_mi_contract_value --------------------------------------------------------------------

constexpr auto coerce_mi_contract_value_signature =
    signature("_coerce_mi_contract_value", Binding::module_function,
              "Return a mutual-information value as a float "
              "(compiled tallowmere.simulation.mi_contract._coerce_mi_contract_value).",
              param("value"));

}  // namespace

Ref coerce_mi_contract_value(const Module& m, const Ref& value) {
    const Names& n = m.n;
    PyObject* v = value.get();
    if (sibling_intact(m, here)) {
        if (PyFloat_CheckExact(v) && !std::isnan(PyFloat_AS_DOUBLE(v))) return value;
        if (PyLong_CheckExact(v)) {
            double number = PyLong_AsDouble(v);
            if (!(number == -1.0 && PyErr_Occurred())) return floating(number);
            PyErr_Clear();  // too large for a float: the Python implementation refuses it
        }
        if (PyUnicode_CheckExact(v)) {
            Ref spelled = sibling_global(m, here, n.sib__INFINITY_TEXT);
            if (PyDict_CheckExact(spelled.get())) {
                PyObject* number = PyDict_GetItemWithError(spelled.get(), v);
                if (number != nullptr) return Ref(Borrowed(number));
                if (PyErr_Occurred()) propagate();
            }
        }
    }
    return defer(m, n.sib__coerce_mi_contract_value, value);
}

namespace {

// ---- _has_disallowed_mi_contract_field ------------------------------------------------------------

constexpr auto has_disallowed_mi_contract_field_signature =
    signature("_has_disallowed_mi_contract_field", Binding::module_function,
              "True when the statistics mapping has a top-level key of MI_CONTRACT_KEYS "
              "(compiled tallowmere.simulation.mi_contract._has_disallowed_mi_contract_field).",
              param("is_stats"));

}  // namespace

Ref has_disallowed_mi_contract_field(const Module& m, const Ref& is_stats) {
    const Names& n = m.n;
    PyObject* stats = is_stats.get();
    if (!is_exact_builtin(stats) || !sibling_intact(m, here)) {
        return defer(m, n.sib__has_disallowed_mi_contract_field, is_stats);
    }
    if (!PyDict_CheckExact(stats)) return Ref(boolean(false));
    Ref keys = sibling_global(m, here, n.sib_MI_CONTRACT_KEYS);
    if (!PyFrozenSet_CheckExact(keys.get())) return defer(m, n.sib__has_disallowed_mi_contract_field, is_stats);
    bool found = find_first(keys, [&](const Ref& key) -> std::optional<Ref> {
                     if (check_status(PyDict_Contains(stats, key.get()))) return Ref(boolean(true));
                     return std::nullopt;
                 }).has_value();
    return Ref(boolean(found));
}

namespace {

// ---- _has_non_finite_number -------------------------------------------------------------------------

constexpr auto has_non_finite_number_signature =
    signature("_has_non_finite_number", Binding::module_function,
              "True when a float NaN or infinity appears anywhere in ``value`` "
              "(compiled tallowmere.simulation.mi_contract._has_non_finite_number).",
              param("value"));

enum class Search { found, not_found, python };

// The search of the Python implementation, in its order (a stack, dict keys
// pushed before dict values), over values of the exact built-in types only.
Search search_non_finite(PyObject* value) {
    SmallVector<PyObject*, 64> pending;
    pending.push_back(value);
    PointerTable<bool> searched;
    while (!pending.empty()) {
        PyObject* item = pending.back();
        pending.pop_back();
        if (PyFloat_CheckExact(item)) {
            if (!std::isfinite(PyFloat_AS_DOUBLE(item))) return Search::found;
        } else if (PyDict_CheckExact(item)) {
            if (searched.find(item)) continue;
            searched.set(item, true);
            Py_ssize_t position = 0;
            PyObject *key, *member;
            while (PyDict_Next(item, &position, &key, &member)) pending.push_back(key);
            position = 0;
            while (PyDict_Next(item, &position, &key, &member)) pending.push_back(member);
        } else if (PyList_CheckExact(item) || PyTuple_CheckExact(item)) {
            if (searched.find(item)) continue;
            searched.set(item, true);
            PyObject** items = PySequence_Fast_ITEMS(item);
            pending.append(items, static_cast<size_t>(PySequence_Fast_GET_SIZE(item)));
        } else if (!is_exact_scalar(item) && !PyBytes_CheckExact(item)) {
            return Search::python;
        }
    }
    return Search::not_found;
}

}  // namespace

Ref has_non_finite_number(const Module& m, const Ref& value) {
    if (sibling_intact(m, here)) {
        Search result = search_non_finite(value.get());
        if (result != Search::python) return Ref(boolean(result == Search::found));
    }
    return defer(m, m.n.sib__has_non_finite_number, value);
}


namespace sibling_members {
const Member is_finite_number = member<is_finite_number_signature, tallowmere::native::is_finite_number>();
const Member coerce_mi_contract_value =
    member<coerce_mi_contract_value_signature, tallowmere::native::coerce_mi_contract_value>();
const Member has_disallowed_mi_contract_field =
    member<has_disallowed_mi_contract_field_signature, tallowmere::native::has_disallowed_mi_contract_field>();
const Member has_non_finite_number =
    member<has_non_finite_number_signature, tallowmere::native::has_non_finite_number>();
}  // namespace sibling_members

}  // namespace tallowmere::native

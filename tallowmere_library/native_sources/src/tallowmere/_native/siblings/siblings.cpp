// Registration of the sibling modules and the binding of their fast paths.
#include "_native/siblings/support.hpp"

#include "core/classes.hpp"

#include <iterator>
#include <utility>

namespace tallowmere::native {

namespace {

SiblingsState& siblings_of(const Module& m) { return m.state().siblings; }

PyObject* module_name(const Module& m, Sibling which) {
    const Names& n = m.n;
    switch (which) {
        case Sibling::graph_complexity:
            return n.sib_graph_complexity_module;
        case Sibling::mi_contract:
            return n.sib_mi_contract_module;
        case Sibling::named_universe:
            return n.sib_named_universe_module;
        case Sibling::threshold_gates:
            return n.sib_threshold_gates_module;
        case Sibling::pool_identity:
            return n.sib_pool_identity_module;
        case Sibling::backtest_timing:
            return n.sib_backtest_timing_module;
    }
    return nullptr;
}

// The version tag CPython 3.12 keeps in every dict and renews at every change
// of it. (The package is built for 3.12 only; a later interpreter would take
// dict watchers for the same purpose.)
uint64_t version_of(PyObject* dict) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
#pragma GCC diagnostic pop
}

// The namespace holds the snapshot's objects under the snapshot's names, and
// nothing else. Values are compared by identity only.
bool same_as_snapshot(PyObject* namespace_dict, PyObject* snapshot) {
    if (PyDict_GET_SIZE(namespace_dict) != PyDict_GET_SIZE(snapshot)) return false;
    Py_ssize_t position = 0;
    PyObject *raw_key, *raw_value;
    while (PyDict_Next(snapshot, &position, &raw_key, &raw_value)) {
        if (!PyUnicode_CheckExact(raw_key)) return false;
        // A lookup may compare the key with a foreign key of the namespace.
        Ref key{Borrowed(raw_key)};
        Ref value{Borrowed(raw_value)};
        PyObject* current = PyDict_GetItemWithError(namespace_dict, key.get());
        if (current == nullptr && PyErr_Occurred()) propagate();
        if (current != value.get()) return false;
    }
    return true;
}

// ---- registration -----------------------------------------------------------------------------

constexpr auto register_sibling_signature =
    signature("_register_sibling", Binding::module_function,
              "Register a sibling module's namespace and its plain-Python functions (called by "
              "tallowmere._accelerate at the end of the module's import).",
              param("namespace"), param("python_implementations"));

Ref register_sibling(const Module& m, const Ref& namespace_dict, const Ref& python) {
    const Names& n = m.n;
    if (!PyDict_CheckExact(namespace_dict.get()) || !PyDict_Check(python.get())) {
        raise(PyExc_TypeError, "_register_sibling() takes a module namespace and a dict of functions");
    }
    PyObject* raw_name = PyDict_GetItemWithError(namespace_dict.get(), n.sib___name__);
    if (raw_name == nullptr) {
        if (PyErr_Occurred()) propagate();
        raise(PyExc_ValueError, "the namespace has no __name__");
    }
    Ref name{Borrowed(raw_name)};
    int index = -1;
    for (int i = 0; i < sibling_count; ++i) {
        if (PyUnicode_Check(name.get()) && equals(name, Borrowed(module_name(m, static_cast<Sibling>(i))))) index = i;
    }
    if (index < 0) raise(PyExc_ValueError, concat({text("no fast paths for module "), repr(name)}));

    Ref snapshot = Ref::checked(PyDict_Copy(namespace_dict.get()));
    Ref functions = Ref::checked(PyDict_Copy(python.get()));
    SiblingsState& state = siblings_of(m);
    SiblingSlot& slot = state.slots[index];
    Py_XSETREF(slot.namespace_dict, Ref(namespace_dict).release());
    Py_XSETREF(slot.snapshot, snapshot.release());
    Py_XSETREF(slot.python, functions.release());
    slot.checked_version = version_of(slot.namespace_dict);
    slot.intact = true;

    auto global = [&](PyObject* key) { return PyDict_GetItemWithError(namespace_dict.get(), key); };
    switch (static_cast<Sibling>(index)) {
        case Sibling::graph_complexity:
            capture_record(state.graph_complexity, global(n.sib_GraphComplexity), {n.sib_depth, n.sib_node_count});
            break;
        case Sibling::threshold_gates:
            capture_record(state.gate_failure, global(n.sib_ThresholdGateFailure),
                           {n.sib_gate, n.sib_actual, n.sib_operator, n.sib_threshold});
            capture_record(state.gate_result, global(n.sib_ThresholdGateResult), {n.sib_passed, n.sib_failures});
            break;
        case Sibling::backtest_timing:
            capture_timing_store(m, state.timing_store, global(n.sib_BacktestTimingStore), global(n.sib__STORE));
            break;
        default:
            break;
    }
    if (PyErr_Occurred()) propagate();
    return Ref(none());
}

const Member register_sibling_member = member<register_sibling_signature, register_sibling>();

}  // namespace

// ---- what the fast paths use ----------------------------------------------------------------

SiblingSlot& sibling(const Module& m, Sibling which) {
    SiblingSlot& slot = siblings_of(m).slots[static_cast<int>(which)];
    if (slot.namespace_dict == nullptr) {
        // The module registers itself as its import ends.
        Ref imported = Ref::checked(PyImport_Import(module_name(m, which)));
        if (slot.namespace_dict == nullptr) {
            PyErr_Format(PyExc_ImportError, "%U did not register its fast paths", module_name(m, which));
            propagate();
        }
    }
    return slot;
}

bool sibling_intact(const Module& m, Sibling which) {
    SiblingSlot& slot = sibling(m, which);
    uint64_t version = version_of(slot.namespace_dict);
    if (version != slot.checked_version) {
        Ref namespace_dict{Borrowed(slot.namespace_dict)};
        Ref snapshot{Borrowed(slot.snapshot)};
        bool intact = same_as_snapshot(namespace_dict.get(), snapshot.get());
        // Unless the module registered anew meanwhile.
        if (slot.snapshot == snapshot.get()) {
            slot.intact = intact;
            slot.checked_version = version;
        }
    }
    return slot.intact && version == slot.checked_version;
}

Ref python_implementation(const Module& m, Sibling which, PyObject* name) {
    SiblingSlot& slot = sibling(m, which);
    PyObject* function = PyDict_GetItemWithError(slot.python, name);
    if (function == nullptr) {
        if (!PyErr_Occurred()) PyErr_Format(PyExc_KeyError, "no Python implementation of %U", name);
        propagate();
    }
    return Ref(Borrowed(function));
}

Ref sibling_global(const Module& m, Sibling which, PyObject* name) {
    Ref namespace_dict{Borrowed(sibling(m, which).namespace_dict)};
    PyObject* value = PyDict_GetItemWithError(namespace_dict.get(), name);
    if (value != nullptr) return Ref(Borrowed(value));
    if (!PyErr_Occurred()) PyErr_Format(PyExc_NameError, "name '%U' is not defined", name);
    propagate();
}

void bind_siblings(PyObject* module) {
    namespace sm = sibling_members;
    for (const Member* each :
         {&register_sibling_member, &sm::measure_graph_complexity, &sm::graph_fingerprint, &sm::sha256_hexdigest,
          &sm::is_finite_number, &sm::coerce_mi_contract_value, &sm::has_disallowed_mi_contract_field,
          &sm::has_non_finite_number, &sm::normalize_named_universe, &sm::is_unsafe_named_universe,
          &sm::evaluate_threshold_gates, &sm::selected_signal_pool_from_era_config,
          &sm::require_recorded_backtest_timing, &sm::require_recorded_backtest_timings,
          &sm::consume_recorded_backtest_timing, &sm::assess_client_backtest_timing}) {
        add_function(module, *each);
    }
    Module m = Module::of(module);
    const Names& n = m.n;
    SiblingsState& state = m.state().siblings;
    Py_XSETREF(state.graph_fingerprint_function, m.global(n.sib_graph_fingerprint).release());
    using native_api::Function;
    const std::pair<Function, PyObject*> api_functions[] = {
        {Function::measure_graph_complexity, n.sib_measure_graph_complexity},
        {Function::is_finite_number, n.sib__is_finite_number},
        {Function::coerce_mi_contract_value, n.sib__coerce_mi_contract_value},
        {Function::has_disallowed_mi_contract_field, n.sib__has_disallowed_mi_contract_field},
        {Function::has_non_finite_number, n.sib__has_non_finite_number},
        {Function::normalize_named_universe, n.sib__normalize_named_universe},
        {Function::is_unsafe_named_universe, n.sib__is_unsafe_named_universe},
        {Function::evaluate_threshold_gates, n.sib_evaluate_threshold_gates},
        {Function::selected_signal_pool_from_era_config, n.sib_selected_signal_pool_from_era_config},
        {Function::require_recorded_backtest_timing, n.sib_require_recorded_backtest_timing},
        {Function::require_recorded_backtest_timings, n.sib_require_recorded_backtest_timings},
        {Function::consume_recorded_backtest_timing, n.sib_consume_recorded_backtest_timing},
        {Function::assess_client_backtest_timing, n.sib_assess_client_backtest_timing},
    };
    static_assert(std::size(api_functions) == native_api::function_count);
    for (const auto& [which, name] : api_functions) {
        Py_XSETREF(state.functions[static_cast<int>(which)], m.global(name).release());
    }
    add_object(module, n.sib__C_API, make_api_capsule());
}

}  // namespace tallowmere::native

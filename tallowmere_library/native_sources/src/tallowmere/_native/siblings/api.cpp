// The C API of tallowmere._native (api.hpp): its table of functions and the
// capsule that carries it.
#include "_native/siblings/api.hpp"

#include "_native/siblings/support.hpp"

namespace tallowmere::native {

namespace {

using native_api::Function;

PyObject* function(PyObject* native, Function which) {
    return Module::of(native).state().siblings.functions[static_cast<int>(which)];
}

// The number of parameters of each function, in declaration order.
constexpr size_t parameter_count(Function which) {
    switch (which) {
        case Function::evaluate_threshold_gates:
            return 3;
        case Function::selected_signal_pool_from_era_config:
            return 2;
        case Function::assess_client_backtest_timing:
            return 4;
        default:
            return 1;
    }
}

Ref dispatch(const Module& m, Function which, PyObject* const* args) {
    auto a = [&](size_t i) { return Ref(Borrowed(args[i])); };
    switch (which) {
        case Function::measure_graph_complexity:
            return measure_graph_complexity(m, a(0));
        case Function::is_finite_number:
            return is_finite_number(m, a(0));
        case Function::coerce_mi_contract_value:
            return coerce_mi_contract_value(m, a(0));
        case Function::has_disallowed_mi_contract_field:
            return has_disallowed_mi_contract_field(m, a(0));
        case Function::has_non_finite_number:
            return has_non_finite_number(m, a(0));
        case Function::normalize_named_universe:
            return normalize_named_universe(m, a(0));
        case Function::is_unsafe_named_universe:
            return is_unsafe_named_universe(m, a(0));
        case Function::evaluate_threshold_gates:
            return evaluate_threshold_gates(m, a(0), a(1), a(2));
        case Function::selected_signal_pool_from_era_config:
            return selected_signal_pool_from_era_config(m, a(0), a(1));
        case Function::require_recorded_backtest_timing:
            return require_recorded_backtest_timing(m, a(0));
        case Function::require_recorded_backtest_timings:
            return require_recorded_backtest_timings(m, a(0));
        case Function::consume_recorded_backtest_timing:
            return consume_recorded_backtest_timing(m, a(0));
        case Function::assess_client_backtest_timing:
            return assess_client_backtest_timing(m, a(0), a(1), a(2), a(3));
    }
    raise(PyExc_SystemError, "tallowmere._native: unknown function");
}

PyObject* call_function(PyObject* native, Function which, PyObject* const* args, size_t count) {
    return guarded([&] {
        if (static_cast<unsigned>(which) >= native_api::function_count || count != parameter_count(which)) {
            raise(PyExc_SystemError, "tallowmere._native: bad call through the C API");
        }
        return dispatch(Module::of(native), which, args);
    });
}

PyObject* require_timing(PyObject* native, PyObject* graph, PyObject** entry) {
    *entry = nullptr;
    Ref kept;
    PyObject* result = guarded([&] { return require_timing_with_entry(Module::of(native), Ref(Borrowed(graph)), &kept); });
    if (result != nullptr) *entry = kept.release();
    return result;
}

PyObject* require_timings(PyObject* native, PyObject* graphs, PyObject** entries) {
    *entries = nullptr;
    Ref kept;
    PyObject* result =
        guarded([&] { return require_timings_with_entries(Module::of(native), Ref(Borrowed(graphs)), &kept); });
    if (result != nullptr) *entries = kept.release();
    return result;
}

PyObject* consume_timing(PyObject* native, PyObject* graph, PyObject* entry) {
    return guarded([&] {
        return consume_timing_with_entry(Module::of(native), Ref(Borrowed(graph)), Ref(Borrowed(entry)));
    });
}

int graph_text(PyObject*, PyObject* entry, PyObject* graph, native_api::GraphText* out) {
    return entry_text(entry, graph, &out->text, &out->size, &out->depth) ? 1 : 0;
}

const native_api::Api api_table = {
    native_api::version, function, call_function, require_timing, require_timings, consume_timing, graph_text,
};

}  // namespace

Ref make_api_capsule() {
    return Ref::checked(PyCapsule_New(const_cast<native_api::Api*>(&api_table), native_api::capsule_name, nullptr));
}

}  // namespace tallowmere::native

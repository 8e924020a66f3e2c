// Calls of the sibling modules' functions that the module imports: through
// tallowmere._native's C API while the global (or the attribute of the
// _backtest_timing module) is still the compiled function, as written
// otherwise.
#include "calls.hpp"
#include "dispatch.hpp"

namespace tallowmere::calls {

namespace {

using native_api::Function;

Ref through_one(const Module& m, Function which, PyObject* name, const Ref& value) {
    return through_sibling_global(m, which, name, {value}, [&](const Ref& f) { return call(f, value); });
}

// The attribute `name` of `module` (the value of the _backtest_timing global),
// as `module.name(...)` finds it.
FoundMethod module_attribute(const Ref& module, PyObject* name) { return find_method(module, name); }

bool found_native(const Module& m, Function which, const FoundMethod& found) {
    return !found.unbound && is_native(m, which, found.callable.get());
}

}  // namespace

Ref coerce_mi_contract_value(const Module& m, const Ref& value) {
    return through_one(m, Function::coerce_mi_contract_value, m.n._coerce_mi_contract_value, value);
}

Ref is_finite_number(const Module& m, const Ref& value) {
    return through_one(m, Function::is_finite_number, m.n._is_finite_number, value);
}

Ref has_disallowed_mi_contract_field(const Module& m, const Ref& is_stats) {
    return through_one(m, Function::has_disallowed_mi_contract_field, m.n._has_disallowed_mi_contract_field, is_stats);
}

Ref has_non_finite_number(const Module& m, const Ref& value) {
    return through_one(m, Function::has_non_finite_number, m.n._has_non_finite_number, value);
}

Ref normalize_named_universe(const Module& m, const Ref& value) {
    return through_one(m, Function::normalize_named_universe, m.n._normalize_named_universe, value);
}

Ref is_unsafe_named_universe(const Module& m, const Ref& name) {
    return through_one(m, Function::is_unsafe_named_universe, m.n._is_unsafe_named_universe, name);
}

Ref measure_graph_complexity(const Module& m, const Ref& graph) {
    return through_one(m, Function::measure_graph_complexity, m.n.measure_graph_complexity, graph);
}

Ref evaluate_threshold_gates(const Module& m, const Ref& metrics, const Ref& threshold_set,
                             const Ref& pool_thresholds) {
    const Names& n = m.n;
    return through_sibling_global(m, Function::evaluate_threshold_gates, n.evaluate_threshold_gates,
                                  {metrics, threshold_set, pool_thresholds}, [&](const Ref& f) {
                                      return call_kw(f, {},
                                                     {{n.metrics, metrics},
                                                      {n.threshold_set, threshold_set},
                                                      {n.pool_thresholds, pool_thresholds}});
                                  });
}

Ref selected_signal_pool(const Module& m, const Ref& era, const Ref& signal_pool_name) {
    return through_sibling_global(m, Function::selected_signal_pool_from_era_config,
                                  m.n._shared_selected_signal_pool_from_era_config, {era, signal_pool_name},
                                  [&](const Ref& f) { return call(f, era, signal_pool_name); });
}

Ref require_recorded_backtest_timing(const Module& m, const Ref& graph, Ref* entry) {
    *entry = Ref();
    Ref timing{Borrowed(global_now(m, m.n._backtest_timing))};
    FoundMethod found = module_attribute(timing, m.n.require_recorded_backtest_timing);
    if (!found_native(m, Function::require_recorded_backtest_timing, found)) return call_found(found, timing, {graph});
    Ref native{Borrowed(m.state().native)};
    PyObject* kept = nullptr;
    Ref record = Ref::checked(m.state().native_api->require_timing(native.get(), graph.get(), &kept));
    *entry = Ref::steal(kept);
    return record;
}

Ref require_recorded_backtest_timings(const Module& m, const Ref& graphs, Ref* entries) {
    *entries = Ref();
    Ref timing{Borrowed(global_now(m, m.n._backtest_timing))};
    FoundMethod found = module_attribute(timing, m.n.require_recorded_backtest_timings);
    if (!found_native(m, Function::require_recorded_backtest_timings, found)) {
        return call_found(found, timing, {graphs});
    }
    Ref native{Borrowed(m.state().native)};
    PyObject* kept = nullptr;
    Ref records = Ref::checked(m.state().native_api->require_timings(native.get(), graphs.get(), &kept));
    *entries = Ref::steal(kept);
    return records;
}

Ref consume_recorded_backtest_timing(const Module& m, const Ref& timing, const Ref& graph, const Ref& entry) {
    FoundMethod found = module_attribute(timing, m.n.consume_recorded_backtest_timing);
    if (!found_native(m, Function::consume_recorded_backtest_timing, found)) return call_found(found, timing, {graph});
    Ref native{Borrowed(m.state().native)};
    Ref given = entry ? entry : Ref(none());
    return Ref::checked(m.state().native_api->consume_timing(native.get(), graph.get(), given.get()));
}

Ref assess_client_backtest_timing(const Module& m, const Ref& timing, const Ref& record, const Ref& frequency,
                                  const Ref& per_row_budget_seconds, const Ref& whole_budget_seconds) {
    const Names& n = m.n;
    FoundMethod found = module_attribute(timing, n.assess_client_backtest_timing);
    if (found_native(m, Function::assess_client_backtest_timing, found)) {
        return call_native(m, Function::assess_client_backtest_timing,
                           {record, frequency, per_row_budget_seconds, whole_budget_seconds});
    }
    return call_found(found, timing, {record},
                      {{n.frequency, frequency},
                       {n.per_row_budget_seconds, per_row_budget_seconds},
                       {n.whole_budget_seconds, whole_budget_seconds}});
}

bool graph_text(const Module& m, const Ref& entry, const Ref& graph, KnownText* known) {
    const native_api::Api* api = m.state().native_api;
    if (api == nullptr || !entry || entry.is_none()) return false;
    native_api::GraphText text{};
    if (!api->graph_text(m.state().native, entry.get(), graph.get(), &text)) return false;
    *known = {graph.get(), text.text, text.size, text.depth};
    return true;
}

}  // namespace tallowmere::calls

// What the sibling modules' fast paths keep in the module state.
//
// Each sibling module (graph_complexity, mi_contract, named_universe,
// threshold_gates, pool_identity, backtest_timing) registers itself at the end
// of its import through tallowmere._accelerate: the module's namespace, a copy
// of it as the module left it, and its plain-Python functions. A fast path
// runs only while the namespace still holds exactly those objects; once a
// global of the module is replaced, the module's Python function serves the
// call instead, so the compiled and the Python implementation never disagree.
#pragma once

#include "_native/siblings/api.hpp"
#include "core/records.hpp"
#include "core/ref.hpp"

#include <cstdint>

namespace tallowmere::native {

// X(identifier, text): identifiers carry the prefix sib_ so that they never
// meet the names of the module's other subsystems.
#define TALLOWMERE_SIBLING_NAMES(X)                                                      \
    X(sib___name__, "__name__")                                                          \
    X(sib_get, "get")                                                                    \
    X(sib_graph_complexity_module, "tallowmere.simulation.graph_complexity")             \
    X(sib_mi_contract_module, "tallowmere.simulation.mi_contract")                       \
    X(sib_named_universe_module, "tallowmere.simulation.named_universe")                 \
    X(sib_threshold_gates_module, "tallowmere.submissions.threshold_gates")              \
    X(sib_pool_identity_module, "tallowmere.submissions.pool_identity")                  \
    X(sib_backtest_timing_module, "tallowmere.simulation.backtest_timing")               \
    X(sib_GraphComplexity, "GraphComplexity")                                            \
    X(sib_depth, "depth")                                                                \
    X(sib_node_count, "node_count")                                                      \
    X(sib_graph_fingerprint, "graph_fingerprint")                                        \
    X(sib_measure_graph_complexity, "measure_graph_complexity")                          \
    X(sib_op, "op")                                                                      \
    X(sib_args, "args")                                                                  \
    X(sib_MI_CONTRACT_KEYS, "MI_CONTRACT_KEYS")                                          \
    X(sib__INFINITY_TEXT, "_INFINITY_TEXT")                                              \
    X(sib__coerce_mi_contract_value, "_coerce_mi_contract_value")                        \
    X(sib__has_disallowed_mi_contract_field, "_has_disallowed_mi_contract_field")        \
    X(sib__has_non_finite_number, "_has_non_finite_number")                              \
    X(sib__is_finite_number, "_is_finite_number")                                        \
    X(sib_MAX_NAMED_UNIVERSE_LENGTH, "MAX_NAMED_UNIVERSE_LENGTH")                        \
    X(sib__normalize_named_universe, "_normalize_named_universe")                        \
    X(sib__is_unsafe_named_universe, "_is_unsafe_named_universe")                        \
    X(sib_strip, "strip")                                                                \
    X(sib_ThresholdGateFailure, "ThresholdGateFailure")                                  \
    X(sib_ThresholdGateResult, "ThresholdGateResult")                                    \
    X(sib_gate, "gate")                                                                  \
    X(sib_actual, "actual")                                                              \
    X(sib_operator, "operator")                                                          \
    X(sib_threshold, "threshold")                                                        \
    X(sib_passed, "passed")                                                              \
    X(sib_failures, "failures")                                                          \
    X(sib__NAMED_GATES, "_NAMED_GATES")                                                  \
    X(sib_mi_threshold, "mi_threshold")                                                  \
    X(sib_is_pnl_mi_threshold, "is_pnl_mi_threshold")                                    \
    X(sib_at_most, "<=")                                                                 \
    X(sib_at_least, ">=")                                                                \
    X(sib_evaluate_threshold_gates, "evaluate_threshold_gates")                          \
    X(sib_metrics, "metrics")                                                            \
    X(sib_threshold_set, "threshold_set")                                                \
    X(sib_pool_thresholds, "pool_thresholds")                                            \
    X(sib_signal_pools, "signal_pools")                                                  \
    X(sib_name, "name")                                                                  \
    X(sib_signal_pool_name, "signal_pool_name")                                          \
    X(sib_selected_signal_pool_from_era_config, "selected_signal_pool_from_era_config")  \
    X(sib__STORE, "_STORE")                                                              \
    X(sib_lookup, "lookup")                                                              \
    X(sib_lookup_all, "lookup_all")                                                      \
    X(sib_consume, "consume")                                                            \
    X(sib_BacktestTimingStore, "BacktestTimingStore")                                    \
    X(sib__usable_entry, "_usable_entry")                                                \
    X(sib__lock, "_lock")                                                                \
    X(sib__clock, "_clock")                                                              \
    X(sib__entries, "_entries")                                                          \
    X(sib__lifetime_seconds, "_lifetime_seconds")                                        \
    X(sib__grace_seconds, "_grace_seconds")                                              \
    X(sib_stored_at, "stored_at")                                                        \
    X(sib_first_consumed_at, "first_consumed_at")                                        \
    X(sib_record, "record")                                                              \
    X(sib_move_to_end, "move_to_end")                                                    \
    X(sib___enter__, "__enter__")                                                        \
    X(sib___exit__, "__exit__")                                                          \
    X(sib_MISSING_TIMING_MESSAGE, "MISSING_TIMING_MESSAGE")                              \
    X(sib_require_recorded_backtest_timing, "require_recorded_backtest_timing")          \
    X(sib_require_recorded_backtest_timings, "require_recorded_backtest_timings")        \
    X(sib_consume_recorded_backtest_timing, "consume_recorded_backtest_timing")          \
    X(sib_assess_client_backtest_timing, "assess_client_backtest_timing")                \
    X(sib_frequency, "frequency")                                                        \
    X(sib_elapsed_seconds, "elapsed_seconds")                                            \
    X(sib_max_row_elapsed_seconds, "max_row_elapsed_seconds")                            \
    X(sib_per_row_budget_seconds, "per_row_budget_seconds")                              \
    X(sib_whole_budget_seconds, "whole_budget_seconds")                                  \
    X(sib_status, "status")                                                              \
    X(sib_reason, "reason")                                                              \
    X(sib_accepted, "accepted")                                                          \
    X(sib_rejected, "rejected")                                                          \
    X(sib_frequency_mismatch, "frequency_mismatch")                                      \
    X(sib_whole_budget_exceeded, "whole_budget_exceeded")                                \
    X(sib_row_budget_exceeded, "row_budget_exceeded")                                    \
    X(sib__C_API, "_C_API")

// The sibling modules with fast paths, in the order of their state slots.
enum class Sibling : unsigned char {
    graph_complexity,
    mi_contract,
    named_universe,
    threshold_gates,
    pool_identity,
    backtest_timing,
};
inline constexpr int sibling_count = 6;

// One registered sibling module.
struct SiblingSlot {
    PyObject* namespace_dict;  // the module's globals
    PyObject* snapshot;        // a copy of them as the module left them at import
    PyObject* python;          // name -> the plain-Python implementation
    // The namespace's version tag when it was last compared with the snapshot,
    // and whether it was equal then.
    uint64_t checked_version;
    bool intact;
};


// The timing store's class as backtest_timing defined it: the store's lookup
// and consume run in backtest_timing.cpp while the class holds what it held
// at registration (checked again whenever its type version changes) and the
// store uses a lock of the type the module's own store was made with.
struct StoreClass {
    PyObject* cls;
    PyObject* lookup;        // the class's functions
    PyObject* consume;
    PyObject* usable_entry;
    PyObject* lock_type;     // an immutable built-in type: its __enter__ and __exit__ are fixed
    unsigned int version_tag;  // the class's type version when last checked; 0: not checked
};

// Graphs whose timing was looked up for a submission, each with its
// fingerprint and what proves the graph unchanged (see graph.cpp).
inline constexpr int fingerprint_memo_size = 8;

struct SiblingsState {
    SiblingSlot slots[sibling_count];
    RecordClass graph_complexity;
    RecordClass gate_failure;
    RecordClass gate_result;
    StoreClass timing_store;
    // The function objects this module binds, to recognise them as callees
    // (here, and in the client through the C API).
    PyObject* graph_fingerprint_function;
    PyObject* functions[native_api::function_count];
    // Capsules of the remembered graphs, newest first.
    PyObject* fingerprint_memo[fingerprint_memo_size];

    template <class Visitor>
    void visit(Visitor&& visit_object) {
        for (SiblingSlot& slot : slots) {
            visit_object(slot.namespace_dict);
            visit_object(slot.snapshot);
            visit_object(slot.python);
        }
        visit_object(graph_complexity.cls);
        visit_object(gate_failure.cls);
        visit_object(gate_result.cls);
        visit_object(timing_store.cls);
        visit_object(timing_store.lookup);
        visit_object(timing_store.consume);
        visit_object(timing_store.usable_entry);
        visit_object(timing_store.lock_type);
        visit_object(graph_fingerprint_function);
        for (PyObject*& function : functions) visit_object(function);
        for (PyObject*& entry : fingerprint_memo) visit_object(entry);
    }
};

// Binds the fast paths into the module.
void bind_siblings(PyObject* module);

}  // namespace tallowmere::native

// What every fast path of a sibling module relies on: its module's
// registration, the check that the module is as it was imported, the way to
// hand a call to the module's Python implementation, and direct construction
// of the module's frozen result records.
//
// The rule each fast path follows: it works on the exact built-in types it
// knows (dict, list, tuple, str, int, float, bool, None) and, before it has
// run any Python code, hands anything else — a subclass, another type, any
// input that ends in an error — to the Python implementation, which then
// produces the result or the exact error. Once a fast path has run Python
// code (a store's method, a record's attribute), it carries on as the Python
// implementation would.
#pragma once

#include "_native/native_state.hpp"
#include "core/function.hpp"
#include "core/python.hpp"

#include <initializer_list>

namespace tallowmere::native {

// The registration of a sibling module, importing the module first when it
// has not registered yet.
SiblingSlot& sibling(const Module& m, Sibling which);

// True while the module's namespace holds exactly the objects it held when
// the module registered (at the end of its import).
bool sibling_intact(const Module& m, Sibling which);

// The module's Python implementation of `name`.
Ref python_implementation(const Module& m, Sibling which, PyObject* name);

// The module global `name`, read now.
Ref sibling_global(const Module& m, Sibling which, PyObject* name);

// Records the timing store's class (and the type of the lock of `store`, the
// module's own store) for the store's fast path, or disables that path when
// either is not as the module defines them.
void capture_timing_store(const Module& m, StoreClass& captured, PyObject* cls, PyObject* store);

// The exact built-in types the fast paths handle themselves.
inline bool is_exact_scalar(PyObject* value) {
    return value == Py_None || PyBool_Check(value) || PyLong_CheckExact(value) || PyFloat_CheckExact(value) ||
           PyUnicode_CheckExact(value);
}

// The bound function of each fast path, by file.
namespace sibling_members {
// graph.cpp
extern const Member measure_graph_complexity;
extern const Member graph_fingerprint;
extern const Member sha256_hexdigest;
// mi_contract.cpp
extern const Member is_finite_number;
extern const Member coerce_mi_contract_value;
extern const Member has_disallowed_mi_contract_field;
extern const Member has_non_finite_number;
// named_universe.cpp
extern const Member normalize_named_universe;
extern const Member is_unsafe_named_universe;
// threshold_gates.cpp
extern const Member evaluate_threshold_gates;
// pool_identity.cpp
extern const Member selected_signal_pool_from_era_config;
// backtest_timing.cpp
extern const Member require_recorded_backtest_timing;
extern const Member require_recorded_backtest_timings;
extern const Member consume_recorded_backtest_timing;
extern const Member assess_client_backtest_timing;
}  // namespace sibling_members

// The implementations of the bound functions, by file (the C API calls them
// directly; see api.hpp).
Ref measure_graph_complexity(const Module& m, const Ref& graph);
Ref is_finite_number(const Module& m, const Ref& value);
Ref coerce_mi_contract_value(const Module& m, const Ref& value);
Ref has_disallowed_mi_contract_field(const Module& m, const Ref& is_stats);
Ref has_non_finite_number(const Module& m, const Ref& value);
Ref normalize_named_universe(const Module& m, const Ref& value);
Ref is_unsafe_named_universe(const Module& m, const Ref& name);
Ref evaluate_threshold_gates(const Module& m, const Ref& metrics, const Ref& threshold_set, const Ref& pool_thresholds);
Ref selected_signal_pool_from_era_config(const Module& m, const Ref& era_config, const Ref& signal_pool_name);
Ref require_recorded_backtest_timing(const Module& m, const Ref& graph);
Ref require_recorded_backtest_timings(const Module& m, const Ref& graphs);
Ref consume_recorded_backtest_timing(const Module& m, const Ref& graph);
Ref assess_client_backtest_timing(const Module& m, const Ref& record, const Ref& frequency,
                                  const Ref& per_row_budget_seconds, const Ref& whole_budget_seconds);

// graph.cpp: the fingerprint of a graph, for callers inside this module, and
// what the computation does with the memo of recently fingerprinted graphs:
// consult it, remember the graph in it, or take the graph's entry out of it.
enum class Memo : unsigned char { consult, remember, take };
Ref fingerprint_graph(const Module& m, const Ref& graph, Memo memo);

// graph.cpp: graph entries. A graph entry keeps a graph with its canonical
// text, its fingerprint and what proves the graph unchanged since (see
// graph.cpp); the memo holds entries, and the C API hands them to the client.
//
// The fingerprint of `graph` as fingerprint_graph(graph, Memo::consult) gives
// it, and in *entry a new entry of it when one could be made (a graph of the
// exact JSON types, small enough to prove unchanged cheaply; else empty).
Ref fingerprint_with_entry(const Module& m, const Ref& graph, Ref* entry);
// The entry's fingerprint when `entry` is an entry of `graph` and the graph is
// unchanged since; empty otherwise. Runs no Python code.
Ref entry_fingerprint(PyObject* entry, PyObject* graph);
// The entry's canonical text, on the same condition.
bool entry_text(PyObject* entry, PyObject* graph, const char** text, size_t* size, size_t* depth);

// backtest_timing.cpp: the lookups of the C API, which pass graph entries
// instead of remembering fingerprints in the memo.
Ref require_timing_with_entry(const Module& m, const Ref& graph, Ref* entry);
Ref require_timings_with_entries(const Module& m, const Ref& graphs, Ref* entries);
Ref consume_timing_with_entry(const Module& m, const Ref& graph, const Ref& entry);

// api.cpp: the capsule of the C API, bound as the module's _C_API.
Ref make_api_capsule();

}  // namespace tallowmere::native

// What tallowmere._native offers tallowmere.submit in C, through the capsule
// "tallowmere._native._C_API" (the standard way one extension module lends
// its functions to another).
//
// The client calls the sibling modules' functions through its module globals.
// While such a global is still the compiled function of this module, the
// client calls the function's implementation through this table instead of
// through a Python call: the same code, the same results and errors, without
// building and parsing an argument list. It also lets a submission keep what
// it learned about its graph (the canonical text and its fingerprint) from
// the timing lookup to the consumption and the idempotency key, instead of
// encoding the graph once per step.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cstddef>

namespace tallowmere::native_api {

inline constexpr const char capsule_name[] = "tallowmere._native._C_API";
inline constexpr unsigned version = 1;

// The compiled functions, by the name the sibling module binds.
enum class Function : int {
    measure_graph_complexity,
    is_finite_number,
    coerce_mi_contract_value,
    has_disallowed_mi_contract_field,
    has_non_finite_number,
    normalize_named_universe,
    is_unsafe_named_universe,
    evaluate_threshold_gates,
    selected_signal_pool_from_era_config,
    require_recorded_backtest_timing,
    require_recorded_backtest_timings,
    consume_recorded_backtest_timing,
    assess_client_backtest_timing,
};
inline constexpr int function_count = 13;

// The canonical text of a graph as a graph entry holds it.
struct GraphText {
    const char* text;
    size_t size;
    size_t depth;  // how deeply containers nest in the graph
};

// Every function takes the tallowmere._native module first. Functions that
// return PyObject* give a new reference, or NULL with an exception set.
struct Api {
    unsigned version;

    // The module's function object `which`, as it bound it (borrowed; the
    // module keeps it).
    PyObject* (*function)(PyObject* native, Function which);

    // which(*args): `args` are the function's parameters in their declared
    // order, keyword-only ones included, all given.
    PyObject* (*call)(PyObject* native, Function which, PyObject* const* args, size_t count);

    // require_recorded_backtest_timing(graph). Instead of remembering the
    // graph's fingerprint in the module, hands the caller a graph entry in
    // *entry (a new reference to an opaque object; NULL when none was made).
    PyObject* (*require_timing)(PyObject* native, PyObject* graph, PyObject** entry);

    // require_recorded_backtest_timings(graphs), with one graph entry per
    // graph in *entries (a new list; None where none was made).
    PyObject* (*require_timings)(PyObject* native, PyObject* graphs, PyObject** entries);

    // consume_recorded_backtest_timing(graph), taking the fingerprint from
    // `entry` (or None) while it is that of the graph as it is now.
    PyObject* (*consume_timing)(PyObject* native, PyObject* graph, PyObject* entry);

    // The canonical text of `graph` from `entry` (or None): 1 when the entry
    // is the graph's and the graph is unchanged since, else 0. The text lives
    // as long as the entry. Runs no Python code.
    int (*graph_text)(PyObject* native, PyObject* entry, PyObject* graph, GraphText* out);
};

}  // namespace tallowmere::native_api

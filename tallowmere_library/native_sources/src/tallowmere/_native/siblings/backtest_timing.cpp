// tallowmere.simulation.backtest_timing: the module functions the submission
// client calls around the process-wide timing store.
//
// The store itself (its lock, expiry and bounds) stays the module's
// BacktestTimingStore, called through the module's `_STORE` as the Python
// functions call it; what is compiled is the work around it: the graph's
// fingerprint (computed once per submission: the lookup remembers it, the
// consumption takes it while the graph is unchanged) and the assessment of a
// record against an era's budgets.
#include "_native/siblings/support.hpp"
#include "core/containers.hpp"

#include <cmath>

namespace tallowmere::native {

namespace {

constexpr Sibling here = Sibling::backtest_timing;

// graph_fingerprint(graph) through the module global, calling this module's
// own fingerprint directly while the global is that function.
Ref fingerprint_of(const Module& m, const Ref& graph, Memo memo) {
    Ref function = sibling_global(m, here, m.n.sib_graph_fingerprint);
    if (function.get() == m.state().siblings.graph_fingerprint_function) return fingerprint_graph(m, graph, memo);
    return call(function, graph);
}

Ref store_of(const Module& m) { return sibling_global(m, here, m.n.sib__STORE); }

[[noreturn]] void raise_missing_timing(const Module& m, const Ref& suffix = Ref()) {
    Ref message = sibling_global(m, here, m.n.sib_MISSING_TIMING_MESSAGE);
    raise_value_error(suffix ? concat({format(message), suffix}) : message);
}

// ---- require / consume -------------------------------------------------------------------------

constexpr auto require_signature =
    signature("require_recorded_backtest_timing", Binding::module_function,
              "Return the usable record of ``graph`` without consuming it "
              "(compiled tallowmere.simulation.backtest_timing.require_recorded_backtest_timing).",
              param("graph"));

}  // namespace

Ref require_recorded_backtest_timing(const Module& m, const Ref& graph) {
    const Names& n = m.n;
    if (!sibling_intact(m, here)) {
        return call(python_implementation(m, here, n.sib_require_recorded_backtest_timing), graph);
    }
    // The submission consumes the record later: remember the fingerprint.
    Ref record = call_method(store_of(m), n.sib_lookup, fingerprint_of(m, graph, Memo::remember));
    if (record.is_none()) raise_missing_timing(m);
    return record;
}

namespace {

constexpr auto consume_signature =
    signature("consume_recorded_backtest_timing", Binding::module_function,
              "Return the usable record of ``graph`` (None when there is none) and mark it consumed "
              "(compiled tallowmere.simulation.backtest_timing.consume_recorded_backtest_timing).",
              param("graph"));

}  // namespace

Ref consume_recorded_backtest_timing(const Module& m, const Ref& graph) {
    const Names& n = m.n;
    if (!sibling_intact(m, here)) {
        return call(python_implementation(m, here, n.sib_consume_recorded_backtest_timing), graph);
    }
    return call_method(store_of(m), n.sib_consume, fingerprint_of(m, graph, Memo::take));
}

namespace {

constexpr auto require_all_signature =
    signature("require_recorded_backtest_timings", Binding::module_function,
              "Return the usable record of every graph of a batch, in batch order "
              "(compiled tallowmere.simulation.backtest_timing.require_recorded_backtest_timings).",
              param("graphs"));

Ref batch_item_suffix(Py_ssize_t index) { return format_text(" (batch item %zd)", index); }

}  // namespace

namespace {

// Every graph's usable record, in order; with `entries`, a graph entry per
// graph in a new list (None where none was made; a graph that comes again is
// encoded once).
Ref require_all(const Module& m, const Ref& graphs, Ref* entries) {
    const Names& n = m.n;
    if (!sibling_intact(m, here)) {
        return call(python_implementation(m, here, n.sib_require_recorded_backtest_timings), graphs);
    }
    bool own_fingerprint = entries != nullptr && sibling_global(m, here, n.sib_graph_fingerprint).get() ==
                                                     m.state().siblings.graph_fingerprint_function;
    Ref kept = new_list();
    // A graph's position in `kept`. An entry holds its graph, so an address
    // that names an entry's graph names that graph.
    PointerTable<Py_ssize_t> seen;
    Ref fingerprints = new_list();
    Py_ssize_t index = 0;
    for_each(graphs, [&](const Ref& graph) {
        Ref entry;
        Ref fingerprint = try_except(
            [&] {
                if (!own_fingerprint) return fingerprint_of(m, graph, Memo::consult);
                if (const Py_ssize_t* earlier = seen.find(graph.get())) {
                    Ref known{Borrowed(PyList_GET_ITEM(kept.get(), *earlier))};
                    if (Ref known_fingerprint = entry_fingerprint(known.get(), graph.get())) {
                        entry = known;
                        return known_fingerprint;
                    }
                }
                return fingerprint_with_entry(m, graph, &entry);
            },
            [&](const Caught& caught) -> Ref {
                if (!caught.matches(Borrowed(PyExc_ValueError))) caught.reraise();
                // raise ValueError(f"{exc} (batch item {index})") from None
                Ref message = concat({format(Ref(caught.exception())), batch_item_suffix(index)});
                Ref error = call(Borrowed(PyExc_ValueError), message);
                PyException_SetCause(error.get(), nullptr);
                raise_instance(error);
            });
        list_append(fingerprints, fingerprint);
        if (entry) seen.set(graph.get(), PyList_GET_SIZE(kept.get()));
        list_append(kept, entry ? entry : Ref(none()));
        ++index;
    });
    Ref records = call_method(store_of(m), n.sib_lookup_all, fingerprints);
    Ref found = new_list();
    index = 0;
    for_each(records, [&](const Ref& record) {
        if (record.is_none()) raise_missing_timing(m, batch_item_suffix(index));
        list_append(found, record);
        ++index;
    });
    if (entries != nullptr) *entries = kept;
    return found;
}

}  // namespace

Ref require_recorded_backtest_timings(const Module& m, const Ref& graphs) { return require_all(m, graphs, nullptr); }

Ref require_timings_with_entries(const Module& m, const Ref& graphs, Ref* entries) {
    *entries = Ref();
    return require_all(m, graphs, entries);
}

Ref require_timing_with_entry(const Module& m, const Ref& graph, Ref* entry) {
    const Names& n = m.n;
    *entry = Ref();
    if (!sibling_intact(m, here)) {
        return call(python_implementation(m, here, n.sib_require_recorded_backtest_timing), graph);
    }
    Ref kept;
    Ref fingerprint = sibling_global(m, here, n.sib_graph_fingerprint).get() ==
                              m.state().siblings.graph_fingerprint_function
                          ? fingerprint_with_entry(m, graph, &kept)
                          : fingerprint_of(m, graph, Memo::consult);
    Ref record = call_method(store_of(m), n.sib_lookup, fingerprint);
    if (record.is_none()) raise_missing_timing(m);
    *entry = kept;
    return record;
}

Ref consume_timing_with_entry(const Module& m, const Ref& graph, const Ref& entry) {
    const Names& n = m.n;
    if (!sibling_intact(m, here)) {
        return call(python_implementation(m, here, n.sib_consume_recorded_backtest_timing), graph);
    }
    Ref fingerprint;
    if (sibling_global(m, here, n.sib_graph_fingerprint).get() == m.state().siblings.graph_fingerprint_function &&
        sibling_intact(m, Sibling::graph_complexity)) {
        fingerprint = entry_fingerprint(entry.get(), graph.get());
    }
    if (!fingerprint) fingerprint = fingerprint_of(m, graph, Memo::take);
    return call_method(store_of(m), n.sib_consume, fingerprint);
}

namespace {

// ---- assess_client_backtest_timing ---------------------------------------------------------------

constexpr auto assess_signature =
    signature("assess_client_backtest_timing", Binding::module_function,
              "Judge a recorded timing against an era's frequency and budgets "
              "(compiled tallowmere.simulation.backtest_timing.assess_client_backtest_timing).",
              param("record"), keyword_only("frequency"), keyword_only("per_row_budget_seconds"),
              keyword_only("whole_budget_seconds"));

// _positive_seconds for an exact int or float it accepts; an empty Ref for
// anything the Python implementation must judge (or refuse).
Ref positive_seconds(const Ref& value) {
    double seconds;
    if (PyFloat_CheckExact(value.get())) {
        seconds = PyFloat_AS_DOUBLE(value.get());
    } else if (PyLong_CheckExact(value.get())) {
        seconds = PyLong_AsDouble(value.get());
        if (seconds == -1.0 && PyErr_Occurred()) {
            PyErr_Clear();
            return Ref();
        }
    } else {
        return Ref();
    }
    if (!std::isfinite(seconds) || seconds <= 0) return Ref();
    return PyFloat_CheckExact(value.get()) ? value : floating(seconds);
}

// `a op b` as the operator gives it: no identity shortcut.
bool operator_holds(const Ref& a, const Ref& b, int op) {
    return truthy(Ref::checked(PyObject_RichCompare(a.get(), b.get(), op)));
}

}  // namespace

Ref assess_client_backtest_timing(const Module& m, const Ref& record, const Ref& frequency,
                                  const Ref& per_row_budget_seconds, const Ref& whole_budget_seconds) {
    const Names& n = m.n;
    Ref per_row_budget, whole_budget;
    if (sibling_intact(m, here)) {
        per_row_budget = positive_seconds(per_row_budget_seconds);
        if (per_row_budget) whole_budget = positive_seconds(whole_budget_seconds);
    }
    if (!whole_budget) {
        return call_kw(python_implementation(m, here, n.sib_assess_client_backtest_timing), {record},
                       {{n.sib_frequency, frequency},
                        {n.sib_per_row_budget_seconds, per_row_budget_seconds},
                        {n.sib_whole_budget_seconds, whole_budget_seconds}});
    }
    PyObject* reason = Py_None;
    if (operator_holds(getattr(record, n.sib_frequency), frequency, Py_NE)) {
        reason = n.sib_frequency_mismatch;
    } else if (operator_holds(getattr(record, n.sib_elapsed_seconds), whole_budget, Py_GT)) {
        reason = n.sib_whole_budget_exceeded;
    } else if (operator_holds(getattr(record, n.sib_max_row_elapsed_seconds), per_row_budget, Py_GT)) {
        reason = n.sib_row_budget_exceeded;
    }
    Ref verdict = new_dict();
    set_item(verdict, Borrowed(n.sib_status), Borrowed(reason == Py_None ? n.sib_accepted : n.sib_rejected));
    set_item(verdict, Borrowed(n.sib_reason), Borrowed(reason));
    set_item(verdict, Borrowed(n.sib_elapsed_seconds), getattr(record, n.sib_elapsed_seconds));
    set_item(verdict, Borrowed(n.sib_max_row_elapsed_seconds), getattr(record, n.sib_max_row_elapsed_seconds));
    set_item(verdict, Borrowed(n.sib_per_row_budget_seconds), per_row_budget);
    set_item(verdict, Borrowed(n.sib_whole_budget_seconds), whole_budget);
    return verdict;
}


namespace sibling_members {
const Member require_recorded_backtest_timing =
    member<require_signature, tallowmere::native::require_recorded_backtest_timing>();
const Member require_recorded_backtest_timings =
    member<require_all_signature, tallowmere::native::require_recorded_backtest_timings>();
const Member consume_recorded_backtest_timing =
    member<consume_signature, tallowmere::native::consume_recorded_backtest_timing>();
const Member assess_client_backtest_timing =
    member<assess_signature, tallowmere::native::assess_client_backtest_timing>();
}  // namespace sibling_members

}  // namespace tallowmere::native

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

// ---- the store's lookup and consume ------------------------------------------------------------
//
// BacktestTimingStore.lookup and .consume, run here for a store whose class is
// unchanged since the module defined it and whose own attributes hide none of
// the methods involved: the same steps in the same order, every attribute read
// and every call made where the methods make them (the clock, whatever it is,
// is called with the lock held; a replaced entries mapping is called as one).
// Any other store, or a lock of another type, gets the method call itself.

const StoreClass& store_class(const Module& m) { return m.state().siblings.timing_store; }

// Whether the store's class `type` holds what the fast path relies on: the
// captured functions, no class attribute of the names it reads from the
// instance, generic attribute access, and `object` as its only base.
bool class_as_captured(const Names& n, const StoreClass& captured, PyTypeObject* type) {
    if (type->tp_getattro != PyObject_GenericGetAttr || type->tp_setattro != PyObject_GenericSetAttr) return false;
    PyObject* mro = type->tp_mro;
    if (mro == nullptr || PyTuple_GET_SIZE(mro) != 2 ||
        PyTuple_GET_ITEM(mro, 1) != reinterpret_cast<PyObject*>(&PyBaseObject_Type)) {
        return false;
    }
    // A class namespace has only str keys (type.__setattr__ takes no other),
    // so these lookups run no Python code.
    PyObject* namespace_dict = type->tp_dict;
    auto holds = [&](PyObject* name, PyObject* expected) {
        PyObject* value = PyDict_GetItemWithError(namespace_dict, name);
        if (value == nullptr && PyErr_Occurred()) propagate();
        return value == expected;
    };
    return holds(n.sib_lookup, captured.lookup) && holds(n.sib_consume, captured.consume) &&
           holds(n.sib__usable_entry, captured.usable_entry) && holds(n.sib__lock, nullptr) &&
           holds(n.sib__clock, nullptr) && holds(n.sib__entries, nullptr) && holds(n.sib__lifetime_seconds, nullptr) &&
           holds(n.sib__grace_seconds, nullptr);
}

// Whether the store's class is the captured one, as captured: checked again
// whenever its type version changed (a class changed and then restored, as a
// test's monkeypatch leaves it, qualifies again).
bool store_class_current(const Module& m, PyTypeObject* type) {
    StoreClass& captured = m.state().siblings.timing_store;
    if (captured.cls == nullptr || reinterpret_cast<PyObject*>(type) != captured.cls) return false;
    if (captured.version_tag != 0 && type->tp_version_tag == captured.version_tag) return true;
    captured.version_tag = 0;
    if (!class_as_captured(m.n, captured, type) || !PyUnstable_Type_AssignVersionTag(type)) return false;
    captured.version_tag = type->tp_version_tag;
    return true;
}

// Whether `store.name` is the class's `function` and the class is as captured.
bool runs_here(const Module& m, const Ref& store, PyObject* name, PyObject* function) {
    if (!store_class_current(m, Py_TYPE(store.get()))) return false;
    FoundMethod found = find_method(store, name);
    return found.unbound && found.callable.get() == function;
}

// with lock: return body()
template <class Body>
Ref holding(const Module& m, const Ref& lock, Body&& body) {
    const Names& n = m.n;
    call_method(lock, n.sib___enter__);
    Ref result = try_except(body, [&](const Caught& caught) -> Ref {
        Ref exception{caught.exception()};
        Ref traceback = Ref::steal(PyException_GetTraceback(exception.get()));
        Ref type{Borrowed(reinterpret_cast<PyObject*>(Py_TYPE(exception.get())))};
        // The lock's __exit__ never suppresses the exception.
        call_method(lock, n.sib___exit__, type, exception, traceback ? traceback : Ref(none()));
        caught.reraise();
    });
    call_method(lock, n.sib___exit__, none(), none(), none());
    return result;
}

// now - since >= limit(), evaluated in that order.
template <class Limit>
Ref at_least_since(const Ref& now, const Ref& since, Limit&& limit) {
    if (PyFloat_CheckExact(now.get()) && PyFloat_CheckExact(since.get())) {
        double elapsed = PyFloat_AS_DOUBLE(now.get()) - PyFloat_AS_DOUBLE(since.get());
        Ref bound = limit();
        if (PyFloat_CheckExact(bound.get())) return Ref(boolean(elapsed >= PyFloat_AS_DOUBLE(bound.get())));
        return Ref::checked(PyObject_RichCompare(floating(elapsed).get(), bound.get(), Py_GE));
    }
    Ref elapsed = Ref::checked(PyNumber_Subtract(now.get(), since.get()));
    Ref bound = limit();
    return Ref::checked(PyObject_RichCompare(elapsed.get(), bound.get(), Py_GE));
}

// self._entries.get(fingerprint)
Ref entries_get(const Module& m, const Ref& store, const Ref& fingerprint) {
    Ref entries = getattr(store, m.n.sib__entries);
    if (!PyODict_CheckExact(entries.get())) return call_method(entries, m.n.sib_get, fingerprint);
    PyObject* entry = PyDict_GetItemWithError(entries.get(), fingerprint.get());
    if (entry == nullptr && PyErr_Occurred()) propagate();
    return Ref(Borrowed(entry != nullptr ? entry : Py_None));
}

// self._usable_entry(fingerprint, now), `found` being that attribute.
Ref usable_entry(const Module& m, const Ref& store, const FoundMethod& found, const Ref& fingerprint, const Ref& now) {
    const Names& n = m.n;
    if (!found.unbound || found.callable.get() != store_class(m).usable_entry) {
        return call_found(found, store, {fingerprint, now});
    }
    Ref entry = entries_get(m, store, fingerprint);
    if (entry.is_none()) return entry;
    // expired = now - entry.stored_at >= self._lifetime_seconds or (
    //     entry.first_consumed_at is not None and now - entry.first_consumed_at >= self._grace_seconds)
    Ref expired = at_least_since(now, getattr(entry, n.sib_stored_at),
                                 [&] { return getattr(store, n.sib__lifetime_seconds); });
    if (!truthy(expired)) {
        Ref first_consumed_at = getattr(entry, n.sib_first_consumed_at);
        expired = first_consumed_at.is_none()
                      ? Ref(boolean(false))
                      : at_least_since(now, first_consumed_at, [&] { return getattr(store, n.sib__grace_seconds); });
    }
    if (truthy(expired)) {
        check_status(PyObject_DelItem(getattr(store, n.sib__entries).get(), fingerprint.get()));
        return Ref(none());
    }
    call_method(getattr(store, n.sib__entries), n.sib_move_to_end, fingerprint);
    return entry;
}

// store.lookup(fingerprint)
Ref store_lookup(const Module& m, const Ref& store, const Ref& fingerprint) {
    const Names& n = m.n;
    if (!runs_here(m, store, n.sib_lookup, store_class(m).lookup)) return call_method(store, n.sib_lookup, fingerprint);
    Ref lock = getattr(store, n.sib__lock);
    if (reinterpret_cast<PyObject*>(Py_TYPE(lock.get())) != store_class(m).lock_type) {
        return call_method(store, n.sib_lookup, fingerprint);
    }
    Ref entry = holding(m, lock, [&] {
        // entry = self._usable_entry(fingerprint, self._clock())
        FoundMethod found = find_method(store, n.sib__usable_entry);
        Ref now = call(getattr(store, n.sib__clock));
        return usable_entry(m, store, found, fingerprint, now);
    });
    return entry.is_none() ? entry : getattr(entry, n.sib_record);
}

// store.consume(fingerprint)
Ref store_consume(const Module& m, const Ref& store, const Ref& fingerprint) {
    const Names& n = m.n;
    if (!runs_here(m, store, n.sib_consume, store_class(m).consume)) {
        return call_method(store, n.sib_consume, fingerprint);
    }
    Ref lock = getattr(store, n.sib__lock);
    if (reinterpret_cast<PyObject*>(Py_TYPE(lock.get())) != store_class(m).lock_type) {
        return call_method(store, n.sib_consume, fingerprint);
    }
    return holding(m, lock, [&] {
        Ref now = call(getattr(store, n.sib__clock));
        FoundMethod found = find_method(store, n.sib__usable_entry);
        Ref entry = usable_entry(m, store, found, fingerprint, now);
        if (entry.is_none()) return entry;
        if (getattr(entry, n.sib_first_consumed_at).is_none()) setattr(entry, n.sib_first_consumed_at, now);
        return getattr(entry, n.sib_record);
    });
}

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
    Ref record = store_lookup(m, store_of(m), fingerprint_of(m, graph, Memo::remember));
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
    return store_consume(m, store_of(m), fingerprint_of(m, graph, Memo::take));
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
    Ref record = store_lookup(m, store_of(m), fingerprint);
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
    return store_consume(m, store_of(m), fingerprint);
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

void capture_timing_store(const Module& m, StoreClass& captured, PyObject* cls, PyObject* store) {
    const Names& n = m.n;
    for (PyObject** held : {&captured.cls, &captured.lookup, &captured.consume, &captured.usable_entry,
                            &captured.lock_type}) {
        Py_CLEAR(*held);
    }
    captured.version_tag = 0;
    if (cls == nullptr || store == nullptr || !PyType_Check(cls) || Py_TYPE(cls) != &PyType_Type) return;
    PyTypeObject* type = reinterpret_cast<PyTypeObject*>(cls);
    if (Py_TYPE(store) != type) return;
    auto function = [&](PyObject* name) -> PyObject* {
        PyObject* value = PyDict_GetItemWithError(type->tp_dict, name);
        return value != nullptr && PyFunction_Check(value) ? value : nullptr;
    };
    PyObject* lookup = function(n.sib_lookup);
    PyObject* consume = function(n.sib_consume);
    PyObject* usable = function(n.sib__usable_entry);
    if (PyErr_Occurred() || lookup == nullptr || consume == nullptr || usable == nullptr) return;
    Ref lock = Ref::steal(PyObject_GetAttr(store, n.sib__lock));
    if (!lock) {
        PyErr_Clear();
        return;
    }
    PyTypeObject* lock_type = Py_TYPE(lock.get());
    if (!PyType_HasFeature(lock_type, Py_TPFLAGS_IMMUTABLETYPE)) return;
    captured.cls = Py_NewRef(cls);
    captured.lookup = Py_NewRef(lookup);
    captured.consume = Py_NewRef(consume);
    captured.usable_entry = Py_NewRef(usable);
    captured.lock_type = Py_NewRef(reinterpret_cast<PyObject*>(lock_type));
    if (class_as_captured(n, captured, type) && PyUnstable_Type_AssignVersionTag(type)) {
        captured.version_tag = type->tp_version_tag;
    }
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

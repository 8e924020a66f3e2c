// The era gates a signal passes before it is sent (graph complexity, a
// recorded backtest timing within the era's budgets), the thresholds of a
// signal pool for a named universe, and the client's era catalog accessor.
#include "common.hpp"
#include "core/function.hpp"
#include "core/python.hpp"
#include "dispatch.hpp"
#include "members.hpp"

namespace tallowmere {

namespace {

// How long a fetched catalog serves before the next submission asks again.
constexpr double era_catalog_max_age_seconds = 60.0;

constexpr const char missing_timing_message[] =
    "recorded backtest timing is required before submit; run simulate_signal for this graph before submitting it";

Ref positive_era_int(const Module& m, const Ref& era, PyObject* field_name) {
    return calls::required_positive_era_int(m, era, field_name);
}

bool is_list_or_tuple(const Ref& value) { return PyList_Check(value.get()) || PyTuple_Check(value.get()); }

// ---- graph complexity -----------------------------------------------------------------

constexpr auto enforce_graph_complexity_signature = signature(
    "_enforce_graph_complexity_for_submit", Binding::module_function, nullptr, param("graph"), param("era"));

Ref enforce_graph_complexity_for_submit(const Module& m, const Ref& graph, const Ref& era) {
    const Names& n = m.n;
    Ref max_depth = positive_era_int(m, era, n.max_depth);
    Ref max_node_count = positive_era_int(m, era, n.max_node_count);
    Ref complexity = calls::measure_graph_complexity(m, graph);
    Ref depth = getattr(complexity, n.depth);
    if (compare(depth, max_depth, Py_GT)) {
        raise_value_error(concat({text("graph complexity depth "), format(depth), text(" exceeds max_depth "),
                                  format(max_depth)}));
    }
    Ref node_count = getattr(complexity, n.node_count);
    if (compare(node_count, max_node_count, Py_GT)) {
        raise_value_error(concat({text("graph complexity node_count "), format(node_count),
                                  text(" exceeds max_node_count "), format(max_node_count)}));
    }
    return complexity;
}

// ---- recorded backtest timing ------------------------------------------------------------

constexpr auto enforce_recorded_timing_signature = signature(
    "_enforce_recorded_backtest_timing_for_submit", Binding::module_function, nullptr, param("graph"), param("era"));

// `entry`: the graph entry of the submission's timing lookup, or empty.
Ref enforce_recorded_timing(const Module& m, const Ref& graph, const Ref& era, const Ref& entry) {
    const Names& n = m.n;
    Ref timing = m.global(n._backtest_timing);
    Ref record = calls::consume_recorded_backtest_timing(m, timing, graph, entry);
    if (record.is_none()) raise_value_error(missing_timing_message);

    Ref frequency = calls::required_era_frequency(m, era);
    Ref row_budget_ms = positive_era_int(m, era, n.backtest_row_budget_ms);
    Ref whole_budget_seconds = positive_era_int(m, era, n.backtest_whole_budget_seconds);
    Ref per_row_budget_seconds = Ref::checked(PyNumber_TrueDivide(row_budget_ms.get(), floating(1000.0).get()));
    Ref whole_budget = Ref::checked(PyNumber_Float(whole_budget_seconds.get()));

    Ref assessment =
        calls::assess_client_backtest_timing(m, timing, record, frequency, per_row_budget_seconds, whole_budget);
    if (equals(field_of(m, assessment, n.status), Borrowed(n.accepted))) return Ref(none());
    raise_value_error(concat({text("backtest timing budget exceeded: "), format(field_of(m, assessment, n.reason)),
                              text("; elapsed="), format(field_of(m, assessment, n.elapsed_seconds)),
                              text("; max_row="), format(field_of(m, assessment, n.max_row_elapsed_seconds)),
                              text("; row_budget="), format(field_of(m, assessment, n.per_row_budget_seconds)),
                              text("; total_budget="), format(field_of(m, assessment, n.whole_budget_seconds))}));
}

Ref enforce_recorded_backtest_timing_for_submit(const Module& m, const Ref& graph, const Ref& era) {
    return enforce_recorded_timing(m, graph, era, Ref());
}

// ---- universe rules and pool thresholds ----------------------------------------------------

// A rule reference equals a rule id as integers when both read as integers,
// otherwise as text.
bool rule_matches(const Module& m, const Ref& candidate, const Ref& rule_id) {
    if (candidate.is_none() || rule_id.is_none()) return false;
    Ref a = coerced_int(m, candidate);
    Ref b = coerced_int(m, rule_id);
    if (!a.is_none() && !b.is_none()) return equals(a, b);
    return equals(str(candidate), str(rule_id));
}

constexpr auto rule_id_for_named_universe_signature = signature(
    "_rule_id_for_named_universe", Binding::module_function, nullptr, param("era"), param("named_universe"));

Ref rule_id_for_named_universe(const Module& m, const Ref& era, const Ref& named_universe) {
    const Names& n = m.n;
    Ref rules = field_of(m, era, n.universe_rules);
    if (!is_list_or_tuple(rules)) return Ref(none());
    std::optional<Ref> found = find_first(rules, [&](const Ref& rule) -> std::optional<Ref> {
        Ref rule_id = field_of(m, rule, n.rule_id);
        Ref universes = field_of(m, rule, n.universes);
        if (rule_id.is_none() || !is_list_or_tuple(universes)) return std::nullopt;
        return find_first(universes, [&](const Ref& entry) -> std::optional<Ref> {
            if (is_str(entry)) {
                if (equals(entry, named_universe)) return rule_id;
                return std::nullopt;
            }
            for (PyObject* key : {n.name, n.id}) {
                Ref candidate = field_of(m, entry, key);
                if (!candidate.is_none() && equals(str(candidate), named_universe)) return rule_id;
            }
            return std::nullopt;
        });
    });
    return found.value_or(Ref(none()));
}

constexpr auto signal_is_thresholds_for_pool_signature = signature(
    "_signal_is_thresholds_for_pool", Binding::module_function, nullptr, param("pool"), param("rule_id"));

Ref signal_is_thresholds_for_pool(const Module& m, const Ref& pool, const Ref& rule_id) {
    const Names& n = m.n;
    Ref entries = field_of(m, pool, n.signal_is_thresholds);
    if (is_dict(entries)) {
        Ref entry = calls::mapping_lookup(m, entries, rule_id);
        return is_dict(entry) ? entry : Ref(none());
    }
    if (!is_list_or_tuple(entries)) return Ref(none());
    std::optional<Ref> found = find_first(entries, [&](const Ref& entry) -> std::optional<Ref> {
        if (!is_dict(entry)) return std::nullopt;
        for (PyObject* key : {n.universe_rule_id, n.rule_id}) {
            if (rule_matches(m, field_of(m, entry, key), rule_id)) return entry;
        }
        Ref universes = field_of(m, entry, n.universes);
        if (!is_list_or_tuple(universes)) return std::nullopt;
        return find_first(universes, [&](const Ref& candidate) -> std::optional<Ref> {
            if (rule_matches(m, candidate, rule_id)) return entry;
            return std::nullopt;
        });
    });
    return found.value_or(Ref(none()));
}

constexpr auto thresholds_from_catalog_signature =
    signature("_submission_thresholds_from_era_catalog", Binding::module_function, nullptr, param("catalog"),
              param("named_universe"), param("signal_pool_name"), param("market_id", none_default),
              param("era_number", none_default));

// The first of `keys` that `source` holds with a value other than None.
Ref first_present(const Module& m, const Ref& source, std::initializer_list<PyObject*> keys) {
    for (PyObject* key : keys) {
        Ref value = field_of(m, source, key);
        if (!value.is_none()) return value;
    }
    return Ref(none());
}

Ref submission_thresholds_from_era_catalog(const Module& m, const Ref& catalog, const Ref& named_universe,
                                           const Ref& signal_pool_name, const Ref& market_id, const Ref& era_number) {
    const Names& n = m.n;
    Ref era = calls::active_era_from_catalog(m, catalog, market_id, era_number);
    if (era.is_none()) raise_value_error("thresholds unavailable: /eras returned no active era");

    Ref rule_id = calls::rule_id_for_named_universe(m, era, named_universe);
    if (rule_id.is_none()) {
        raise_value_error(
            concat({text("thresholds unavailable: named_universe "), format(named_universe), text(" not found")}));
    }
    Ref pool = calls::selected_signal_pool(m, era, signal_pool_name);
    if (pool.is_none()) {
        raise_value_error(
            concat({text("thresholds unavailable: signal_pool_name "), format(signal_pool_name), text(" not found")}));
    }
    Ref entry = calls::signal_is_thresholds_for_pool(m, pool, rule_id);
    if (!is_dict(entry)) {
        raise_value_error(concat({text("thresholds unavailable: signal_pool_name "), format(signal_pool_name),
                                  text(" has no signal_is_thresholds for named_universe "), format(named_universe)}));
    }

    // The entry's threshold keys, without the keys that matched it to the rule.
    // A caller-built catalog may have keys of any type: their __eq__ and
    // __hash__ run below, so each pair is held while they do.
    Ref thresholds = new_dict();
    Ref entry_items = dict_copy(entry);
    for_each_dict_item(entry_items, [&](const Ref& key, const Ref& value) {
        bool matching_key = false;
        for (PyObject* skipped : {n.universe_rule_id, n.rule_id, n.universes, n.mi_threshold}) {
            matching_key = equals(key, Borrowed(skipped));
            if (matching_key) break;
        }
        if (!matching_key) set_item(thresholds, key, value);
    });

    Ref correlation = first_present(m, entry, {n.is_correlation_threshold});
    if (correlation.is_none()) correlation = first_present(m, pool, {n.is_correlation_threshold});
    if (correlation.is_none()) raise_value_error("thresholds unavailable: missing is_correlation_threshold");
    set_item(thresholds, Borrowed(n.is_correlation_threshold), correlation);

    Ref mutual_information = first_present(m, entry, {n.is_pnl_mi_threshold, n.mi_threshold});
    if (mutual_information.is_none()) mutual_information = first_present(m, pool, {n.is_pnl_mi_threshold, n.mi_threshold});
    if (mutual_information.is_none()) raise_value_error("thresholds unavailable: missing is_pnl_mi_threshold");
    set_item(thresholds, Borrowed(n.is_pnl_mi_threshold), mutual_information);
    return thresholds;
}

// ---- the client's catalog accessor ---------------------------------------------------------

constexpr auto fetch_era_catalog_signature =
    signature("SignalServiceClient._fetch_era_catalog", Binding::instance_method,
              "Return the service's era catalog (GET eras), kept for at most 60 seconds.");

bool usable_catalog(const Module& m, const Ref& catalog) {
    if (!is_dict(catalog)) return false;
    for (PyObject* key : {m.n.eras_by_market, m.n.market_era_groups, m.n.eras}) {
        Ref eras = mapping_get(m, catalog, key);
        if ((is_dict(eras) || is_list(eras)) && truthy(eras)) return true;
    }
    return false;
}

constexpr const char invalid_catalog_message[] =
    "thresholds are required for submit_signal; /eras returned invalid payload";

Ref monotonic_now(const Module& m) { return call_method(m.global(m.n.time), m.n.monotonic); }

Ref fetch_era_catalog(const Module& m, const Ref& self) {
    const Names& n = m.n;
    Ref cached = getattr(self, n._era_catalog_cache);
    if (!cached.is_none()) {
        // The stamp pairs the catalog this client fetched with the time it did;
        // a catalog placed in the cache by anyone else is used as it is.
        Ref stamp = getattr_or(self, n._era_catalog_cache_stamp, none());
        bool fetched_here = PyTuple_Check(stamp.get()) && PyTuple_GET_SIZE(stamp.get()) == 2 &&
                            PyTuple_GET_ITEM(stamp.get(), 0) == cached.get();
        if (!fetched_here) return cached;
        Ref fetched_at(Borrowed(PyTuple_GET_ITEM(stamp.get(), 1)));
        Ref now = monotonic_now(m);
        Ref age = Ref::checked(PyNumber_Subtract(now.get(), fetched_at.get()));
        if (compare(age, floating(era_catalog_max_age_seconds), Py_LT)) return cached;
    }

    Ref catalog = try_except(
        [&] {
            Ref answer = calls::canonical_request(m, self, n.GET, n.eras);
            return get_item(answer, integer(1));
        },
        [&](const Caught& caught) -> Ref {
            // An answer that arrived but is not a JSON object is an invalid
            // payload; no answer, or a refusal, means the catalog could not be fetched.
            if (caught.matches(m.global(n.SignalClientResponseError))) {
                raise_from(PyExc_ValueError, invalid_catalog_message, caught.exception());
            }
            Ref request_errors = new_tuple({Borrowed(PyExc_ConnectionError),
                                            getattr(m.global(n.httpx), n.TransportError),
                                            m.global(n.SubmissionRejectedError)});
            if (!caught.matches(request_errors)) caught.reraise();
            raise_from(PyExc_ValueError, "thresholds are required for submit_signal; could not fetch /eras",
                       caught.exception());
        });
    if (!usable_catalog(m, catalog)) {
        raise_value_error(invalid_catalog_message);
    }
    setattr(self, n._era_catalog_cache, catalog);
    setattr(self, n._era_catalog_cache_stamp, new_tuple({catalog, monotonic_now(m)}));
    return catalog;
}

constexpr auto resolve_submit_thresholds_signature =
    signature("SignalServiceClient._resolve_submit_thresholds", Binding::instance_method, nullptr,
              param("named_universe"), param("signal_pool_name"), param("market_id", none_default),
              param("era_number", none_default));

Ref resolve_submit_thresholds(const Module& m, const Ref& self, const Ref& named_universe, const Ref& signal_pool_name,
                              const Ref& market_id, const Ref& era_number) {
    Ref catalog = calls::fetch_era_catalog(m, self);
    return calls::submission_thresholds_from_era_catalog(m, catalog, named_universe, signal_pool_name, market_id,
                                                         era_number);
}

}  // namespace

namespace calls {

Ref enforce_graph_complexity_for_submit(const Module& m, const Ref& graph, const Ref& era) {
    return through_global(
        m, Own::enforce_graph_complexity_for_submit, m.n._enforce_graph_complexity_for_submit,
        [&] { return tallowmere::enforce_graph_complexity_for_submit(m, graph, era); },
        [&](const Ref& f) { return call(f, graph, era); });
}

Ref enforce_recorded_backtest_timing_for_submit(const Module& m, const Ref& graph, const Ref& era, const Ref& entry) {
    return through_global(
        m, Own::enforce_recorded_backtest_timing_for_submit, m.n._enforce_recorded_backtest_timing_for_submit,
        [&] { return tallowmere::enforce_recorded_timing(m, graph, era, entry); },
        [&](const Ref& f) { return call(f, graph, era); });
}

Ref rule_id_for_named_universe(const Module& m, const Ref& era, const Ref& named_universe) {
    return through_global(
        m, Own::rule_id_for_named_universe, m.n._rule_id_for_named_universe,
        [&] { return tallowmere::rule_id_for_named_universe(m, era, named_universe); },
        [&](const Ref& f) { return call(f, era, named_universe); });
}

Ref signal_is_thresholds_for_pool(const Module& m, const Ref& pool, const Ref& rule_id) {
    return through_global(
        m, Own::signal_is_thresholds_for_pool, m.n._signal_is_thresholds_for_pool,
        [&] { return tallowmere::signal_is_thresholds_for_pool(m, pool, rule_id); },
        [&](const Ref& f) { return call(f, pool, rule_id); });
}

Ref submission_thresholds_from_era_catalog(const Module& m, const Ref& catalog, const Ref& named_universe,
                                           const Ref& signal_pool_name, const Ref& market_id, const Ref& era_number) {
    const Names& n = m.n;
    return through_global(
        m, Own::submission_thresholds_from_era_catalog, n._submission_thresholds_from_era_catalog,
        [&] {
            return tallowmere::submission_thresholds_from_era_catalog(m, catalog, named_universe, signal_pool_name,
                                                                      market_id, era_number);
        },
        [&](const Ref& f) {
            return call_kw(f, {catalog, named_universe, signal_pool_name},
                           {{n.market_id, market_id}, {n.era_number, era_number}});
        });
}

Ref fetch_era_catalog(const Module& m, const Ref& self) {
    return through_attribute(
        m, Own::fetch_era_catalog, self, m.n._fetch_era_catalog,
        [&](const Ref& client) { return tallowmere::fetch_era_catalog(m, client); },
        [&](const FoundMethod& found) { return call_found(found, self, {}); });
}

Ref resolve_submit_thresholds(const Module& m, const Ref& self, const Ref& named_universe, const Ref& signal_pool_name,
                              const Ref& market_id, const Ref& era_number) {
    const Names& n = m.n;
    return through_attribute(
        m, Own::resolve_submit_thresholds, self, n._resolve_submit_thresholds,
        [&](const Ref& client) {
            return tallowmere::resolve_submit_thresholds(m, client, named_universe, signal_pool_name, market_id,
                                                         era_number);
        },
        [&](const FoundMethod& found) {
            return call_found(found, self, {named_universe, signal_pool_name},
                              {{n.market_id, market_id}, {n.era_number, era_number}});
        });
}

}  // namespace calls

namespace members {
const Member enforce_graph_complexity_for_submit =
    member<enforce_graph_complexity_signature, tallowmere::enforce_graph_complexity_for_submit>();
const Member enforce_recorded_backtest_timing_for_submit =
    member<enforce_recorded_timing_signature, tallowmere::enforce_recorded_backtest_timing_for_submit>();
const Member rule_id_for_named_universe =
    member<rule_id_for_named_universe_signature, tallowmere::rule_id_for_named_universe>();
const Member signal_is_thresholds_for_pool =
    member<signal_is_thresholds_for_pool_signature, tallowmere::signal_is_thresholds_for_pool>();
const Member submission_thresholds_from_era_catalog =
    member<thresholds_from_catalog_signature, tallowmere::submission_thresholds_from_era_catalog>();
namespace client {
const Member fetch_era_catalog = member<fetch_era_catalog_signature, tallowmere::fetch_era_catalog>();
const Member resolve_submit_thresholds =
    member<resolve_submit_thresholds_signature, tallowmere::resolve_submit_thresholds>();
}  // namespace client
}  // namespace members

}  // namespace tallowmere

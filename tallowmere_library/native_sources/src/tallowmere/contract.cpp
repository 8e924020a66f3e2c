// The submission contract, checked on the caller's side before anything is
// sent: pool and universe names, statistics, the mutual-information figure,
// the era's threshold gates, the expression timing and the manifest integers.
// Every refusal is a ValueError with a fixed text. Also the idempotency key a
// body gets when its caller supplies none.
#include "calls.hpp"
#include "common.hpp"
#include "core/function.hpp"
#include "core/python.hpp"
#include "dispatch.hpp"
#include "members.hpp"
#include "standard.hpp"

namespace tallowmere {

namespace {

constexpr const char mi_contract_message[] = "is_pnl_mi must be a scalar number or Infinity";

// ---- values of the contract ---------------------------------------------------------

constexpr auto mi_contract_json_value_signature =
    signature("_mi_contract_json_value", Binding::module_function, nullptr, param("value"));

Ref mi_contract_json_value(const Module& m, const Ref& value) {
    const Names& n = m.n;
    Ref v = calls::coerce_mi_contract_value(m, value);
    if (math_isinf(m, v)) {
        Ref zero = integer(0);
        if (compare(v, zero, Py_LT)) raise_value_error(mi_contract_message);
        return Ref(Borrowed(compare(v, zero, Py_GT) ? n.Infinity : n.minus_Infinity));
    }
    if (is_exact_float(v)) return v;
    return Ref::checked(PyNumber_Float(v.get()));
}

constexpr auto stat_metric_signature =
    signature("_stat_metric", Binding::module_function, nullptr, param("is_stats"), param("keys"));

Ref stat_metric(const Module& m, const Ref& is_stats, const Ref& keys) {
    std::optional<Ref> metric = find_first(keys, [&](const Ref& key) -> std::optional<Ref> {
        Ref value = mapping_get(m, is_stats, key);
        if (!truthy(calls::is_finite_number(m, value))) return std::nullopt;
        return is_exact_float(value) ? value : Ref::checked(PyNumber_Float(value.get()));
    });
    return metric.value_or(Ref(none()));
}

constexpr auto reject_caller_threshold_authority_signature =
    signature("_reject_caller_threshold_authority", Binding::module_function, nullptr,
              param("threshold_checks", none_default), param("thresholds", none_default));

Ref reject_caller_threshold_authority(const Module&, const Ref& threshold_checks, const Ref& thresholds) {
    if (threshold_checks.is_none() && thresholds.is_none()) return Ref(none());
    raise_value_error(caller_thresholds_message);
}

constexpr auto validate_submission_thresholds_signature =
    signature("_validate_submission_thresholds", Binding::module_function, nullptr, param("is_stats"),
              param("is_pnl_mi"), param("thresholds", none_default));

Ref validate_submission_thresholds(const Module& m, const Ref& is_stats, const Ref& is_pnl_mi, const Ref& thresholds) {
    const Names& n = m.n;
    if (thresholds.is_none()) return Ref(none());
    if (!is_dict(thresholds)) raise_value_error("thresholds must be a dict");

    struct MetricKeys {
        PyObject* metric;
        std::initializer_list<PyObject*> keys;
    };
    const MetricKeys statistics[] = {
        {n.sharpe, {n.sharpe, n.is_sharpe, n.gross_returns_sharpe}},
        {n.turnover, {n.turnover, n.avg_turnover, n.is_turnover_pct}},
        {n.delta_exposure, {n.delta_exposure}},
        {n.max_weight, {n.max_weight}},
        {n.abs_weight_sum_mean, {n.abs_weight_sum_mean}},
        {n.is_correlation, {n.correlation, n.is_correlation}},
    };
    Ref metrics = new_dict();
    for (const MetricKeys& statistic : statistics) {
        Ref keys = Ref::checked(PyTuple_New(static_cast<Py_ssize_t>(statistic.keys.size())));
        Py_ssize_t i = 0;
        for (PyObject* key : statistic.keys) PyTuple_SET_ITEM(keys.get(), i++, Py_NewRef(key));
        set_item(metrics, Borrowed(statistic.metric), calls::stat_metric(m, is_stats, keys));
    }
    set_item(metrics, Borrowed(n.is_pnl_mi), calls::coerce_mi_contract_value(m, is_pnl_mi));

    Ref result = calls::evaluate_threshold_gates(m, metrics, thresholds, thresholds);
    if (truthy(getattr(result, n.passed))) return Ref(none());
    Ref failure = get_item(getattr(result, n.failures), integer(0));
    raise_value_error(concat({format(getattr(failure, n.gate)), text(" failed: "), format(getattr(failure, n.actual)),
                              text(" "), format(getattr(failure, n.operator_)), text(" "),
                              format(getattr(failure, n.threshold))}));
}

constexpr auto validate_optional_manifest_int_signature = signature(
    "_validate_optional_manifest_int", Binding::module_function, nullptr, param("value"), param("field_name"));

Ref validate_optional_manifest_int(const Module&, const Ref& value, const Ref& field_name) {
    if (value.is_none()) return Ref(none());
    if (is_bool(value) || !is_exact_int(value) || compare(value, integer(0), Py_LE)) {
        raise_value_error(concat({format(field_name), text(" must be a positive integer")}));
    }
    return Ref(value);
}

constexpr auto submission_is_stats_payload_signature =
    signature("_submission_is_stats_payload", Binding::module_function, nullptr, param("is_stats"));

Ref submission_is_stats_payload(const Module& m, const Ref& is_stats) {
    Ref payload = dict_copy(is_stats);
    call_method(payload, m.n.pop, Borrowed(m.n._threshold_checks), none());
    return payload;
}

// ---- names of the submission ------------------------------------------------------------

constexpr auto validate_selected_pool_name_signature =
    signature("_validate_selected_pool_name", Binding::module_function, nullptr, param("value"),
              param("field_name", constant_default<&ModuleState::default_pool_field_name>("'signal_pool_name'")));

Ref validate_selected_pool_name(const Module&, const Ref& value, const Ref& field_name) {
    if (!is_str(value) || PyUnicode_GET_LENGTH(value.get()) == 0) {
        raise_value_error(concat({format(field_name), text(" must be a non-empty string")}));
    }
    return Ref(none());
}

constexpr auto validate_named_universe_signature =
    signature("_validate_named_universe", Binding::module_function, nullptr, param("value"));

// The configured default universe of the local agent; "" when there is none or
// it cannot be read.
Ref configured_named_universe(const Module& m) {
    const Names& n = m.n;
    return try_except(
        [&] {
            Ref package = text("tallowmere.agent_onboarding");
            Ref fromlist = new_tuple({Borrowed(n._config)});
            Ref onboarding = Ref::checked(
                PyImport_ImportModuleLevelObject(package.get(), nullptr, nullptr, fromlist.get(), 0));
            Ref config = getattr(onboarding, n._config);
            Ref configured = call_method(config, n.get, Borrowed(n.named_universe));
            if (!truthy(configured)) configured = Ref(Borrowed(m.state().empty_text));
            return call_method(str(configured), n.strip);
        },
        [&](const Caught& caught) -> Ref {
            if (!caught.matches(Borrowed(PyExc_Exception))) caught.reraise();
            return Ref(Borrowed(m.state().empty_text));
        });
}

Ref validate_named_universe(const Module& m, const Ref& value) {
    Ref named_universe = calls::normalize_named_universe(m, value);
    if (!truthy(named_universe)) named_universe = configured_named_universe(m);
    if (!truthy(named_universe)) raise_value_error("named_universe is required");
    if (truthy(calls::is_unsafe_named_universe(m, named_universe))) {
        raise_value_error(concat({text("named_universe must be a single safe path segment, got "), repr(value)}));
    }
    return named_universe;
}

constexpr auto reject_retired_universe_aliases_signature =
    signature("_reject_retired_universe_aliases", Binding::module_function, nullptr, param("body"));

Ref reject_retired_universe_aliases(const Module& m, const Ref& body) {
    if (!is_dict(body)) return Ref(none());
    Ref aliases = m.global(m.n._RETIRED_UNIVERSE_ALIAS_KEYS);
    for_each(aliases, [&](const Ref& key) {
        if (contains(body, key)) raise_value_error(concat({format(key), text(" is retired; submit named_universe")}));
    });
    return Ref(none());
}

// ---- SignalServiceClient._validate_submission_contract --------------------------------------

constexpr auto validate_submission_contract_signature = signature(
    "SignalServiceClient._validate_submission_contract", Binding::static_method, nullptr, param("signal_pool_name"),
    param("is_stats"), param("is_pnl_mi"), param("expression_elapsed_seconds"), param("thresholds", none_default),
    param("client_manifest_version", none_default), param("client_manifest_market_id", none_default),
    param("client_manifest_era_number", none_default));

Ref validate_submission_contract(const Module& m, const Ref& signal_pool_name, const Ref& is_stats, const Ref& is_pnl_mi,
                                 const Ref& expression_elapsed_seconds, const Ref& thresholds,
                                 const Ref& client_manifest_version, const Ref& client_manifest_market_id,
                                 const Ref& client_manifest_era_number) {
    const Names& n = m.n;
    calls::validate_selected_pool_name(m, signal_pool_name, n.signal_pool_name);
    if (!is_dict(is_stats)) raise_value_error("is_stats must be a dict");
    if (truthy(calls::has_disallowed_mi_contract_field(m, is_stats))) {
        raise_value_error("is_stats must not contain MI contract fields");
    }
    if (truthy(calls::has_non_finite_number(m, is_stats))) {
        raise_value_error("is_stats values must be finite numbers");
    }
    calls::coerce_mi_contract_value(m, is_pnl_mi);
    calls::validate_submission_thresholds(m, is_stats, is_pnl_mi, thresholds);

    bool positive_finite_float = is_exact_float(expression_elapsed_seconds) &&
                                 math_isfinite(m, expression_elapsed_seconds) &&
                                 PyFloat_AS_DOUBLE(expression_elapsed_seconds.get()) > 0.0;
    if (!positive_finite_float) raise_value_error("expression_elapsed_seconds must be a positive float");

    calls::validate_optional_manifest_int(m, client_manifest_version, n.client_manifest_version);
    calls::validate_optional_manifest_int(m, client_manifest_market_id, n.client_manifest_market_id);
    calls::validate_optional_manifest_int(m, client_manifest_era_number, n.client_manifest_era_number);
    return Ref(none());
}

// ---- SignalServiceClient._idempotency_key_for_body ------------------------------------------

constexpr auto idempotency_key_for_body_signature = signature(
    "SignalServiceClient._idempotency_key_for_body", Binding::static_method, nullptr, param("body"));

// Whether every key of the exact dict `body` is an exact str, so that
// comparing and storing them runs no Python code.
bool text_keys_only(PyObject* body) {
    Py_ssize_t position = 0;
    PyObject *key, *value;
    while (PyDict_Next(body, &position, &key, &value)) {
        if (!PyUnicode_CheckExact(key)) return false;
    }
    return true;
}

// {key: value for key, value in body.items() if key != "idempotency_key"}
Ref unkeyed_payload(const Module& m, const Ref& body) {
    PyObject* skipped = m.n.idempotency_key;
    Ref payload = new_dict();
    if (PyDict_CheckExact(body.get()) && text_keys_only(body.get())) {
        Py_ssize_t position = 0;
        PyObject *key, *value;
        while (PyDict_Next(body.get(), &position, &key, &value)) {
            if (key != skipped && PyUnicode_Compare(key, skipped) != 0) {
                check_status(PyDict_SetItem(payload.get(), key, value));
            }
        }
        return payload;
    }
    for_each(call_method(body, m.n.items), [&](const Ref& item) {
        auto [key, value] = unpack_pair(item);
        if (compare(key, Borrowed(skipped), Py_NE)) set_item(payload, key, value);
    });
    return payload;
}

Ref idempotency_key(const Module& m, const Ref& body, const GraphAndEntry* graph) {
    Ref digest = canonical_json_digest(m, unkeyed_payload(m, body), graph);
    return concat({Borrowed(m.n.sigsubmit_prefix), digest});
}

Ref idempotency_key_for_body(const Module& m, const Ref& body) { return idempotency_key(m, body, nullptr); }

}  // namespace

namespace calls {

Ref mi_contract_json_value(const Module& m, const Ref& value) {
    return through_global(
        m, Own::mi_contract_json_value, m.n._mi_contract_json_value,
        [&] { return tallowmere::mi_contract_json_value(m, value); }, [&](const Ref& f) { return call(f, value); });
}

Ref stat_metric(const Module& m, const Ref& is_stats, const Ref& keys) {
    return through_global(
        m, Own::stat_metric, m.n._stat_metric, [&] { return tallowmere::stat_metric(m, is_stats, keys); },
        [&](const Ref& f) { return call(f, is_stats, keys); });
}

Ref reject_caller_threshold_authority(const Module& m, const Ref& threshold_checks, const Ref& thresholds) {
    const Names& n = m.n;
    return through_global(
        m, Own::reject_caller_threshold_authority, n._reject_caller_threshold_authority,
        [&] { return tallowmere::reject_caller_threshold_authority(m, threshold_checks, thresholds); },
        [&](const Ref& f) {
            return call_kw(f, {}, {{n.threshold_checks, threshold_checks}, {n.thresholds, thresholds}});
        });
}

Ref validate_submission_thresholds(const Module& m, const Ref& is_stats, const Ref& is_pnl_mi, const Ref& thresholds) {
    const Names& n = m.n;
    return through_global(
        m, Own::validate_submission_thresholds, n._validate_submission_thresholds,
        [&] { return tallowmere::validate_submission_thresholds(m, is_stats, is_pnl_mi, thresholds); },
        [&](const Ref& f) { return call_kw(f, {is_stats, is_pnl_mi}, {{n.thresholds, thresholds}}); });
}

Ref validate_optional_manifest_int(const Module& m, const Ref& value, PyObject* field_name) {
    Ref name{Borrowed(field_name)};
    return through_global(
        m, Own::validate_optional_manifest_int, m.n._validate_optional_manifest_int,
        [&] { return tallowmere::validate_optional_manifest_int(m, value, name); },
        [&](const Ref& f) { return call(f, value, name); });
}

Ref submission_is_stats_payload(const Module& m, const Ref& is_stats) {
    return through_global(
        m, Own::submission_is_stats_payload, m.n._submission_is_stats_payload,
        [&] { return tallowmere::submission_is_stats_payload(m, is_stats); },
        [&](const Ref& f) { return call(f, is_stats); });
}

Ref validate_selected_pool_name(const Module& m, const Ref& value, PyObject* field_name) {
    Ref name{Borrowed(field_name)};
    return through_global(
        m, Own::validate_selected_pool_name, m.n._validate_selected_pool_name,
        [&] { return tallowmere::validate_selected_pool_name(m, value, name); },
        [&](const Ref& f) { return call(f, value, name); });
}

Ref validate_named_universe(const Module& m, const Ref& value) {
    return through_global(
        m, Own::validate_named_universe, m.n._validate_named_universe,
        [&] { return tallowmere::validate_named_universe(m, value); }, [&](const Ref& f) { return call(f, value); });
}

Ref reject_retired_universe_aliases(const Module& m, const Ref& body) {
    return through_global(
        m, Own::reject_retired_universe_aliases, m.n._reject_retired_universe_aliases,
        [&] { return tallowmere::reject_retired_universe_aliases(m, body); }, [&](const Ref& f) { return call(f, body); });
}

Ref validate_submission_contract(const Module& m, const Ref& self, const Ref& signal_pool_name, const Ref& is_stats,
                                 const Ref& is_pnl_mi, const Ref& expression_elapsed_seconds, const Ref& thresholds,
                                 const Ref& client_manifest_version, const Ref& client_manifest_market_id,
                                 const Ref& client_manifest_era_number) {
    const Names& n = m.n;
    return through_attribute(
        m, Own::validate_submission_contract, self, n._validate_submission_contract,
        [&](const Ref&) {
            return tallowmere::validate_submission_contract(m, signal_pool_name, is_stats, is_pnl_mi,
                                                            expression_elapsed_seconds, thresholds,
                                                            client_manifest_version, client_manifest_market_id,
                                                            client_manifest_era_number);
        },
        [&](const FoundMethod& found) {
            return call_found(found, self, {signal_pool_name, is_stats, is_pnl_mi, expression_elapsed_seconds},
                              {{n.thresholds, thresholds},
                               {n.client_manifest_version, client_manifest_version},
                               {n.client_manifest_market_id, client_manifest_market_id},
                               {n.client_manifest_era_number, client_manifest_era_number}});
        });
}

Ref idempotency_key_for_body(const Module& m, const Ref& self, const Ref& body, const GraphAndEntry* graph) {
    return through_attribute(
        m, Own::idempotency_key_for_body, self, m.n._idempotency_key_for_body,
        [&](const Ref&) { return tallowmere::idempotency_key(m, body, graph); },
        [&](const FoundMethod& found) { return call_found(found, self, {body}); });
}

}  // namespace calls

namespace members {
const Member mi_contract_json_value = member<mi_contract_json_value_signature, tallowmere::mi_contract_json_value>();
const Member stat_metric = member<stat_metric_signature, tallowmere::stat_metric>();
const Member reject_caller_threshold_authority =
    member<reject_caller_threshold_authority_signature, tallowmere::reject_caller_threshold_authority>();
const Member validate_submission_thresholds =
    member<validate_submission_thresholds_signature, tallowmere::validate_submission_thresholds>();
const Member validate_optional_manifest_int =
    member<validate_optional_manifest_int_signature, tallowmere::validate_optional_manifest_int>();
const Member submission_is_stats_payload =
    member<submission_is_stats_payload_signature, tallowmere::submission_is_stats_payload>();
const Member validate_selected_pool_name =
    member<validate_selected_pool_name_signature, tallowmere::validate_selected_pool_name>();
const Member validate_named_universe = member<validate_named_universe_signature, tallowmere::validate_named_universe>();
const Member reject_retired_universe_aliases =
    member<reject_retired_universe_aliases_signature, tallowmere::reject_retired_universe_aliases>();
namespace client {
const Member validate_submission_contract =
    member<validate_submission_contract_signature, tallowmere::validate_submission_contract>();
const Member idempotency_key_for_body =
    member<idempotency_key_for_body_signature, tallowmere::idempotency_key_for_body>();
}  // namespace client
}  // namespace members

}  // namespace tallowmere

// Status and listing: the status of one submission, a filtered list of the
// caller's submissions, and polling until a terminal status — each outcome a
// StatusResult or SubmissionListResult, never an exception for what the
// service or the network did (except a malformed answer outside 400-499).
#include "calls.hpp"
#include "core/function.hpp"
#include "core/python.hpp"
#include "dispatch.hpp"
#include "members.hpp"
#include "request_errors.hpp"

#include <vector>

namespace tallowmere {

namespace {

// ---- reading a status body ----------------------------------------------------------------

constexpr auto coerce_status_metric_signature =
    signature("_coerce_status_metric", Binding::module_function, nullptr, param("value"));

Ref coerce_status_metric(const Module& m, const Ref& value) {
    if (equals(value, Borrowed(m.n.Infinity))) return floating(Py_HUGE_VAL);
    if (equals(value, Borrowed(m.n.minus_Infinity))) return floating(-Py_HUGE_VAL);
    return Ref(value);
}

constexpr auto failure_reason_from_status_body_signature =
    signature("_failure_reason_from_status_body", Binding::module_function, nullptr, param("body"));

Ref failure_reason_from_status_body(const Module& m, const Ref& body) {
    const Names& n = m.n;
    Ref failure_reason = mapping_get(m, body, n.failure_reason);
    Ref failure_detail = mapping_get(m, body, n.failure_detail);
    Ref rejection_reason = str(mapping_get(m, body, n.rejection_reason));
    bool tampering = truthy(call_method(rejection_reason, n.endswith, Borrowed(n.tampering_detected_suffix)));
    if (tampering && is_dict(failure_detail) &&
        equals(mapping_get(m, failure_detail, n.reason), Borrowed(n.stats_mismatch))) {
        return Ref(Borrowed(n.stats_mismatch));
    }
    return failure_reason;
}

constexpr auto public_status_body_signature =
    signature("_public_status_body", Binding::module_function, nullptr, param("body"));

Ref public_status_body(const Module& m, const Ref& body) {
    const Names& n = m.n;
    if (!contains(body, Borrowed(n.correlation)) && !contains(body, Borrowed(n.is_weights_mi))) return Ref(body);
    Ref public_body = new_dict();
    for_each(call_method(body, n.items), [&](const Ref& item) {
        auto [key, value] = unpack_pair(item);
        if (!equals(key, Borrowed(n.correlation)) && !equals(key, Borrowed(n.is_weights_mi))) {
            set_item(public_body, key, value);
        }
    });
    return public_body;
}

// ---- StatusResult mappings --------------------------------------------------------------------

constexpr auto status_result_from_body_signature =
    signature("SignalServiceClient._status_result_from_body", Binding::static_method, nullptr, param("status_code"),
              param("body"));

Ref status_result_from_body(const Module& m, const Ref& status_code, const Ref& body) {
    const Names& n = m.n;
    Ref public_body = calls::public_status_body(m, body);
    Ref status = mapping_get(m, body, n.status);
    Ref signal_pool_name = mapping_get(m, body, n.signal_pool_name);
    Ref strategy_pool_name = mapping_get(m, body, n.strategy_pool_name);
    Ref is_stats = mapping_get(m, body, n.is_stats);
    Ref payment = mapping_get(m, body, n.payment);
    Ref rejection_reason = mapping_get(m, body, n.rejection_reason);
    Ref is_correlation = mapping_get(m, body, n.is_correlation);
    Ref agent_is_correlation = mapping_get(m, body, n.agent_is_correlation);
    Ref is_pnl_mi = calls::coerce_status_metric(m, mapping_get(m, body, n.is_pnl_mi));
    Ref agent_is_pnl_mi = calls::coerce_status_metric(m, mapping_get(m, body, n.agent_is_pnl_mi));
    Ref failure_reason = calls::failure_reason_from_status_body(m, body);
    Ref failure_detail = mapping_get(m, body, n.failure_detail);
    Ref failure_message = mapping_get(m, body, n.failure_message);
    return call_global_kw(m, n.StatusResult, {},
                          {{n.status_code, status_code},
                           {n.body, public_body},
                           {n.status, status},
                           {n.signal_pool_name, signal_pool_name},
                           {n.strategy_pool_name, strategy_pool_name},
                           {n.error, none()},
                           {n.is_stats, is_stats},
                           {n.payment, payment},
                           {n.rejection_reason, rejection_reason},
                           {n.is_correlation, is_correlation},
                           {n.agent_is_correlation, agent_is_correlation},
                           {n.is_pnl_mi, is_pnl_mi},
                           {n.agent_is_pnl_mi, agent_is_pnl_mi},
                           {n.failure_reason, failure_reason},
                           {n.failure_detail, failure_detail},
                           {n.failure_message, failure_message}});
}

// StatusResult of a failed request: no status, no pools.
Ref failed_status_result(const Module& m, const Ref& status_code, const Ref& body, const Ref& error) {
    const Names& n = m.n;
    return call_global_kw(m, n.StatusResult, {},
                          {{n.status_code, status_code},
                           {n.body, body},
                           {n.status, none()},
                           {n.signal_pool_name, none()},
                           {n.strategy_pool_name, none()},
                           {n.error, error}});
}

constexpr auto status_result_from_rejection_signature = signature(
    "SignalServiceClient._status_result_from_rejection", Binding::static_method, nullptr, param("exc"));

Ref status_result_from_rejection(const Module& m, const Ref& exc) {
    return failed_status_result(m, getattr(exc, m.n.status_code), getattr(exc, m.n.body), getattr(exc, m.n.reason));
}

constexpr auto status_result_from_response_error_signature =
    signature("SignalServiceClient._status_result_from_response_error", Binding::class_method, nullptr,
              param("cls"), param("exc"));

Ref status_result_from_response_error(const Module& m, const Ref& cls, const Ref& exc) {
    auto [error, body] = unpack_pair(calls::error_body_from_response_error(m, cls, exc));
    return failed_status_result(m, getattr(exc, m.n.status_code), body, error);
}

constexpr auto status_result_from_transport_error_signature = signature(
    "SignalServiceClient._status_result_from_transport_error", Binding::static_method, nullptr, param("exc"));

Ref status_result_from_transport_error(const Module& m, const Ref& exc) {
    return failed_status_result(m, integer(0), none(), transport_error_text(m, exc));
}

// ---- get_signal_status -----------------------------------------------------------------------

constexpr auto get_signal_status_signature =
    signature("SignalServiceClient.get_signal_status", Binding::instance_method,
              "Return the status of one submission as a StatusResult.\n\n"
              "Transport failures (status_code 0), rejections and malformed 4xx answers\n"
              "are reported in the result; a malformed answer with any other status raises\n"
              "SignalClientResponseError.",
              param("submission_id"));

Ref get_signal_status(const Module& m, const Ref& self, const Ref& submission_id) {
    const Names& n = m.n;
    Ref encoded = calls::percent_encode(m, submission_id);
    Ref endpoint = Ref::checked(PyNumber_Add(n.signals_status_prefix, encoded.get()));
    Ref status_code, resp_body;
    std::optional<Ref> failure_result = request_or_mapped_failure(
        m, [&] { return calls::canonical_request(m, self, n.GET, endpoint.get()); }, status_code, resp_body,
        MappedStatuses::client_errors,
        [&](const Ref& exc) { return calls::status_result_from_transport_error(m, self, exc); },
        [&](const Ref& exc) { return calls::status_result_from_rejection(m, self, exc); },
        [&](const Ref& exc) { return calls::status_result_from_response_error(m, self, exc); });
    if (failure_result) return *failure_result;
    return calls::status_result_from_body(m, self, status_code, resp_body);
}

// ---- listing --------------------------------------------------------------------------------

constexpr auto submission_list_result_from_body_signature =
    signature("SignalServiceClient._submission_list_result_from_body", Binding::static_method, nullptr,
              param("status_code"), param("body"), keyword_only("error", none_default));

Ref submission_list_result(const Module& m, const Ref& status_code, const Ref& body, const Ref& submissions,
                           const Ref& error) {
    const Names& n = m.n;
    return call_global_kw(
        m, n.SubmissionListResult, {},
        {{n.status_code, status_code}, {n.body, body}, {n.submissions, submissions}, {n.error, error}});
}

Ref submission_list_result_from_body(const Module& m, const Ref& status_code, const Ref& body, const Ref& error) {
    Ref submissions = is_dict(body) ? mapping_get(m, body, m.n.submissions) : Ref(none());
    if (!is_list(submissions)) submissions = new_list();
    return submission_list_result(m, status_code, body, submissions, error);
}

constexpr auto list_signal_submissions_signature = signature(
    "SignalServiceClient.list_signal_submissions", Binding::instance_method,
    "List the caller's submissions as a SubmissionListResult.\n\n"
    "Filters are sent as query parameters in the order status, idempotency_key,\n"
    "since, limit; a filter left as None is not sent.",
    keyword_only("status", none_default), keyword_only("idempotency_key", none_default),
    keyword_only("since", none_default),
    keyword_only("limit", constant_default<&ModuleState::default_limit>("100")));

Ref list_signal_submissions(const Module& m, const Ref& self, const Ref& status, const Ref& idempotency_key, const Ref& since,
                            const Ref& limit) {
    const Names& n = m.n;
    // Every value is built (str(int(limit)) included) before any is encoded.
    struct QueryPair {
        PyObject* name;
        Ref value;
    };
    std::vector<QueryPair> pairs;
    if (!status.is_none()) pairs.push_back({n.status, str(status)});
    if (!idempotency_key.is_none()) pairs.push_back({n.idempotency_key, str(idempotency_key)});
    if (!since.is_none()) pairs.push_back({n.since, str(since)});
    if (!limit.is_none()) pairs.push_back({n.limit, str(to_int(limit))});

    // "signals/submissions" + "?" + "&".join(_percent_encode(k) + "=" + _percent_encode(v) for k, v in query)
    Ref endpoint = Ref(Borrowed(n.signals_submissions));
    if (!pairs.empty()) {
        Ref query = new_list();
        Ref equals_sign = text("=");
        for (const QueryPair& pair : pairs) {
            Ref name = calls::percent_encode(m, Ref(Borrowed(pair.name)));
            Ref named = Ref::checked(PyNumber_Add(name.get(), equals_sign.get()));
            Ref value = calls::percent_encode(m, pair.value);
            list_append(query, Ref::checked(PyNumber_Add(named.get(), value.get())));
        }
        Ref joined = Ref::checked(PyUnicode_Join(Ref(text("&")).get(), query.get()));
        endpoint = concat({Borrowed(n.signals_submissions), text("?"), joined});
    }

    Ref status_code, resp_body;
    std::optional<Ref> failure_result = request_or_mapped_failure(
        m, [&] { return calls::canonical_request(m, self, n.GET, endpoint.get()); }, status_code, resp_body,
        MappedStatuses::client_errors,
        [&](const Ref& exc) {
            return submission_list_result(m, integer(0), none(), new_list(), transport_error_text(m, exc));
        },
        [&](const Ref& exc) {
            Ref body = getattr(exc, n.body);
            if (!truthy(body)) body = new_dict();
            return calls::submission_list_result_from_body(m, self, getattr(exc, n.status_code), body,
                                                           getattr(exc, n.reason));
        },
        [&](const Ref& exc) {
            auto [error, body] = unpack_pair(calls::error_body_from_response_error(m, self, exc));
            return submission_list_result(m, getattr(exc, n.status_code), body, new_list(), error);
        });
    if (failure_result) return *failure_result;
    return calls::submission_list_result_from_body(m, self, status_code, resp_body);
}

// ---- polling --------------------------------------------------------------------------------

constexpr auto poll_until_terminal_signature =
    signature("SignalServiceClient.poll_until_terminal", Binding::instance_method,
              "Query the status every 0.1 s until it is terminal, a transport failure\n"
              "occurs, or `timeout` seconds have passed; return the last StatusResult.",
              param("submission_id"), keyword_only("timeout"));

Ref poll_until_terminal(const Module& m, const Ref& self, const Ref& submission_id, const Ref& timeout) {
    const Names& n = m.n;
    auto now = [&] { return call_method(m.global(n.time), n.monotonic); };
    Ref deadline = Ref::checked(PyNumber_Add(now().get(), timeout.get()));
    Ref last = calls::get_signal_status(m, self, submission_id);
    Ref zero = integer(0);
    for (;;) {
        if (equals(getattr(last, n.status_code), zero)) return last;
        if (contains(m.global(n._TERMINAL_STATUSES), getattr(last, n.status))) return last;
        Ref current = now();
        if (compare(current, deadline, Py_GE)) return last;
        Ref remaining = Ref::checked(PyNumber_Subtract(deadline.get(), current.get()));
        Ref interval = m.global(n._POLL_INTERVAL_SECONDS);
        Ref pause = compare(remaining, interval, Py_LT) ? remaining : interval;
        if (compare(pause, zero, Py_LT)) pause = floating(0.0);
        call_method(m.global(n.time), n.sleep, pause);
        last = calls::get_signal_status(m, self, submission_id);
    }
}

}  // namespace

namespace calls {

Ref coerce_status_metric(const Module& m, const Ref& value) {
    return through_global(
        m, Own::coerce_status_metric, m.n._coerce_status_metric, [&] { return tallowmere::coerce_status_metric(m, value); },
        [&](const Ref& f) { return call(f, value); });
}

Ref failure_reason_from_status_body(const Module& m, const Ref& body) {
    return through_global(
        m, Own::failure_reason_from_status_body, m.n._failure_reason_from_status_body,
        [&] { return tallowmere::failure_reason_from_status_body(m, body); }, [&](const Ref& f) { return call(f, body); });
}

Ref public_status_body(const Module& m, const Ref& body) {
    return through_global(
        m, Own::public_status_body, m.n._public_status_body, [&] { return tallowmere::public_status_body(m, body); },
        [&](const Ref& f) { return call(f, body); });
}

Ref status_result_from_body(const Module& m, const Ref& self, const Ref& status_code, const Ref& body) {
    return through_attribute(
        m, Own::status_result_from_body, self, m.n._status_result_from_body,
        [&](const Ref&) { return tallowmere::status_result_from_body(m, status_code, body); },
        [&](const FoundMethod& found) { return call_found(found, self, {status_code, body}); });
}

Ref status_result_from_rejection(const Module& m, const Ref& self, const Ref& exc) {
    return through_attribute(
        m, Own::status_result_from_rejection, self, m.n._status_result_from_rejection,
        [&](const Ref&) { return tallowmere::status_result_from_rejection(m, exc); },
        [&](const FoundMethod& found) { return call_found(found, self, {exc}); });
}

Ref status_result_from_response_error(const Module& m, const Ref& self, const Ref& exc) {
    return through_attribute(
        m, Own::status_result_from_response_error, self, m.n._status_result_from_response_error,
        [&](const Ref& cls) { return tallowmere::status_result_from_response_error(m, cls, exc); },
        [&](const FoundMethod& found) { return call_found(found, self, {exc}); });
}

Ref status_result_from_transport_error(const Module& m, const Ref& self, const Ref& exc) {
    return through_attribute(
        m, Own::status_result_from_transport_error, self, m.n._status_result_from_transport_error,
        [&](const Ref&) { return tallowmere::status_result_from_transport_error(m, exc); },
        [&](const FoundMethod& found) { return call_found(found, self, {exc}); });
}

Ref submission_list_result_from_body(const Module& m, const Ref& self, const Ref& status_code, const Ref& body,
                                     const Ref& error) {
    return through_attribute(
        m, Own::submission_list_result_from_body, self, m.n._submission_list_result_from_body,
        [&](const Ref&) {
            return tallowmere::submission_list_result_from_body(m, status_code, body, error ? error : Ref(none()));
        },
        [&](const FoundMethod& found) {
            return error ? call_found(found, self, {status_code, body}, {{m.n.error, error}})
                         : call_found(found, self, {status_code, body});
        });
}

Ref get_signal_status(const Module& m, const Ref& self, const Ref& submission_id) {
    return through_attribute(
        m, Own::get_signal_status, self, m.n.get_signal_status,
        [&](const Ref& client) { return tallowmere::get_signal_status(m, client, submission_id); },
        [&](const FoundMethod& found) { return call_found(found, self, {submission_id}); });
}

}  // namespace calls

namespace members {
const Member coerce_status_metric = member<coerce_status_metric_signature, tallowmere::coerce_status_metric>();
const Member failure_reason_from_status_body =
    member<failure_reason_from_status_body_signature, tallowmere::failure_reason_from_status_body>();
const Member public_status_body = member<public_status_body_signature, tallowmere::public_status_body>();
namespace client {
const Member status_result_from_body =
    member<status_result_from_body_signature, tallowmere::status_result_from_body>();
const Member status_result_from_rejection =
    member<status_result_from_rejection_signature, tallowmere::status_result_from_rejection>();
const Member status_result_from_response_error =
    member<status_result_from_response_error_signature, tallowmere::status_result_from_response_error>();
const Member status_result_from_transport_error =
    member<status_result_from_transport_error_signature, tallowmere::status_result_from_transport_error>();
const Member get_signal_status = member<get_signal_status_signature, tallowmere::get_signal_status>();
const Member submission_list_result_from_body =
    member<submission_list_result_from_body_signature, tallowmere::submission_list_result_from_body>();
const Member list_signal_submissions =
    member<list_signal_submissions_signature, tallowmere::list_signal_submissions>();
const Member poll_until_terminal = member<poll_until_terminal_signature, tallowmere::poll_until_terminal>();
}  // namespace client
}  // namespace members

}  // namespace tallowmere

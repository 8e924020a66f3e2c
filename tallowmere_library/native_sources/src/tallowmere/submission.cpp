// Single submissions: submit_signal (era catalog, contract, gates, body,
// idempotency key, one POST, every outcome a SubmitResult) and submit_strategy
// (validated names and manifest, one POST, errors raised), with the mappings
// that turn each outcome into a SubmitResult.
#include "calls.hpp"
#include "core/function.hpp"
#include "core/python.hpp"
#include "dispatch.hpp"
#include "members.hpp"
#include "request_errors.hpp"

namespace tallowmere {

namespace {

// ---- SubmitResult mappings --------------------------------------------------------------

Ref submit_result(const Module& m, const Ref& status_code, const Ref& body, const Ref& submission_id,
                  const Ref& signal_pool_name, const Ref& strategy_pool_name, const Ref& error) {
    const Names& n = m.n;
    // SubmitResult(status_code=..., ...), made directly while the global is the class imported, unchanged
    Ref cls{Borrowed(global_now(m, n.SubmitResult))};
    return make_record(m.state().submit_result, cls.get(),
                       {{n.status_code, status_code},
                        {n.body, body},
                        {n.submission_id, submission_id},
                        {n.signal_pool_name, signal_pool_name},
                        {n.strategy_pool_name, strategy_pool_name},
                        {n.error, error}});
}

constexpr auto submit_result_from_body_signature = signature(
    "SignalServiceClient._submit_result_from_body", Binding::static_method, nullptr, param("status_code"), param("body"));

Ref submit_result_from_body(const Module& m, const Ref& status_code, const Ref& body) {
    const Names& n = m.n;
    Ref submission_id = mapping_get(m, body, n.submission_id);
    Ref signal_pool_name = mapping_get(m, body, n.signal_pool_name);
    Ref strategy_pool_name = mapping_get(m, body, n.strategy_pool_name);
    return submit_result(m, status_code, body, submission_id, signal_pool_name, strategy_pool_name, none());
}

constexpr auto submit_result_from_rejection_signature = signature(
    "SignalServiceClient._submit_result_from_rejection", Binding::static_method, nullptr, param("exc"));

Ref submit_result_from_rejection(const Module& m, const Ref& exc) {
    const Names& n = m.n;
    return submit_result(m, getattr(exc, n.status_code), getattr(exc, n.body), none(), none(), none(),
                         getattr(exc, n.reason));
}

constexpr auto error_body_from_response_error_signature = signature(
    "SignalServiceClient._error_body_from_response_error", Binding::static_method, nullptr, param("exc"));

Ref error_body_from_response_error(const Module& m, const Ref& exc) {
    const Names& n = m.n;
    Ref raw_preview = getattr(exc, n.raw_body_preview);
    Ref decoded = call_method_kw(raw_preview, n.decode, {Borrowed(n.utf_8)}, {{n.errors, Borrowed(n.replace)}});
    Ref preview = call_method(decoded, n.strip);
    Ref status_code = getattr(exc, n.status_code);
    Ref error = truthy(preview) ? preview : concat({text("http_"), format(status_code)});
    Ref body = new_dict();
    set_item(body, Borrowed(n.error), error);
    set_item(body, Borrowed(n.raw_body_preview), preview);
    set_item(body, Borrowed(n.status_code), status_code);
    return new_tuple({error, body});
}

constexpr auto submit_result_from_response_error_signature =
    signature("SignalServiceClient._submit_result_from_response_error", Binding::class_method, nullptr,
              param("cls"), param("exc"));

Ref submit_result_from_response_error(const Module& m, const Ref& cls, const Ref& exc) {
    auto [error, body] = unpack_pair(calls::error_body_from_response_error(m, cls, exc));
    return submit_result(m, getattr(exc, m.n.status_code), body, none(), none(), none(), error);
}

constexpr auto submit_result_from_transport_error_signature = signature(
    "SignalServiceClient._submit_result_from_transport_error", Binding::static_method, nullptr, param("exc"));

// The fixed line the transport-failure event reports as its origin.
constexpr long transport_event_source_line = 933;

Ref submit_result_from_transport_error(const Module& m, const Ref& exc) {
    const Names& n = m.n;
    Ref message = transport_error_text(m, exc);
    Ref metadata = new_dict();
    set_item(metadata, Borrowed(n.reason), Borrowed(n.transport_error));
    set_item(metadata, Borrowed(n.error_type), type_name(m, exc));
    call_global_kw(m, n.log_library_surface_event, {Borrowed(n.Submission), Borrowed(n.error)},
                   {{n.sub_service, Borrowed(n.submit)},
                    {n.component, Borrowed(n.transport)},
                    {n.metadata, metadata},
                    {n.source_function, Borrowed(n.source_function_name)},
                    {n.source_file, Borrowed(n.source_file_path)},
                    {n.source_line, integer(transport_event_source_line)}});
    return submit_result(m, integer(0), none(), none(), none(), none(), message);
}

// ---- bodies -----------------------------------------------------------------------------

// The manifest market or era: the caller's value, else the effective one.
Ref manifest_value(const Module& m, const Ref& given, const Ref& effective, PyObject* field_name) {
    return calls::validate_optional_manifest_int(m, given.is_none() ? effective : given, field_name);
}

// Sets "idempotency_key", derived from the body when the caller gave none.
// `graph_entry` is the graph entry of the submission's timing lookup (or
// empty), whose canonical text stands in for the graph's while it is current.
void attach_idempotency_key(const Module& m, const Ref& self, const Ref& body, const Ref& idempotency_key,
                            const Ref& graph, const Ref& graph_entry) {
    Ref key;
    if (idempotency_key.is_none()) {
        GraphAndEntry known{graph, graph_entry};
        key = calls::idempotency_key_for_body(m, self, body, graph_entry ? &known : nullptr);
    } else {
        key = idempotency_key;
    }
    set_item(body, Borrowed(m.n.idempotency_key), str(key));
}

// ---- submit_signal ----------------------------------------------------------------------

constexpr auto submit_signal_signature = signature(
    "SignalServiceClient.submit_signal", Binding::instance_method,
    "Validate a signal against the active era and submit it to signals/submit.\n\n"
    "Contract, era and gate violations raise ValueError before anything is sent.\n"
    "Once the request is attempted, every outcome is a SubmitResult: accepted\n"
    "(error None), rejected by the service, a malformed 4xx/502/503/504 answer,\n"
    "or a transport failure (status_code 0).",
    param("graph"), param("named_universe", none_default), keyword_only("signal_pool_name"),
    keyword_only("is_stats"), keyword_only("is_pnl_mi"), keyword_only("metaparameters", none_default),
    keyword_only("expression_elapsed_seconds"), keyword_only("search_state", none_default),
    keyword_only("idempotency_key", none_default), keyword_only("threshold_checks", none_default),
    keyword_only("thresholds", none_default), keyword_only("client_manifest_version", none_default),
    keyword_only("market_id", none_default), keyword_only("era_number", none_default),
    keyword_only("client_manifest_market_id", none_default), keyword_only("client_manifest_era_number", none_default));

Ref submit_signal(const Module& m, const Ref& self, const Ref& graph, const Ref& named_universe_arg,
                  const Ref& signal_pool_name, const Ref& is_stats, const Ref& is_pnl_mi, const Ref& metaparameters,
                  const Ref& expression_elapsed_seconds, const Ref& search_state, const Ref& idempotency_key,
                  const Ref& threshold_checks, const Ref& caller_thresholds, const Ref& client_manifest_version,
                  const Ref& market_id_arg, const Ref& era_number_arg, const Ref& client_manifest_market_id,
                  const Ref& client_manifest_era_number) {
    const Names& n = m.n;
    calls::reject_caller_threshold_authority(m, threshold_checks, caller_thresholds);
    Ref named_universe = calls::validate_named_universe(m, named_universe_arg);
    calls::validate_selected_pool_name(m, signal_pool_name, n.signal_pool_name);
    // The graph entry of the timing lookup, kept for the consumption and the key.
    Ref graph_entry;
    calls::require_recorded_backtest_timing(m, graph, &graph_entry);
    Ref thresholds = calls::resolve_submit_thresholds(m, self, named_universe, signal_pool_name, market_id_arg,
                                                      era_number_arg);
    Ref catalog = calls::fetch_era_catalog(m, self);
    Ref submit_era = calls::required_active_submit_era(m, catalog, market_id_arg, era_number_arg);

    Ref market_id(market_id_arg), era_number(era_number_arg);
    if (market_id.is_none()) market_id = calls::required_positive_era_int(m, submit_era, n.market_id);
    if (era_number.is_none()) era_number = calls::required_positive_era_int(m, submit_era, n.era_number);

    calls::validate_submission_contract(m, self, signal_pool_name, is_stats, is_pnl_mi, expression_elapsed_seconds,
                                        thresholds, client_manifest_version, client_manifest_market_id,
                                        client_manifest_era_number);
    Ref complexity = calls::enforce_graph_complexity_for_submit(m, graph, submit_era);
    calls::enforce_recorded_backtest_timing_for_submit(m, graph, submit_era, graph_entry);
    Ref is_stats_payload = calls::submission_is_stats_payload(m, is_stats);

    Ref body = new_dict();
    set_item(body, Borrowed(n.graph), graph);
    set_item(body, Borrowed(n.named_universe), named_universe);
    set_item(body, Borrowed(n.signal_pool_name), signal_pool_name);
    set_item(body, Borrowed(n.graph_depth), getattr(complexity, n.depth));
    set_item(body, Borrowed(n.graph_node_count), getattr(complexity, n.node_count));
    set_item(body, Borrowed(n.is_stats), is_stats_payload);
    set_item(body, Borrowed(n.is_pnl_mi), calls::mi_contract_json_value(m, is_pnl_mi));
    set_item(body, Borrowed(n.expression_elapsed_seconds), expression_elapsed_seconds);
    set_item(body, Borrowed(n.market_id), to_int(market_id));
    set_item(body, Borrowed(n.era_number), to_int(era_number));

    if (!client_manifest_version.is_none()) {
        set_item(body, Borrowed(n.client_manifest_version),
                 calls::validate_optional_manifest_int(m, client_manifest_version, n.client_manifest_version));
    }
    set_item(body, Borrowed(n.client_manifest_market_id),
             manifest_value(m, client_manifest_market_id, market_id, n.client_manifest_market_id));
    set_item(body, Borrowed(n.client_manifest_era_number),
             manifest_value(m, client_manifest_era_number, era_number, n.client_manifest_era_number));

    if (!metaparameters.is_none()) set_item(body, Borrowed(n.metaparameters), metaparameters);
    if (!search_state.is_none()) set_item(body, Borrowed(n.search_state), search_state);
    Ref projection = calls::simulation_data_contract_projection_from_era(m, submit_era);
    if (!projection.is_none()) set_item(body, Borrowed(n.simulation_data_contract_projection), projection);
    attach_idempotency_key(m, self, body, idempotency_key, graph, graph_entry);
    graph_entry = Ref();

    Ref status_code, resp_body;
    std::optional<Ref> failure_result = request_or_mapped_failure(
        m, [&] { return calls::canonical_request(m, self, n.POST, n.signals_submit, body); }, status_code, resp_body,
        MappedStatuses::client_and_gateway_errors,
        [&](const Ref& exc) { return calls::submit_result_from_transport_error(m, self, exc); },
        [&](const Ref& exc) { return calls::submit_result_from_rejection(m, self, exc); },
        [&](const Ref& exc) { return calls::submit_result_from_response_error(m, self, exc); });
    if (failure_result) return *failure_result;
    return calls::submit_result_from_body(m, self, status_code, resp_body);
}

// ---- submit_strategy --------------------------------------------------------------------

constexpr auto submit_strategy_signature = signature(
    "SignalServiceClient.submit_strategy", Binding::instance_method,
    "Submit a strategy to strategies/submit and return its SubmitResult.\n\n"
    "Unlike submit_signal, every error of the request path is raised.",
    param("graph"), param("named_universe", none_default), keyword_only("strategy_pool_name"),
    keyword_only("market_id"), keyword_only("era_number"), keyword_only("metaparameters", none_default),
    keyword_only("idempotency_key", none_default), keyword_only("client_manifest_version", none_default),
    keyword_only("client_manifest_market_id", none_default), keyword_only("client_manifest_era_number", none_default));

Ref submit_strategy(const Module& m, const Ref& self, const Ref& graph, const Ref& named_universe_arg,
                    const Ref& strategy_pool_name, const Ref& market_id, const Ref& era_number, const Ref& metaparameters,
                    const Ref& idempotency_key, const Ref& client_manifest_version, const Ref& client_manifest_market_id,
                    const Ref& client_manifest_era_number) {
    const Names& n = m.n;
    Ref named_universe = calls::validate_named_universe(m, named_universe_arg);
    calls::validate_selected_pool_name(m, strategy_pool_name, n.strategy_pool_name);

    Ref body = new_dict();
    set_item(body, Borrowed(n.graph), graph);
    set_item(body, Borrowed(n.named_universe), named_universe);
    set_item(body, Borrowed(n.strategy_pool_name), strategy_pool_name);
    set_item(body, Borrowed(n.market_id), to_int(market_id));
    set_item(body, Borrowed(n.era_number), to_int(era_number));
    set_item(body, Borrowed(n.client_manifest_market_id),
             manifest_value(m, client_manifest_market_id, market_id, n.client_manifest_market_id));
    set_item(body, Borrowed(n.client_manifest_era_number),
             manifest_value(m, client_manifest_era_number, era_number, n.client_manifest_era_number));
    if (!client_manifest_version.is_none()) {
        set_item(body, Borrowed(n.client_manifest_version),
                 calls::validate_optional_manifest_int(m, client_manifest_version, n.client_manifest_version));
    }
    if (!metaparameters.is_none()) set_item(body, Borrowed(n.metaparameters), metaparameters);
    attach_idempotency_key(m, self, body, idempotency_key, graph, Ref());

    auto [status_code, resp_body] = unpack_pair(calls::canonical_request(m, self, n.POST, n.strategies_submit, body));
    return calls::submit_result_from_body(m, self, status_code, resp_body);
}

}  // namespace

namespace calls {

Ref submit_result_from_body(const Module& m, const Ref& self, const Ref& status_code, const Ref& body) {
    return through_attribute(
        m, Own::submit_result_from_body, self, m.n._submit_result_from_body,
        [&](const Ref&) { return tallowmere::submit_result_from_body(m, status_code, body); },
        [&](const FoundMethod& found) { return call_found(found, self, {status_code, body}); });
}

Ref submit_result_from_rejection(const Module& m, const Ref& self, const Ref& exc) {
    return through_attribute(
        m, Own::submit_result_from_rejection, self, m.n._submit_result_from_rejection,
        [&](const Ref&) { return tallowmere::submit_result_from_rejection(m, exc); },
        [&](const FoundMethod& found) { return call_found(found, self, {exc}); });
}

Ref error_body_from_response_error(const Module& m, const Ref& receiver, const Ref& exc) {
    return through_attribute(
        m, Own::error_body_from_response_error, receiver, m.n._error_body_from_response_error,
        [&](const Ref&) { return tallowmere::error_body_from_response_error(m, exc); },
        [&](const FoundMethod& found) { return call_found(found, receiver, {exc}); });
}

Ref submit_result_from_response_error(const Module& m, const Ref& self, const Ref& exc) {
    return through_attribute(
        m, Own::submit_result_from_response_error, self, m.n._submit_result_from_response_error,
        [&](const Ref& cls) { return tallowmere::submit_result_from_response_error(m, cls, exc); },
        [&](const FoundMethod& found) { return call_found(found, self, {exc}); });
}

Ref submit_result_from_transport_error(const Module& m, const Ref& self, const Ref& exc) {
    return through_attribute(
        m, Own::submit_result_from_transport_error, self, m.n._submit_result_from_transport_error,
        [&](const Ref&) { return tallowmere::submit_result_from_transport_error(m, exc); },
        [&](const FoundMethod& found) { return call_found(found, self, {exc}); });
}

}  // namespace calls

namespace members::client {
const Member submit_result_from_body = member<submit_result_from_body_signature, tallowmere::submit_result_from_body>();
const Member submit_result_from_rejection =
    member<submit_result_from_rejection_signature, tallowmere::submit_result_from_rejection>();
const Member error_body_from_response_error =
    member<error_body_from_response_error_signature, tallowmere::error_body_from_response_error>();
const Member submit_result_from_response_error =
    member<submit_result_from_response_error_signature, tallowmere::submit_result_from_response_error>();
const Member submit_result_from_transport_error =
    member<submit_result_from_transport_error_signature, tallowmere::submit_result_from_transport_error>();
const Member submit_signal = member<submit_signal_signature, tallowmere::submit_signal>();
const Member submit_strategy = member<submit_strategy_signature, tallowmere::submit_strategy>();
}  // namespace members::client

}  // namespace tallowmere

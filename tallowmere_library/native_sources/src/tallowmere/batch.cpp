// Batch submission: every item validated and turned into a finished body
// before anything is sent, then one request to signals/batch or chunks of
// _SIGNALS_BATCH_CLIENT_CHUNK_SIZE bodies, merged into one BatchSubmitResult
// that accounts for every item even when a chunk fails.
#include "calls.hpp"
#include "common.hpp"
#include "core/function.hpp"
#include "core/python.hpp"
#include "dispatch.hpp"
#include "members.hpp"
#include "request_errors.hpp"

namespace tallowmere {

namespace {

constexpr long batch_accepted_status = 202;
constexpr long batch_multi_status = 207;

Ref batch_result(const Module& m, const Ref& status_code, const Ref& body, const Ref& accepted, const Ref& failed,
                 const Ref& results, const Ref& error) {
    const Names& n = m.n;
    return call_global_kw(m, n.BatchSubmitResult, {},
                          {{n.status_code, status_code},
                           {n.body, body},
                           {n.accepted, accepted},
                           {n.failed, failed},
                           {n.results, results},
                           {n.error, error}});
}

// sum(1 for item in results if item.status_code == 202)
long long accepted_count(const Module& m, const Ref& results) {
    Ref accepted_status = integer(batch_accepted_status);
    long long accepted = 0;
    for_each(results, [&](const Ref& item) {
        if (equals(getattr(item, m.n.status_code), accepted_status)) ++accepted;
    });
    return accepted;
}

// ---- mapping answers --------------------------------------------------------------------

constexpr auto batch_item_result_from_body_signature = signature(
    "SignalServiceClient._batch_item_result_from_body", Binding::static_method, nullptr, param("item"));

Ref batch_item_result_from_body(const Module& m, const Ref& item) {
    const Names& n = m.n;
    Ref body = mapping_get(m, item, n.body);
    if (!is_dict(body)) body = Ref(none());
    Ref error = Ref(none());
    if (!body.is_none()) {
        error = mapping_get(m, body, n.reason);
        if (!truthy(error)) error = mapping_get(m, body, n.error);
    }
    auto from_body = [&](PyObject* key) { return body.is_none() ? Ref(none()) : mapping_get(m, body, key); };
    Ref index = mapping_get(m, item, n.index);
    Ref status_code = mapping_get(m, item, n.status_code);
    Ref submission_id = from_body(n.submission_id);
    Ref signal_pool_name = from_body(n.signal_pool_name);
    Ref strategy_pool_name = from_body(n.strategy_pool_name);
    return call_global_kw(m, n.BatchSubmitItemResult, {},
                          {{n.index, index},
                           {n.status_code, status_code},
                           {n.body, body},
                           {n.submission_id, submission_id},
                           {n.signal_pool_name, signal_pool_name},
                           {n.strategy_pool_name, strategy_pool_name},
                           {n.error, error}});
}

constexpr auto batch_result_from_body_signature =
    signature("SignalServiceClient._batch_result_from_body", Binding::class_method, nullptr, param("cls"),
              param("status_code"), param("body"), keyword_only("error", none_default));

Ref batch_result_from_body(const Module& m, const Ref& cls, const Ref& status_code, const Ref& body, const Ref& error) {
    const Names& n = m.n;
    Ref raw_results = mapping_get(m, body, n.results);
    Ref results = new_list();
    if (is_list(raw_results)) {
        for_each(raw_results, [&](const Ref& element) {
            if (is_dict(element)) list_append(results, calls::batch_item_result_from_body(m, cls, element));
        });
    }
    Ref accepted = mapping_get(m, body, n.accepted);
    Ref failed = mapping_get(m, body, n.failed);
    if (!is_int(accepted)) accepted = integer(accepted_count(m, results));
    if (!is_int(failed)) {
        failed = Ref::checked(PyNumber_Subtract(integer(PyList_GET_SIZE(results.get())).get(), accepted.get()));
    }
    return batch_result(m, status_code, body, accepted, failed, results, error);
}

constexpr auto batch_body_item_from_result_signature = signature(
    "SignalServiceClient._batch_body_item_from_result", Binding::static_method, nullptr, param("item"));

Ref batch_body_item_from_result(const Module& m, const Ref& item) {
    const Names& n = m.n;
    Ref out = new_dict();
    set_item(out, Borrowed(n.index), getattr(item, n.index));
    set_item(out, Borrowed(n.status_code), getattr(item, n.status_code));
    Ref body = getattr(item, n.body);
    if (!body.is_none()) set_item(out, Borrowed(n.body), body);
    return out;
}

constexpr auto batch_http_status_for_items_signature = signature(
    "SignalServiceClient._batch_http_status_for_items", Binding::static_method, nullptr, param("results"));

Ref batch_http_status_for_items(const Module& m, const Ref& results) {
    long long accepted = accepted_count(m, results);
    long long failed = static_cast<long long>(length(results)) - accepted;
    if (failed == 0) return integer(batch_accepted_status);
    Ref unique_statuses = Ref::checked(PySet_New(nullptr));
    for_each(results, [&](const Ref& item) {
        check_status(PySet_Add(unique_statuses.get(), getattr(item, m.n.status_code).get()));
    });
    if (accepted == 0 && PySet_GET_SIZE(unique_statuses.get()) == 1) return only_member(unique_statuses);
    return integer(batch_multi_status);
}

// ---- merging chunks -----------------------------------------------------------------------

Ref synthesised_results(const Module& m, const Ref& cls, const Ref& results) {
    Ref items = new_list();
    for_each(results, [&](const Ref& item) {
        list_append(items, calls::batch_body_item_from_result(m, cls, item));
    });
    return items;
}

constexpr auto combine_batch_chunk_results_signature = signature(
    "SignalServiceClient._combine_batch_chunk_results", Binding::class_method, nullptr, param("cls"),
    param("chunk_results"));

Ref combine_batch_chunk_results(const Module& m, const Ref& cls, const Ref& chunk_results) {
    const Names& n = m.n;
    Ref results = new_list();
    Ref accepted = integer(0), failed = integer(0);
    Ref chunk_statuses = Ref::checked(PySet_New(nullptr));
    for_each(chunk_results, [&](const Ref& chunk_result) {
        accepted = Ref::checked(PyNumber_Add(accepted.get(), getattr(chunk_result, n.accepted).get()));
        failed = Ref::checked(PyNumber_Add(failed.get(), getattr(chunk_result, n.failed).get()));
        check_status(PySet_Add(chunk_statuses.get(), getattr(chunk_result, n.status_code).get()));
        list_extend(results, getattr(chunk_result, n.results));
    });

    Ref zero = integer(0);
    Ref status_code;
    if (PyList_GET_SIZE(results.get()) > 0) {
        status_code = calls::batch_http_status_for_items(m, cls, results);
    } else if (equals(failed, zero)) {
        status_code = integer(batch_accepted_status);
    } else if (equals(accepted, zero) && PySet_GET_SIZE(chunk_statuses.get()) == 1) {
        status_code = only_member(chunk_statuses);
    } else {
        status_code = integer(batch_multi_status);
    }

    Ref body = new_dict();
    set_item(body, Borrowed(n.accepted), accepted);
    set_item(body, Borrowed(n.failed), failed);
    set_item(body, Borrowed(n.results), synthesised_results(m, cls, results));
    return batch_result(m, status_code, body, accepted, failed, results, none());
}

constexpr auto batch_result_with_partial_failure_signature =
    signature("SignalServiceClient._batch_result_with_partial_failure", Binding::class_method, nullptr,
              param("cls"), param("failure"), param("prior_results"), param("total_count"));

Ref batch_result_with_partial_failure(const Module& m, const Ref& cls, const Ref& failure, const Ref& prior_results,
                                      const Ref& total_count) {
    const Names& n = m.n;
    long long accepted = accepted_count(m, prior_results);
    long long prior_count = static_cast<long long>(length(prior_results));
    long long prior_failed = prior_count - accepted;
    Ref unsent = Ref::checked(PyNumber_Subtract(total_count.get(), integer(prior_count).get()));
    if (compare(unsent, integer(0), Py_LT)) unsent = integer(0);
    Ref failed = Ref::checked(PyNumber_Add(integer(prior_failed).get(), unsent.get()));

    Ref failure_error = getattr(failure, n.error);
    Ref body = new_dict();
    set_item(body, Borrowed(n.accepted), integer(accepted));
    set_item(body, Borrowed(n.failed), failed);
    set_item(body, Borrowed(n.results), synthesised_results(m, cls, prior_results));
    set_item(body, Borrowed(n.error), failure_error);
    Ref failure_body = getattr(failure, n.body);
    if (is_dict(failure_body)) {
        set_item(body, Borrowed(n.failure), failure_body);
        if (mapping_get(m, body, n.error).is_none()) set_item(body, Borrowed(n.error), mapping_get(m, failure_body, n.error));
    }
    Ref error = mapping_get(m, body, n.error);
    if (!truthy(error)) error = getattr(failure, n.error);
    return batch_result(m, getattr(failure, n.status_code), body, integer(accepted), failed, prior_results, error);
}

constexpr auto rebase_batch_item_indices_signature =
    signature("SignalServiceClient._rebase_batch_item_indices", Binding::static_method, nullptr, param("result"),
              param("index_offset"));

Ref rebase_batch_item_indices(const Module& m, const Ref& result, const Ref& index_offset) {
    if (equals(index_offset, integer(0))) return Ref(none());
    for_each(getattr(result, m.n.results), [&](const Ref& item) {
        Ref index = getattr(item, m.n.index);
        if (!is_exact_int(index)) return;
        setattr(item, m.n.index, Ref::checked(PyNumber_Add(index.get(), index_offset.get())));
    });
    return Ref(none());
}

// ---- failures ------------------------------------------------------------------------------

constexpr auto batch_result_from_response_error_signature =
    signature("SignalServiceClient._batch_result_from_response_error", Binding::class_method, nullptr,
              param("cls"), param("exc"));

Ref batch_result_from_response_error(const Module& m, const Ref& cls, const Ref& exc) {
    auto [error, body] = unpack_pair(calls::error_body_from_response_error(m, cls, exc));
    Ref zero = integer(0);
    return batch_result(m, getattr(exc, m.n.status_code), body, zero, zero, new_list(), error);
}

constexpr auto batch_result_from_transport_error_signature = signature(
    "SignalServiceClient._batch_result_from_transport_error", Binding::static_method, nullptr, param("exc"));

Ref batch_result_from_transport_error(const Module& m, const Ref& exc) {
    Ref zero = integer(0);
    return batch_result(m, zero, none(), zero, zero, new_list(), transport_error_text(m, exc));
}

// ---- submit_signals_batch ------------------------------------------------------------------

constexpr auto submit_signals_batch_signature = signature(
    "SignalServiceClient.submit_signals_batch", Binding::instance_method,
    "Validate every submission, then send them to signals/batch (in chunks of\n"
    "_SIGNALS_BATCH_CLIENT_CHUNK_SIZE) and return one BatchSubmitResult.\n\n"
    "Any invalid item raises ValueError before anything is sent. Transport\n"
    "failures, rejections and malformed 4xx answers become results that account\n"
    "for every item; chunks accepted before a failure keep their results.",
    param("submissions"));

// The body of one item after the first pass: a copy of the caller's dict with
// its universe validated and its pool checked.
Ref validated_body(const Module& m, const Ref& item) {
    const Names& n = m.n;
    Ref body = dict_copy(item);
    calls::reject_retired_universe_aliases(m, body);
    if (contains(body, Borrowed(n.threshold_checks)) || contains(body, Borrowed(n.thresholds))) {
        raise_value_error(caller_thresholds_message);
    }
    Ref named_universe = calls::validate_named_universe(m, mapping_get(m, body, n.named_universe));
    set_item(body, Borrowed(n.named_universe), named_universe);
    calls::validate_selected_pool_name(m, mapping_get(m, body, n.signal_pool_name), n.signal_pool_name);
    return body;
}

// The second pass over one body: era, thresholds, contract, gates, key.
// `graph_entry` is the graph entry the timing lookup made for the body's
// graph (or empty).
void prepare_body(const Module& m, const Ref& self, const Ref& body, const Ref& graph_entry) {
    const Names& n = m.n;
    Ref named_universe = get_item(body, Borrowed(n.named_universe));
    Ref signal_pool_name = mapping_get(m, body, n.signal_pool_name);
    Ref thresholds = calls::resolve_submit_thresholds(m, self, named_universe, signal_pool_name,
                                                      mapping_get(m, body, n.market_id),
                                                      mapping_get(m, body, n.era_number));
    Ref catalog = calls::fetch_era_catalog(m, self);
    Ref submit_era = calls::required_active_submit_era(m, catalog, mapping_get(m, body, n.market_id),
                                                       mapping_get(m, body, n.era_number));
    set_item(body, Borrowed(n.market_id), calls::required_positive_era_int(m, submit_era, n.market_id));
    set_item(body, Borrowed(n.era_number), calls::required_positive_era_int(m, submit_era, n.era_number));
    if (mapping_get(m, body, n.client_manifest_market_id).is_none()) {
        set_item(body, Borrowed(n.client_manifest_market_id), get_item(body, Borrowed(n.market_id)));
    }
    if (mapping_get(m, body, n.client_manifest_era_number).is_none()) {
        set_item(body, Borrowed(n.client_manifest_era_number), get_item(body, Borrowed(n.era_number)));
    }
    calls::validate_submission_contract(
        m, self, mapping_get(m, body, n.signal_pool_name), mapping_get(m, body, n.is_stats),
        mapping_get(m, body, n.is_pnl_mi), mapping_get(m, body, n.expression_elapsed_seconds), thresholds,
        mapping_get(m, body, n.client_manifest_version), mapping_get(m, body, n.client_manifest_market_id),
        mapping_get(m, body, n.client_manifest_era_number));
    Ref complexity = calls::enforce_graph_complexity_for_submit(m, mapping_get(m, body, n.graph), submit_era);
    Ref graph = mapping_get(m, body, n.graph);
    calls::enforce_recorded_backtest_timing_for_submit(m, graph, submit_era, graph_entry);
    set_item(body, Borrowed(n.graph_depth), getattr(complexity, n.depth));
    set_item(body, Borrowed(n.graph_node_count), getattr(complexity, n.node_count));
    set_item(body, Borrowed(n.is_stats), calls::submission_is_stats_payload(m, get_item(body, Borrowed(n.is_stats))));
    if (!contains(body, Borrowed(n.idempotency_key))) {
        GraphAndEntry known{graph, graph_entry};
        set_item(body, Borrowed(n.idempotency_key),
                 calls::idempotency_key_for_body(m, self, body, graph_entry ? &known : nullptr));
    }
}

Ref signals_document(const Module& m, const Ref& bodies) {
    Ref document = new_dict();
    set_item(document, Borrowed(m.n.signals), bodies);
    return document;
}

Ref submit_signals_batch(const Module& m, const Ref& self, const Ref& submissions) {
    const Names& n = m.n;
    // Shape first: nothing else happens until every item is a dict.
    if (!PyList_Check(submissions.get()) && !PyTuple_Check(submissions.get())) {
        raise_value_error("submissions must be a list or tuple of dicts");
    }
    for_each(submissions, [&](const Ref& item) {
        if (!is_dict(item)) raise_value_error("each batch submission must be a dict");
    });

    Ref graphs = new_list(), validated_bodies = new_list();
    for_each(submissions, [&](const Ref& item) {
        Ref body = validated_body(m, item);
        list_append(graphs, mapping_get(m, body, n.graph));
        list_append(validated_bodies, body);
    });
    // One graph entry per body when the compiled lookup ran, for its
    // consumption and its key.
    Ref graph_entries;
    calls::require_recorded_backtest_timings(m, graphs, &graph_entries);
    bool have_entries = graph_entries && PyList_CheckExact(graph_entries.get()) &&
                        PyList_GET_SIZE(graph_entries.get()) == PyList_GET_SIZE(graphs.get());
    graphs = Ref();

    Ref prepared = new_list();
    Py_ssize_t position = 0;
    for_each(validated_bodies, [&](const Ref& body) {
        Ref entry;
        if (have_entries && position < PyList_GET_SIZE(graph_entries.get())) {
            entry = Ref(Borrowed(PyList_GET_ITEM(graph_entries.get(), position)));
            // Its place is emptied as it is used: entries last no longer than their body's preparation.
            check_status(PyList_SetItem(graph_entries.get(), position, Ref(none()).release()));
        }
        ++position;
        prepare_body(m, self, body, entry);
        list_append(prepared, body);
    });
    graph_entries = Ref();

    Ref chunk_size = m.global(n._SIGNALS_BATCH_CLIENT_CHUNK_SIZE);
    Ref total = integer(PyList_GET_SIZE(prepared.get()));

    // One request (or one chunk of them): the result its failure maps to, or
    // nothing when it answered.
    auto send = [&](const Ref& bodies, Ref& status_code, Ref& resp_body) {
        Ref document = signals_document(m, bodies);
        return request_or_mapped_failure(
            m, [&] { return calls::canonical_request(m, self, n.POST, n.signals_batch, document); }, status_code,
            resp_body, MappedStatuses::client_errors,
            [&](const Ref& exc) { return calls::batch_result_from_transport_error(m, self, exc); },
            [&](const Ref& exc) {
                Ref body = getattr(exc, n.body);
                if (!truthy(body)) body = new_dict();
                return calls::batch_result_from_body(m, self, getattr(exc, n.status_code), body, getattr(exc, n.reason));
            },
            [&](const Ref& exc) { return calls::batch_result_from_response_error(m, self, exc); });
    };

    if (compare(total, chunk_size, Py_LE)) {
        Ref status_code, resp_body;
        if (std::optional<Ref> failure = send(prepared, status_code, resp_body)) return *failure;
        return calls::batch_result_from_body(m, self, status_code, resp_body);
    }

    Ref chunk_results = new_list(), prior_results = new_list();
    Ref starts = call(Borrowed(reinterpret_cast<PyObject*>(&PyRange_Type)), integer(0), total, chunk_size);
    std::optional<Ref> partial_failure = find_first(starts, [&](const Ref& start) -> std::optional<Ref> {
        Ref stop = Ref::checked(PyNumber_Add(start.get(), chunk_size.get()));
        Ref bounds = Ref::checked(PySlice_New(start.get(), stop.get(), nullptr));
        Ref chunk = get_item(prepared, bounds);
        Ref status_code, resp_body;
        if (std::optional<Ref> failure = send(chunk, status_code, resp_body)) {
            return calls::batch_result_with_partial_failure(m, self, *failure, prior_results, total);
        }
        Ref chunk_result = calls::batch_result_from_body(m, self, status_code, resp_body);
        calls::rebase_batch_item_indices(m, self, chunk_result, start);
        list_append(chunk_results, chunk_result);
        list_extend(prior_results, getattr(chunk_result, n.results));
        return std::nullopt;
    });
    if (partial_failure) return *partial_failure;
    return calls::combine_batch_chunk_results(m, self, chunk_results);
}

}  // namespace

namespace calls {

Ref batch_item_result_from_body(const Module& m, const Ref& cls, const Ref& item) {
    return through_attribute(
        m, Own::batch_item_result_from_body, cls, m.n._batch_item_result_from_body,
        [&](const Ref&) { return tallowmere::batch_item_result_from_body(m, item); },
        [&](const FoundMethod& found) { return call_found(found, cls, {item}); });
}

Ref batch_result_from_body(const Module& m, const Ref& self, const Ref& status_code, const Ref& body, const Ref& error) {
    return through_attribute(
        m, Own::batch_result_from_body, self, m.n._batch_result_from_body,
        [&](const Ref& cls) {
            return tallowmere::batch_result_from_body(m, cls, status_code, body, error ? error : Ref(none()));
        },
        [&](const FoundMethod& found) {
            return error ? call_found(found, self, {status_code, body}, {{m.n.error, error}})
                         : call_found(found, self, {status_code, body});
        });
}

Ref batch_body_item_from_result(const Module& m, const Ref& cls, const Ref& item) {
    return through_attribute(
        m, Own::batch_body_item_from_result, cls, m.n._batch_body_item_from_result,
        [&](const Ref&) { return tallowmere::batch_body_item_from_result(m, item); },
        [&](const FoundMethod& found) { return call_found(found, cls, {item}); });
}

Ref batch_http_status_for_items(const Module& m, const Ref& cls, const Ref& results) {
    return through_attribute(
        m, Own::batch_http_status_for_items, cls, m.n._batch_http_status_for_items,
        [&](const Ref&) { return tallowmere::batch_http_status_for_items(m, results); },
        [&](const FoundMethod& found) { return call_found(found, cls, {results}); });
}

Ref combine_batch_chunk_results(const Module& m, const Ref& self, const Ref& chunk_results) {
    return through_attribute(
        m, Own::combine_batch_chunk_results, self, m.n._combine_batch_chunk_results,
        [&](const Ref& cls) { return tallowmere::combine_batch_chunk_results(m, cls, chunk_results); },
        [&](const FoundMethod& found) { return call_found(found, self, {chunk_results}); });
}

Ref batch_result_with_partial_failure(const Module& m, const Ref& self, const Ref& failure, const Ref& prior_results,
                                      const Ref& total_count) {
    return through_attribute(
        m, Own::batch_result_with_partial_failure, self, m.n._batch_result_with_partial_failure,
        [&](const Ref& cls) {
            return tallowmere::batch_result_with_partial_failure(m, cls, failure, prior_results, total_count);
        },
        [&](const FoundMethod& found) { return call_found(found, self, {failure, prior_results, total_count}); });
}

Ref rebase_batch_item_indices(const Module& m, const Ref& self, const Ref& result, const Ref& index_offset) {
    return through_attribute(
        m, Own::rebase_batch_item_indices, self, m.n._rebase_batch_item_indices,
        [&](const Ref&) { return tallowmere::rebase_batch_item_indices(m, result, index_offset); },
        [&](const FoundMethod& found) { return call_found(found, self, {result, index_offset}); });
}

Ref batch_result_from_response_error(const Module& m, const Ref& self, const Ref& exc) {
    return through_attribute(
        m, Own::batch_result_from_response_error, self, m.n._batch_result_from_response_error,
        [&](const Ref& cls) { return tallowmere::batch_result_from_response_error(m, cls, exc); },
        [&](const FoundMethod& found) { return call_found(found, self, {exc}); });
}

Ref batch_result_from_transport_error(const Module& m, const Ref& self, const Ref& exc) {
    return through_attribute(
        m, Own::batch_result_from_transport_error, self, m.n._batch_result_from_transport_error,
        [&](const Ref&) { return tallowmere::batch_result_from_transport_error(m, exc); },
        [&](const FoundMethod& found) { return call_found(found, self, {exc}); });
}

}  // namespace calls

namespace members::client {
const Member batch_item_result_from_body =
    member<batch_item_result_from_body_signature, tallowmere::batch_item_result_from_body>();
const Member batch_result_from_body = member<batch_result_from_body_signature, tallowmere::batch_result_from_body>();
const Member batch_body_item_from_result =
    member<batch_body_item_from_result_signature, tallowmere::batch_body_item_from_result>();
const Member batch_http_status_for_items =
    member<batch_http_status_for_items_signature, tallowmere::batch_http_status_for_items>();
const Member combine_batch_chunk_results =
    member<combine_batch_chunk_results_signature, tallowmere::combine_batch_chunk_results>();
const Member batch_result_with_partial_failure =
    member<batch_result_with_partial_failure_signature, tallowmere::batch_result_with_partial_failure>();
const Member rebase_batch_item_indices =
    member<rebase_batch_item_indices_signature, tallowmere::rebase_batch_item_indices>();
const Member batch_result_from_response_error =
    member<batch_result_from_response_error_signature, tallowmere::batch_result_from_response_error>();
const Member batch_result_from_transport_error =
    member<batch_result_from_transport_error_signature, tallowmere::batch_result_from_transport_error>();
const Member submit_signals_batch = member<submit_signals_batch_signature, tallowmere::submit_signals_batch>();
}  // namespace members::client

}  // namespace tallowmere

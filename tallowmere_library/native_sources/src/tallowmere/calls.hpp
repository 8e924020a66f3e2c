// Every call the module's code makes of one of its own callables, or of a
// sibling module's function it imported, in the form the design writes it
// (positional or keyword arguments as they stand there). Each goes straight
// to the implementation while the name resolves to the function made at
// import (dispatch.hpp) and is made as written otherwise. The file of the
// callee defines its calls.
#pragma once

#include "core/json_text.hpp"
#include "core/python.hpp"
#include "submit_state.hpp"

namespace tallowmere {

// A submission's graph with the graph entry its timing lookup made: the
// entry's canonical text stands in for the graph's wherever the graph is
// encoded canonically, as long as the graph is unchanged (checked right
// before the text is used).
struct GraphAndEntry {
    const Ref& graph;
    const Ref& entry;
};

}  // namespace tallowmere

namespace tallowmere::calls {

// ---- contract.cpp --------------------------------------------------------------------------

// _mi_contract_json_value(value)
Ref mi_contract_json_value(const Module& m, const Ref& value);
// _stat_metric(is_stats, keys)
Ref stat_metric(const Module& m, const Ref& is_stats, const Ref& keys);
// _reject_caller_threshold_authority(threshold_checks=..., thresholds=...)
Ref reject_caller_threshold_authority(const Module& m, const Ref& threshold_checks, const Ref& thresholds);
// _validate_submission_thresholds(is_stats, is_pnl_mi, thresholds=...)
Ref validate_submission_thresholds(const Module& m, const Ref& is_stats, const Ref& is_pnl_mi, const Ref& thresholds);
// _validate_optional_manifest_int(value, field_name)
Ref validate_optional_manifest_int(const Module& m, const Ref& value, PyObject* field_name);
// _submission_is_stats_payload(is_stats)
Ref submission_is_stats_payload(const Module& m, const Ref& is_stats);
// _validate_selected_pool_name(value, field_name)
Ref validate_selected_pool_name(const Module& m, const Ref& value, PyObject* field_name);
// _validate_named_universe(value)
Ref validate_named_universe(const Module& m, const Ref& value);
// _reject_retired_universe_aliases(body)
Ref reject_retired_universe_aliases(const Module& m, const Ref& body);
// self._validate_submission_contract(signal_pool_name, is_stats, is_pnl_mi, expression_elapsed_seconds,
//     thresholds=..., client_manifest_version=..., client_manifest_market_id=..., client_manifest_era_number=...)
Ref validate_submission_contract(const Module& m, const Ref& self, const Ref& signal_pool_name, const Ref& is_stats,
                                 const Ref& is_pnl_mi, const Ref& expression_elapsed_seconds, const Ref& thresholds,
                                 const Ref& client_manifest_version, const Ref& client_manifest_market_id,
                                 const Ref& client_manifest_era_number);
// self._idempotency_key_for_body(body); `graph`, when given, is the
// submission's graph and its entry.
Ref idempotency_key_for_body(const Module& m, const Ref& self, const Ref& body, const GraphAndEntry* graph = nullptr);

// ---- era_catalog.cpp -----------------------------------------------------------------------

// _field_value(value, key)
Ref field_value(const Module& m, const Ref& value, PyObject* key);
// _field_value(value, key, default)
Ref field_value(const Module& m, const Ref& value, PyObject* key, const Ref& fallback);
// _mapping_lookup(mapping, key)
Ref mapping_lookup(const Module& m, const Ref& mapping, const Ref& key);
// _coerce_optional_int(value)
Ref coerce_optional_int(const Module& m, const Ref& value);
// _active_era_from_catalog(catalog, market_id=..., era_number=...)
Ref active_era_from_catalog(const Module& m, const Ref& catalog, const Ref& market_id, const Ref& era_number);
// _required_active_submit_era(catalog, market_id=..., era_number=...)
Ref required_active_submit_era(const Module& m, const Ref& catalog, const Ref& market_id, const Ref& era_number);
// _required_positive_era_int(era, field_name)
Ref required_positive_era_int(const Module& m, const Ref& era, PyObject* field_name);
// _required_era_frequency(era)
Ref required_era_frequency(const Module& m, const Ref& era);
// _simulation_data_contract_projection_from_era(era)
Ref simulation_data_contract_projection_from_era(const Module& m, const Ref& era);

// ---- era_gates.cpp -------------------------------------------------------------------------

// _enforce_graph_complexity_for_submit(graph, era)
Ref enforce_graph_complexity_for_submit(const Module& m, const Ref& graph, const Ref& era);
// _enforce_recorded_backtest_timing_for_submit(graph, era). `entry` is the
// graph entry of the submission's timing lookup (or None), if it has one.
Ref enforce_recorded_backtest_timing_for_submit(const Module& m, const Ref& graph, const Ref& era,
                                                const Ref& entry = Ref());
// _rule_id_for_named_universe(era, named_universe)
Ref rule_id_for_named_universe(const Module& m, const Ref& era, const Ref& named_universe);
// _signal_is_thresholds_for_pool(pool, rule_id)
Ref signal_is_thresholds_for_pool(const Module& m, const Ref& pool, const Ref& rule_id);
// _submission_thresholds_from_era_catalog(catalog, named_universe, signal_pool_name, market_id=..., era_number=...)
Ref submission_thresholds_from_era_catalog(const Module& m, const Ref& catalog, const Ref& named_universe,
                                           const Ref& signal_pool_name, const Ref& market_id, const Ref& era_number);
// self._fetch_era_catalog()
Ref fetch_era_catalog(const Module& m, const Ref& self);
// self._resolve_submit_thresholds(named_universe, signal_pool_name, market_id=..., era_number=...)
Ref resolve_submit_thresholds(const Module& m, const Ref& self, const Ref& named_universe, const Ref& signal_pool_name,
                              const Ref& market_id, const Ref& era_number);

// ---- transport.cpp -------------------------------------------------------------------------

// _percent_encode(value)
Ref percent_encode(const Module& m, const Ref& value);
// _join_url(server_url, endpoint)
Ref join_url(const Module& m, const Ref& server_url, const Ref& endpoint);
// _parse_response_json(status_code, response_body_bytes, url, operation=...)
Ref parse_response_json(const Module& m, const Ref& status_code, const Ref& body, const Ref& url, const Ref& operation);

// ---- records.cpp ---------------------------------------------------------------------------

// _raise_submission_rejected(status_code, body)
Ref raise_submission_rejected(const Module& m, const Ref& status_code, const Ref& body);

// ---- client.cpp ----------------------------------------------------------------------------

// self._response_content(response)
Ref response_content(const Module& m, const Ref& self, const Ref& response);
// self._canonical_request(method, endpoint, body); without a body, self._canonical_request(method, endpoint)
Ref canonical_request(const Module& m, const Ref& self, PyObject* method, PyObject* endpoint, const Ref& body = Ref());

// ---- status.cpp ----------------------------------------------------------------------------

// _coerce_status_metric(value)
Ref coerce_status_metric(const Module& m, const Ref& value);
// _failure_reason_from_status_body(body)
Ref failure_reason_from_status_body(const Module& m, const Ref& body);
// _public_status_body(body)
Ref public_status_body(const Module& m, const Ref& body);
// self._status_result_from_body(status_code, body)
Ref status_result_from_body(const Module& m, const Ref& self, const Ref& status_code, const Ref& body);
// self._status_result_from_rejection(exc)
Ref status_result_from_rejection(const Module& m, const Ref& self, const Ref& exc);
// self._status_result_from_response_error(exc)
Ref status_result_from_response_error(const Module& m, const Ref& self, const Ref& exc);
// self._status_result_from_transport_error(exc)
Ref status_result_from_transport_error(const Module& m, const Ref& self, const Ref& exc);
// self._submission_list_result_from_body(status_code, body); with an error, (status_code, body, error=...)
Ref submission_list_result_from_body(const Module& m, const Ref& self, const Ref& status_code, const Ref& body,
                                     const Ref& error = Ref());
// self.get_signal_status(submission_id)
Ref get_signal_status(const Module& m, const Ref& self, const Ref& submission_id);

// ---- submission.cpp ------------------------------------------------------------------------

// self._submit_result_from_body(status_code, body)
Ref submit_result_from_body(const Module& m, const Ref& self, const Ref& status_code, const Ref& body);
// self._submit_result_from_rejection(exc)
Ref submit_result_from_rejection(const Module& m, const Ref& self, const Ref& exc);
// receiver._error_body_from_response_error(exc), receiver being self or cls
Ref error_body_from_response_error(const Module& m, const Ref& receiver, const Ref& exc);
// self._submit_result_from_response_error(exc)
Ref submit_result_from_response_error(const Module& m, const Ref& self, const Ref& exc);
// self._submit_result_from_transport_error(exc)
Ref submit_result_from_transport_error(const Module& m, const Ref& self, const Ref& exc);

// ---- batch.cpp -----------------------------------------------------------------------------

// cls._batch_item_result_from_body(item)
Ref batch_item_result_from_body(const Module& m, const Ref& cls, const Ref& item);
// self._batch_result_from_body(status_code, body); with an error, (status_code, body, error=...)
Ref batch_result_from_body(const Module& m, const Ref& self, const Ref& status_code, const Ref& body,
                           const Ref& error = Ref());
// cls._batch_body_item_from_result(item)
Ref batch_body_item_from_result(const Module& m, const Ref& cls, const Ref& item);
// cls._batch_http_status_for_items(results)
Ref batch_http_status_for_items(const Module& m, const Ref& cls, const Ref& results);
// self._combine_batch_chunk_results(chunk_results)
Ref combine_batch_chunk_results(const Module& m, const Ref& self, const Ref& chunk_results);
// self._batch_result_with_partial_failure(failure, prior_results, total_count)
Ref batch_result_with_partial_failure(const Module& m, const Ref& self, const Ref& failure, const Ref& prior_results,
                                      const Ref& total_count);
// self._rebase_batch_item_indices(result, index_offset)
Ref rebase_batch_item_indices(const Module& m, const Ref& self, const Ref& result, const Ref& index_offset);
// self._batch_result_from_response_error(exc)
Ref batch_result_from_response_error(const Module& m, const Ref& self, const Ref& exc);
// self._batch_result_from_transport_error(exc)
Ref batch_result_from_transport_error(const Module& m, const Ref& self, const Ref& exc);

// ---- observed_body.cpp ---------------------------------------------------------------------

// self._observe_once()
Ref observe_once(const Module& m, const Ref& self);
// self.read()
Ref read(const Module& m, const Ref& self);

// ---- sibling modules (siblings.cpp) --------------------------------------------------------

// _coerce_mi_contract_value(value)
Ref coerce_mi_contract_value(const Module& m, const Ref& value);
// _is_finite_number(value)
Ref is_finite_number(const Module& m, const Ref& value);
// _has_disallowed_mi_contract_field(is_stats)
Ref has_disallowed_mi_contract_field(const Module& m, const Ref& is_stats);
// _has_non_finite_number(value)
Ref has_non_finite_number(const Module& m, const Ref& value);
// _normalize_named_universe(value)
Ref normalize_named_universe(const Module& m, const Ref& value);
// _is_unsafe_named_universe(name)
Ref is_unsafe_named_universe(const Module& m, const Ref& name);
// evaluate_threshold_gates(metrics=..., threshold_set=..., pool_thresholds=...)
Ref evaluate_threshold_gates(const Module& m, const Ref& metrics, const Ref& threshold_set,
                             const Ref& pool_thresholds);
// measure_graph_complexity(graph)
Ref measure_graph_complexity(const Module& m, const Ref& graph);
// _shared_selected_signal_pool_from_era_config(era, signal_pool_name)
Ref selected_signal_pool(const Module& m, const Ref& era, const Ref& signal_pool_name);
// _backtest_timing.require_recorded_backtest_timing(graph); *entry receives
// the graph entry the compiled lookup made (empty otherwise).
Ref require_recorded_backtest_timing(const Module& m, const Ref& graph, Ref* entry);
// _backtest_timing.require_recorded_backtest_timings(graphs); *entries
// receives a list of graph entries (empty when the compiled lookup did not run).
Ref require_recorded_backtest_timings(const Module& m, const Ref& graphs, Ref* entries);
// timing.consume_recorded_backtest_timing(graph), `timing` being the value
// of the _backtest_timing global read by the caller.
Ref consume_recorded_backtest_timing(const Module& m, const Ref& timing, const Ref& graph, const Ref& entry);
// timing.assess_client_backtest_timing(record, frequency=..., per_row_budget_seconds=..., whole_budget_seconds=...)
Ref assess_client_backtest_timing(const Module& m, const Ref& timing, const Ref& record, const Ref& frequency,
                                  const Ref& per_row_budget_seconds, const Ref& whole_budget_seconds);
// The canonical text of `graph` from its graph entry, when the entry is the
// graph's and the graph is unchanged since; runs no Python code.
bool graph_text(const Module& m, const Ref& entry, const Ref& graph, KnownText* known);

}  // namespace tallowmere::calls

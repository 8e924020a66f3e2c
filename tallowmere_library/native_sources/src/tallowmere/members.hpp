// Every callable of tallowmere.submit, declared by the subsystem file that
// implements it and bound, in definition order, by submit.cpp.
#pragma once

#include "core/function.hpp"
#include "submit_state.hpp"

namespace tallowmere::members {

// contract.cpp: submission contract validation and idempotency keys
extern const Member mi_contract_json_value;
extern const Member stat_metric;
extern const Member reject_caller_threshold_authority;
extern const Member validate_submission_thresholds;
extern const Member validate_optional_manifest_int;
extern const Member submission_is_stats_payload;
extern const Member validate_selected_pool_name;
extern const Member validate_named_universe;
extern const Member reject_retired_universe_aliases;

// era_catalog.cpp: finding the active era and reading its fields
extern const Member field_value;
extern const Member mapping_lookup;
extern const Member coerce_optional_int;
extern const Member active_era_from_catalog;
extern const Member required_active_submit_era;
extern const Member required_positive_era_int;
extern const Member required_era_frequency;
extern const Member simulation_data_contract_projection_from_era;

// era_gates.cpp: graph and timing gates, thresholds per pool and universe
extern const Member enforce_graph_complexity_for_submit;
extern const Member enforce_recorded_backtest_timing_for_submit;
extern const Member rule_id_for_named_universe;
extern const Member signal_is_thresholds_for_pool;
extern const Member submission_thresholds_from_era_catalog;

// transport.cpp: URLs, response decoding, the authenticated JSON request
extern const Member percent_encode;
extern const Member join_url;
extern const Member parse_response_json;
extern const Member request_json;

// records.cpp: records and errors of the request path
extern const Member raise_submission_rejected;

// status.cpp: status answers
extern const Member coerce_status_metric;
extern const Member failure_reason_from_status_body;
extern const Member public_status_body;

namespace receipt {
extern const Member init;
}
namespace status_record {
extern const Member init;
}
namespace rejected_error {
extern const Member init;
extern const Member reduce;
}  // namespace rejected_error
namespace response_error {
extern const Member init;
extern const Member reduce;
}  // namespace response_error

// observed_body.cpp
namespace observed_body {
extern const Member init;
extern const Member consumed;
extern const Member observe_once;
extern const Member read;
extern const Member seek;
extern const Member tell;
extern const Member iter;
extern const Member next;
}  // namespace observed_body

// SignalServiceClient, by file: client.cpp, era_gates.cpp, submission.cpp,
// batch.cpp, status.cpp, contract.cpp
namespace client {
extern const Member init;
extern const Member close;
extern const Member response_content;
extern const Member transport_request;
extern const Member canonical_request;
extern const Member fetch_era_catalog;
extern const Member resolve_submit_thresholds;
extern const Member submit_result_from_body;
extern const Member batch_item_result_from_body;
extern const Member batch_result_from_body;
extern const Member batch_body_item_from_result;
extern const Member batch_http_status_for_items;
extern const Member combine_batch_chunk_results;
extern const Member batch_result_with_partial_failure;
extern const Member rebase_batch_item_indices;
extern const Member status_result_from_body;
extern const Member submission_list_result_from_body;
extern const Member submit_result_from_rejection;
extern const Member status_result_from_rejection;
extern const Member error_body_from_response_error;
extern const Member submit_result_from_response_error;
extern const Member batch_result_from_response_error;
extern const Member status_result_from_response_error;
extern const Member submit_result_from_transport_error;
extern const Member batch_result_from_transport_error;
extern const Member status_result_from_transport_error;
extern const Member idempotency_key_for_body;
extern const Member validate_submission_contract;
extern const Member submit_signal;
extern const Member submit_strategy;
extern const Member submit_signals_batch;
extern const Member get_signal_status;
extern const Member list_signal_submissions;
extern const Member poll_until_terminal;
}  // namespace client

}  // namespace tallowmere::members

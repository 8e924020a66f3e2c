// The state of tallowmere.submit: what the module needs to find again quickly.
#pragma once

#include "_native/siblings/api.hpp"
#include "core/module.hpp"
#include "core/records.hpp"
#include "core/watch.hpp"
#include "names.hpp"

#include <array>
#include <initializer_list>

namespace tallowmere {

// The module's own callables that its code calls through a module global or
// an attribute of self or cls: X(identifier, name in Names, kind). While the
// name still resolves to the function the module made at import, the call
// goes straight to its implementation (dispatch.hpp).
#define TALLOWMERE_OWN_CALLABLES(X)                                                         \
    X(mi_contract_json_value, _mi_contract_json_value, module_function)                     \
    X(stat_metric, _stat_metric, module_function)                                           \
    X(reject_caller_threshold_authority, _reject_caller_threshold_authority, module_function) \
    X(validate_submission_thresholds, _validate_submission_thresholds, module_function)     \
    X(validate_optional_manifest_int, _validate_optional_manifest_int, module_function)     \
    X(submission_is_stats_payload, _submission_is_stats_payload, module_function)           \
    X(field_value, _field_value, module_function)                                           \
    X(mapping_lookup, _mapping_lookup, module_function)                                     \
    X(coerce_optional_int, _coerce_optional_int, module_function)                           \
    X(active_era_from_catalog, _active_era_from_catalog, module_function)                   \
    X(required_active_submit_era, _required_active_submit_era, module_function)             \
    X(required_positive_era_int, _required_positive_era_int, module_function)               \
    X(required_era_frequency, _required_era_frequency, module_function)                     \
    X(simulation_data_contract_projection_from_era, _simulation_data_contract_projection_from_era, module_function) \
    X(enforce_graph_complexity_for_submit, _enforce_graph_complexity_for_submit, module_function) \
    X(enforce_recorded_backtest_timing_for_submit, _enforce_recorded_backtest_timing_for_submit, module_function) \
    X(rule_id_for_named_universe, _rule_id_for_named_universe, module_function)             \
    X(signal_is_thresholds_for_pool, _signal_is_thresholds_for_pool, module_function)       \
    X(submission_thresholds_from_era_catalog, _submission_thresholds_from_era_catalog, module_function) \
    X(validate_selected_pool_name, _validate_selected_pool_name, module_function)           \
    X(validate_named_universe, _validate_named_universe, module_function)                   \
    X(reject_retired_universe_aliases, _reject_retired_universe_aliases, module_function)   \
    X(percent_encode, _percent_encode, module_function)                                     \
    X(join_url, _join_url, module_function)                                                 \
    X(parse_response_json, _parse_response_json, module_function)                           \
    X(coerce_status_metric, _coerce_status_metric, module_function)                         \
    X(failure_reason_from_status_body, _failure_reason_from_status_body, module_function)   \
    X(public_status_body, _public_status_body, module_function)                             \
    X(raise_submission_rejected, _raise_submission_rejected, module_function)               \
    X(request_json, _request_json, module_function)                                         \
    X(response_content, _response_content, client_method)                                   \
    X(transport_request, _transport_request, client_method)                                 \
    X(canonical_request, _canonical_request, client_method)                                 \
    X(fetch_era_catalog, _fetch_era_catalog, client_method)                                 \
    X(resolve_submit_thresholds, _resolve_submit_thresholds, client_method)                 \
    X(get_signal_status, get_signal_status, client_method)                                  \
    X(submit_result_from_body, _submit_result_from_body, client_static_method)              \
    X(batch_item_result_from_body, _batch_item_result_from_body, client_static_method)      \
    X(batch_result_from_body, _batch_result_from_body, client_class_method)                 \
    X(batch_body_item_from_result, _batch_body_item_from_result, client_static_method)      \
    X(batch_http_status_for_items, _batch_http_status_for_items, client_static_method)      \
    X(combine_batch_chunk_results, _combine_batch_chunk_results, client_class_method)       \
    X(batch_result_with_partial_failure, _batch_result_with_partial_failure, client_class_method) \
    X(rebase_batch_item_indices, _rebase_batch_item_indices, client_static_method)          \
    X(status_result_from_body, _status_result_from_body, client_static_method)              \
    X(submission_list_result_from_body, _submission_list_result_from_body, client_static_method) \
    X(submit_result_from_rejection, _submit_result_from_rejection, client_static_method)    \
    X(status_result_from_rejection, _status_result_from_rejection, client_static_method)    \
    X(error_body_from_response_error, _error_body_from_response_error, client_static_method) \
    X(submit_result_from_response_error, _submit_result_from_response_error, client_class_method) \
    X(batch_result_from_response_error, _batch_result_from_response_error, client_class_method) \
    X(status_result_from_response_error, _status_result_from_response_error, client_class_method) \
    X(submit_result_from_transport_error, _submit_result_from_transport_error, client_static_method) \
    X(batch_result_from_transport_error, _batch_result_from_transport_error, client_static_method) \
    X(status_result_from_transport_error, _status_result_from_transport_error, client_static_method) \
    X(idempotency_key_for_body, _idempotency_key_for_body, client_static_method)            \
    X(validate_submission_contract, _validate_submission_contract, client_static_method)    \
    X(observe_once, _observe_once, observed_body_method)                                    \
    X(read, read, observed_body_method)

// How a call finds an own callable: as a module global, or as an attribute
// of a client (its instance methods, static methods and class methods) or of
// an observed body.
enum class OwnKind : unsigned char {
    module_function,
    client_method,
    client_static_method,
    client_class_method,
    observed_body_method,
};

enum class Own : unsigned char {
#define TALLOWMERE_OWN_ENUM(identifier, name, kind) identifier,
    TALLOWMERE_OWN_CALLABLES(TALLOWMERE_OWN_ENUM)
#undef TALLOWMERE_OWN_ENUM
};

inline constexpr OwnKind own_kinds[] = {
#define TALLOWMERE_OWN_KIND(identifier, name, kind) OwnKind::kind,
    TALLOWMERE_OWN_CALLABLES(TALLOWMERE_OWN_KIND)
#undef TALLOWMERE_OWN_KIND
};
inline constexpr size_t own_count = sizeof(own_kinds) / sizeof(own_kinds[0]);

// What the module's calls of the standard library rely on when it does their
// work itself (standard.cpp): json.dumps and json.loads with their defaults,
// json.dumps in the canonical form of idempotency keys, hashlib.sha256 and
// math.isinf / math.isfinite. Each is done in place only while the module's
// global of that library is the module it imported and the names the call
// would read there are unchanged.
struct StandardLibrary {
    PyObject* json;     // the modules as imported
    PyObject* hashlib;
    PyObject* math;
    WatchedEntries json_names;       // json: dumps, loads, detect_encoding, JSONEncoder, JSONDecoder, _default_encoder, _default_decoder
    WatchedEntries encoder_names;    // json.encoder: c_make_encoder, encode_basestring_ascii
    WatchedEntries encoder_methods;  // JSONEncoder: __init__, encode, iterencode, default, the separators
    WatchedEntries default_encoder;  // json._default_encoder's settings (standard ones when captured)
    WatchedEntries decoder_methods;  // JSONDecoder: decode, raw_decode
    WatchedEntries default_decoder;  // json._default_decoder: scan_once
    WatchedEntries hashlib_names;    // hashlib: sha256
    WatchedEntries math_names;       // math: isinf, isfinite
    PyObject* scan_once;             // the default decoder's scanner, as captured

    template <class Visitor>
    void visit(Visitor&& visit_object) {
        visit_object(json);
        visit_object(hashlib);
        visit_object(math);
        visit_object(scan_once);
        for (WatchedEntries* watch : {&json_names, &encoder_names, &encoder_methods, &default_encoder, &decoder_methods,
                                      &default_decoder, &hashlib_names, &math_names}) {
            watch->visit(visit_object);
        }
    }
};

struct ModuleState {
    Names names;

    // Parameter defaults that are not None.
    PyObject* default_timeout;         // 30.0
    PyObject* default_limit;           // 100
    PyObject* default_read_size;       // -1
    PyObject* default_whence;          // 0
    PyObject* default_pool_field_name; // "signal_pool_name"

    // The two error classes as this module made them (their methods call
    // super() with them; the module globals of their names may be replaced).
    PyObject* rejected_error_class;
    PyObject* response_error_class;

    // Constant objects of hot paths.
    PyObject* empty_text;           // ""
    PyObject* canonical_separators; // (",", ":")

    // Request paths already split off by httpx.URL, by full URL. They are used
    // only while the module's httpx.URL is still `raw_path_parser`, the class
    // bound at import (its parse is pure but costly); a replacement is always called.
    PyObject* raw_paths;
    PyObject* raw_path_parser;

    // The frozenset this module binds as _UNRESERVED_BYTES, and its members as a
    // table. Percent-encoding uses the table while the global is still this object.
    PyObject* unreserved_bytes;
    std::array<bool, 256> unreserved_table;

    // The module's own callables, by Own (dispatch.hpp).
    std::array<PyObject*, own_count> own;

    StandardLibrary standard;

    // SubmitResult as imported, made directly while the global and the class
    // are unchanged (core/records.hpp)
    RecordClass submit_result;

    // tallowmere._native and its C API, through which the sibling modules'
    // compiled functions are called (dispatch.hpp); no API when it is missing.
    PyObject* native;
    const native_api::Api* native_api;

    // Every object reference the state holds, for traversal and clearing.
    template <class Visitor>
    void visit_objects(Visitor&& visit) {
#define TALLOWMERE_VISIT_NAME(identifier, text) visit(names.identifier);
        TALLOWMERE_INTERNED_NAMES(TALLOWMERE_VISIT_NAME)
#undef TALLOWMERE_VISIT_NAME
        for (PyObject** object : {&default_timeout, &default_limit, &default_read_size, &default_whence,
                                  &default_pool_field_name, &empty_text, &canonical_separators, &unreserved_bytes,
                                  &raw_paths, &raw_path_parser, &rejected_error_class, &response_error_class,
                                  &submit_result.cls}) {
            visit(*object);
        }
        for (PyObject*& callable : own) visit(callable);
        standard.visit(visit);
        visit(native);
    }
};

// Every callable of tallowmere.submit runs in this context.
using Module = ModuleContext<ModuleState>;

}  // namespace tallowmere

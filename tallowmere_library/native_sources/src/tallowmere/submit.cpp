// tallowmere.submit: client-side signal and strategy submission.
//
// This file is the module's entry: it defines the module, its state, and the
// execution step that builds the namespace — imports, logger, constants,
// functions and classes, in definition order. The callables live in one file
// per subsystem (see members.hpp); the shared machinery lives in core/.
#include "core/classes.hpp"
#include "core/python.hpp"
#include "members.hpp"
#include "standard.hpp"

#include <initializer_list>

namespace tallowmere {

namespace {

constexpr const char module_doc[] =
    "Submit subcomponent \xe2\x80\x94 client-side signal and strategy submission.\n"
    "\n"
    "Canonical surface: :class:`SignalServiceClient`. Spec routes are bare\n"
    "``signals/submit`` etc. (no ``api/v1`` prefix), per\n"
    "``plans/tallowmere_library/tallowmere_library.md`` lines 241-244.\n";

constexpr const char unreserved_characters[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";

ModuleState* state_of(PyObject* module) { return static_cast<ModuleState*>(PyModule_GetState(module)); }

void init_state(ModuleState* state) {
#define TALLOWMERE_INTERN_NAME(identifier, text) \
    state->names.identifier = Ref::checked(PyUnicode_InternFromString(text)).release();
    TALLOWMERE_INTERNED_NAMES(TALLOWMERE_INTERN_NAME)
#undef TALLOWMERE_INTERN_NAME
    state->default_timeout = floating(30.0).release();
    state->default_limit = integer(100).release();
    state->default_read_size = integer(-1).release();
    state->default_whence = integer(0).release();
    state->default_pool_field_name = Ref(Borrowed(state->names.signal_pool_name)).release();
    state->empty_text = text("").release();
    state->canonical_separators = new_tuple({text(","), text(":")}).release();
    state->raw_paths = new_dict().release();
}

// ---- imports -----------------------------------------------------------------------

Ref import_module(PyObject* name) { return Ref::checked(PyImport_Import(name)); }

// from <package> import <name>: the attribute, or the submodule of that name.
Ref import_from(const char* package, PyObject* name) {
    Ref package_name = text(package);
    Ref fromlist = new_tuple({Borrowed(name)});
    Ref module = Ref::checked(PyImport_ImportModuleLevelObject(package_name.get(), nullptr, nullptr,
                                                               fromlist.get(), 0));
    PyObject* value = PyObject_GetAttr(module.get(), name);
    if (value != nullptr) return Ref::steal(value);
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) propagate();
    PyErr_Clear();
    PyErr_Format(PyExc_ImportError, "cannot import name %R from %R", name, package_name.get());
    propagate();
}

void bind_imports(PyObject* module, const Names& n) {
    for (PyObject* name : {n.json, n.logging, n.math, n.time, n.hashlib, n.httpx}) {
        add_object(module, name, import_module(name));
    }
    add_object(module, n.Any, import_from("typing", n.Any));
    add_object(module, n.Callable, import_from("typing", n.Callable));
    add_object(module, n.validate_bearer_transport_url,
               import_from("tallowmere.security.transport", n.validate_bearer_transport_url));
    add_object(module, n.graph_complexity, import_from("tallowmere.simulation", n.graph_complexity));
    add_object(module, n.measure_graph_complexity,
               import_from("tallowmere.simulation.graph_complexity", n.measure_graph_complexity));
    add_object(module, n.evaluate_threshold_gates,
               import_from("tallowmere.submissions.threshold_gates", n.evaluate_threshold_gates));
    for (PyObject* name : {n._coerce_mi_contract_value, n._has_disallowed_mi_contract_field,
                           n._has_non_finite_number, n._is_finite_number}) {
        add_object(module, name, import_from("tallowmere.simulation.mi_contract", name));
    }
    for (PyObject* name : {n._is_unsafe_named_universe, n._normalize_named_universe}) {
        add_object(module, name, import_from("tallowmere.simulation.named_universe", name));
    }
    add_object(module, n._backtest_timing, import_from("tallowmere.simulation", n.backtest_timing));
    add_object(module, n.log_library_surface_event,
               import_from("tallowmere.telemetry.logging_style", n.log_library_surface_event));
    add_object(module, n._shared_selected_signal_pool_from_era_config,
               import_from("tallowmere.submissions.pool_identity", n.selected_signal_pool_from_era_config));
    for (PyObject* name :
         {n.BatchSubmitItemResult, n.BatchSubmitResult, n.SubmissionListResult, n.StatusResult, n.SubmitResult}) {
        add_object(module, name, import_from("tallowmere.api.signal_types", name));
    }
}

void capture_records(PyObject* module, ModuleState* state) {
    const Names& n = state->names;
    capture_record(state->submit_result, Module::of(module).global(n.SubmitResult).get(),
                         {n.status_code, n.body, n.submission_id, n.signal_pool_name, n.strategy_pool_name, n.error});
}

// ---- constants ---------------------------------------------------------------------

Ref frozenset_of(const Ref& iterable) { return Ref::checked(PyFrozenSet_New(iterable.get())); }

void bind_constants(PyObject* module, ModuleState* state) {
    const Names& n = state->names;
    add_object(module, n._MALFORMED_BODY_PREVIEW_BYTES, integer(512));
    add_object(module, n._SIGNALS_BATCH_CLIENT_CHUNK_SIZE, integer(100));

    Ref terminal = Ref::checked(PySet_New(nullptr));
    for (const char* status : {"signal_found", "signal_is_rejected", "signal_os_passed", "signal_os_failed",
                               "signal_server_side_error", "signal_useful", "signal_not_useful",
                               "signal_useful_transition_failed"}) {
        check_status(PySet_Add(terminal.get(), text(status).get()));
    }
    add_object(module, n._TERMINAL_STATUSES, frozenset_of(terminal));
    add_object(module, n._POLL_INTERVAL_SECONDS, floating(0.1));

    Ref unreserved_source = Ref::checked(PyBytes_FromString(unreserved_characters));
    Ref unreserved = frozenset_of(unreserved_source);
    state->unreserved_table.fill(false);
    for (const char* c = unreserved_characters; *c; ++c) state->unreserved_table[static_cast<unsigned char>(*c)] = true;
    state->unreserved_bytes = Ref(unreserved).release();
    add_object(module, n._UNRESERVED_BYTES, unreserved);

    add_object(module, n._RETIRED_UNIVERSE_ALIAS_KEYS,
               new_tuple({text("universe_id"), text("valid_universe_id"), text("valid_universe_rule_id")}));
}

// ---- what the calls compare against -------------------------------------------------------

// The own callable `name` as the module or class holds it: the function
// itself, or the one inside a static or class method.
Ref own_callable(OwnKind kind, PyObject* module, PyObject* client_class, PyObject* observed_class, PyObject* name) {
    PyObject* holder = kind == OwnKind::module_function ? PyModule_GetDict(module)
                       : kind == OwnKind::observed_body_method
                           ? reinterpret_cast<PyTypeObject*>(observed_class)->tp_dict
                           : reinterpret_cast<PyTypeObject*>(client_class)->tp_dict;
    PyObject* value = PyDict_GetItemWithError(holder, name);
    if (value == nullptr) {
        if (!PyErr_Occurred()) PyErr_Format(PyExc_SystemError, "tallowmere.submit: %U was not defined", name);
        propagate();
    }
    Ref held{Borrowed(value)};
    if (kind == OwnKind::client_static_method || kind == OwnKind::client_class_method) {
        return Ref::checked(PyObject_GetAttrString(held.get(), "__func__"));
    }
    return held;
}

void capture_own_callables(PyObject* module, ModuleState* state, PyObject* client_class, PyObject* observed_class) {
    const Names& n = state->names;
#define TALLOWMERE_CAPTURE_OWN(identifier, name, kind)                                                          \
    Py_XSETREF(state->own[static_cast<size_t>(Own::identifier)],                                              \
               own_callable(OwnKind::kind, module, client_class, observed_class, n.name).release());
    TALLOWMERE_OWN_CALLABLES(TALLOWMERE_CAPTURE_OWN)
#undef TALLOWMERE_CAPTURE_OWN
}

// tallowmere._native's C API, when the module is there (it is built with this
// one; a source tree without it calls the siblings' functions as Python calls).
void bind_native_api(ModuleState* state) {
    PyObject* native = PyImport_ImportModule("tallowmere._native");
    if (native == nullptr) {
        if (!PyErr_ExceptionMatches(PyExc_ImportError)) propagate();
        PyErr_Clear();
        return;
    }
    Ref module = Ref::steal(native);
    Ref capsule = getattr(module, Ref(text("_C_API")).get());
    auto* api = static_cast<const native_api::Api*>(PyCapsule_GetPointer(capsule.get(), native_api::capsule_name));
    if (api == nullptr) propagate();
    if (api->version != native_api::version) {
        raise(PyExc_ImportError, "tallowmere._native was built with another version of tallowmere.submit");
    }
    Py_XSETREF(state->native, module.release());
    state->native_api = api;
}

// ---- classes -----------------------------------------------------------------------

Ref define_class(PyObject* module, const char* qualified_name, const char* doc,
                 std::initializer_list<const Member*> class_members, PyObject* exception_base = nullptr) {
    Ref cls = exception_base ? make_exception_class(module, qualified_name, doc, exception_base)
                             : make_class(module, qualified_name, doc);
    for (const Member* m : class_members) add_member(module, cls, *m);
    return cls;
}

int exec_module(PyObject* module) {
    return guarded([&]() -> Ref {
               ModuleState* state = state_of(module);
               init_state(state);
               const Names& n = state->names;
               namespace mb = members;

               bind_imports(module, n);
               capture_standard_library(module, state);
               capture_records(module, state);
               bind_native_api(state);
               Ref logging = Module::of(module).global(n.logging);
               add_object(module, n.logger, call_method(logging, n.getLogger, text("tallowmere.submit")));
               bind_constants(module, state);
               state->raw_path_parser = getattr(Module::of(module).global(n.httpx), n.URL).release();

               for (const Member* m :
                    {&mb::mi_contract_json_value, &mb::stat_metric, &mb::reject_caller_threshold_authority,
                     &mb::validate_submission_thresholds, &mb::validate_optional_manifest_int,
                     &mb::submission_is_stats_payload, &mb::field_value, &mb::mapping_lookup,
                     &mb::coerce_optional_int, &mb::active_era_from_catalog, &mb::required_active_submit_era,
                     &mb::required_positive_era_int, &mb::required_era_frequency,
                     &mb::simulation_data_contract_projection_from_era, &mb::enforce_graph_complexity_for_submit,
                     &mb::enforce_recorded_backtest_timing_for_submit, &mb::rule_id_for_named_universe,
                     &mb::signal_is_thresholds_for_pool, &mb::submission_thresholds_from_era_catalog,
                     &mb::validate_selected_pool_name, &mb::validate_named_universe,
                     &mb::reject_retired_universe_aliases, &mb::percent_encode}) {
                   add_function(module, *m);
               }

               add_object(module, n.SubmissionReceipt,
                          define_class(module, "tallowmere.submit.SubmissionReceipt",
                                       "Receipt returned after successful signal/strategy submission.",
                                       {&mb::receipt::init}));
               add_object(module, n.SubmissionStatus,
                          define_class(module, "tallowmere.submit.SubmissionStatus",
                                       "Status returned by poll_status for a submitted signal/strategy.",
                                       {&mb::status_record::init}));
               Ref rejected_error = define_class(module, "tallowmere.submit.SubmissionRejectedError",
                                                 "Raised when the server rejects a submission or poll request.",
                                                 {&mb::rejected_error::init, &mb::rejected_error::reduce},
                                                 PyExc_Exception);
               state->rejected_error_class = Ref(rejected_error).release();
               add_object(module, n.SubmissionRejectedError, rejected_error);
               Ref response_error = define_class(module, "tallowmere.submit.SignalClientResponseError",
                                                 "Raised when signal_service returns an invalid response body.",
                                                 {&mb::response_error::init, &mb::response_error::reduce},
                                                 PyExc_Exception);
               state->response_error_class = Ref(response_error).release();
               add_object(module, n.SignalClientResponseError, response_error);

               for (const Member* m : {&mb::join_url, &mb::parse_response_json, &mb::coerce_status_metric,
                                       &mb::failure_reason_from_status_body, &mb::public_status_body,
                                       &mb::raise_submission_rejected}) {
                   add_function(module, *m);
               }

               Ref observed_body = define_class(module, "tallowmere.submit._TransmissionObservedBody",
                                                "Seekable request body that observes the first transport read.",
                                                {&mb::observed_body::init, &mb::observed_body::consumed,
                                                 &mb::observed_body::observe_once, &mb::observed_body::read,
                                                 &mb::observed_body::seek, &mb::observed_body::tell,
                                                 &mb::observed_body::iter, &mb::observed_body::next});
               add_object(module, n._TransmissionObservedBody, observed_body);

               add_function(module, mb::request_json);

               namespace c = mb::client;
               Ref client = define_class(module, "tallowmere.submit.SignalServiceClient",
                                       "Result-based HTTP SDK facade backed by the canonical submit transport.",
                                       {&c::init,
                                        &c::close,
                                        &c::response_content,
                                        &c::transport_request,
                                        &c::canonical_request,
                                        &c::fetch_era_catalog,
                                        &c::resolve_submit_thresholds,
                                        &c::submit_result_from_body,
                                        &c::batch_item_result_from_body,
                                        &c::batch_result_from_body,
                                        &c::batch_body_item_from_result,
                                        &c::batch_http_status_for_items,
                                        &c::combine_batch_chunk_results,
                                        &c::batch_result_with_partial_failure,
                                        &c::rebase_batch_item_indices,
                                        &c::status_result_from_body,
                                        &c::submission_list_result_from_body,
                                        &c::submit_result_from_rejection,
                                        &c::status_result_from_rejection,
                                        &c::error_body_from_response_error,
                                        &c::submit_result_from_response_error,
                                        &c::batch_result_from_response_error,
                                        &c::status_result_from_response_error,
                                        &c::submit_result_from_transport_error,
                                        &c::batch_result_from_transport_error,
                                        &c::status_result_from_transport_error,
                                        &c::idempotency_key_for_body,
                                        &c::validate_submission_contract,
                                        &c::submit_signal,
                                        &c::submit_strategy,
                                        &c::submit_signals_batch,
                                        &c::get_signal_status,
                                        &c::list_signal_submissions,
                                        &c::poll_until_terminal});
               add_object(module, n.SignalServiceClient, client);
               capture_own_callables(module, state, client.get(), observed_body.get());
               return Ref(none());
           }) == nullptr
               ? -1
               : 0;
}

PyModuleDef module_def = ModuleDefinition<ModuleState, exec_module>::make("tallowmere.submit", module_doc);

}  // namespace

}  // namespace tallowmere

PyMODINIT_FUNC PyInit_submit(void) { return PyModuleDef_Init(&tallowmere::module_def); }

// Submission records and the two errors of the request path.
//
// SubmissionReceipt and SubmissionStatus store what they are given; the
// request path raises SubmissionRejectedError when the service says no and
// SignalClientResponseError when its answer cannot be used. The public
// methods turn both into result records.
#include "calls.hpp"
#include "core/function.hpp"
#include "core/python.hpp"
#include "dispatch.hpp"
#include "members.hpp"

namespace tallowmere {

namespace {

// super().__init__(message) in a method of `defining_class` (the class this
// module made, whatever the global of its name now holds). `self` may be any
// object, since the method can be called through the class: super() refuses
// one that is not an instance, as it does in Python.
void init_exception_base(const Module& m, PyObject* defining_class, const Ref& self, const Ref& message) {
    Ref base = call(Borrowed(reinterpret_cast<PyObject*>(&PySuper_Type)), Borrowed(defining_class), self);
    call_method(base, m.n.__init__, message);
}

// ---- SubmissionReceipt ----------------------------------------------------------

constexpr auto receipt_init_signature =
    signature("SubmissionReceipt.__init__", Binding::instance_method, nullptr, param("submission_id"));

Ref receipt_init(const Module& m, const Ref& self, const Ref& submission_id) {
    setattr(self, m.n.submission_id, submission_id);
    return Ref(none());
}

// ---- SubmissionStatus -------------------------------------------------------------

constexpr auto status_init_signature = signature(
    "SubmissionStatus.__init__", Binding::instance_method, nullptr, param("submission_id"), param("status"),
    param("is_stats"), param("payment"), param("rejection_reason"), param("signal_pool_name", none_default),
    param("is_correlation", none_default), param("agent_is_correlation", none_default),
    param("is_pnl_mi", none_default), param("agent_is_pnl_mi", none_default), param("failure_reason", none_default),
    param("failure_detail", none_default), param("failure_message", none_default));

Ref status_init(const Module& m, const Ref& self, const Ref& submission_id, const Ref& status, const Ref& is_stats,
                const Ref& payment, const Ref& rejection_reason, const Ref& signal_pool_name, const Ref& is_correlation,
                const Ref& agent_is_correlation, const Ref& is_pnl_mi, const Ref& agent_is_pnl_mi, const Ref& failure_reason,
                const Ref& failure_detail, const Ref& failure_message) {
    const Names& n = m.n;
    setattr(self, n.submission_id, submission_id);
    setattr(self, n.status, status);
    setattr(self, n.is_stats, is_stats);
    setattr(self, n.payment, payment);
    setattr(self, n.rejection_reason, rejection_reason);
    setattr(self, n.signal_pool_name, signal_pool_name);
    setattr(self, n.is_correlation, is_correlation);
    setattr(self, n.agent_is_correlation, agent_is_correlation);
    setattr(self, n.is_pnl_mi, is_pnl_mi);
    setattr(self, n.agent_is_pnl_mi, agent_is_pnl_mi);
    setattr(self, n.failure_reason, failure_reason);
    setattr(self, n.failure_detail, failure_detail);
    setattr(self, n.failure_message, failure_message);
    return Ref(none());
}

// ---- SubmissionRejectedError ---------------------------------------------------------

constexpr auto rejected_init_signature =
    signature("SubmissionRejectedError.__init__", Binding::instance_method, nullptr, param("status_code"),
              param("reason"), param("details", none_default), param("body", none_default));

Ref rejected_init(const Module& m, const Ref& self, const Ref& status_code, const Ref& reason, const Ref& details,
                  const Ref& body) {
    init_exception_base(m, m.state().rejected_error_class, self,
                        format_text("%S: %S", status_code.get(), reason.get()));
    setattr(self, m.n.status_code, status_code);
    setattr(self, m.n.reason, reason);
    setattr(self, m.n.details, details);
    setattr(self, m.n.body, body);
    return Ref(none());
}

// ---- SignalClientResponseError --------------------------------------------------------

constexpr auto response_error_init_signature =
    signature("SignalClientResponseError.__init__", Binding::instance_method, nullptr, param("message"),
              keyword_only("status_code"), keyword_only("url"), keyword_only("raw_body"));

Ref response_error_init(const Module& m, const Ref& self, const Ref& message, const Ref& status_code, const Ref& url,
                        const Ref& raw_body) {
    init_exception_base(m, m.state().response_error_class, self, message);
    setattr(self, m.n.status_code, status_code);
    setattr(self, m.n.url, url);
    setattr(self, m.n.raw_body, raw_body);
    Ref preview_bytes = m.global(m.n._MALFORMED_BODY_PREVIEW_BYTES);
    setattr(self, m.n.raw_body_preview, slice_to(raw_body, preview_bytes));
    return Ref(none());
}

// ---- pickling and copying the errors ---------------------------------------------------

// Both errors are rebuilt as their class's __new__ with the exception's args,
// then given every attribute back, without running __init__ again:
//     (copyreg.__newobj__, (type(self), *self.args), self.__dict__)
// so pickle, copy and a worker process's exceptions carry them whole.
Ref reduce_exception(const Module& m, const Ref& self) {
    const Names& n = m.n;
    Ref copyreg = Ref::checked(PyImport_Import(n.copyreg));
    Ref rebuild = getattr(copyreg, n.__newobj__);
    Ref cls(Borrowed(reinterpret_cast<PyObject*>(Py_TYPE(self.get()))));
    Ref args = Ref::checked(PySequence_Tuple(getattr(self, n.args).get()));
    Ref rebuild_args = Ref::checked(PySequence_Concat(new_tuple({cls}).get(), args.get()));
    return new_tuple({rebuild, rebuild_args, getattr(self, n.__dict__)});
}

constexpr auto rejected_reduce_signature =
    signature("SubmissionRejectedError.__reduce__", Binding::instance_method, nullptr);
constexpr auto response_error_reduce_signature =
    signature("SignalClientResponseError.__reduce__", Binding::instance_method, nullptr);

// ---- _raise_submission_rejected -----------------------------------------------------------

constexpr auto raise_submission_rejected_signature = signature(
    "_raise_submission_rejected", Binding::module_function, nullptr, param("status_code"), param("response_data"));

Ref raise_submission_rejected(const Module& m, const Ref& status_code, const Ref& response_data) {
    Ref reason = mapping_get(m, response_data, m.n.reason);
    if (!truthy(reason)) reason = mapping_get(m, response_data, m.n.error);
    if (!truthy(reason)) reason = concat({text("http_"), format(status_code)});
    Ref details = mapping_get_or(m, response_data, Borrowed(m.n.details), none());
    Ref error = call_global_kw(m, m.n.SubmissionRejectedError, {status_code, reason, details},
                               {{m.n.body, response_data}});
    raise_instance(error);
}

}  // namespace

namespace calls {

Ref raise_submission_rejected(const Module& m, const Ref& status_code, const Ref& body) {
    return through_global(
        m, Own::raise_submission_rejected, m.n._raise_submission_rejected,
        [&] { return tallowmere::raise_submission_rejected(m, status_code, body); },
        [&](const Ref& f) { return call(f, status_code, body); });
}

}  // namespace calls

namespace members {
namespace receipt {
const Member init = member<receipt_init_signature, receipt_init>();
}
namespace status_record {
const Member init = member<status_init_signature, status_init>();
}
namespace rejected_error {
const Member init = member<rejected_init_signature, rejected_init>();
const Member reduce = member<rejected_reduce_signature, reduce_exception>();
}  // namespace rejected_error
namespace response_error {
const Member init = member<response_error_init_signature, response_error_init>();
const Member reduce = member<response_error_reduce_signature, reduce_exception>();
}  // namespace response_error
const Member raise_submission_rejected = member<raise_submission_rejected_signature, tallowmere::raise_submission_rejected>();
}  // namespace members

}  // namespace tallowmere

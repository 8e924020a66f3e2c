#include "request_errors.hpp"

namespace tallowmere {

RequestFailure classify_request_failure(const Module& m, const Caught& caught) {
    const Names& n = m.n;
    Ref transport_errors =
        new_tuple({Borrowed(PyExc_ConnectionError), getattr(m.global(n.httpx), n.TransportError)});
    if (caught.matches(transport_errors)) return RequestFailure::transport;
    if (caught.matches(m.global(n.SubmissionRejectedError))) return RequestFailure::rejected;
    if (caught.matches(m.global(n.SignalClientResponseError))) return RequestFailure::unusable_response;
    caught.reraise();
}

bool is_client_error_status(const Module& m, const Ref& exc) {
    Ref status_code = getattr(exc, m.n.status_code);
    return compare(integer(400), status_code, Py_LE) && compare(status_code, integer(500), Py_LT);
}

Ref type_name(const Module& m, const Ref& exc) {
    return getattr(Borrowed(reinterpret_cast<PyObject*>(Py_TYPE(exc.get()))), m.n.__name__);
}

Ref transport_error_text(const Module& m, const Ref& exc) {
    Ref message = str(exc);
    if (truthy(message)) return message;
    return type_name(m, exc);
}

}  // namespace tallowmere

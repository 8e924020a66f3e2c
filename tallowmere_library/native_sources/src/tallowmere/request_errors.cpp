#include "request_errors.hpp"

namespace tallowmere {

namespace {

// 400 <= exc.status_code < 500, or (with gateway errors) exc.status_code in (502, 503, 504)
bool maps_status(const Module& m, const Ref& exc, MappedStatuses mapped) {
    Ref status_code = getattr(exc, m.n.status_code);
    if (compare(integer(400), status_code, Py_LE) && compare(status_code, integer(500), Py_LT)) return true;
    if (mapped != MappedStatuses::client_and_gateway_errors) return false;
    Ref again = getattr(exc, m.n.status_code);
    for (long gateway_status : {502L, 503L, 504L}) {
        if (equals(again, integer(gateway_status))) return true;
    }
    return false;
}

}  // namespace

RequestFailure classify_request_failure(const Module& m, const Caught& caught, MappedStatuses mapped) {
    const Names& n = m.n;
    Ref transport_errors =
        new_tuple({Borrowed(PyExc_ConnectionError), getattr(m.global(n.httpx), n.TransportError)});
    if (caught.matches(transport_errors)) return RequestFailure::transport;
    if (caught.matches(m.global(n.SubmissionRejectedError))) return RequestFailure::rejected;
    if (caught.matches(m.global(n.SignalClientResponseError)) && maps_status(m, Ref(caught.exception()), mapped)) {
        return RequestFailure::unusable_response;
    }
    caught.reraise();
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

// The `try` around the request of each public method, and its three handlers
// in the order they stand:
//
//     try:
//         status_code, body = self._canonical_request(*args)
//     except (ConnectionError, httpx.TransportError) as exc:
//         return on_transport(exc)
//     except SubmissionRejectedError as exc:
//         return on_rejected(exc)
//     except SignalClientResponseError as exc:
//         if <exc.status_code is one the method maps>:
//             return on_unusable(exc)
//         raise
#pragma once

#include "core/python.hpp"
#include "submit_state.hpp"

#include <optional>
#include <tuple>

namespace tallowmere {

// Which unusable answers (SignalClientResponseError) a method maps to a result.
enum class MappedStatuses {
    client_errors,               // 400 <= status < 500
    client_and_gateway_errors,   // ... or status in (502, 503, 504)
};

enum class RequestFailure { transport, rejected, unusable_response };

// The handler that takes `caught`; anything no handler takes (an unusable
// answer with a status the method does not map included) is re-raised.
RequestFailure classify_request_failure(const Module& m, const Caught& caught, MappedStatuses mapped);

// str(exc), or the name of its class when that text is empty.
Ref transport_error_text(const Module& m, const Ref& exc);

// type(exc).__name__
Ref type_name(const Module& m, const Ref& exc);

// Runs the request (`request()`, the self._canonical_request(...) call);
// returns the result a handler made of its failure, or nothing when it
// answered (`status_code` and `body` then hold the answer).
template <class Request, class OnTransport, class OnRejected, class OnUnusable>
std::optional<Ref> request_or_mapped_failure(const Module& m, Request&& request, Ref& status_code, Ref& body,
                                             MappedStatuses mapped, OnTransport&& on_transport,
                                             OnRejected&& on_rejected, OnUnusable&& on_unusable) {
    return try_except(
        [&]() -> std::optional<Ref> {
            std::tie(status_code, body) = unpack_pair(request());
            return std::nullopt;
        },
        [&](const Caught& caught) -> std::optional<Ref> {
            Ref exc(caught.exception());
            switch (classify_request_failure(m, caught, mapped)) {
                case RequestFailure::transport:
                    return on_transport(exc);
                case RequestFailure::rejected:
                    return on_rejected(exc);
                case RequestFailure::unusable_response:
                    return on_unusable(exc);
            }
            caught.reraise();
        });
}

}  // namespace tallowmere

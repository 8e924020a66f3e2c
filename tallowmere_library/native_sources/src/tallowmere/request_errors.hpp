// The three kinds of failure the public methods turn into results, tried in
// the order their handlers stand: transport failures (ConnectionError,
// httpx.TransportError), rejections by the service (SubmissionRejectedError)
// and unusable answers (SignalClientResponseError).
#pragma once

#include "submit_state.hpp"
#include "core/python.hpp"

#include <initializer_list>
#include <tuple>

namespace tallowmere {

enum class RequestFailure { transport, rejected, unusable_response };

// Which handler takes `caught`; anything else is re-raised unchanged.
RequestFailure classify_request_failure(const Module& m, const Caught& caught);

// 400 <= exc.status_code < 500
bool is_client_error_status(const Module& m, const Ref& exc);

// str(exc), or the name of its class when that text is empty.
Ref transport_error_text(const Module& m, const Ref& exc);

// type(exc).__name__
Ref type_name(const Module& m, const Ref& exc);

// status_code, body = self._canonical_request(*args), inside a `try` whose
// handlers are `on_failure`: returns the handler's result when the request
// failed (and the handler did not re-raise), else an empty Ref with
// `status_code` and `body` filled in.
template <class OnFailure>
Ref request_or_mapped_failure(const Module& m, const Ref& self, std::initializer_list<Arg> args, Ref& status_code,
                              Ref& body, OnFailure&& on_failure) {
    return try_except(
        [&] {
            Ref answer;
            if (args.size() == 3) {
                auto it = args.begin();
                answer = call_method(self, m.n._canonical_request, it[0], it[1], it[2]);
            } else {
                auto it = args.begin();
                answer = call_method(self, m.n._canonical_request, it[0], it[1]);
            }
            std::tie(status_code, body) = unpack_pair(answer);
            return Ref();
        },
        on_failure);
}

}  // namespace tallowmere

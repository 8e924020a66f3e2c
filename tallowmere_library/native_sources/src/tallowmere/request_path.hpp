// The request path between SignalServiceClient._canonical_request
// (client.cpp) and _request_json (transport.cpp), for the direct calls of
// one by the other.
#pragma once

#include "core/python.hpp"
#include "submit_state.hpp"

namespace tallowmere {

// Where _request_json takes its token from and what it sends through: the
// get_token and request_func callables it was given, or, when the module's own
// _canonical_request called it directly, what they would have been. Without
// get_token the token is token_owner._jwt_token read when the token is due
// (what get_token reads); without request_func the request goes to the
// module's own _transport_request bound to `sender` (what
// self._transport_request resolved to when _canonical_request ran).
struct RequestParties {
    const Ref* get_token;
    const Ref* token_owner;
    const Ref* request_func;
    const Ref* sender;
};

// _request_json(method, endpoint, get_token, server_url, body, request_func, transmission_observer)
Ref request_json_for(const Module& m, const Ref& method, const Ref& endpoint, const RequestParties& parties,
                     const Ref& server_url, const Ref& body, const Ref& transmission_observer);

// client._transport_request(method, url, headers, body_content) by the module's own implementation.
Ref send_through_client(const Module& m, const Ref& client, const Ref& method, const Ref& url, const Ref& headers,
                        const Ref& body_content);

}  // namespace tallowmere

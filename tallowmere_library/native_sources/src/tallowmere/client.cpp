// SignalServiceClient's core: construction, closing, and the one request path
// (_canonical_request) that every public method takes, over either its own
// httpx.Client or the transport object a caller supplies.
#include "calls.hpp"
#include "core/function.hpp"
#include "core/python.hpp"
#include "dispatch.hpp"
#include "members.hpp"
#include "request_path.hpp"
#include "standard.hpp"

namespace tallowmere {

namespace {

constexpr auto init_signature = signature(
    "SignalServiceClient.__init__", Binding::instance_method, nullptr, param("base_url"), param("jwt_token"),
    keyword_only("timeout", constant_default<&ModuleState::default_timeout>("30.0")),
    keyword_only("transport", none_default), keyword_only("transmission_observer", none_default));

Ref init(const Module& m, const Ref& self, const Ref& base_url, const Ref& jwt_token, const Ref& timeout,
         const Ref& transport, const Ref& transmission_observer) {
    const Names& n = m.n;
    call_global(m, n.validate_bearer_transport_url, base_url);
    setattr(self, n._base_url, base_url);
    setattr(self, n._jwt_token, jwt_token);
    setattr(self, n._timeout, timeout);
    setattr(self, n._transmission_observer, transmission_observer);
    if (transport.is_none()) {
        Ref lowered = call_method(base_url, n.lower);
        bool plain_http = truthy(call_method(lowered, n.startswith, text("http://")));
        Ref httpx = m.global(n.httpx);
        Ref client = plain_http ? call_method_kw(httpx, n.Client, {},
                                                 {{n.base_url, base_url}, {n.timeout, timeout}, {n.verify, boolean(false)}})
                                : call_method_kw(httpx, n.Client, {}, {{n.base_url, base_url}, {n.timeout, timeout}});
        setattr(self, n._client, client);
    } else {
        setattr(self, n._client, transport);
    }
    setattr(self, n._era_catalog_cache, none());
    return Ref(none());
}

constexpr auto close_signature = signature("SignalServiceClient.close", Binding::instance_method,
                                           "Close the HTTP client (a caller's transport only if it has close()).");

Ref close(const Module& m, const Ref& self) {
    Ref client = getattr(self, m.n._client);
    Ref close_method = getattr_or(client, m.n.close, none());
    if (PyCallable_Check(close_method.get())) call(close_method);
    return Ref(none());
}

constexpr auto response_content_signature =
    signature("SignalServiceClient._response_content", Binding::instance_method, nullptr, param("response"));

Ref response_content(const Module& m, Borrowed, const Ref& response) {
    const Names& n = m.n;
    Ref content = getattr_or(response, n.content, none());
    if (is_bytes(content)) return content;
    if (is_str(content)) return call_method(content, n.encode, Borrowed(n.utf_8));
    Ref body_text = getattr_or(response, n.text, none());
    if (is_str(body_text)) return call_method(body_text, n.encode, Borrowed(n.utf_8));
    if (!hasattr(response, n.json)) return Ref::checked(PyBytes_FromStringAndSize("", 0));
    Ref decoded = call_method(response, n.json);
    return json_dumps_bytes(m, decoded);
}

// The path and query of `url` as httpx.URL gives them ("/" when empty).
Ref parse_request_path(const Module& m, const Ref& url_class, const Ref& url) {
    Ref raw = getattr(call(url_class, url), m.n.raw_path);
    if (is_bytes(raw)) raw = call_method(raw, m.n.decode, Borrowed(m.n.ascii));
    return truthy(raw) ? raw : Ref(Borrowed(m.n.slash));
}

// parse_request_path, remembered per URL string for the httpx.URL bound at
// import; any other parser is called every time.
constexpr Py_ssize_t remembered_paths_limit = 1024;

Ref request_path(const Module& m, const Ref& url) {
    ModuleState& state = m.state();
    Ref url_class = getattr(m.global(m.n.httpx), m.n.URL);
    if (!url_class.is(Borrowed(state.raw_path_parser)) || !PyUnicode_CheckExact(url.get())) {
        return parse_request_path(m, url_class, url);
    }
    PyObject* known = PyDict_GetItemWithError(state.raw_paths, url.get());
    if (known != nullptr) return Ref(Borrowed(known));
    if (PyErr_Occurred()) propagate();
    Ref path = parse_request_path(m, url_class, url);
    if (PyDict_GET_SIZE(state.raw_paths) >= remembered_paths_limit) PyDict_Clear(state.raw_paths);
    if (PyUnicode_CheckExact(path.get())) check_status(PyDict_SetItem(state.raw_paths, url.get(), path.get()));
    return path;
}

constexpr auto transport_request_signature =
    signature("SignalServiceClient._transport_request", Binding::instance_method, nullptr, param("method"),
              param("url"), param("headers"), param("body_content"));

}  // namespace

Ref send_through_client(const Module& m, const Ref& self, const Ref& method, const Ref& url, const Ref& headers,
                        const Ref& body_content) {
    const Names& n = m.n;
    Ref path = request_path(m, url);

    Ref client = getattr(self, n._client);
    Ref response;
    if (equals(method, Borrowed(n.POST))) {
        response = call_method_kw(client, n.post, {path}, {{n.content, body_content}, {n.headers, headers}});
    } else if (equals(method, Borrowed(n.GET))) {
        response = call_method_kw(client, n.get, {path}, {{n.headers, headers}});
    } else if (hasattr(client, n.request)) {
        response =
            call_method_kw(client, n.request, {method, path}, {{n.content, body_content}, {n.headers, headers}});
    } else {
        raise_value_error(concat({text("Unsupported HTTP method: "), format(method)}));
    }
    Ref status_code = getattr(response, n.status_code);
    Ref content = calls::response_content(m, self, response);
    return new_tuple({status_code, content});
}

namespace {

Ref transport_request(const Module& m, const Ref& self, const Ref& method, const Ref& url, const Ref& headers,
                      const Ref& body_content) {
    return send_through_client(m, self, method, url, headers, body_content);
}

// The `get_token` callable _canonical_request hands to _request_json: reads
// the client's _jwt_token when it is called, so a replaced token is used by
// the next request. It is bound to the pair (client, the interned "_jwt_token").
PyObject* read_token(PyObject* client_and_name, PyObject*) noexcept {
    return PyObject_GetAttr(PyTuple_GET_ITEM(client_and_name, 0), PyTuple_GET_ITEM(client_and_name, 1));
}

PyMethodDef read_token_def = {"get_token", read_token, METH_NOARGS, nullptr};

constexpr auto canonical_request_signature =
    signature("SignalServiceClient._canonical_request", Binding::instance_method, nullptr, param("method"),
              param("endpoint"), param("body", none_default));

Ref make_get_token(const Module& m, const Ref& self) {
    Ref token_source = new_tuple({self, Borrowed(m.n._jwt_token)});
    return Ref::checked(PyCFunction_New(&read_token_def, token_source.get()));
}

// The request function as self._transport_request gives it.
Ref request_function(const FoundMethod& found, const Ref& self) {
    if (found.unbound) return Ref::checked(PyMethod_New(found.callable.get(), self.get()));
    return found.callable;
}

Ref canonical_request(const Module& m, const Ref& self, const Ref& method, const Ref& endpoint, const Ref& body) {
    const Names& n = m.n;
    // Read in the order the call reads them: self._base_url,
    // self._transport_request, self._transmission_observer, then _request_json.
    Ref base_url = getattr(self, n._base_url);
    FoundMethod transport = find_method(self, n._transport_request);
    Ref observer = getattr(self, n._transmission_observer);
    PyObject* request_json = global_now(m, n._request_json);
    Ref sender;
    if (request_json == own(m, Own::request_json)) {
        bool own_transport = resolves_to_own(m, Own::transport_request, transport, self, &sender);
        Ref request_func = own_transport ? Ref() : request_function(transport, self);
        // get_token reads self._jwt_token when it is called: the client stands in for it.
        RequestParties parties{nullptr, &self, own_transport ? nullptr : &request_func, &sender};
        return request_json_for(m, method, endpoint, parties, base_url, body, observer);
    }
    Ref callable{Borrowed(request_json)};
    Ref get_token = make_get_token(m, self);
    return call_kw(callable, {method, endpoint, get_token, base_url, body},
                   {{n.request_func, request_function(transport, self)}, {n.transmission_observer, observer}});
}

}  // namespace

namespace calls {

Ref response_content(const Module& m, const Ref& self, const Ref& response) {
    return through_attribute(
        m, Own::response_content, self, m.n._response_content,
        [&](const Ref& client) { return tallowmere::response_content(m, client, response); },
        [&](const FoundMethod& found) { return call_found(found, self, {response}); });
}

Ref canonical_request(const Module& m, const Ref& self, PyObject* method, PyObject* endpoint, const Ref& body) {
    Ref method_text{Borrowed(method)}, endpoint_text{Borrowed(endpoint)};
    return through_attribute(
        m, Own::canonical_request, self, m.n._canonical_request,
        [&](const Ref& client) {
            return tallowmere::canonical_request(m, client, method_text, endpoint_text, body ? body : Ref(none()));
        },
        [&](const FoundMethod& found) {
            return body ? call_found(found, self, {method_text, endpoint_text, body})
                        : call_found(found, self, {method_text, endpoint_text});
        });
}

}  // namespace calls

namespace members::client {
const Member init = member<init_signature, tallowmere::init>();
const Member close = member<close_signature, tallowmere::close>();
const Member response_content = member<response_content_signature, tallowmere::response_content>();
const Member transport_request = member<transport_request_signature, tallowmere::transport_request>();
const Member canonical_request = member<canonical_request_signature, tallowmere::canonical_request>();
}  // namespace members::client

}  // namespace tallowmere

// The request path every call of the client takes: URL building, the
// authenticated JSON request through a transport callback, and the decoding
// of the answer into a JSON object (or an error that says why not).
#include "calls.hpp"
#include "core/function.hpp"
#include "core/python.hpp"
#include "dispatch.hpp"
#include "members.hpp"
#include "request_path.hpp"
#include "standard.hpp"

#include <vector>

namespace tallowmere {

namespace {

// ---- _percent_encode ----------------------------------------------------------------

constexpr auto percent_encode_signature =
    signature("_percent_encode", Binding::module_function,
              "Percent-encode every byte except RFC 3986 unreserved characters.", param("value"));

constexpr char hex_digits[] = "0123456789ABCDEF";

Ref percent_encode(const Module& m, const Ref& value) {
    // value.encode("utf-8")
    Ref encoded = PyUnicode_CheckExact(value.get())
                      ? Ref::checked(PyUnicode_AsUTF8String(value.get()))
                      : call_method(value, m.n.encode, Borrowed(m.n.utf_8));
    if (!PyBytes_Check(encoded.get())) {
        PyErr_Format(PyExc_TypeError, "encode() returned %.100s, not bytes", Py_TYPE(encoded.get())->tp_name);
        propagate();
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(PyBytes_AS_STRING(encoded.get()));
    Py_ssize_t size = PyBytes_GET_SIZE(encoded.get());

    // Whether each byte is kept, asked of the module's _UNRESERVED_BYTES as it
    // is now, byte by byte; the table answers for the frozenset the module was
    // loaded with. (`encoded` is immutable and held, so its bytes stay put
    // while a replaced set's __contains__ runs.)
    Ref unreserved = m.global(m.n._UNRESERVED_BYTES);
    const bool by_table = unreserved.is(Borrowed(m.state().unreserved_bytes));
    std::vector<bool> answers;
    if (!by_table) {
        answers.resize(static_cast<size_t>(size));
        for (Py_ssize_t i = 0; i < size; ++i) answers[i] = contains(unreserved, integer(bytes[i]));
    }
    const std::array<bool, 256>& table = m.state().unreserved_table;
    auto kept = [&](Py_ssize_t i) { return by_table ? table[bytes[i]] : answers[i]; };

    // A kept byte b becomes chr(b): a caller who widens the set past ASCII
    // gets Latin-1 characters, so the text is sized for the largest one.
    Py_ssize_t out_size = 0;
    Py_UCS4 max_char = 127;
    for (Py_ssize_t i = 0; i < size; ++i) {
        out_size += kept(i) ? 1 : 3;
        if (kept(i) && bytes[i] > max_char) max_char = bytes[i];
    }
    Ref result = Ref::checked(PyUnicode_New(out_size, max_char));
    auto* out = static_cast<Py_UCS1*>(PyUnicode_DATA(result.get()));
    for (Py_ssize_t i = 0; i < size; ++i) {
        unsigned char byte = bytes[i];
        if (kept(i)) {
            *out++ = byte;
        } else {
            *out++ = '%';
            *out++ = hex_digits[byte >> 4];
            *out++ = hex_digits[byte & 0x0F];
        }
    }
    return result;
}

// ---- _join_url ---------------------------------------------------------------------

constexpr auto join_url_signature =
    signature("_join_url", Binding::module_function, nullptr, param("server_url"), param("endpoint"));

// The characters of an exact str between `start` and `stop` after dropping
// any run of "/" at its end (rstrip) or at its start (lstrip).
Ref stripped_slashes(const Ref& value, bool at_end) {
    Py_ssize_t start = 0, stop = PyUnicode_GET_LENGTH(value.get());
    int kind = PyUnicode_KIND(value.get());
    const void* data = PyUnicode_DATA(value.get());
    if (at_end) {
        while (stop > 0 && PyUnicode_READ(kind, data, stop - 1) == '/') --stop;
    } else {
        while (start < stop && PyUnicode_READ(kind, data, start) == '/') ++start;
    }
    return Ref::checked(PyUnicode_Substring(value.get(), start, stop));
}

Ref join_url(const Module& m, const Ref& server_url, const Ref& endpoint) {
    // server_url.rstrip("/") + "/" + endpoint.lstrip("/")
    Borrowed slash(m.n.slash);
    Ref base = PyUnicode_CheckExact(server_url.get()) ? stripped_slashes(server_url, true)
                                                      : call_method(server_url, m.n.rstrip, slash);
    Ref route = PyUnicode_CheckExact(endpoint.get()) ? stripped_slashes(endpoint, false)
                                                     : call_method(endpoint, m.n.lstrip, slash);
    Ref joined = Ref::checked(PyNumber_Add(base.get(), slash.get()));
    return Ref::checked(PyNumber_Add(joined.get(), route.get()));
}

// ---- _parse_response_json --------------------------------------------------------------

constexpr auto parse_response_json_signature =
    signature("_parse_response_json", Binding::module_function, nullptr, param("status_code"),
              param("response_body_bytes"), param("url"), keyword_only("operation"));

// Logs the warning that precedes every SignalClientResponseError of decoding.
void log_unusable_response(const Module& m, const char* message, const Ref& status_code, const Ref& body,
                           const Ref& url, const Ref& operation) {
    const Names& n = m.n;
    Ref preview = slice_to(body, m.global(n._MALFORMED_BODY_PREVIEW_BYTES));
    Ref extra = new_dict();
    set_item(extra, Borrowed(n.status_code), status_code);
    set_item(extra, Borrowed(n.url), url);
    set_item(extra, Borrowed(n.operation), operation);
    set_item(extra, Borrowed(n.raw_body_preview), preview);
    Ref logger = m.global(n.logger);
    call_method_kw(logger, n.warning, {text(message), url, status_code, operation, preview}, {{n.extra, extra}});
}

Ref response_error(const Module& m, const char* prefix, const Ref& status_code, const Ref& body, const Ref& url,
                   const Ref& operation) {
    Ref message = concat({text(prefix), format(url), text(" for "), format(operation)});
    return call_global_kw(m, m.n.SignalClientResponseError, {message},
                          {{m.n.status_code, status_code}, {m.n.url, url}, {m.n.raw_body, body}});
}

Ref parse_response_json(const Module& m, const Ref& status_code, const Ref& response_body_bytes, const Ref& url,
                        const Ref& operation) {
    const Names& n = m.n;
    Ref data = try_except(
        [&] { return json_loads(m, response_body_bytes); },
        [&](const Caught& caught) -> Ref {
            Ref json = m.global(n.json);
            Ref decode_errors = new_tuple({getattr(json, n.JSONDecodeError), Borrowed(PyExc_UnicodeDecodeError),
                                           Borrowed(PyExc_ValueError)});
            if (!caught.matches(decode_errors)) caught.reraise();
            log_unusable_response(m, "Malformed JSON response from %s status=%s operation=%s raw_body=%r",
                                  status_code, response_body_bytes, url, operation);
            raise_instance_from(
                response_error(m, "Malformed JSON response from ", status_code, response_body_bytes, url, operation),
                caught.exception());
        });
    if (!is_dict(data)) {
        log_unusable_response(m, "Non-object JSON response from %s status=%s operation=%s raw_body=%r", status_code,
                              response_body_bytes, url, operation);
        raise_instance(
            response_error(m, "Non-object JSON response from ", status_code, response_body_bytes, url, operation));
    }
    return data;
}

// ---- _request_json ------------------------------------------------------------------------

// 200 <= status_code < 300
bool is_success_status(const Ref& status_code) {
    if (PyLong_CheckExact(status_code.get())) {
        int overflow = 0;
        long long status = PyLong_AsLongLongAndOverflow(status_code.get(), &overflow);
        if (overflow == 0) return 200 <= status && status < 300;
    }
    Ref low = integer(200), high = integer(300);
    return compare(low, status_code, Py_LE) && compare(status_code, high, Py_LT);
}

constexpr auto request_json_signature = signature(
    "_request_json", Binding::module_function,
    "Run an authenticated JSON request through the supplied transport.\n\n"
    " The transport callback receives ``(method, url, headers, body)`` and returns\n"
    " ``(status_code, response_body_bytes)``. With a transmission observer, body\n"
    " is a supported readable/iterable stream that observes its first non-empty\n"
    " read. SignalServiceClient passes that stream to httpx via ``content=``.\n",
    param("method"), param("endpoint"), param("get_token"), param("server_url"), param("body"),
    param("request_func"), param("transmission_observer", none_default));

}  // namespace

Ref request_json_for(const Module& m, const Ref& method, const Ref& endpoint, const RequestParties& parties,
                     const Ref& server_url, const Ref& body, const Ref& transmission_observer) {
    const Names& n = m.n;
    Ref url = calls::join_url(m, server_url, endpoint);
    call_global(m, n.validate_bearer_transport_url, url);
    Ref token = parties.get_token ? call(*parties.get_token) : getattr(*parties.token_owner, n._jwt_token);

    Ref headers = new_dict();
    Ref bearer = PyUnicode_CheckExact(token.get()) ? Ref::checked(PyUnicode_Concat(n.bearer_prefix, token.get()))
                                                   : concat({Borrowed(n.bearer_prefix), str(token)});
    set_item(headers, Borrowed(n.Authorization), bearer);

    Ref body_bytes = Ref(none());
    if (!body.is_none()) {
        set_item(headers, Borrowed(n.Content_Type), Borrowed(n.application_json));
        Ref idempotency_key = is_dict(body) ? mapping_get(m, body, n.idempotency_key) : Ref(none());
        if (truthy(idempotency_key)) set_item(headers, Borrowed(n.Idempotency_Key), str(idempotency_key));
        body_bytes = json_dumps_bytes(m, body);
    }

    Ref request_body = body_bytes;
    Ref observed_body = Ref(none());
    if (!transmission_observer.is_none() && !body_bytes.is_none()) {
        observed_body =
            call_global(m, n._TransmissionObservedBody, body_bytes, transmission_observer, method, url, headers);
        request_body = observed_body;
    }

    Ref answer = parties.request_func ? call(*parties.request_func, method, url, headers, request_body)
                                      : send_through_client(m, *parties.sender, method, url, headers, request_body);
    auto [status_code, resp_body] = unpack_pair(answer);

    if (!observed_body.is_none() && !truthy(getattr(observed_body, n.consumed))) {
        raise(PyExc_RuntimeError,
              "transport returned without consuming the request body; transmission observer could not be honored");
    }

    Ref resp_data = calls::parse_response_json(m, status_code, resp_body, url, endpoint);

    if (!is_success_status(status_code)) calls::raise_submission_rejected(m, status_code, resp_data);
    return new_tuple({status_code, resp_data});
}

namespace {

Ref request_json(const Module& m, const Ref& method, const Ref& endpoint, const Ref& get_token, const Ref& server_url,
                 const Ref& body, const Ref& request_func, const Ref& transmission_observer) {
    return request_json_for(m, method, endpoint, RequestParties{&get_token, nullptr, &request_func, nullptr}, server_url, body,
                            transmission_observer);
}

}  // namespace

namespace calls {

Ref percent_encode(const Module& m, const Ref& value) {
    return through_global(
        m, Own::percent_encode, m.n._percent_encode, [&] { return tallowmere::percent_encode(m, value); },
        [&](const Ref& f) { return call(f, value); });
}

Ref join_url(const Module& m, const Ref& server_url, const Ref& endpoint) {
    return through_global(
        m, Own::join_url, m.n._join_url, [&] { return tallowmere::join_url(m, server_url, endpoint); },
        [&](const Ref& f) { return call(f, server_url, endpoint); });
}

Ref parse_response_json(const Module& m, const Ref& status_code, const Ref& body, const Ref& url, const Ref& operation) {
    return through_global(
        m, Own::parse_response_json, m.n._parse_response_json,
        [&] { return tallowmere::parse_response_json(m, status_code, body, url, operation); },
        [&](const Ref& f) { return call_kw(f, {status_code, body, url}, {{m.n.operation, operation}}); });
}

}  // namespace calls

namespace members {
const Member percent_encode = member<percent_encode_signature, tallowmere::percent_encode>();
const Member join_url = member<join_url_signature, tallowmere::join_url>();
const Member parse_response_json = member<parse_response_json_signature, tallowmere::parse_response_json>();
const Member request_json = member<request_json_signature, tallowmere::request_json>();
}  // namespace members

}  // namespace tallowmere

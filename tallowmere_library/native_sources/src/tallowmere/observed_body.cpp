// _TransmissionObservedBody: the serialised request body as a seekable stream
// that tells a transmission observer, once, when the transport starts reading
// it. HTTP libraries read it through `read` (or iterate it); a retrying
// transport rewinds it with `seek(0)` and sends the same bytes again without
// a second notification.
#include "calls.hpp"
#include "core/function.hpp"
#include "core/python.hpp"
#include "dispatch.hpp"
#include "members.hpp"

namespace tallowmere {

namespace {

constexpr auto init_signature =
    signature("_TransmissionObservedBody.__init__", Binding::instance_method, nullptr, param("body_bytes"),
              param("observer"), param("method"), param("url"), param("headers"));

Ref init(const Module& m, const Ref& self, const Ref& body_bytes, const Ref& observer, const Ref& method, const Ref& url,
         const Ref& headers) {
    const Names& n = m.n;
    setattr(self, n._body_bytes, body_bytes);
    setattr(self, n._observer, observer);
    setattr(self, n._method, method);
    setattr(self, n._url, url);
    setattr(self, n._headers, call(Borrowed(reinterpret_cast<PyObject*>(&PyDict_Type)), headers));
    setattr(self, n._offset, integer(0));
    setattr(self, n._observed, boolean(false));
    return Ref(none());
}

constexpr auto consumed_signature =
    signature("_TransmissionObservedBody.consumed", Binding::property_getter, nullptr, param("self"));

Ref consumed(const Module& m, const Ref& self) { return getattr(self, m.n._observed); }

constexpr auto observe_once_signature =
    signature("_TransmissionObservedBody._observe_once", Binding::instance_method, nullptr);

Ref observe_once(const Module& m, const Ref& self) {
    const Names& n = m.n;
    if (truthy(getattr(self, n._observed))) return Ref(none());
    // The flag goes up before the call: an observer that raises is not called again.
    setattr(self, n._observed, boolean(true));
    call_method(self, n._observer, getattr(self, n._method), getattr(self, n._url), getattr(self, n._headers),
                getattr(self, n._body_bytes));
    return Ref(none());
}

constexpr auto read_signature =
    signature("_TransmissionObservedBody.read", Binding::instance_method, nullptr,
              param("size", constant_default<&ModuleState::default_read_size>("-1")));

Ref read(const Module& m, const Ref& self, const Ref& size) {
    const Names& n = m.n;
    Ref zero = integer(0);
    Ref body_bytes = getattr(self, n._body_bytes);
    Ref total = integer(length(body_bytes));
    if (equals(size, zero) || compare(getattr(self, n._offset), total, Py_GE)) {
        return Ref::checked(PyBytes_FromStringAndSize("", 0));
    }
    calls::observe_once(m, self);
    Ref offset = getattr(self, n._offset);
    Ref end;
    if (size.is_none() || compare(size, zero, Py_LT)) {
        end = total;
    } else {
        Ref wanted = Ref::checked(PyNumber_Add(offset.get(), size.get()));
        end = compare(total, wanted, Py_LT) ? total : wanted;
    }
    Ref bounds = Ref::checked(PySlice_New(offset.get(), end.get(), nullptr));
    Ref chunk = get_item(body_bytes, bounds);
    setattr(self, n._offset, end);
    return chunk;
}

constexpr auto seek_signature =
    signature("_TransmissionObservedBody.seek", Binding::instance_method, nullptr, param("offset"),
              param("whence", constant_default<&ModuleState::default_whence>("0")));

Ref seek(const Module& m, const Ref& self, const Ref& offset, const Ref& whence) {
    const Names& n = m.n;
    Ref position;
    if (equals(whence, integer(0))) {
        position = Ref(offset);
    } else if (equals(whence, integer(1))) {
        position = Ref::checked(PyNumber_Add(getattr(self, n._offset).get(), offset.get()));
    } else if (equals(whence, integer(2))) {
        Ref total = integer(length(getattr(self, n._body_bytes)));
        position = Ref::checked(PyNumber_Add(total.get(), offset.get()));
    } else {
        raise_value_error(concat({text("unsupported whence: "), format(whence)}));
    }
    if (compare(position, integer(0), Py_LT)) raise_value_error("negative seek position");
    setattr(self, n._offset, position);
    return position;
}

constexpr auto tell_signature = signature("_TransmissionObservedBody.tell", Binding::instance_method, nullptr);

Ref tell(const Module& m, const Ref& self) { return getattr(self, m.n._offset); }

constexpr auto iter_signature = signature("_TransmissionObservedBody.__iter__", Binding::instance_method, nullptr);

Ref iter(const Module&, const Ref& self) { return Ref(self); }

constexpr auto next_signature = signature("_TransmissionObservedBody.__next__", Binding::instance_method, nullptr);

Ref next(const Module& m, const Ref& self) {
    Ref chunk = calls::read(m, self);
    if (truthy(chunk)) return chunk;
    PyErr_SetNone(PyExc_StopIteration);
    propagate();
}

}  // namespace

namespace calls {

Ref observe_once(const Module& m, const Ref& self) {
    return through_attribute(
        m, Own::observe_once, self, m.n._observe_once, [&](const Ref& body) { return tallowmere::observe_once(m, body); },
        [&](const FoundMethod& found) { return call_found(found, self, {}); });
}

Ref read(const Module& m, const Ref& self) {
    return through_attribute(
        m, Own::read, self, m.n.read,
        [&](const Ref& body) { return tallowmere::read(m, body, Ref(Borrowed(m.state().default_read_size))); },
        [&](const FoundMethod& found) { return call_found(found, self, {}); });
}

}  // namespace calls

namespace members::observed_body {
const Member init = member<init_signature, tallowmere::init>();
const Member consumed = member<consumed_signature, tallowmere::consumed>();
const Member observe_once = member<observe_once_signature, tallowmere::observe_once>();
const Member read = member<read_signature, tallowmere::read>();
const Member seek = member<seek_signature, tallowmere::seek>();
const Member tell = member<tell_signature, tallowmere::tell>();
const Member iter = member<iter_signature, tallowmere::iter>();
const Member next = member<next_signature, tallowmere::next>();
}  // namespace members::observed_body

}  // namespace tallowmere

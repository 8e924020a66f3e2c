// The Python operations the module's code is written in: calls, attributes,
// items, text, numbers and exception handling, each a thin wrapper that owns
// its result and throws PyErrorSet when the interpreter reports an error.
#pragma once

#include "core/module.hpp"
#include "core/ref.hpp"

#include <initializer_list>
#include <utility>

namespace tallowmere {

// ---- calls -----------------------------------------------------------------

struct Kw {
    PyObject* name;  // an interned name
    Borrowed value;
};

// callable(*args)
template <class... Args>
Ref call(Borrowed callable, const Args&... args) {
    // One spare slot in front lets the callee prepend `self` without copying.
    PyObject* argv[] = {nullptr, Borrowed(args).get()...};
    return Ref::checked(PyObject_Vectorcall(callable.get(), argv + 1,
                                            sizeof...(args) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

// callable(*positional, **keywords)
Ref call_kw(Borrowed callable, std::initializer_list<Borrowed> positional, std::initializer_list<Kw> keywords);

// self.name(*args): looked up on the object at call time.
template <class... Args>
Ref call_method(Borrowed self, PyObject* name, const Args&... args) {
    PyObject* argv[] = {nullptr, self.get(), Borrowed(args).get()...};
    return Ref::checked(PyObject_VectorcallMethod(name, argv + 1,
                                                  (1 + sizeof...(args)) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

// self.name(*positional, **keywords)
Ref call_method_kw(Borrowed self, PyObject* name, std::initializer_list<Borrowed> positional,
                   std::initializer_list<Kw> keywords);

// A module global called with positional arguments: `name(*args)`.
template <class... Args>
Ref call_global(const Module& m, PyObject* name, const Args&... args) {
    Ref callable = m.global(name);
    return call(callable, args...);
}

Ref call_global_kw(const Module& m, PyObject* name, std::initializer_list<Borrowed> positional,
                   std::initializer_list<Kw> keywords);

// ---- attributes ---------------------------------------------------------------

Ref getattr(Borrowed object, PyObject* name);
// getattr(object, name, fallback): only AttributeError falls back.
Ref getattr_or(Borrowed object, PyObject* name, Borrowed fallback);
// hasattr(object, name): only AttributeError means "no".
bool hasattr(Borrowed object, PyObject* name);
void setattr(Borrowed object, PyObject* name, Borrowed value);

// ---- containers --------------------------------------------------------------

inline bool is_dict(Borrowed value) { return PyDict_Check(value.get()); }
inline bool is_list(Borrowed value) { return PyList_Check(value.get()); }
inline bool is_str(Borrowed value) { return PyUnicode_Check(value.get()); }
inline bool is_bytes(Borrowed value) { return PyBytes_Check(value.get()); }
inline bool is_bool(Borrowed value) { return PyBool_Check(value.get()); }
inline bool is_exact_int(Borrowed value) { return PyLong_CheckExact(value.get()); }
inline bool is_int(Borrowed value) { return PyLong_Check(value.get()); }
inline bool is_exact_float(Borrowed value) { return PyFloat_CheckExact(value.get()); }

Ref new_dict();
Ref new_list();
// mapping.get(key); a dict subclass's own `get` (or any mapping's) is honoured.
Ref mapping_get(Borrowed mapping, Borrowed key);
inline Ref mapping_get(Borrowed mapping, PyObject* key) { return mapping_get(mapping, Borrowed(key)); }
// mapping.get(key, fallback)
Ref mapping_get_or(Borrowed mapping, Borrowed key, Borrowed fallback);
// mapping[key] = value
void set_item(Borrowed mapping, Borrowed key, Borrowed value);
// container[key]
Ref get_item(Borrowed container, Borrowed key);
// key in container
bool contains(Borrowed container, Borrowed key);
void list_append(Borrowed list, Borrowed item);
// list.extend(items)
void list_extend(Borrowed list, Borrowed items);
Py_ssize_t length(Borrowed object);
Ref new_tuple(std::initializer_list<Borrowed> items);
// sequence[start:stop]
Ref slice(Borrowed sequence, Py_ssize_t start, Py_ssize_t stop);
Ref slice_to(Borrowed sequence, Borrowed stop);
// for item in iterable: visit(item)
template <class Visit>
void for_each(Borrowed iterable, Visit&& visit) {
    Ref iterator = Ref::checked(PyObject_GetIter(iterable.get()));
    while (Ref item = Ref::steal(PyIter_Next(iterator.get()))) visit(Borrowed(item));
    if (PyErr_Occurred()) propagate();
}

// The first non-empty Ref that visit(item) returns, or an empty Ref.
template <class Visit>
Ref find_first(Borrowed iterable, Visit&& visit) {
    Ref iterator = Ref::checked(PyObject_GetIter(iterable.get()));
    while (Ref item = Ref::steal(PyIter_Next(iterator.get()))) {
        if (Ref found = visit(Borrowed(item))) return found;
    }
    if (PyErr_Occurred()) propagate();
    return Ref();
}

// The one member of a one-member set.
Ref only_member(Borrowed set);

// a, b = value: exactly two items, with the interpreter's unpacking errors.
std::pair<Ref, Ref> unpack_pair(Borrowed value);

// ---- text ----------------------------------------------------------------------

Ref text(const char* utf8);
Ref str(Borrowed value);
Ref repr(Borrowed value);
// format(value, ""), the form an f-string gives a value.
Ref format(Borrowed value);
// The concatenation of text objects.
Ref concat(std::initializer_list<Borrowed> parts);
// PyUnicode_FromFormat with ownership.
Ref format_text(const char* format, ...);

// ---- numbers and comparisons --------------------------------------------------

Ref integer(long long value);
Ref floating(double value);
// int(value)
Ref to_int(Borrowed value);
long long as_long_long(Borrowed value);
bool equals(Borrowed a, Borrowed b);
bool compare(Borrowed a, Borrowed b, int op);

// ---- raising ---------------------------------------------------------------------

[[noreturn]] void raise(PyObject* type, const char* message);
[[noreturn]] void raise(PyObject* type, Borrowed message);
[[noreturn]] void raise_value_error(const char* message);
[[noreturn]] void raise_value_error(Borrowed message);
// raise exception_type(message) from cause
[[noreturn]] void raise_from(PyObject* type, const char* message, Borrowed cause);
// raise instance (an exception object already built)
[[noreturn]] void raise_instance(Borrowed exception);

// ---- catching ---------------------------------------------------------------------

// An exception taken off the error indicator by `try_except`.
class Caught {
public:
    explicit Caught(Ref exception) : exception_(std::move(exception)) {}
    Borrowed exception() const { return exception_; }
    // isinstance(exception, types), `types` a class or a tuple of classes.
    bool matches(Borrowed types) const { return PyErr_GivenExceptionMatches(exception_.get(), types.get()) != 0; }
    // A bare `raise` inside the handler.
    [[noreturn]] void reraise() const;

private:
    Ref exception_;
};

// While a handler runs, the caught exception is the thread's handled exception
// (what `sys.exception()` reports), so anything raised meanwhile gets it as
// its __context__, exactly as inside a Python `except` block.
class HandlingScope {
public:
    explicit HandlingScope(Borrowed exception) : previous_(Ref::steal(PyErr_GetHandledException())) {
        PyErr_SetHandledException(exception.get());
    }
    ~HandlingScope() { PyErr_SetHandledException(previous_.get()); }
    HandlingScope(const HandlingScope&) = delete;
    HandlingScope& operator=(const HandlingScope&) = delete;

private:
    Ref previous_;
};

// try: return body()
// except: return handler(caught)
// The handler re-raises what it does not handle.
template <class Body, class Handler>
Ref try_except(Body&& body, Handler&& handler) {
    try {
        return body();
    } catch (const PyErrorSet&) {
        Caught caught(Ref::steal(PyErr_GetRaisedException()));
        HandlingScope scope(caught.exception());
        return handler(caught);
    }
}

}  // namespace tallowmere

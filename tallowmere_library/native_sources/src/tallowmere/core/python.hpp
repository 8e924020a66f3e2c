// The Python operations the module's code is written in: calls, attributes,
// items, text, numbers and exception handling, each a thin wrapper that owns
// its result and throws PyErrorSet when the interpreter reports an error.
#pragma once

#include "core/module.hpp"
#include "core/ref.hpp"

#include <initializer_list>
#include <optional>
#include <utility>

namespace tallowmere {

// ---- calls -----------------------------------------------------------------

struct Kw {
    PyObject* name;  // an interned name
    Arg value;
};

// callable(*args)
template <class... Args>
Ref call(const Ref& callable, const Args&... args) {
    // One spare slot in front lets the callee prepend `self` without copying.
    PyObject* argv[] = {nullptr, Arg(args).get()...};
    return Ref::checked(PyObject_Vectorcall(callable.get(), argv + 1,
                                            sizeof...(args) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

// callable(*positional, **keywords)
Ref call_kw(const Ref& callable, std::initializer_list<Arg> positional, std::initializer_list<Kw> keywords);

// self.name(*args): looked up on the object at call time.
template <class... Args>
Ref call_method(const Ref& self, PyObject* name, const Args&... args) {
    PyObject* argv[] = {nullptr, self.get(), Arg(args).get()...};
    return Ref::checked(PyObject_VectorcallMethod(name, argv + 1,
                                                  (1 + sizeof...(args)) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

// self.name(*positional, **keywords)
Ref call_method_kw(const Ref& self, PyObject* name, std::initializer_list<Arg> positional,
                   std::initializer_list<Kw> keywords);

// What `self.name` gives a call, found as the interpreter's method calls find
// it (the type's attribute, unless the instance's __dict__ holds the name or
// the type looks attributes up its own way): a function of the type that
// still needs `self` in front of the arguments (`unbound`), or the attribute's
// value itself (a bound method, a static method's function, anything).
struct FoundMethod {
    Ref callable;
    bool unbound;
};
FoundMethod find_method(const Ref& self, PyObject* name);

// found(*positional, **keywords) for `self.name(...)`, `self` put in front
// when the function is unbound.
Ref call_found(const FoundMethod& found, const Ref& self, std::initializer_list<Arg> positional,
               std::initializer_list<Kw> keywords = {});

// A module global called with positional arguments: `name(*args)`.
template <class... Args>
Ref call_global(const ModuleBase& m, PyObject* name, const Args&... args) {
    Ref callable = m.global(name);
    return call(callable, args...);
}

Ref call_global_kw(const ModuleBase& m, PyObject* name, std::initializer_list<Arg> positional,
                   std::initializer_list<Kw> keywords);

// ---- attributes ---------------------------------------------------------------

Ref getattr(const Ref& object, PyObject* name);
// getattr(object, name, fallback): only AttributeError falls back.
Ref getattr_or(const Ref& object, PyObject* name, const Ref& fallback);
// hasattr(object, name): only AttributeError means "no".
bool hasattr(const Ref& object, PyObject* name);
void setattr(const Ref& object, PyObject* name, const Ref& value);

// ---- containers --------------------------------------------------------------

inline bool is_dict(const Ref& value) { return PyDict_Check(value.get()); }
inline bool is_list(const Ref& value) { return PyList_Check(value.get()); }
inline bool is_str(const Ref& value) { return PyUnicode_Check(value.get()); }
inline bool is_bytes(const Ref& value) { return PyBytes_Check(value.get()); }
inline bool is_bool(const Ref& value) { return PyBool_Check(value.get()); }
inline bool is_exact_int(const Ref& value) { return PyLong_CheckExact(value.get()); }
inline bool is_int(const Ref& value) { return PyLong_Check(value.get()); }
inline bool is_exact_float(const Ref& value) { return PyFloat_CheckExact(value.get()); }

Ref new_dict();
Ref new_list();
// mapping.get(key): an exact dict is read directly; anything else (a dict
// subclass, any object with `get`) has its own `get` called, found by the
// interned name `get_name`.
Ref mapping_get_by(PyObject* get_name, const Ref& mapping, const Ref& key);
// mapping.get(key, fallback)
Ref mapping_get_or_by(PyObject* get_name, const Ref& mapping, const Ref& key, const Ref& fallback);
// The same with the module's interned "get" (its names table has `get`).
template <class State>
Ref mapping_get(const ModuleContext<State>& m, const Ref& mapping, const Ref& key) {
    return mapping_get_by(m.n.get, mapping, key);
}
template <class State>
Ref mapping_get(const ModuleContext<State>& m, const Ref& mapping, PyObject* key) {
    return mapping_get_by(m.n.get, mapping, Borrowed(key));
}
template <class State>
Ref mapping_get_or(const ModuleContext<State>& m, const Ref& mapping, const Ref& key, const Ref& fallback) {
    return mapping_get_or_by(m.n.get, mapping, key, fallback);
}
// mapping[key] = value
void set_item(const Ref& mapping, const Ref& key, const Ref& value);
// container[key]
Ref get_item(const Ref& container, const Ref& key);
// key in container
bool contains(const Ref& container, const Ref& key);
void list_append(const Ref& list, const Ref& item);
// list.extend(items)
void list_extend(const Ref& list, const Ref& items);
Py_ssize_t length(const Ref& object);
Ref new_tuple(std::initializer_list<Arg> items);
// sequence[start:stop]
Ref slice(const Ref& sequence, Py_ssize_t start, Py_ssize_t stop);
Ref slice_to(const Ref& sequence, const Ref& stop);
// Whether `iterable` is an exact list or tuple, walked by index: what their
// iterators do (read item i while i is in range, as a new reference), without
// making one.
inline bool walked_by_index(const Ref& iterable) {
    return PyList_CheckExact(iterable.get()) || PyTuple_CheckExact(iterable.get());
}

// for item in iterable: visit(item). Each item is a new reference, so a
// container changed by `visit` (or by anything it calls) leaves nothing dangling.
template <class Visit>
void for_each(const Ref& iterable, Visit&& visit) {
    if (walked_by_index(iterable)) {
        for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(iterable.get()); ++i) {
            Ref item(Borrowed(PySequence_Fast_GET_ITEM(iterable.get(), i)));
            visit(item);
        }
        return;
    }
    Ref iterator = Ref::checked(PyObject_GetIter(iterable.get()));
    while (Ref item = Ref::steal(PyIter_Next(iterator.get()))) visit(item);
    if (PyErr_Occurred()) propagate();
}

// for key, value in dict.items() over an exact dict or a dict subclass's own
// storage, each pair held as new references for the length of `visit(key,
// value)` (comparisons and hashing can run Python code that empties the dict).
template <class Visit>
void for_each_dict_item(const Ref& dict, Visit&& visit) {
    PyObject *key, *value;
    Py_ssize_t position = 0;
    while (PyDict_Next(dict.get(), &position, &key, &value)) {
        Ref held_key(Borrowed{key}), held_value(Borrowed{value});
        visit(held_key, held_value);
    }
}

// The first result that visit(item) gives, or nothing when no item gives one.
// "Not found" is std::nullopt, never an empty Ref, so it cannot be mistaken for
// a failure (or returned to the interpreter as NULL).
template <class Visit>
std::optional<Ref> find_first(const Ref& iterable, Visit&& visit) {
    if (walked_by_index(iterable)) {
        for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(iterable.get()); ++i) {
            Ref item(Borrowed(PySequence_Fast_GET_ITEM(iterable.get(), i)));
            if (std::optional<Ref> found = visit(item)) return found;
        }
        return std::nullopt;
    }
    Ref iterator = Ref::checked(PyObject_GetIter(iterable.get()));
    while (Ref item = Ref::steal(PyIter_Next(iterator.get()))) {
        if (std::optional<Ref> found = visit(item)) return found;
    }
    if (PyErr_Occurred()) propagate();
    return std::nullopt;
}

// next(iter(set)): the one member of a one-member set (StopIteration when empty).
Ref only_member(const Ref& set);

// a, b = value: exactly two items, with the interpreter's unpacking errors.
std::pair<Ref, Ref> unpack_pair(const Ref& value);

// ---- text ----------------------------------------------------------------------

Ref text(const char* utf8);
Ref str(const Ref& value);
Ref repr(const Ref& value);
// format(value, ""), the form an f-string gives a value.
Ref format(const Ref& value);
// The concatenation of text objects.
Ref concat(std::initializer_list<Arg> parts);
// PyUnicode_FromFormat with ownership.
Ref format_text(const char* format, ...);

// ---- numbers and comparisons --------------------------------------------------

Ref integer(long long value);
Ref floating(double value);
// int(value)
Ref to_int(const Ref& value);
long long as_long_long(const Ref& value);
bool equals(const Ref& a, const Ref& b);
bool compare(const Ref& a, const Ref& b, int op);

// ---- raising ---------------------------------------------------------------------

[[noreturn]] void raise(PyObject* type, const char* message);
[[noreturn]] void raise(PyObject* type, const Ref& message);
[[noreturn]] void raise_value_error(const char* message);
[[noreturn]] void raise_value_error(const Ref& message);
// raise exception_type(message) from cause
[[noreturn]] void raise_from(PyObject* type, const char* message, const Ref& cause);
// `raise value`, checked as the interpreter checks it: an exception instance is
// raised, an exception class is instantiated first, and anything else (a
// replaced class that returned None, say) is a TypeError.
[[noreturn]] void raise_instance(const Ref& value);
// `raise value from cause`, with the same checks; a None cause clears it.
[[noreturn]] void raise_instance_from(const Ref& value, const Ref& cause);

// ---- catching ---------------------------------------------------------------------

// An exception taken off the error indicator by `try_except`.
class Caught {
public:
    explicit Caught(Ref exception) : exception_(std::move(exception)) {}
    Borrowed exception() const { return exception_; }
    // Whether an `except types:` clause takes the exception. As in that clause,
    // `types` must be an exception class or a tuple of them; anything else
    // raises TypeError (while this exception is being handled).
    bool matches(const Ref& types) const;
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
    explicit HandlingScope(const Ref& exception) : previous_(Ref::steal(PyErr_GetHandledException())) {
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
// The handler re-raises what it does not handle; both give the same type of result.
template <class Body, class Handler>
auto try_except(Body&& body, Handler&& handler) -> decltype(body()) {
    try {
        return body();
    } catch (const PyErrorSet&) {
        Caught caught(Ref::steal(PyErr_GetRaisedException()));
        HandlingScope scope(caught.exception());
        return handler(caught);
    }
}

}  // namespace tallowmere

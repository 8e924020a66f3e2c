// Reference ownership for the submit module.
//
// `Ref` owns a strong reference and releases it when it goes out of scope;
// `Borrowed` names an object some other owner keeps alive. Every C API call
// that can fail goes through `Ref::checked` or one of the helpers below, which
// turn a failure (NULL or -1 with the Python error indicator set) into a
// thrown `PyErrorSet`. The exception travels only through C++ frames: each
// entry point called by the interpreter catches it and returns NULL, so the
// error indicator is what reaches Python.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <utility>

namespace tallowmere {

// The Python error indicator is set; unwind to the nearest entry point.
struct PyErrorSet {};

[[noreturn]] inline void propagate() { throw PyErrorSet{}; }

class Ref;

// A reference that does not own its object.
class Borrowed {
public:
    Borrowed() = default;
    explicit Borrowed(PyObject* object) : object_(object) {}
    inline Borrowed(const Ref& owner);  // NOLINT: a Ref can always be lent
    // ...but a temporary one cannot: its object may be gone by the next statement.
    Borrowed(Ref&&) = delete;

    PyObject* get() const { return object_; }
    explicit operator bool() const { return object_ != nullptr; }
    bool is(Borrowed other) const { return object_ == other.object_; }
    bool is_none() const { return object_ == Py_None; }

private:
    PyObject* object_ = nullptr;
};

// An owned reference.
class Ref {
public:
    Ref() = default;
    Ref(Borrowed borrowed) : object_(Py_XNewRef(borrowed.get())) {}  // NOLINT: taking a new reference
    Ref(const Ref& other) : object_(Py_XNewRef(other.object_)) {}
    Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Ref& operator=(Ref other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Ref() { Py_XDECREF(object_); }

    // Takes over a new reference returned by the C API; NULL means failure.
    static Ref checked(PyObject* new_reference) {
        if (new_reference == nullptr) propagate();
        return steal(new_reference);
    }
    // Takes over a new reference that may be NULL without an error.
    static Ref steal(PyObject* new_reference) {
        Ref ref;
        ref.object_ = new_reference;
        return ref;
    }

    PyObject* get() const { return object_; }
    PyObject* release() { return std::exchange(object_, nullptr); }
    explicit operator bool() const { return object_ != nullptr; }
    bool is(Borrowed other) const { return object_ == other.get(); }
    bool is_none() const { return object_ == Py_None; }

private:
    PyObject* object_ = nullptr;
};

inline Borrowed::Borrowed(const Ref& owner) : object_(owner.get()) {}

// One value of an argument list written at a call site, such as the
// positional and keyword lists of `call_kw`: the object is kept alive by its
// owner (a temporary Ref included) until the end of the full expression that
// makes the call. Only argument lists hold these.
class Arg {
public:
    Arg(const Ref& owner) : object_(owner.get()) {}  // NOLINT: any reference can be passed
    Arg(Borrowed borrowed) : object_(borrowed.get()) {}  // NOLINT
    PyObject* get() const { return object_; }

private:
    PyObject* object_;
};

inline Borrowed none() { return Borrowed(Py_None); }
inline Borrowed boolean(bool value) { return Borrowed(value ? Py_True : Py_False); }

// A C API status code: negative means the error indicator is set.
inline int check_status(int status) {
    if (status < 0) propagate();
    return status;
}

// Python truthiness: `bool(value)`.
inline bool truthy(const Ref& value) { return check_status(PyObject_IsTrue(value.get())) != 0; }

}  // namespace tallowmere

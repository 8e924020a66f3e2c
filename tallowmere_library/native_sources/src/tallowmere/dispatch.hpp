// Calls the module makes through a module global or an attribute of self or
// cls, made straight to the C++ implementation while that name still resolves
// to the function the module (or tallowmere._native) made at import, and made
// exactly as written otherwise.
//
// - A module global: the module namespace's current value is compared with
//   the function kept in the module state.
// - self.name / cls.name: the attribute is found as the interpreter's method
//   calls find it (_PyObject_GetMethod: the type's attribute, through the
//   type's attribute cache, unless the instance's __dict__ holds the name or
//   the type looks attributes up its own way), and compared with the function
//   the class holds (for a static or class method the function inside it).
//   An instance attribute, a subclass's override or a class attribute
//   replaced after import resolves to another object, which is then called.
// - A sibling module's function imported as a global: compared with the
//   compiled function of tallowmere._native, whose implementation is then
//   called through its C API (_native/siblings/api.hpp).
//
// The direct call runs the same code the Python call would reach, with the
// same arguments: only the argument tuple, its parsing and the entry point
// are skipped. calls.hpp declares one call per callee and call form.
#pragma once

#include "core/python.hpp"
#include "submit_state.hpp"

#include <initializer_list>

namespace tallowmere {

// The module's own callable `which` (borrowed: the module state keeps it).
inline PyObject* own(const Module& m, Own which) { return m.state().own[static_cast<size_t>(which)]; }

// The module global `name` as a borrowed reference; NameError when missing.
// Only for an identity test made before any other Python code runs.
PyObject* global_now(const Module& m, PyObject* name);

// name(...) through the module global: direct() while the global is the
// module's own `which`, else python(the global's value).
template <class Direct, class Python>
Ref through_global(const Module& m, Own which, PyObject* name, Direct&& direct, Python&& python) {
    PyObject* value = global_now(m, name);
    if (value == own(m, which)) return direct();
    return python(Ref(Borrowed(value)));
}

// Whether `found` (the attribute `receiver.name`) is the module's own
// `which`; *bound is then what its implementation takes first: the instance
// for an instance method, the class for a class method (nothing for a static
// method).
bool resolves_to_own(const Module& m, Own which, const FoundMethod& found, const Ref& receiver, Ref* bound);

// receiver.name(...), receiver being self or cls: direct(bound) while the
// attribute resolves to the module's own `which`, else python(found), which
// calls it with call_found.
template <class Direct, class Python>
Ref through_attribute(const Module& m, Own which, const Ref& receiver, PyObject* name, Direct&& direct,
                      Python&& python) {
    FoundMethod found = find_method(receiver, name);
    Ref bound;
    if (resolves_to_own(m, which, found, receiver, &bound)) return direct(bound);
    return python(found);
}

// Whether `callable` is the compiled function `which` of tallowmere._native.
bool is_native(const Module& m, native_api::Function which, PyObject* callable);

// which(*args) through the C API; `args` are all its parameters in order.
Ref call_native(const Module& m, native_api::Function which, std::initializer_list<Arg> args);

// name(...) through the module global naming a sibling module's function:
// through the C API while the global is the compiled function `which` (with
// `args`, every parameter in order), else python(the global's value).
template <class Python>
Ref through_sibling_global(const Module& m, native_api::Function which, PyObject* name, std::initializer_list<Arg> args,
                           Python&& python) {
    PyObject* value = global_now(m, name);
    if (is_native(m, which, value)) return call_native(m, which, args);
    return python(Ref(Borrowed(value)));
}

}  // namespace tallowmere

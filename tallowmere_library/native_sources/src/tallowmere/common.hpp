// What more than one subsystem file of tallowmere.submit uses: texts of
// refusals and calls of the module's tolerant readers through the namespace.
#pragma once

#include "calls.hpp"
#include "core/python.hpp"
#include "submit_state.hpp"

namespace tallowmere {

constexpr const char caller_thresholds_message[] =
    "caller-supplied thresholds are not accepted; submit thresholds must come from era thresholds";

// _field_value(value, key) and _field_value(value, key, fallback); the number
// of arguments is the one each caller writes.
inline Ref field_of(const Module& m, const Ref& value, PyObject* key) { return calls::field_value(m, value, key); }
inline Ref field_of(const Module& m, const Ref& value, PyObject* key, const Ref& fallback) {
    return calls::field_value(m, value, key, fallback);
}

// _coerce_optional_int(value)
inline Ref coerced_int(const Module& m, const Ref& value) { return calls::coerce_optional_int(m, value); }

// dict(value): a copy of an exact dict made directly (the same entries in the
// same order), anything else through the dict type.
inline Ref dict_copy(const Ref& value) {
    if (PyDict_CheckExact(value.get())) return Ref::checked(PyDict_Copy(value.get()));
    return call(Borrowed(reinterpret_cast<PyObject*>(&PyDict_Type)), value);
}

}  // namespace tallowmere

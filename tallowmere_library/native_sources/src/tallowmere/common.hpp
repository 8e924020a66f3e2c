// What more than one subsystem file of tallowmere.submit uses: texts of
// refusals and calls of the module's tolerant readers through the namespace.
#pragma once

#include "core/python.hpp"
#include "submit_state.hpp"

namespace tallowmere {

constexpr const char caller_thresholds_message[] =
    "caller-supplied thresholds are not accepted; submit thresholds must come from era thresholds";

// _field_value(value, key) and _field_value(value, key, fallback), the module
// global as it is now; the number of arguments is the one each caller writes.
inline Ref field_of(const Module& m, const Ref& value, PyObject* key) {
    return call_global(m, m.n._field_value, value, Borrowed(key));
}
inline Ref field_of(const Module& m, const Ref& value, PyObject* key, const Ref& fallback) {
    return call_global(m, m.n._field_value, value, Borrowed(key), fallback);
}

// _coerce_optional_int(value), the module global as it is now.
inline Ref coerced_int(const Module& m, const Ref& value) { return call_global(m, m.n._coerce_optional_int, value); }

}  // namespace tallowmere

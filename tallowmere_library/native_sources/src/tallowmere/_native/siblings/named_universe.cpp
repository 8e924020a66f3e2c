// tallowmere.simulation.named_universe: normalisation and safety of universe
// names. ASCII names are judged here; NFC normalisation and the Unicode
// categories of other text are left to the Python implementation.
#include "_native/siblings/support.hpp"

namespace tallowmere::native {

namespace {

constexpr Sibling here = Sibling::named_universe;

// str.strip() removes these ASCII characters.
bool is_ascii_space(unsigned char c) { return (c >= 0x09 && c <= 0x0d) || (c >= 0x1c && c <= 0x20); }

// An ASCII str that str.strip() would change.
bool has_surrounding_space(PyObject* text) {
    Py_ssize_t length = PyUnicode_GET_LENGTH(text);
    const unsigned char* data = PyUnicode_1BYTE_DATA(text);
    return length > 0 && (is_ascii_space(data[0]) || is_ascii_space(data[length - 1]));
}

bool is_exact_ascii_text(PyObject* value) { return PyUnicode_CheckExact(value) && PyUnicode_IS_ASCII(value); }

// ---- _normalize_named_universe ----------------------------------------------------------------------

constexpr auto normalize_named_universe_signature =
    signature("_normalize_named_universe", Binding::module_function,
              "Return ``value`` as a normalised universe name "
              "(compiled tallowmere.simulation.named_universe._normalize_named_universe).",
              param("value"));

}  // namespace

Ref normalize_named_universe(const Module& m, const Ref& value) {
    const Names& n = m.n;
    if (sibling_intact(m, here)) {
        if (value.is_none()) return Ref::checked(PyUnicode_FromStringAndSize("", 0));
        // ASCII text is its own NFC form.
        if (is_exact_ascii_text(value.get())) {
            return has_surrounding_space(value.get()) ? call_method(value, n.sib_strip) : value;
        }
    }
    return call(python_implementation(m, here, n.sib__normalize_named_universe), value);
}

namespace {

// ---- _is_unsafe_named_universe ----------------------------------------------------------------------

constexpr auto is_unsafe_named_universe_signature =
    signature("_is_unsafe_named_universe", Binding::module_function,
              "True unless ``name`` is a single safe path segment "
              "(compiled tallowmere.simulation.named_universe._is_unsafe_named_universe).",
              param("name"));

}  // namespace

Ref is_unsafe_named_universe(const Module& m, const Ref& name) {
    const Names& n = m.n;
    PyObject* value = name.get();
    if (sibling_intact(m, here)) {
        if (is_exact_ascii_text(value)) {
            Ref limit = sibling_global(m, here, n.sib_MAX_NAMED_UNIVERSE_LENGTH);
            Py_ssize_t length = PyUnicode_GET_LENGTH(value);
            if (PyLong_CheckExact(limit.get())) {
                int overflow = 0;
                long long maximum = PyLong_AsLongLongAndOverflow(limit.get(), &overflow);
                if (overflow == 0 && !PyErr_Occurred()) {
                    const unsigned char* data = PyUnicode_1BYTE_DATA(value);
                    bool unsafe = length == 0 || length > maximum || has_surrounding_space(value) ||
                                  (length == 1 && data[0] == '.') ||
                                  (length == 2 && data[0] == '.' && data[1] == '.');
                    // Separators and control characters (category Cc; ASCII has no Cf).
                    for (Py_ssize_t i = 0; i < length && !unsafe; ++i) {
                        unsigned char c = data[i];
                        unsafe = c == '/' || c == '\\' || c < 0x20 || c == 0x7f;
                    }
                    return Ref(boolean(unsafe));
                }
                PyErr_Clear();
            }
        } else if (!PyUnicode_Check(value) && (is_exact_scalar(value) || PyBytes_CheckExact(value))) {
            return Ref(boolean(true));
        }
    }
    return call(python_implementation(m, here, n.sib__is_unsafe_named_universe), name);
}


namespace sibling_members {
const Member normalize_named_universe =
    member<normalize_named_universe_signature, tallowmere::native::normalize_named_universe>();
const Member is_unsafe_named_universe =
    member<is_unsafe_named_universe_signature, tallowmere::native::is_unsafe_named_universe>();
}  // namespace sibling_members

}  // namespace tallowmere::native

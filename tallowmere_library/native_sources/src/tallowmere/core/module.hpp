// Per-module state and the context every function of the module runs in.
//
// The state holds what the module needs to find again quickly: interned
// names and a few constant objects. What callers may replace — the module's
// globals — is never cached here; `Module::global` reads the module namespace
// at the moment of use, so `tallowmere.submit.X = ...` takes effect at once.
#pragma once

#include "core/names.hpp"
#include "core/ref.hpp"

#include <array>

namespace tallowmere {

struct ModuleState {
    Names names;

    // Parameter defaults that are not None.
    PyObject* default_timeout;         // 30.0
    PyObject* default_limit;           // 100
    PyObject* default_read_size;       // -1
    PyObject* default_whence;          // 0
    PyObject* default_pool_field_name; // "signal_pool_name"

    // Constant objects of hot paths.
    PyObject* empty_text;           // ""
    PyObject* canonical_separators; // (",", ":")

    // Request paths already split off by httpx.URL, by full URL. They are used
    // only while the module's httpx.URL is still `raw_path_parser`, the class
    // bound at import (its parse is pure but costly); a replacement is always called.
    PyObject* raw_paths;
    PyObject* raw_path_parser;

    // The frozenset this module binds as _UNRESERVED_BYTES, and its members as a
    // table. Percent-encoding uses the table while the global is still this object.
    PyObject* unreserved_bytes;
    std::array<bool, 256> unreserved_table;
};

// The module an entry point belongs to: its namespace and its state.
class Module {
public:
    static Module of(PyObject* module);
    static Module of_class(PyTypeObject* defining_class);

    // The module global `name`, read now (NameError when it is missing).
    Ref global(PyObject* name) const;

    PyObject* object() const { return object_; }
    ModuleState& state() const { return *state_; }

    const Names& n;

private:
    Module(PyObject* object, PyObject* dict, ModuleState* state)
        : n(state->names), object_(object), dict_(dict), state_(state) {}

    PyObject* object_;
    PyObject* dict_;
    ModuleState* state_;
};

}  // namespace tallowmere

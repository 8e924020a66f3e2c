// The state of tallowmere.submit: what the module needs to find again quickly.
#pragma once

#include "core/module.hpp"
#include "names.hpp"

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

    // The two error classes as this module made them (their methods call
    // super() with them; the module globals of their names may be replaced).
    PyObject* rejected_error_class;
    PyObject* response_error_class;

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

// Every callable of tallowmere.submit runs in this context.
using Module = ModuleContext<ModuleState>;

}  // namespace tallowmere

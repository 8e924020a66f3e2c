// The module's calls of the standard library on the hot paths, done in place
// while the module's json, hashlib and math globals are the modules it
// imported and the names those calls read are unchanged (submit_state.hpp,
// StandardLibrary); made as written otherwise, and whenever the value holds
// anything the in-place work does not answer for exactly.
//
// - json.dumps(value).encode("utf-8") and the canonical
//   json.dumps(value, sort_keys=True, separators=(",", ":"), allow_nan=False):
//   the JSON text is written by core/json_text.hpp, byte for byte the text
//   of json's encoder; any other value (subclasses, other types, cycles,
//   refused numbers, deep nesting) goes to json.dumps, which writes it or
//   raises its own error.
// - hashlib.sha256(data).hexdigest(): core/sha256.hpp.
// - json.loads(data) of UTF-8 bytes: decoded and handed to the default
//   decoder's own scanner, as json.loads does; anything unusual (another
//   encoding, an error of any kind) is decoded again by json.loads itself.
// - math.isinf(x) and math.isfinite(x) of an exact float.
#pragma once

#include "calls.hpp"
#include "core/json_text.hpp"
#include "core/python.hpp"
#include "submit_state.hpp"

namespace tallowmere {

// Captures what the checks compare against, once the imports are bound.
void capture_standard_library(PyObject* module, ModuleState* state);

// json.dumps(value).encode("utf-8")
Ref json_dumps_bytes(const Module& m, const Ref& value);

// hashlib.sha256(json.dumps(value, sort_keys=True, separators=(",", ":"),
// allow_nan=False).encode("utf-8")).hexdigest(). `graph`, when given, is a
// graph the value may hold, with its graph entry.
Ref canonical_json_digest(const Module& m, const Ref& value, const GraphAndEntry* graph);

// json.loads(data)
Ref json_loads(const Module& m, const Ref& data);

// math.isinf(value) / math.isfinite(value), as truth values.
bool math_isinf(const Module& m, const Ref& value);
bool math_isfinite(const Module& m, const Ref& value);

}  // namespace tallowmere

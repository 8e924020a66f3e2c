// The state of tallowmere._native: the interned names and objects of each of
// its subsystems (the sibling modules' fast paths, the simulation engine).
#pragma once

#include "core/module.hpp"
#include "engine/engine_state.hpp"
#include "siblings/siblings_state.hpp"

namespace tallowmere::native {

// X(identifier, text): every interned string of the module.
#define TALLOWMERE_NATIVE_NAMES(X) TALLOWMERE_SIBLING_NAMES(X) TALLOWMERE_ENGINE_NAMES(X)

struct Names {
#define TALLOWMERE_DECLARE_NAME(identifier, text) PyObject* identifier;
    TALLOWMERE_NATIVE_NAMES(TALLOWMERE_DECLARE_NAME)
#undef TALLOWMERE_DECLARE_NAME
};

struct NativeState {
    Names names;
    SiblingsState siblings;
    EngineState engine;

    template <class Visitor>
    void visit_objects(Visitor&& visit) {
#define TALLOWMERE_VISIT_NAME(identifier, text) visit(names.identifier);
        TALLOWMERE_NATIVE_NAMES(TALLOWMERE_VISIT_NAME)
#undef TALLOWMERE_VISIT_NAME
        siblings.visit(visit);
        engine.visit(visit);
    }
};

// Every callable of tallowmere._native runs in this context.
using Module = ModuleContext<NativeState>;

}  // namespace tallowmere::native

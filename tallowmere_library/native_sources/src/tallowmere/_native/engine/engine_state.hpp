// What the simulation engine keeps in the module state.
#pragma once

#include "core/ref.hpp"

namespace tallowmere::native {

// X(identifier, text)
#define TALLOWMERE_ENGINE_NAMES(X)

struct EngineState {
    // Objects the engine creates once (each listed in `visit`).
    template <class Visitor>
    void visit(Visitor&&) {}
};

// Binds the engine's callables into the module.
void bind_engine(PyObject* module);

}  // namespace tallowmere::native

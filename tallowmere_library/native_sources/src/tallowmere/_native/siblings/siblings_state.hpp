// What the sibling modules' fast paths keep in the module state.
#pragma once

#include "core/ref.hpp"

namespace tallowmere::native {

// X(identifier, text)
#define TALLOWMERE_SIBLING_NAMES(X)

struct SiblingsState {
    // Objects the fast paths create once (each listed in `visit`).
    template <class Visitor>
    void visit(Visitor&&) {}
};

// Binds the fast paths into the module.
void bind_siblings(PyObject* module);

}  // namespace tallowmere::native

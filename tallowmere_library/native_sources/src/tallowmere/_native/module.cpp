// tallowmere._native: compiled fast paths of the package's Python modules.
//
// The sibling modules that every submission calls (graph complexity and
// fingerprint, the MI contract, threshold gates, named universes, pool lookup,
// backtest timings) and the simulation engine keep their plain-Python
// implementations; this module gives them compiled ones with the same results
// and messages. It shares the RAII core of tallowmere.submit.
#include "_native/native_state.hpp"
#include "core/function.hpp"
#include "core/python.hpp"

namespace tallowmere::native {

namespace {

constexpr const char module_doc[] = "Compiled fast paths of the tallowmere package.";

NativeState* state_of(PyObject* module) { return static_cast<NativeState*>(PyModule_GetState(module)); }

void intern_names(NativeState* state) {
#define TALLOWMERE_INTERN_NAME(identifier, text) \
    state->names.identifier = Ref::checked(PyUnicode_InternFromString(text)).release();
    TALLOWMERE_NATIVE_NAMES(TALLOWMERE_INTERN_NAME)
#undef TALLOWMERE_INTERN_NAME
    (void)state;
}

int exec_module(PyObject* module) {
    return guarded([&]() -> Ref {
               intern_names(state_of(module));
               bind_siblings(module);
               bind_engine(module);
               return Ref(none());
           }) == nullptr
               ? -1
               : 0;
}

PyModuleDef module_def = ModuleDefinition<NativeState, exec_module>::make("tallowmere._native", module_doc);

}  // namespace

}  // namespace tallowmere::native

PyMODINIT_FUNC PyInit__native(void) { return PyModuleDef_Init(&tallowmere::native::module_def); }

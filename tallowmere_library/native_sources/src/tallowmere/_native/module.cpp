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

template <class Visitor>
void for_each_state_object(NativeState* state, Visitor&& visit) {
#define TALLOWMERE_VISIT_NAME(identifier, text) visit(state->names.identifier);
    TALLOWMERE_NATIVE_NAMES(TALLOWMERE_VISIT_NAME)
#undef TALLOWMERE_VISIT_NAME
    state->siblings.visit(visit);
    state->engine.visit(visit);
}

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

int traverse_module(PyObject* module, visitproc visit, void* arg) {
    NativeState* state = state_of(module);
    if (state == nullptr) return 0;
    int result = 0;
    for_each_state_object(state, [&](PyObject* object) {
        if (result == 0 && object != nullptr) result = visit(object, arg);
    });
    return result;
}

int clear_module(PyObject* module) {
    NativeState* state = state_of(module);
    if (state == nullptr) return 0;
    for_each_state_object(state, [](PyObject*& object) { Py_CLEAR(object); });
    return 0;
}

void free_module(void* module) { clear_module(static_cast<PyObject*>(module)); }

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(exec_module)},
    {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_SUPPORTED},
    {0, nullptr},
};

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT, "tallowmere._native", module_doc, sizeof(NativeState), nullptr,
    module_slots,          traverse_module,      clear_module, free_module,
};

}  // namespace

}  // namespace tallowmere::native

PyMODINIT_FUNC PyInit__native(void) { return PyModuleDef_Init(&tallowmere::native::module_def); }

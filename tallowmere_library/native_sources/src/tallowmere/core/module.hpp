// The module an entry point belongs to: its namespace and its state.
//
// Each extension module of the package keeps a state struct of its own
// (interned names, constant objects, caches) and runs its callables in a
// `ModuleContext<State>`. What callers may replace — the module's globals —
// is never cached in the state; `global` reads the module namespace at the
// moment of use, so `module.X = ...` takes effect at once.
#pragma once

#include "core/ref.hpp"

namespace tallowmere {

class ModuleBase {
public:
    // The context of `module` when its state type does not matter.
    explicit ModuleBase(PyObject* module)
        : ModuleBase(module, PyModule_GetDict(module), PyModule_GetState(module)) {}

    // The module global `name`, read now (NameError when it is missing).
    Ref global(PyObject* name) const;

    PyObject* object() const { return object_; }
    // The module namespace (borrowed: the module keeps it).
    PyObject* dict() const { return dict_; }
    void* raw_state() const { return state_; }

protected:
    ModuleBase(PyObject* object, PyObject* dict, void* state) : object_(object), dict_(dict), state_(state) {}

private:
    PyObject* object_;
    PyObject* dict_;
    void* state_;
};

// `State` is the module's state struct; its member `names` holds the
// module's interned strings, reachable as `m.n`.
template <class State>
class ModuleContext : public ModuleBase {
public:
    static ModuleContext of(PyObject* module) {
        return ModuleContext(module, PyModule_GetDict(module), static_cast<State*>(PyModule_GetState(module)));
    }
    static ModuleContext of_class(PyTypeObject* defining_class) {
        PyObject* module = PyType_GetModule(defining_class);
        if (module == nullptr) propagate();
        return of(module);
    }

    State& state() const { return *static_cast<State*>(raw_state()); }

    const decltype(State::names)& n;

private:
    ModuleContext(PyObject* object, PyObject* dict, State* state)
        : ModuleBase(object, dict, state), n(state->names) {}
};

// The definition of an extension module built in one step, `Exec` (multi-phase
// initialisation, safe in subinterpreters), with state `State` and the garbage
// collector's slots over it. `State` lists every object reference it holds
// with a member `template <class Visitor> void visit_objects(Visitor&& visit)`
// that calls `visit(PyObject*&)` on each (null ones included).
template <class State, int (*Exec)(PyObject*)>
struct ModuleDefinition {
    static PyModuleDef make(const char* name, const char* doc) {
        return {PyModuleDef_HEAD_INIT, name, doc, sizeof(State), nullptr, slots, traverse, clear, free};
    }

    static inline PyModuleDef_Slot slots[] = {
        {Py_mod_exec, reinterpret_cast<void*>(Exec)},
        {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_SUPPORTED},
        {0, nullptr},
    };

    static int traverse(PyObject* module, visitproc visit, void* arg) {
        State* state = of(module);
        if (state == nullptr) return 0;
        int result = 0;
        state->visit_objects([&](PyObject* object) {
            if (result == 0 && object != nullptr) result = visit(object, arg);
        });
        return result;
    }

    static int clear(PyObject* module) {
        State* state = of(module);
        if (state != nullptr) state->visit_objects([](PyObject*& object) { Py_CLEAR(object); });
        return 0;
    }

    static void free(void* module) { clear(static_cast<PyObject*>(module)); }

    static State* of(PyObject* module) { return static_cast<State*>(PyModule_GetState(module)); }
};

}  // namespace tallowmere

#include "dispatch.hpp"

#include <array>

namespace tallowmere {

PyObject* global_now(const Module& m, PyObject* name) {
    PyObject* value = PyDict_GetItemWithError(m.dict(), name);
    if (value != nullptr) return value;
    if (!PyErr_Occurred()) PyErr_Format(PyExc_NameError, "name '%U' is not defined", name);
    propagate();
}

bool resolves_to_own(const Module& m, Own which, const FoundMethod& found, const Ref& receiver, Ref* bound) {
    PyObject* mine = own(m, which);
    PyObject* callable = found.callable.get();
    // A bound method of the function calls it with the bound object first.
    auto bound_method = [&] {
        if (!PyMethod_Check(callable) || PyMethod_GET_FUNCTION(callable) != mine) return false;
        *bound = Ref(Borrowed(PyMethod_GET_SELF(callable)));
        return true;
    };
    switch (own_kinds[static_cast<size_t>(which)]) {
        case OwnKind::client_method:
        case OwnKind::observed_body_method:
            if (found.unbound && callable == mine) {
                *bound = receiver;
                return true;
            }
            return !found.unbound && bound_method();
        case OwnKind::client_static_method:
            return !found.unbound && callable == mine;
        case OwnKind::client_class_method:
            return !found.unbound && bound_method();
        case OwnKind::module_function:
            break;
    }
    return false;
}

bool is_native(const Module& m, native_api::Function which, PyObject* callable) {
    const native_api::Api* api = m.state().native_api;
    return api != nullptr && callable == api->function(m.state().native, which);
}

Ref call_native(const Module& m, native_api::Function which, std::initializer_list<Arg> args) {
    std::array<PyObject*, 4> argv{};
    if (args.size() > argv.size()) raise(PyExc_SystemError, "tallowmere.submit: too many arguments for the C API");
    size_t count = 0;
    for (Arg value : args) argv[count++] = value.get();
    // The C API takes the module it belongs to; it stays alive through the call.
    Ref native{Borrowed(m.state().native)};
    return Ref::checked(m.state().native_api->call(native.get(), which, argv.data(), count));
}

}  // namespace tallowmere

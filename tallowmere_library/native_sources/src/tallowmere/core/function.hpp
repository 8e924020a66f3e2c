// Functions and methods of the module: one declaration per callable gives its
// parameters (names, kinds, defaults), its qualified name and its docstring.
// From it come the argument parser, the text signature that
// `inspect.signature` reads, and the entry point the interpreter calls.
//
//     constexpr auto join_url_signature = signature(
//         "_join_url", Binding::module_function, nullptr, param("server_url"), param("endpoint"));
//     Ref join_url(const Module& m, const Ref& server_url, const Ref& endpoint);
//
// The implementation's first parameter is the module context it runs in
// (`ModuleContext<State>`), made from the module or the defining class.
//     const Member join_url_member = member<join_url_signature, join_url>();
//
// An instance method's implementation takes `self` after the context:
//     Ref read(const Module& m, const Ref& self, const Ref& size);
#pragma once

#include "core/module.hpp"
#include "core/ref.hpp"

#include <array>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <tuple>

namespace tallowmere {

enum class ParamKind : unsigned char { positional_or_keyword, keyword_only };

struct DefaultValue {
    enum class Type : unsigned char { required, none, constant };
    Type type;
    PyObject* (*constant)(const ModuleBase&);  // for Type::constant: the object, kept in module state
    const char* text;                          // how the default reads in the signature
};

inline constexpr DefaultValue required{DefaultValue::Type::required, nullptr, nullptr};
inline constexpr DefaultValue none_default{DefaultValue::Type::none, nullptr, "None"};

template <class Member>
struct member_of;
template <class State>
struct member_of<PyObject* State::*> {
    using state = State;
};

template <auto Constant>
PyObject* state_constant(const ModuleBase& m) {
    using State = typename member_of<decltype(Constant)>::state;
    return static_cast<State*>(m.raw_state())->*Constant;
}

// A default kept in the module state: constant_default<&State::default_limit>("100").
template <auto Constant>
constexpr DefaultValue constant_default(const char* text) {
    return {DefaultValue::Type::constant, &state_constant<Constant>, text};
}

struct Param {
    const char* name;
    size_t name_length;
    ParamKind kind;
    DefaultValue default_value;
};

constexpr Param param(const char* name, DefaultValue default_value = required) {
    return {name, std::char_traits<char>::length(name), ParamKind::positional_or_keyword, default_value};
}
constexpr Param keyword_only(const char* name, DefaultValue default_value = required) {
    return {name, std::char_traits<char>::length(name), ParamKind::keyword_only, default_value};
}

// How a callable is bound into the module:
// - module_function: a module-level function (receives the module);
// - instance_method: a function of a class (classes.hpp), which binds to an
//   instance like a Python-defined method: its first parameter is `self`, not
//   written in the declaration, and like any Python parameter it may also be
//   passed by keyword;
// - static_method / class_method: a module function wrapped in staticmethod /
//   classmethod and stored on a class (a class method's first parameter is `cls`);
// - property_getter: a module function wrapped in property (first parameter `self`).
enum class Binding : unsigned char { module_function, instance_method, static_method, class_method, property_getter };

struct SignatureView {
    const char* qualname;
    Binding binding;
    const char* doc;
    const Param* params;
    size_t count;
};

template <size_t N>
struct Signature {
    const char* qualname;
    Binding binding;
    const char* doc;
    std::array<Param, N> params;

    constexpr SignatureView view() const { return {qualname, binding, doc, params.data(), N}; }
};

template <class... Params>
constexpr Signature<sizeof...(Params)> signature(const char* qualname, Binding binding, const char* doc,
                                                 Params... params) {
    return {qualname, binding, doc, {params...}};
}

// The values a callable receives: one per declared parameter, and for an
// instance method `self` in front.
constexpr size_t parsed_count(Binding binding, size_t declared) {
    return declared + (binding == Binding::instance_method ? 1 : 0);
}

// Parses vectorcall arguments into one borrowed value per parameter (`self`
// first for an instance method), with the interpreter's own TypeError texts for
// missing, surplus and unknown arguments.
void parse_arguments(const ModuleBase& m, const SignatureView& signature, PyObject* const* args, Py_ssize_t nargs,
                     PyObject* kwnames, PyObject** out);

// "name($module, /, a, b=None, *, c)\n--\n\n" followed by the docstring: the
// text signature and docstring of a module function (or static or class method).
std::string signature_docstring(const SignatureView& signature);

template <const auto& Sig>
auto parse(const ModuleBase& m, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    constexpr size_t count = parsed_count(Sig.binding, Sig.params.size());
    std::array<PyObject*, count> raw{};
    parse_arguments(m, Sig.view(), args, nargs, kwnames, raw.data());
    std::array<Borrowed, count> values;
    for (size_t i = 0; i < count; ++i) values[i] = Borrowed(raw[i]);
    return values;
}

// Runs an entry point's body: a thrown PyErrorSet (or a C++ failure) becomes NULL
// with the Python error indicator set.
template <class Body>
PyObject* guarded(Body&& body) noexcept {
    try {
        Ref result = body();
        if (!result && !PyErr_Occurred()) PyErr_SetString(PyExc_SystemError, "tallowmere: missing result");
        return result.release();
    } catch (const PyErrorSet&) {
        if (!PyErr_Occurred()) PyErr_SetString(PyExc_SystemError, "tallowmere: error without exception");
        return nullptr;
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
        return nullptr;
    } catch (const std::exception& failure) {
        PyErr_SetString(PyExc_SystemError, failure.what());
        return nullptr;
    }
}

// The context type an implementation takes first: `Ref f(const Module& m, ...)`.
template <class Function>
struct context_of;
template <class Context, class... Rest>
struct context_of<Ref (*)(const Context&, Rest...)> {
    using type = Context;
};
template <auto Impl>
using context_t = typename context_of<decltype(Impl)>::type;

template <const auto& Sig, auto Impl>
PyObject* module_entry(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) noexcept {
    return guarded([&] {
        auto m = context_t<Impl>::of(module);
        auto values = parse<Sig>(m, args, nargs, kwnames);
        return std::apply([&](auto... value) { return Impl(m, value...); }, values);
    });
}

// The module an instance method's function object belongs to (classes.cpp).
PyObject* method_module(PyObject* method);

// The vectorcall entry of an instance method's function object: `args` begin
// with `self` (the interpreter passes it first, as for any Python method).
template <const auto& Sig, auto Impl>
PyObject* method_entry(PyObject* method, PyObject* const* args, size_t nargsf, PyObject* kwnames) noexcept {
    return guarded([&] {
        auto m = context_t<Impl>::of(method_module(method));
        auto values = parse<Sig>(m, args, PyVectorcall_NARGS(nargsf), kwnames);
        return std::apply([&](auto... value) { return Impl(m, value...); }, values);
    });
}

// A callable ready to be bound into the module or one of its classes: a
// builtin function (`method_def`) for every binding but instance_method, whose
// function object calls `method_call`.
struct Member {
    Binding binding;
    PyMethodDef* (*method_def)();
    vectorcallfunc method_call;
    SignatureView (*signature)();
};

const char* unqualified_name(const char* qualname);

template <const auto& Sig, auto Impl>
PyMethodDef* method_def_of() {
    static const std::string doc = signature_docstring(Sig.view());
    static PyMethodDef def = [] {
        PyMethodDef d{};
        d.ml_name = unqualified_name(Sig.qualname);
        d.ml_doc = doc.c_str();
        d.ml_meth = reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&module_entry<Sig, Impl>));
        d.ml_flags = METH_FASTCALL | METH_KEYWORDS;
        return d;
    }();
    return &def;
}

template <const auto& Sig>
SignatureView signature_view_of() {
    return Sig.view();
}

template <const auto& Sig, auto Impl>
constexpr Member member() {
    if constexpr (Sig.binding == Binding::instance_method) {
        return {Sig.binding, nullptr, &method_entry<Sig, Impl>, &signature_view_of<Sig>};
    } else {
        return {Sig.binding, &method_def_of<Sig, Impl>, nullptr, &signature_view_of<Sig>};
    }
}

}  // namespace tallowmere

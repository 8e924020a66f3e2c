// Classes and module-level functions as the module defines them.
//
// Classes are heap types bound to the module (so their methods find the module
// state through their defining class), mutable like any Python class, with an
// instance __dict__, weak references and a real base: `object` or
// `Exception`. Members are added one by one in definition order, as
// method descriptors, or as genuine staticmethod, classmethod and property
// objects.
#pragma once

#include "core/function.hpp"
#include "core/ref.hpp"

namespace tallowmere {

// class <name>: (base `object`); `qualified_name` is "tallowmere.submit.<name>".
Ref make_class(PyObject* module, const char* qualified_name, const char* doc);
// class <name>(<base>) for an exception base such as Exception.
Ref make_exception_class(PyObject* module, const char* qualified_name, const char* doc, PyObject* base);

// Binds `member` as an attribute of `cls` (or of the module), under its own
// name. Each returns the function it made: what a call of the attribute ends
// up calling (for a static or class method the function inside the
// staticmethod or classmethod, for a property its getter), by which the
// module recognises its own callables later.
Ref add_member(PyObject* module, const Ref& cls, const Member& member);
Ref add_function(PyObject* module, const Member& member);
// module.<name> = value
void add_object(PyObject* module, PyObject* name, const Ref& value);

}  // namespace tallowmere

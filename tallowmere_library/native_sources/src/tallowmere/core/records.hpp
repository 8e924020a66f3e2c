// Result records made without calling their class: for a plain dataclass,
// allocating the instance and storing its fields is what the generated
// __init__ does, minus the call and the argument parsing.
#pragma once

#include "core/python.hpp"
#include "core/ref.hpp"

#include <initializer_list>

namespace tallowmere {

// A record class as it was when captured. The direct path is taken only for
// that class object while its type version is unchanged (any assignment to
// the class or its bases renews the version), so a replaced __init__, a
// replaced module global or a subclass gets the class called.
struct RecordClass {
    PyObject* cls;
    unsigned int version_tag;  // 0: always call the class
};

// Captures `cls` (a strong reference, or none) for direct construction when
// it is a dataclass whose generated __init__ only stores `fields`, in this
// order: instances from object.__new__, the type's own __call__, no
// __post_init__, and attribute stores that are object's (a frozen dataclass
// stores through object.__setattr__ too). Otherwise the class is always called.
void capture_record(RecordClass& record, PyObject* cls, std::initializer_list<PyObject*> fields);

// cls(**fields): made directly while `cls` is the captured class, unchanged.
// `fields` must be the captured fields, in their order.
Ref make_record(const RecordClass& record, PyObject* cls, std::initializer_list<Kw> fields);

}  // namespace tallowmere

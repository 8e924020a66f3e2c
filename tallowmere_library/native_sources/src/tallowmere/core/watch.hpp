// Knowing cheaply that chosen entries of a namespace still hold the objects
// they held once: a module's globals, a class's attributes, an instance's
// __dict__. A fast path that stands in for a call of the standard library (or
// of a sibling module) runs only while the names that call reads are bound as
// they were when the module was loaded; once any of them is replaced, the
// call is made as written.
#pragma once

#include "core/ref.hpp"

#include <cstdint>
#include <initializer_list>

namespace tallowmere {

// The version tag CPython 3.12 keeps in every dict and renews at every change
// of it. (The package is built for 3.12 only; a later interpreter would take
// dict watchers for the same purpose.)
inline uint64_t dict_version(PyObject* dict) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
#pragma GCC diagnostic pop
}

class WatchedEntries {
public:
    // Watches `keys` of `dict`, expecting the values they hold now, and
    // `absent` keys, expecting them to stay missing. With an `owner`, `dict`
    // is its __dict__ and must stay so. A key of `keys` missing now, or one of
    // `absent` present, leaves the watch never unchanged.
    void capture(PyObject* dict, std::initializer_list<PyObject*> keys, PyObject* owner = nullptr,
                 std::initializer_list<PyObject*> absent = {});

    // True while every watched key holds its captured value. A comparison
    // happens only when the dict changed since the last one.
    bool unchanged();

    template <class Visitor>
    void visit(Visitor&& visit_object) {
        visit_object(dict_);
        visit_object(expected_);
        visit_object(absent_);
        visit_object(owner_);
    }

private:
    bool owner_keeps_dict() const;
    bool compare_entries();

    PyObject* dict_ = nullptr;
    PyObject* expected_ = nullptr;  // key -> the value captured
    PyObject* absent_ = nullptr;    // a tuple of keys
    PyObject* owner_ = nullptr;
    uint64_t checked_version_ = 0;
    bool complete_ = false;
    bool intact_ = false;
};

}  // namespace tallowmere

#include "core/module.hpp"

namespace tallowmere {

Ref ModuleBase::global(PyObject* name) const {
    PyObject* value = PyDict_GetItemWithError(dict_, name);
    if (value != nullptr) return Ref(Borrowed(value));
    if (!PyErr_Occurred()) PyErr_Format(PyExc_NameError, "name '%U' is not defined", name);
    propagate();
}

}  // namespace tallowmere

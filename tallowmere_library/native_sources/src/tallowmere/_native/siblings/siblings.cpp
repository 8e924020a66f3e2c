#include "_native/native_state.hpp"

namespace tallowmere::native {

void bind_siblings(PyObject*) {}

}  // namespace tallowmere::native

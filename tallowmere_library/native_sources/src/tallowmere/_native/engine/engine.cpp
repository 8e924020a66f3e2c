#include "_native/native_state.hpp"

namespace tallowmere::native {

void bind_engine(PyObject*) {}

}  // namespace tallowmere::native

// What the evaluator's builds share: the standard headers the evaluator is
// written with, and the builds themselves.
#pragma once

#include "_native/engine/plan.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace tallowmere::native::engine {

// The evaluator compiled for any x86-64 (or other) processor.
std::unique_ptr<Prepared> prepare_generic(const Run& run);

#if defined(TALLOWMERE_ENGINE_AVX2)
// The evaluator compiled for processors with AVX2.
std::unique_ptr<Prepared> prepare_avx2(const Run& run);
#endif

}  // namespace tallowmere::native::engine

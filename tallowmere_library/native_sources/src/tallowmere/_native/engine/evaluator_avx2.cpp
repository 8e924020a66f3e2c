// The evaluator compiled for processors with AVX2 and BMI2 (four doubles per
// instruction). Only the evaluator's own functions get the AVX2 target:
// library templates keep the default one, so code shared with the generic
// build never needs AVX2. Neither build contracts multiplications and
// additions into fused ones, so both give identical numbers.
#include "_native/engine/evaluator.hpp"

#include <immintrin.h>

namespace tallowmere::native::engine {

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2,bmi2,popcnt"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2,bmi2,popcnt")
#endif

namespace avx2 {
#define TALLOWMERE_ENGINE_AVX2_CODE 1
#include "_native/engine/evaluator.inl"
#undef TALLOWMERE_ENGINE_AVX2_CODE
}  // namespace avx2

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

std::unique_ptr<Prepared> prepare_avx2(const Run& run) { return avx2::prepare_here(run); }

}  // namespace tallowmere::native::engine

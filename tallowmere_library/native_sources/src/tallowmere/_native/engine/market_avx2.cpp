// The default dataset's generator compiled for processors with AVX2 (four
// doubles per instruction), as evaluator_avx2.cpp is: only this file's own
// functions get the AVX2 target, and nothing is contracted into fused
// multiply-adds, so both builds give identical numbers.
#include "_native/engine/market.hpp"

namespace tallowmere::native::engine {

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif

namespace avx2 {
#include "_native/engine/market.inl"
}  // namespace avx2

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

void generate_market_avx2(double* out, long days, int assets) { avx2::market::generate(out, days, assets); }

}  // namespace tallowmere::native::engine

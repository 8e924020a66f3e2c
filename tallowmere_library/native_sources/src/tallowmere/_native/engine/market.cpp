// The default dataset's generator for any processor, and the choice of build at run time.
#include "_native/engine/market.hpp"

namespace tallowmere::native::engine {

namespace generic {
#include "_native/engine/market.inl"
}  // namespace generic

void generate_market_generic(double* out, long days, int assets) { generic::market::generate(out, days, assets); }

void generate_market(double* out, long days, int assets, bool generic) {
#if defined(TALLOWMERE_ENGINE_AVX2)
    if (!generic && __builtin_cpu_supports("avx2")) {
        generate_market_avx2(out, days, assets);
        return;
    }
#else
    (void)generic;
#endif
    generate_market_generic(out, days, assets);
}

}  // namespace tallowmere::native::engine

// The evaluator for any processor, and the choice of build at run time.
#include "_native/engine/evaluator.hpp"

namespace tallowmere::native::engine {

namespace generic {
#include "_native/engine/evaluator.inl"
}  // namespace generic

std::unique_ptr<Prepared> prepare_generic(const Run& run) { return generic::prepare_here(run); }

std::unique_ptr<Prepared> prepare(const Run& run, bool generic) {
#if defined(TALLOWMERE_ENGINE_AVX2)
    if (!generic && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi2")) return prepare_avx2(run);
#else
    (void)generic;
#endif
    return prepare_generic(run);
}

}  // namespace tallowmere::native::engine

// The default dataset of tallowmere.simulation.synthetic_market, generated
// natively: the same recipe and the same bits as its numpy version.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace tallowmere::native::engine {

// Writes the seven fields (open, high, low, close, volume, returns, vwap),
// each days × assets, one after another into `out`; with `generic` the build
// for any processor (both give identical numbers). Needs no Python object, so
// it can run with the GIL released; throws std::bad_alloc when memory runs out.
void generate_market(double* out, long days, int assets, bool generic);

void generate_market_generic(double* out, long days, int assets);
#if defined(TALLOWMERE_ENGINE_AVX2)
void generate_market_avx2(double* out, long days, int assets);
#endif

}  // namespace tallowmere::native::engine

// The default dataset's recipe: tallowmere.simulation.synthetic_market (and
// portable_random) in C++, operation for operation, so that both give the
// same bits. Like the evaluator, this file is compiled once per instruction
// set (market.cpp, market_avx2.cpp) inside a namespace of its own; nothing
// here calls a library function whose last bits could differ (no exp, no
// log: only + - * /, sqrt and integer arithmetic, never fused).

namespace market {

// ---- the portable generator (portable_random.py) ---------------------------------

inline constexpr std::uint64_t weyl = 0x9E3779B97F4A7C15ULL;
inline constexpr std::uint64_t stream_step = 0xD1B54A32D192ED03ULL;

inline std::uint64_t mix(std::uint64_t z) {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

inline std::uint64_t stream_key(std::uint64_t generator_key, std::uint64_t stream) {
    return mix(generator_key + stream * stream_step);
}

inline std::uint64_t draw(std::uint64_t key, std::uint64_t index) { return mix(key + (index + 1) * weyl); }

// (k + 0.5) / 2^52 for the top 52 bits k of a draw, all exact.
inline double uniform(std::uint64_t z) {
    const double whole = std::bit_cast<double>((z >> 12) | 0x4330000000000000ULL) - 4503599627370496.0;
    return (whole + 0.5) * 0x1p-52;
}

// fdlibm's logarithm of a positive normal double. (Written with selections and
// double arithmetic only, so that loops over it vectorise.)
inline double portable_log(double x) {
    constexpr double ln2_hi = 6.93147180369123816490e-01, ln2_lo = 1.90821492927058770002e-10;
    constexpr double sqrt2 = 1.41421356237309514547e+00;
    constexpr double lg1 = 6.666666666666735130e-01, lg2 = 3.999999999940941908e-01, lg3 = 2.857142874366239149e-01,
                     lg4 = 2.222219843214978396e-01, lg5 = 1.818357216161805012e-01, lg6 = 1.531383769920937332e-01,
                     lg7 = 1.479819860511658591e-01;
    const auto bits = std::bit_cast<std::uint64_t>(x);
    // the biased exponent, exactly, as a double
    const double biased = std::bit_cast<double>((bits >> 52) | 0x4330000000000000ULL) - 4503599627370496.0;
    const double whole = std::bit_cast<double>((bits & 0x000FFFFFFFFFFFFFULL) | 0x3FF0000000000000ULL);
    const bool high = whole > sqrt2;  // keep the mantissa in [sqrt(2) / 2, sqrt(2))
    const double mantissa = high ? whole * 0.5 : whole;
    const double scale = (biased - 1023.0) + (high ? 1.0 : 0.0);
    const double f = mantissa - 1.0;
    const double s = f / (2.0 + f);
    const double z = s * s;
    const double w = z * z;
    const double t1 = w * (lg2 + w * (lg4 + w * lg6));
    const double t2 = z * (lg1 + w * (lg3 + w * (lg5 + w * lg7)));
    const double r = t2 + t1;
    const double half_square = 0.5 * f * f;
    return scale * ln2_hi - ((half_square - (s * (half_square + r) + scale * ln2_lo)) - f);
}

// fdlibm's exponential, for x between -700 and 700.
inline double portable_exp(double x) {
    constexpr double ln2_hi = 6.93147180369123816490e-01, ln2_lo = 1.90821492927058770002e-10;
    constexpr double inverse_ln2 = 1.44269504088896338700e+00;
    constexpr double p1 = 1.66666666666666019037e-01, p2 = -2.77777777770155933842e-03,
                     p3 = 6.61375632143793436117e-05, p4 = -1.65339022054652515390e-06,
                     p5 = 4.13813679705723846039e-08;
    const double k = std::floor(x * inverse_ln2 + 0.5);
    const double hi = x - k * ln2_hi;
    const double lo = k * ln2_lo;
    const double r = hi - lo;
    const double t = r * r;
    const double c = r - t * (p1 + t * (p2 + t * (p3 + t * (p4 + t * p5))));
    const double y = 1.0 - ((lo - (r * c) / (2.0 - c)) - hi);
    // 2^k: k + 1.5 * 2^52 holds the integer k in its low bits (a form that vectorises)
    const std::uint64_t shifted = std::bit_cast<std::uint64_t>(k + 0x1.8p52) - 0x4338000000000000ULL;
    const double power = std::bit_cast<double>((shifted + 1023) << 52);
    return y * power;
}

// Acklam's inverse normal distribution function.
inline constexpr double p_low = 0.02425, p_high = 0.97575;

inline double central_normal(double p) {
    constexpr double a0 = -3.969683028665376e+01, a1 = 2.209460984245205e+02, a2 = -2.759285104469687e+02,
                     a3 = 1.383577518672690e+02, a4 = -3.066479806614716e+01, a5 = 2.506628277459239e+00;
    constexpr double b0 = -5.447609879822406e+01, b1 = 1.615858368580409e+02, b2 = -1.556989798598866e+02,
                     b3 = 6.680131188771972e+01, b4 = -1.328068155288572e+01;
    const double q = p - 0.5;
    const double r = q * q;
    const double numerator = (((((a0 * r + a1) * r + a2) * r + a3) * r + a4) * r + a5) * q;
    const double denominator = ((((b0 * r + b1) * r + b2) * r + b3) * r + b4) * r + 1.0;
    return numerator / denominator;
}

inline double tail_normal(double q) {
    constexpr double c0 = -7.784894002430293e-03, c1 = -3.223964580411365e-01, c2 = -2.400758277161838e+00,
                     c3 = -2.549732539343734e+00, c4 = 4.374664141464968e+00, c5 = 2.938163982698783e+00;
    constexpr double d0 = 7.784695709041462e-03, d1 = 3.224671290700398e-01, d2 = 2.445134137142996e+00,
                     d3 = 3.754408661907416e+00;
    const double numerator = ((((c0 * q + c1) * q + c2) * q + c3) * q + c4) * q + c5;
    const double denominator = (((d0 * q + d1) * q + d2) * q + d3) * q + 1.0;
    return numerator / denominator;
}

// The normal number of one uniform p: the tails replace the central value.
inline double normal_tails(double p, double central) {
    if (p < p_low) return tail_normal(std::sqrt(-2.0 * portable_log(p)));
    if (p > p_high) return -tail_normal(std::sqrt(-2.0 * portable_log(1.0 - p)));
    return central;
}

inline double normal(std::uint64_t z) {
    const double p = uniform(z);
    return normal_tails(p, central_normal(p));
}

// Draws first .. first + count - 1 of a stream as uniforms, and as normals
// (the central formula for all, in vectors, then the few tails).
inline void uniform_row(std::uint64_t key, std::uint64_t first, int count, double* __restrict out) {
    std::uint64_t counter = key + (first + 1) * weyl;  // draw(key, first + i) is mix(counter + i * weyl)
    for (int i = 0; i < count; ++i) {
        out[i] = uniform(mix(counter));
        counter += weyl;
    }
}

// The normal numbers of uniforms in a tail, below p_low or above p_high.
inline void tail_normals(int count, const double* __restrict p, double* __restrict out) {
    for (int k = 0; k < count; ++k) {
        const bool low = p[k] < p_low;
        const double value = tail_normal(std::sqrt(-2.0 * portable_log(low ? p[k] : 1.0 - p[k])));
        out[k] = low ? value : -value;
    }
}

// Scratch rows of normal_row, `count` values each (marks: plus a group).
struct NormalRows {
    std::vector<double> p, tail_p, tail_values;
    std::vector<int> tail_at;
    std::vector<std::uint8_t> marks;
    explicit NormalRows(std::size_t count)
        : p(count), tail_p(count), tail_values(count), tail_at(count), marks(count + 8, 0) {}
};

inline void normal_row(std::uint64_t key, std::uint64_t first, int count, NormalRows& rows, double* __restrict out) {
    double* __restrict p = rows.p.data();
    std::uint8_t* __restrict marks = rows.marks.data();
    uniform_row(key, first, count, p);
    for (int i = 0; i < count; ++i) out[i] = central_normal(p[i]);
    // About one value in twenty is in a tail: mark them all, gather them
    // (visiting eight marks at a time), compute their normals together and
    // put those in place.
    for (int i = 0; i < count; ++i) marks[i] = static_cast<std::uint8_t>((p[i] < p_low) | (p[i] > p_high));
    int tails = 0;
    for (int i = 0; i < count; i += 8) {  // `marks` has room for a last partial group of zeros
        std::uint64_t group;
        std::memcpy(&group, marks + i, sizeof group);
        while (group != 0) {  // each mark is the lowest bit of its byte
            const bool little = std::endian::native == std::endian::little;
            const int bit = little ? std::countr_zero(group) : 63 - std::countl_zero(group);
            const int at = i + (little ? bit / 8 : 7 - bit / 8);
            rows.tail_at[static_cast<std::size_t>(tails)] = at;
            rows.tail_p[static_cast<std::size_t>(tails)] = p[at];
            ++tails;
            group &= ~(std::uint64_t{1} << bit);
        }
    }
    tail_normals(tails, rows.tail_p.data(), rows.tail_values.data());
    for (int k = 0; k < tails; ++k) out[rows.tail_at[static_cast<std::size_t>(k)]] = rows.tail_values[static_cast<std::size_t>(k)];
}

// ---- the recipe (synthetic_market.py) ------------------------------------------------

inline constexpr std::uint64_t generator_key = 0x7A110EB2;
inline constexpr int sector_count = 10;
inline constexpr double market_drift = 0.0003, market_volatility = 0.009, sector_volatility = 0.005;
inline constexpr double garch_base = 0.02, garch_shock = 0.1, garch_memory = 0.88;
inline constexpr double log_volatility_low = -0x1.26bb1bbb55515p+2, log_volatility_span = 0x1.193ea7aad0308p+0;
inline constexpr double volatility_center = 0.018, volatility_scale = 0.006;
inline constexpr double log_first_close_low = 0x1.26bb1bbb55516p+1, log_first_close_span = 0x1.b35a6f90bd69ap+1;
inline constexpr double log_base_volume = 0x1.d046ec97fa33fp+3;
inline constexpr double reversal_share = 0.015;
inline constexpr double drift_persistence = 0.99, drift_innovation = 0.141, momentum_drift_volatility = 0.0008;
inline constexpr double low_volatility_premium = 0.0003, volume_premium = 0.02;
inline constexpr double volume_persistence = 0.9, volume_innovation = 0.436;
inline constexpr double lowest_return = -0.9;
inline constexpr double jump_chance = 0.04, jump_scale = 2.61, calm_scale = 0.87;

enum Stream : std::uint64_t {
    asset_draws = 0,  // 4 per asset: beta, volatility, first close (uniform), base volume (normal)
    market_draws = 1,
    sector_draws = 2,
    shock_draws = 3,  // the rest 1 per day and asset
    drift_draws = 4,
    volume_draws = 5,
    open_draws = 6,
    upper_wick_draws = 7,
    lower_wick_draws = 8,
    share_draws = 9,
    blend_draws = 10,
    jump_draws = 11,
};

inline constexpr int field_count = 7;  // open, high, low, close, volume, returns, vwap

// A day in 25 brings an asset a shock three times the usual size.
inline void scale_shocks(std::size_t n, const double* __restrict jump, double* __restrict shock) {
    for (std::size_t i = 0; i < n; ++i) shock[i] = shock[i] * (jump[i] < jump_chance ? jump_scale : calm_scale);
}

// The recursions of every asset from one day to the next: its variance, its
// drift and its volume level.
inline void next_states(std::size_t n, const double* __restrict previous_shock, const double* __restrict drift_shock,
                        const double* __restrict volume_shock, double* __restrict variance, double* __restrict drift,
                        double* __restrict level) {
    for (std::size_t i = 0; i < n; ++i) {
        variance[i] = (garch_base + garch_shock * (previous_shock[i] * previous_shock[i])) + garch_memory * variance[i];
        drift[i] = drift_persistence * drift[i] + drift_innovation * drift_shock[i];
        level[i] = volume_persistence * level[i] + volume_innovation * volume_shock[i];
    }
}

// One day of every asset: its idiosyncratic move, its return, prices and
// volume.
inline void day_prices(std::size_t n, double market, const double* __restrict beta, const double* __restrict volatility,
                       const double* __restrict quietness, const double* __restrict base_volume,
                       const double* __restrict sector, const double* __restrict drift, const double* __restrict level,
                       const double* __restrict variance, const double* __restrict shock,
                       const double* __restrict volume_shock, const double* __restrict open_noise,
                       const double* __restrict upper, const double* __restrict lower, const double* __restrict share,
                       const double* __restrict blend, const double* __restrict previous_idiosyncratic,
                       const double* __restrict previous_volume_shock, const double* __restrict previous_close,
                       double* __restrict idiosyncratic, double* __restrict opens, double* __restrict highs,
                       double* __restrict lows, double* __restrict closes, double* __restrict volumes,
                       double* __restrict returns, double* __restrict vwaps) {
    for (std::size_t i = 0; i < n; ++i) {
        idiosyncratic[i] = volatility[i] * (std::sqrt(variance[i]) * shock[i]);
        const double r = (((((low_volatility_premium * quietness[i] + momentum_drift_volatility * drift[i]) +
                             beta[i] * market) +
                            sector[i]) +
                           idiosyncratic[i]) -
                          reversal_share * previous_idiosyncratic[i]) +
                         volume_premium * (volatility[i] * previous_volume_shock[i]);
        const double move = r > lowest_return ? r : lowest_return;
        const double close = previous_close[i] * (1.0 + move);
        const double open =
            previous_close[i] * ((1.0 + (0.2 + 0.3 * share[i]) * move) + 0.25 * (volatility[i] * open_noise[i]));
        const double high = std::max(open, close) * (1.0 + 0.4 * (volatility[i] * std::fabs(upper[i])));
        const double low = std::min(open, close) / (1.0 + 0.4 * (volatility[i] * std::fabs(lower[i])));
        const double blended = blend[i] * ((high + low + close) / 3.0) + (1.0 - blend[i]) * ((open + close) / 2.0);
        opens[i] = open;
        highs[i] = high;
        lows[i] = low;
        closes[i] = close;
        volumes[i] = base_volume[i] * portable_exp((0.5 * level[i] + 0.35 * volume_shock[i]) + 0.3 * (std::fabs(shock[i]) - 0.8));
        returns[i] = close / previous_close[i] - 1.0;
        vwaps[i] = std::min(std::max(blended, low), high);
    }
}

// Writes the seven fields, each days × assets, one after another into
// `out`. Throws std::bad_alloc when memory runs out.
inline void generate(double* out, long days, int assets) {
    const auto n = static_cast<std::size_t>(assets);
    auto key = [](Stream stream) { return stream_key(generator_key, stream); };
    // Per asset.
    std::vector<double> beta(n), volatility(n), quietness(n), first_close(n), base_volume(n);
    const std::uint64_t characteristics = key(asset_draws);
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint64_t at = 4 * i;
        beta[i] = 0.6 + 0.8 * uniform(draw(characteristics, at));
        volatility[i] = portable_exp(log_volatility_low + log_volatility_span * uniform(draw(characteristics, at + 1)));
        quietness[i] = (volatility_center - volatility[i]) / volatility_scale;
        first_close[i] = portable_exp(log_first_close_low + log_first_close_span * uniform(draw(characteristics, at + 2)));
        base_volume[i] = portable_exp(log_base_volume + 0.8 * normal(draw(characteristics, at + 3)));
    }
    // Per day: the day's draws, the recursions' state and yesterday's values.
    NormalRows scratch(n);
    std::vector<double> jump(n), shock(n), drift_shock(n), volume_shock(n), open_noise(n), upper(n), lower(n), share(n),
        blend(n), sector(n);
    std::vector<double> previous_shock(n, 0.0), previous_idiosyncratic(n, 0.0), previous_volume_shock(n, 0.0);
    std::vector<double> variance(n, 1.0), drift(n), level(n), previous_close(first_close), idiosyncratic(n);
    std::vector<double> first_day(static_cast<std::size_t>(field_count) * n);  // the extra day, not kept
    double sectors[sector_count];
    double market_variance = 1.0, previous_market_shock = 0.0;
    const std::uint64_t market_key = key(market_draws), sector_key = key(sector_draws), shock_key = key(shock_draws),
                        drift_key = key(drift_draws), volume_key = key(volume_draws), open_key = key(open_draws),
                        upper_key = key(upper_wick_draws), lower_key = key(lower_wick_draws),
                        share_key = key(share_draws), blend_key = key(blend_draws), jump_key = key(jump_draws);
    const std::size_t plane = static_cast<std::size_t>(days) * n;
    const long rows = days + 1;  // one extra day in front gives the first day a previous close
    for (long t = 0; t < rows; ++t) {
        const auto day = static_cast<std::uint64_t>(t);
        const std::uint64_t first = day * n;
        const double market_shock = normal(draw(market_key, day));
        for (int s = 0; s < sector_count; ++s) {
            sectors[s] = sector_volatility * normal(draw(sector_key, day * sector_count + static_cast<std::uint64_t>(s)));
        }
        for (std::size_t i = 0; i < n; i += sector_count) {  // asset i is in sector i % sector_count
            std::copy(sectors, sectors + std::min<std::size_t>(sector_count, n - i), sector.begin() + static_cast<std::ptrdiff_t>(i));
        }
        normal_row(shock_key, first, assets, scratch, shock.data());
        uniform_row(jump_key, first, assets, jump.data());
        scale_shocks(n, jump.data(), shock.data());
        normal_row(drift_key, first, assets, scratch, drift_shock.data());
        normal_row(volume_key, first, assets, scratch, volume_shock.data());
        normal_row(open_key, first, assets, scratch, open_noise.data());
        normal_row(upper_key, first, assets, scratch, upper.data());
        normal_row(lower_key, first, assets, scratch, lower.data());
        uniform_row(share_key, first, assets, share.data());
        uniform_row(blend_key, first, assets, blend.data());
        if (t == 0) {
            drift = drift_shock;
            level = volume_shock;
        } else {
            market_variance = (garch_base + garch_shock * (previous_market_shock * previous_market_shock)) +
                              garch_memory * market_variance;
            next_states(n, previous_shock.data(), drift_shock.data(), volume_shock.data(), variance.data(), drift.data(),
                        level.data());
        }
        const double market = market_drift + market_volatility * (std::sqrt(market_variance) * market_shock);
        double* row = t > 0 ? out + (t - 1) * assets : first_day.data();
        const std::size_t step = t > 0 ? plane : n;  // from one field to the next
        day_prices(n, market, beta.data(), volatility.data(), quietness.data(), base_volume.data(), sector.data(),
                   drift.data(), level.data(), variance.data(), shock.data(), volume_shock.data(), open_noise.data(),
                   upper.data(), lower.data(), share.data(), blend.data(), previous_idiosyncratic.data(),
                   previous_volume_shock.data(), previous_close.data(), idiosyncratic.data(), row, row + step,
                   row + 2 * step, row + 3 * step, row + 4 * step, row + 5 * step, row + 6 * step);
        std::copy(row + 3 * step, row + 3 * step + n, previous_close.begin());
        std::swap(previous_shock, shock);
        std::swap(previous_idiosyncratic, idiosyncratic);
        std::swap(previous_volume_shock, volume_shock);
        previous_market_shock = market_shock;
    }
}

}  // namespace market

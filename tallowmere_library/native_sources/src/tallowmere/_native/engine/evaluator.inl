// The day-by-day evaluator. This file is compiled once per instruction set
// (evaluator.cpp for any processor, evaluator_avx2.cpp), inside a namespace of
// its own, so every loop below is vectorised for the processor it runs on.
//
// Every operation is the same sequence of IEEE operations as the numpy
// reference in tallowmere.simulation (rolling.py, cross_section.py,
// portfolio.py), so both give identical numbers, ties and missing values:
//
// - window sums, means, spreads and correlations cut the days into chunks of
//   `window` days counted from day 0: a window is the end of the previous
//   chunk (its suffix, built backward from the chunk's last day when that
//   chunk ended) followed by the start of the current chunk (its prefix, grown
//   forward by one day every day). Both parts come only from the window's own
//   days, and no running total is ever subtracted from, so nothing drifts;
// - means and spreads combine (count, mean, sum of squared deviations) with
//   the pairwise update of Chan, Golub and LeVeque (Welford's update when one
//   side is a single day), so large levels (prices, volumes) lose nothing to
//   cancellation;
// - window minima and maxima combine power-of-two blocks (two overlapping
//   blocks cover any window);
// - sums across assets add every eighth asset into one of eight lanes, then
//   the lanes pairwise.
//
// Every day costs O(assets) per node, except that a chunk's last day also
// builds the chunk's suffix (window - 2 steps), minima and maxima cost
// O(assets · log window), and ts_rank compares today's value with each
// earlier day of its window (O(assets · window), four assets per
// instruction): that beats keeping each asset's window sorted, whose
// searches the processor cannot predict.

inline constexpr double flat_spread_tolerance = 1e-10;
inline constexpr double dispersion_tolerance = 1e-9;
inline constexpr int lanes = 8;
// Members of a bucket the cross-sectional rank compares in one step.
inline constexpr int rank_slots = 8;
// Bits of a value's place inside its bucket, the key the fast rank compares.
inline constexpr int rank_key_bits = 15;
// The most assets the fast rank takes: a bucket and its key must fit 31 bits.
inline constexpr int rank_fast_assets = 16000;

inline double missing() { return std::numeric_limits<double>::quiet_NaN(); }

// Non-finite results (division by zero, overflow, the log of a negative
// number) are missing. x - x is 0 exactly for finite x and NaN otherwise.
inline double finite_or_missing(double x) { return x - x == 0.0 ? x : missing(); }

// numpy's maximum and minimum: a missing argument gives a missing result.
inline double numpy_max(double a, double b) { return (a > b || a != a) ? a : b; }
inline double numpy_min(double a, double b) { return (a < b || a != a) ? a : b; }

// ---- storage ------------------------------------------------------------------

struct AlignedDelete {
    void operator()(double* p) const { ::operator delete[](p, std::align_val_t{32}); }
};
using Storage = std::unique_ptr<double[], AlignedDelete>;

inline Storage allocate(std::size_t count) {
    auto* raw = static_cast<double*>(::operator new[](count * sizeof(double), std::align_val_t{32}));
    return Storage(raw);
}

// Rows of one quantity: a ring of a power-of-two number of rows (row t at
// t & mask), or, with every mask bit set, a whole days × assets matrix that
// is only read.
struct Rows {
    double* data = nullptr;
    std::ptrdiff_t stride = 0;
    long mask = -1;

    double* row(long t) const { return data + (t & mask) * stride; }
};

// The smallest power of two holding `rows` rows.
inline long ring_size(long rows) {
    long size = 1;
    while (size < rows) size <<= 1;
    return size;
}

// ---- sums across assets ---------------------------------------------------------

// The sum of value(i) over i < n: lane j adds the assets i with i % 8 == j in
// order, then the lanes combine pairwise. `value` must be cheap and pure.
template <class Value>
inline double lane_sum(int n, Value value) {
    double acc[lanes] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
    int full = n - n % lanes;
    for (int i = 0; i < full; i += lanes) {
        for (int j = 0; j < lanes; ++j) acc[j] += value(i + j);
    }
    for (int j = 0; j < n - full; ++j) acc[j] += value(full + j);
    return ((acc[0] + acc[1]) + (acc[2] + acc[3])) + ((acc[4] + acc[5]) + (acc[6] + acc[7]));
}

// The eight lanes of a sum, combined pairwise.
inline double combined_lanes(const double* a) {
    return ((a[0] + a[1]) + (a[2] + a[3])) + ((a[4] + a[5]) + (a[6] + a[7]));
}

template <class Value>
inline int count_if(int n, Value present) {
    int count = 0;
    for (int i = 0; i < n; ++i) count += present(i) ? 1 : 0;
    return count;
}

// ---- the cross-sectional rank ---------------------------------------------------

// Ranks one day's values: the lowest present value 0, the highest 1, ties the
// average of their positions, a lone value 0.5, missing values missing.
//
// Values are spread over buckets by their distance from the day's lowest
// value. The map never decreases, so each bucket holds a run of the sorted
// order: a value's position is the count of the values in the buckets below
// its own plus its place among its bucket's members.
//
// The fast way uses about 2n buckets of eight 16-bit slots, so that a bucket
// is one 16-byte vector and all of them stay in the first-level cache. A
// value's bucket and its slot's key are the whole and the first 15 bits of
// the fractional part of the same scaled distance (one number that never
// decreases with the value), and its place is the count of its bucket's
// members with a smaller key, all compared in one step. Keys keep the order
// but can make close neighbours equal, just as ties are equal; either gives
// two values the same position, and then the positions add up to less than
// 0 + 1 + ... + (m - 1) for m present values. A day that crowds more than
// eight values into a bucket (a few far-off values leave the others little
// room) tries again with twice the buckets. A day for which the positions do
// not add up, or still too crowded, takes the exact way: n buckets laid out
// one after another in double precision, crowded ones sorted and searched,
// ties averaged.
class Ranker {
public:
    explicit Ranker(int n)
        : n_(n),
          buckets_(n),
          slotted_buckets_(n <= rank_fast_assets ? slotted_bucket_count(2 * n) : 0),
          wide_buckets_(n <= rank_fast_assets ? slotted_bucket_count(4 * n) : 0),
          key_(static_cast<std::size_t>(n) + 4),
          slots_(static_cast<std::size_t>(wide_buckets_ + 1) * rank_slots + static_cast<std::size_t>(wide_buckets_ > 0 ? n : 0)),
          count_(static_cast<std::size_t>(wide_buckets_) + 1),
          below_(static_cast<std::size_t>(wide_buckets_) + 2),
          bucket_(static_cast<std::size_t>(n) + 4),
          place_(static_cast<std::size_t>(n) + 4),
          start_(static_cast<std::size_t>(n) + 2),
          members_(static_cast<std::size_t>(n) + rank_slots),
          table_(2 * static_cast<std::size_t>(n) + 1),
          single_positions_(static_cast<std::size_t>(n) + 1),
          pairs_(static_cast<std::size_t>(n)) {}

    void rank(const double* x, double* out);

private:
    // The fast way's buckets: at least `least`, and one less than a multiple
    // of eight, so that with the missing values' bucket they fill whole
    // vectors (none beyond rank_fast_assets assets).
    static int slotted_bucket_count(int least) { return (least + 1 + 7) / 8 * 8 - 1; }

    enum class Slotted { ranked, crowded, tied };

    void build_table(int present);
    void rank_by_sorting(const double* x, double* out);
    void assign_buckets(const double* x, double lo, double scale, int buckets);
    void assign_keys(const double* x, double lo, double scale, int buckets);
    Slotted rank_in_slots(double* out, int buckets);
    void rank_in_runs(const double* x, double lo, double span, double* out);

    int n_;
    int buckets_;          // the exact way; missing values go to the extra bucket `buckets_`
    // The fast way's buckets (none: every day takes the exact way), and its
    // second try's; the missing values take one more bucket after them.
    int slotted_buckets_;
    int wide_buckets_;
    // The fast way's scaled distances: bucket << rank_key_bits | key, the
    // missing values' bucket for a missing value.
    std::vector<std::uint32_t> key_;
    // rank_slots keys per bucket; a crowded bucket spills into the next ones
    // (and the day takes the exact way), the missing values' bucket past the end.
    std::vector<std::int16_t> slots_;
    std::vector<int> count_;  // all 0 between days
    std::vector<int> below_;
    std::vector<int> bucket_;
    std::vector<int> place_;  // a value's place among its bucket's members, in arrival order
    std::vector<int> start_;
    std::vector<double> members_;
    // table_[k] = k / (2 (m - 1)) for k <= 2 (m - 1), missing after;
    // single_positions_[p] = table_[2 p], the rank of an untied position.
    std::vector<double> table_;
    std::vector<double> single_positions_;
    int table_present_ = -1;
    std::vector<std::pair<double, int>> pairs_;
};

// The rank of a tie group whose first and last positions add up to k is
// table_[k], exactly as the reference divides; positions past the present
// values (the missing values') read a missing value.
inline void Ranker::build_table(int present) {
    if (present == table_present_) return;
    const double denominator = 2.0 * static_cast<double>(present - 1);
    const std::size_t last = 2 * static_cast<std::size_t>(present - 1);
    for (std::size_t k = 0; k <= last; ++k) table_[k] = static_cast<double>(k) / denominator;
    std::fill(table_.begin() + static_cast<std::ptrdiff_t>(last) + 1, table_.end(), missing());
    for (std::size_t p = 0; p < single_positions_.size(); ++p) single_positions_[p] = table_[2 * p];
    table_present_ = present;
}

inline void Ranker::rank_by_sorting(const double* x, double* out) {
    int present = 0;
    for (int i = 0; i < n_; ++i) {
        if (x[i] == x[i]) {
            pairs_[static_cast<std::size_t>(present++)] = {x[i], i};
        } else {
            out[i] = missing();
        }
    }
    std::sort(pairs_.begin(), pairs_.begin() + present,
              [](const std::pair<double, int>& a, const std::pair<double, int>& b) { return a.first < b.first; });
    if (present > 1) build_table(present);
    for (int first = 0; first < present;) {
        int last = first;
        while (last + 1 < present && pairs_[static_cast<std::size_t>(last + 1)].first == pairs_[static_cast<std::size_t>(first)].first) ++last;
        double r = present > 1 ? table_[static_cast<std::size_t>(first + last)] : 0.5;
        for (int k = first; k <= last; ++k) out[pairs_[static_cast<std::size_t>(k)].second] = r;
        first = last + 1;
    }
}

inline void Ranker::assign_buckets(const double* x, double lo, double scale, int buckets) {
    const int n = n_;
    const double top = static_cast<double>(buckets - 1);
    int* bucket = bucket_.data();
    int i = 0;
#if defined(TALLOWMERE_ENGINE_AVX2_CODE)
    const __m256d low = _mm256_set1_pd(lo), factor = _mm256_set1_pd(scale), last = _mm256_set1_pd(top);
    const __m128i absent = _mm_set1_epi32(buckets);
    for (; i + 4 <= n; i += 4) {
        __m256d v = _mm256_loadu_pd(x + i);
        // min keeps a missing value's NaN, which converts to INT_MIN: above `absent` unsigned
        __m256d q = _mm256_min_pd(last, _mm256_mul_pd(_mm256_sub_pd(v, low), factor));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(bucket + i), _mm_min_epu32(_mm256_cvttpd_epi32(q), absent));
    }
#endif
    for (; i < n; ++i) {
        double q = (x[i] - lo) * scale;
        bucket[i] = x[i] == x[i] ? static_cast<int>(q < top ? q : top) : buckets;
    }
}

// The fast way's scaled distances (see key_): the same clipped distance as
// assign_buckets, times 2^rank_key_bits (exact), truncated.
inline void Ranker::assign_keys(const double* x, double lo, double scale, int buckets) {
    const int n = n_;
    const double top = static_cast<double>(buckets - 1);
    const double fraction = static_cast<double>(1 << rank_key_bits);
    const std::uint32_t absent = static_cast<std::uint32_t>(buckets) << rank_key_bits;
    std::uint32_t* key = key_.data();
    int i = 0;
#if defined(TALLOWMERE_ENGINE_AVX2_CODE)
    const __m256d low = _mm256_set1_pd(lo), factor = _mm256_set1_pd(scale), last = _mm256_set1_pd(top);
    const __m256d unit = _mm256_set1_pd(fraction);
    const __m128i missing_key = _mm_set1_epi32(static_cast<int>(absent));
    for (; i + 4 <= n; i += 4) {
        __m256d v = _mm256_loadu_pd(x + i);
        // min keeps a missing value's NaN, which converts to INT_MIN: above `absent` unsigned
        __m256d q = _mm256_mul_pd(_mm256_min_pd(last, _mm256_mul_pd(_mm256_sub_pd(v, low), factor)), unit);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(key + i), _mm_min_epu32(_mm256_cvttpd_epi32(q), missing_key));
    }
#endif
    for (; i < n; ++i) {
        double q = (x[i] - lo) * scale;
        key[i] = x[i] == x[i] ? static_cast<std::uint32_t>((q < top ? q : top) * fraction) : absent;
    }
}

inline void Ranker::rank(const double* x, double* out) {
    const int n = n_;
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    int i = 0;
#if defined(TALLOWMERE_ENGINE_AVX2_CODE)
    {
        __m256d low = _mm256_set1_pd(lo), high = _mm256_set1_pd(hi);
        for (; i + 4 <= n; i += 4) {
            __m256d v = _mm256_loadu_pd(x + i);
            low = _mm256_min_pd(v, low);  // a missing value loses every comparison
            high = _mm256_max_pd(v, high);
        }
        alignas(32) double lows[4], highs[4];
        _mm256_store_pd(lows, low);
        _mm256_store_pd(highs, high);
        for (int j = 0; j < 4; ++j) {
            lo = lows[j] < lo ? lows[j] : lo;
            hi = highs[j] > hi ? highs[j] : hi;
        }
    }
#endif
    for (; i < n; ++i) {
        lo = x[i] < lo ? x[i] : lo;  // a missing value compares false and is skipped
        hi = x[i] > hi ? x[i] : hi;
    }
    if (!(lo <= hi)) {  // no present value
        for (int k = 0; k < n; ++k) out[k] = missing();
        return;
    }
    const double span = hi - lo;
    if (span == 0.0) {  // one value: every present value ranks in the middle
        for (int k = 0; k < n; ++k) out[k] = x[k] == x[k] ? 0.5 : missing();
        return;
    }
    // Values too far apart to bucket (an infinity among them), or so close
    // that the bucket map would overflow, are sorted.
    const double scale = static_cast<double>(slotted_buckets_ - 1) / span;
    if (!(span - span == 0.0) || !(scale - scale == 0.0)) {
        rank_by_sorting(x, out);
        return;
    }
    if (slotted_buckets_ == 0) {
        rank_in_runs(x, lo, span, out);
        return;
    }
    assign_keys(x, lo, scale, slotted_buckets_);
    Slotted ranked = rank_in_slots(out, slotted_buckets_);
    if (ranked == Slotted::crowded) {
        const double wide = static_cast<double>(wide_buckets_ - 1) / span;
        if (wide - wide == 0.0) {
            assign_keys(x, lo, wide, wide_buckets_);
            ranked = rank_in_slots(out, wide_buckets_);
        }
    }
    if (ranked != Slotted::ranked) rank_in_runs(x, lo, span, out);
}

// The fast way with `buckets` buckets; unless the day is ranked, `out` is
// left half written.
inline Ranker::Slotted Ranker::rank_in_slots(double* out, int buckets) {
    const int n = n_;
    const std::uint32_t* key = key_.data();
    constexpr std::uint32_t key_mask = (1u << rank_key_bits) - 1;
    int* count = count_.data();
    std::int16_t* slots = slots_.data();
    // The counts start at 0: the sums below leave them so for the next day.
#pragma GCC unroll 4
    for (int k = 0; k < n; ++k) {
        const unsigned b = key[k] >> rank_key_bits;
        const auto members = static_cast<unsigned>(count[b]);
        slots[b * rank_slots + members] = static_cast<std::int16_t>(key[k] & key_mask);  // a crowded bucket spills over: see below
        count[b] = static_cast<int>(members + 1);
    }
    count[buckets] = 0;  // the missing values compare below nothing and take the position m
    // below[b + 1] = count[0] + ... + count[b]; the most crowded bucket on the way
    // (each count is cleared once read)
    int* below = below_.data();
    below[0] = 0;
    int largest = 0;
    int b = 0;
#if defined(TALLOWMERE_ENGINE_AVX2_CODE)
    {
        __m256i carry = _mm256_setzero_si256(), most = _mm256_setzero_si256();
        const __m256i last_lane = _mm256_set1_epi32(7);
        for (; b + 8 <= buckets + 1; b += 8) {
            const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(count + b));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(count + b), _mm256_setzero_si256());
            most = _mm256_max_epi32(most, c);
            __m256i v = _mm256_add_epi32(c, _mm256_slli_si256(c, 4));
            v = _mm256_add_epi32(v, _mm256_slli_si256(v, 8));
            const __m256i low_half = _mm256_shuffle_epi32(_mm256_permute2x128_si256(v, v, 0x08), 0xFF);
            v = _mm256_add_epi32(v, low_half);  // the prefix within these eight buckets
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(below + b + 1), _mm256_add_epi32(v, carry));
            carry = _mm256_add_epi32(carry, _mm256_permutevar8x32_epi32(v, last_lane));  // a short chain
        }
        alignas(32) int lanes_most[8];
        _mm256_store_si256(reinterpret_cast<__m256i*>(lanes_most), most);
        for (int j = 0; j < 8; ++j) largest = lanes_most[j] > largest ? lanes_most[j] : largest;
    }
#endif
    for (; b <= buckets; ++b) {
        largest = count[b] > largest ? count[b] : largest;
        below[b + 1] = below[b] + count[b];
        count[b] = 0;
    }
    if (largest > rank_slots) return Slotted::crowded;
    const int present = below[buckets];
    const unsigned absent = static_cast<unsigned>(buckets);
    if (present == 1) {
        for (int k = 0; k < n; ++k) out[k] = (key[k] >> rank_key_bits) < absent ? 0.5 : missing();
        return Slotted::ranked;
    }
    build_table(present);
    const double* table = single_positions_.data();
    std::int64_t positions = 0;
#pragma GCC unroll 4
    for (int k = 0; k < n; ++k) {
        const unsigned kb = key[k] >> rank_key_bits;
        const auto own = static_cast<std::int16_t>(key[k] & key_mask);
        const std::int16_t* members = slots + kb * rank_slots;
        const auto size = static_cast<unsigned>(below[kb + 1] - below[kb]);
        unsigned less;
#if defined(TALLOWMERE_ENGINE_AVX2_CODE)
        // two mask bits per member with a smaller key
        const auto smaller = static_cast<unsigned>(_mm_movemask_epi8(
            _mm_cmpgt_epi16(_mm_set1_epi16(own), _mm_loadu_si128(reinterpret_cast<const __m128i*>(members)))));
        less = static_cast<unsigned>(__builtin_popcount(_bzhi_u32(smaller, 2 * size))) / 2;
#else
        less = 0;
        for (unsigned q = 0; q < rank_slots; ++q) less += (q < size) & (members[q] < own);
#endif
        const unsigned position = static_cast<unsigned>(below[kb]) + less;
        positions += position;
        out[k] = table[position];
    }
    const std::int64_t m = present;
    return positions == m * (m - 1) / 2 + static_cast<std::int64_t>(n - present) * m ? Slotted::ranked : Slotted::tied;
}

// The exact way, for days the fast way cannot rank: n buckets laid out one
// after another, crowded ones sorted and searched, ties averaged.
inline void Ranker::rank_in_runs(const double* x, double lo, double span, double* out) {
    const int n = n_;
    const int buckets = buckets_;
    assign_buckets(x, lo, static_cast<double>(buckets - 1) / span, buckets);
    const int* bucket = bucket_.data();
    int* place = place_.data();
    int* start = start_.data();
    std::fill(start, start + buckets + 2, 0);
    for (int k = 0; k < n; ++k) {
        int b = bucket[k] + 1;
        int members = start[b];
        place[k] = members;
        start[b] = members + 1;
    }
    int running = 0, largest = 0;
    for (int b = 1; b <= buckets; ++b) {
        largest = start[b] > largest ? start[b] : largest;
        running += start[b];
        start[b] = running;
    }
    start[buckets + 1] += running;
    const int present = start[buckets];
    double* members = members_.data();
    for (int k = 0; k < n; ++k) members[start[bucket[k]] + place[k]] = x[k];
    for (int k = n; k < n + rank_slots; ++k) members[k] = missing();
    if (largest > rank_slots) {  // crowded buckets are sorted and searched
        for (int b = 0; b < buckets; ++b) {
            if (start[b + 1] - start[b] > rank_slots) std::sort(members + start[b], members + start[b + 1]);
        }
    }
    if (present == 1) {
        for (int k = 0; k < n; ++k) out[k] = bucket[k] < buckets ? 0.5 : missing();
        return;
    }
    build_table(present);
    const double* table = table_.data();
    for (int k = 0; k < n; ++k) {
        const int b = bucket[k];
        if (b == buckets) {
            out[k] = missing();
            continue;
        }
        const int s = start[b], size = start[b + 1] - s;
        int less, equal;
        if (size <= rank_slots) {
#if defined(TALLOWMERE_ENGINE_AVX2_CODE)
            const __m256d value = _mm256_set1_pd(x[k]);
            const __m256d low = _mm256_loadu_pd(members + s), high = _mm256_loadu_pd(members + s + 4);
            const unsigned mask = (1u << size) - 1;
            const unsigned below = static_cast<unsigned>(_mm256_movemask_pd(_mm256_cmp_pd(low, value, _CMP_LT_OQ)) |
                                                         (_mm256_movemask_pd(_mm256_cmp_pd(high, value, _CMP_LT_OQ)) << 4));
            const unsigned same = static_cast<unsigned>(_mm256_movemask_pd(_mm256_cmp_pd(low, value, _CMP_EQ_OQ)) |
                                                        (_mm256_movemask_pd(_mm256_cmp_pd(high, value, _CMP_EQ_OQ)) << 4));
            less = __builtin_popcount(below & mask);
            equal = __builtin_popcount(same & mask);
#else
            less = 0;
            equal = 0;
            for (int q = 0; q < rank_slots; ++q) {
                int inside = q < size ? 1 : 0;
                less += inside & (members[s + q] < x[k] ? 1 : 0);
                equal += inside & (members[s + q] == x[k] ? 1 : 0);
            }
#endif
        } else {
            const double* begin = members + s;
            const double* end = begin + size;
            const double* lower = std::lower_bound(begin, end, x[k]);
            less = static_cast<int>(lower - begin);
            equal = static_cast<int>(std::upper_bound(lower, end, x[k]) - lower);
        }
        // the tie group runs from position s + less to s + less + equal - 1
        out[k] = table[2 * (s + less) + equal - 1];
    }
}

// ---- the evaluator --------------------------------------------------------------

// One node of the program with everything it keeps from day to day.
struct NodeState {
    Node node;
    Rows out;           // where this node's rows are read by its parents
    Storage own;        // this node's own rows (absent for field nodes)
    // Sums, moments, comoments: the current chunk's prefix (one row per
    // quantity) and the previous chunk's suffixes (`window` rows per quantity;
    // row i holds the days from the chunk's day i to its end).
    int quantities = 0;
    Storage prefix;
    Storage suffix;
    // Minima and maxima: K = floor(log2(window)) levels of power-of-two
    // blocks (index 0 unused: level 0 is the argument) and the two blocks of
    // level K that cover the window, as rows back from today.
    int levels = 0;
    long cover[2] = {0, 0};
    std::vector<Rows> block_rows;
    std::vector<Storage> block_storage;
    // ts_rank: whether each asset's window holds a missing value.
    std::vector<int> missing_count;
};

class Evaluator final : public Prepared {
public:
    explicit Evaluator(const Run& run);
    Timing execute() override;

private:
    long lookback_of_argument(const Node& parent) const;
    void allocate_rows(NodeState& state, long capacity);
    void plan_chunks(NodeState& state, int quantities);
    void plan_blocks(NodeState& state);
    const double* argument_row(const NodeState& state, int which, long t) const;
    double* prefix_row(const NodeState& state, int quantity) const;
    double* suffix_row(const NodeState& state, int quantity, long position) const;
    void step(NodeState& state, long t);

    void elementwise(NodeState& state, long t);
    void cross_sectional(NodeState& state, long t);
    void window_sum(NodeState& state, long t);
    void window_moments(NodeState& state, long t);
    void window_comoments(NodeState& state, long t);
    void window_extreme(NodeState& state, long t);
    void window_rank(NodeState& state, long t);
    void shift(NodeState& state, long t);
    void write_weights(const double* values, double* weights) const;
    void write_daily(long t);

    const Run& run_;
    int n_;
    std::ptrdiff_t stride_;
    std::vector<NodeState> states_;
    std::vector<Storage> shared_rows_;  // the rows nodes pass on to each other (see the constructor)
    Storage scratch_;  // a row of zeros: the book before the first day
    Ranker ranker_;
};

inline Evaluator::Evaluator(const Run& run)
    : run_(run), n_(run.assets), stride_((run.assets + 3) & ~std::ptrdiff_t{3}), ranker_(run.assets) {
    const std::size_t count = run.nodes.size();
    std::vector<long> lookback(count, 0);
    for (std::size_t i = 0; i < count; ++i) {
        const Node& node = run.nodes[i];
        long needed = lookback_of_argument(node);
        for (int a : node.args) {
            if (a >= 0) lookback[static_cast<std::size_t>(a)] = std::max(lookback[static_cast<std::size_t>(a)], needed);
        }
    }
    // A node whose rows no later day reads keeps today's row only until its
    // last reader has run; then that row serves a later node, so that a
    // day's rows stay few and close at hand. The root's row is read after
    // the day's nodes and is never passed on.
    std::vector<std::size_t> last_reader(count, count);
    for (std::size_t i = 0; i < count; ++i) {
        for (int a : run.nodes[i].args) {
            if (a >= 0 && static_cast<std::size_t>(a) + 1 < count) last_reader[static_cast<std::size_t>(a)] = i;
        }
    }
    std::vector<double*> free_rows;
    states_.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
        NodeState& state = states_[i];
        state.node = run.nodes[i];
        const Node& node = state.node;
        if (node.op == Op::field) {
            const Matrix& matrix = run.fields[static_cast<std::size_t>(node.window)];
            state.out = Rows{const_cast<double*>(matrix.data), matrix.row_stride, -1};
            continue;
        }
        if (node.op != Op::constant && lookback[i] == 0) {
            if (free_rows.empty()) {
                shared_rows_.push_back(allocate(static_cast<std::size_t>(stride_)));
                free_rows.push_back(shared_rows_.back().get());
            }
            state.out = Rows{free_rows.back(), stride_, 0};
            free_rows.pop_back();
        } else {
            allocate_rows(state, node.op == Op::constant ? 1 : lookback[i] + 1);
        }
        for (int k = 0; k < 2; ++k) {  // arguments read for the last time pass their row on
            const int a = node.args[k];
            if (a < 0 || (k == 1 && a == node.args[0]) || last_reader[static_cast<std::size_t>(a)] != i) continue;
            const NodeState& argument = states_[static_cast<std::size_t>(a)];
            if (argument.own == nullptr && argument.out.mask == 0) free_rows.push_back(argument.out.data);
        }
        if (node.op == Op::constant) std::fill(state.out.data, state.out.data + n_, node.value);
        switch (node.op) {
            case Op::ts_sum:
            case Op::ts_mean: plan_chunks(state, 1); break;
            case Op::ts_std: plan_chunks(state, 2); break;
            case Op::ts_corr: plan_chunks(state, 5); break;
            case Op::ts_min:
            case Op::ts_max: plan_blocks(state); break;
            case Op::ts_rank: state.missing_count.assign(static_cast<std::size_t>(n_), 0); break;
            default: break;
        }
    }
    scratch_ = allocate(static_cast<std::size_t>(stride_));
}

// How many rows before today a node reads of its arguments.
inline long Evaluator::lookback_of_argument(const Node& parent) const {
    switch (parent.op) {
        case Op::ts_delay:
        case Op::ts_delta: return parent.window;
        case Op::ts_rank:
        case Op::ts_sum:
        case Op::ts_mean:
        case Op::ts_std:
        case Op::ts_corr: return parent.window - 1;  // a chunk's days, read again for its suffix
        case Op::ts_min:
        case Op::ts_max: return parent.window >= 2 ? 1 : 0;  // the two halves of the smallest block
        default: return 0;
    }
}

inline void Evaluator::allocate_rows(NodeState& state, long capacity) {
    const long size = ring_size(capacity);
    state.own = allocate(static_cast<std::size_t>(stride_) * static_cast<std::size_t>(size));
    state.out = Rows{state.own.get(), stride_, size - 1};
}

inline void Evaluator::plan_chunks(NodeState& state, int quantities) {
    const auto rows = static_cast<std::size_t>(quantities);
    const auto width = static_cast<std::size_t>(stride_);
    state.quantities = quantities;
    state.prefix = allocate(rows * width);
    if (state.node.window > 1) state.suffix = allocate(rows * static_cast<std::size_t>(state.node.window) * width);
}

inline double* Evaluator::prefix_row(const NodeState& state, int quantity) const {
    return state.prefix.get() + quantity * stride_;
}

inline double* Evaluator::suffix_row(const NodeState& state, int quantity, long position) const {
    return state.suffix.get() + (quantity * static_cast<std::ptrdiff_t>(state.node.window) + position) * stride_;
}

// Plans the blocks of a minimum or maximum. Level k holds, for every day, the
// block of the 2^k days ending that day; it is read 2^(k-1) days later to
// build level k + 1. Two blocks of the largest level K cover the window: the
// one ending window - 2^K days back and the one ending today.
inline void Evaluator::plan_blocks(NodeState& state) {
    const long window = state.node.window;
    int levels = 0;
    while ((2L << levels) <= window) ++levels;
    state.levels = levels;
    state.cover[0] = window - (1L << levels);
    state.cover[1] = 0;
    state.block_rows.assign(static_cast<std::size_t>(levels) + 1, Rows{});
    for (int k = 1; k <= levels; ++k) {
        const long reach = k < levels ? (1L << k) : state.cover[0];
        const long size = ring_size(reach + 1);
        state.block_storage.push_back(allocate(static_cast<std::size_t>(stride_) * static_cast<std::size_t>(size)));
        state.block_rows[static_cast<std::size_t>(k)] = Rows{state.block_storage.back().get(), stride_, size - 1};
    }
}

inline const double* Evaluator::argument_row(const NodeState& state, int which, long t) const {
    return states_[static_cast<std::size_t>(state.node.args[which])].out.row(t);
}

inline void Evaluator::step(NodeState& state, long t) {
    switch (state.node.op) {
        case Op::field:
        case Op::constant: return;
        case Op::add:
        case Op::sub:
        case Op::mul:
        case Op::div:
        case Op::pow:
        case Op::max:
        case Op::min:
        case Op::neg:
        case Op::abs:
        case Op::log:
        case Op::sqrt:
        case Op::sign: elementwise(state, t); return;
        case Op::rank:
        case Op::zscore:
        case Op::demean: cross_sectional(state, t); return;
        case Op::ts_sum:
        case Op::ts_mean: window_sum(state, t); return;
        case Op::ts_std: window_moments(state, t); return;
        case Op::ts_corr: window_comoments(state, t); return;
        case Op::ts_min:
        case Op::ts_max: window_extreme(state, t); return;
        case Op::ts_rank: window_rank(state, t); return;
        case Op::ts_delay:
        case Op::ts_delta: shift(state, t); return;
    }
}

// ---- elementwise ---------------------------------------------------------------

template <class F>
inline void map_unary(int n, const double* a, double* out, F f) {
    for (int i = 0; i < n; ++i) out[i] = f(a[i]);
}

template <class F>
inline void map_binary(int n, const double* a, const double* b, double* out, F f) {
    for (int i = 0; i < n; ++i) out[i] = f(a[i], b[i]);
}

inline void Evaluator::elementwise(NodeState& state, long t) {
    const int n = n_;
    double* out = state.out.row(t);
    const double* a = argument_row(state, 0, t);
    switch (state.node.op) {
        case Op::add: map_binary(n, a, argument_row(state, 1, t), out, [](double x, double y) { return finite_or_missing(x + y); }); return;
        case Op::sub: map_binary(n, a, argument_row(state, 1, t), out, [](double x, double y) { return finite_or_missing(x - y); }); return;
        case Op::mul: map_binary(n, a, argument_row(state, 1, t), out, [](double x, double y) { return finite_or_missing(x * y); }); return;
        case Op::div: map_binary(n, a, argument_row(state, 1, t), out, [](double x, double y) { return finite_or_missing(x / y); }); return;
        case Op::pow:
            map_binary(n, a, argument_row(state, 1, t), out, [](double x, double y) { return finite_or_missing(std::pow(x, y)); });
            return;
        case Op::max: map_binary(n, a, argument_row(state, 1, t), out, [](double x, double y) { return finite_or_missing(numpy_max(x, y)); }); return;
        case Op::min: map_binary(n, a, argument_row(state, 1, t), out, [](double x, double y) { return finite_or_missing(numpy_min(x, y)); }); return;
        case Op::neg: map_unary(n, a, out, [](double x) { return finite_or_missing(-x); }); return;
        case Op::abs: map_unary(n, a, out, [](double x) { return finite_or_missing(std::fabs(x)); }); return;
        case Op::log: map_unary(n, a, out, [](double x) { return finite_or_missing(std::log(x)); }); return;
        case Op::sqrt: map_unary(n, a, out, [](double x) { return finite_or_missing(std::sqrt(x)); }); return;
        case Op::sign:
            // numpy's sign: 1, -1, 0 for either zero, missing for missing
            map_unary(n, a, out, [](double x) { return x > 0.0 ? 1.0 : (x < 0.0 ? -1.0 : (x == 0.0 ? 0.0 : x)); });
            return;
        default: return;
    }
}

// ---- cross-sectional --------------------------------------------------------------

inline void Evaluator::cross_sectional(NodeState& state, long t) {
    const int n = n_;
    double* out = state.out.row(t);
    const double* x = argument_row(state, 0, t);
    if (state.node.op == Op::rank) {
        ranker_.rank(x, out);  // ranks are finite or missing
        return;
    }
    // The mean of the present values: missing for a day without any.
    const double count = static_cast<double>(count_if(n, [&](int i) { return x[i] == x[i]; }));
    const double mean = lane_sum(n, [&](int i) { return x[i] == x[i] ? x[i] : 0.0; }) / count;
    if (state.node.op == Op::demean) {
        for (int i = 0; i < n; ++i) out[i] = finite_or_missing(x[i] - mean);
        return;
    }
    double squares = lane_sum(n, [&](int i) {
        double deviation = x[i] - mean;
        return x[i] == x[i] ? deviation * deviation : 0.0;
    });
    const double threshold = flat_spread_tolerance * mean;
    if (squares <= threshold * threshold * count) squares = 0.0;  // no spread beyond rounding
    const double spread = std::sqrt(squares / count);
    for (int i = 0; i < n; ++i) out[i] = finite_or_missing((x[i] - mean) / spread);
}

// ---- windows ---------------------------------------------------------------------

// Where day t falls in its chunk of `window` days.
inline long chunk_position(long t, long window) { return t % window; }

// Merges block A (older, `older_count` days) with block B (newer): the mean
// moves by (mB - mA) nB / n and the squared deviations gain
// (mB - mA)^2 nA nB / n.
struct MergeFactors {
    double shift;    // nB / n
    double squares;  // nA nB / n
};

inline MergeFactors merge_factors(long older_count, long newer_count) {
    long total = older_count + newer_count;
    return {static_cast<double>(newer_count) / static_cast<double>(total),
            static_cast<double>(older_count * newer_count) / static_cast<double>(total)};
}

// Sums: the prefix adds today, a suffix day adds the suffix after it, and
// the window is the suffix plus the prefix.
inline void Evaluator::window_sum(NodeState& state, long t) {
    const int n = n_;
    const long window = state.node.window;
    const long j = chunk_position(t, window);
    const Rows& argument = states_[static_cast<std::size_t>(state.node.args[0])].out;
    const double* __restrict today = argument.row(t);
    double* __restrict prefix = prefix_row(state, 0);
    double* __restrict out = state.out.row(t);
    const double count = static_cast<double>(window);
    const bool mean = state.node.op == Op::ts_mean;
    if (t >= window && j > 0 && j < window - 1) {  // most days: grow the prefix and add the suffix in one pass
        const double* __restrict suffix = suffix_row(state, 0, j + 1);
        for (int i = 0; i < n; ++i) {
            const double grown = prefix[i] + today[i];
            prefix[i] = grown;
            const double sum = suffix[i] + grown;
            out[i] = finite_or_missing(mean ? sum / count : sum);
        }
        return;
    }
    if (j == 0) {
        std::copy(today, today + n, prefix);
    } else {
        for (int i = 0; i < n; ++i) prefix[i] = prefix[i] + today[i];
    }
    if (t < window - 1) {
        std::fill(out, out + n, missing());
    } else if (j == window - 1) {
        if (mean) {
            for (int i = 0; i < n; ++i) out[i] = finite_or_missing(prefix[i] / count);
        } else {
            for (int i = 0; i < n; ++i) out[i] = finite_or_missing(prefix[i]);
        }
    } else {
        const double* __restrict suffix = suffix_row(state, 0, j + 1);
        if (mean) {
            for (int i = 0; i < n; ++i) out[i] = finite_or_missing((suffix[i] + prefix[i]) / count);
        } else {
            for (int i = 0; i < n; ++i) out[i] = finite_or_missing(suffix[i] + prefix[i]);
        }
    }
    if (j == window - 1 && window > 1) {  // the chunk ends: its suffixes, newest day first
        std::copy(today, today + n, suffix_row(state, 0, window - 1));
        for (long p = window - 2; p >= 1; --p) {
            const double* __restrict day = argument.row(t - (window - 1) + p);
            const double* __restrict after = suffix_row(state, 0, p + 1);
            double* __restrict sum = suffix_row(state, 0, p);
            for (int i = 0; i < n; ++i) sum[i] = day[i] + after[i];
        }
    }
}

// Moments of one series: (mean, squared deviations). The prefix takes in
// today (older: its own days, newer: today); a suffix day takes in the suffix
// after it (older: the day, newer: the suffix). A single day's squared
// deviations are 0, and adding 0 to the other side's changes nothing, so
// those additions are left out.
inline void grow_moments(int n, const MergeFactors f, const double* __restrict x, double* __restrict m,
                         double* __restrict q) {
    for (int i = 0; i < n; ++i) {
        double d = x[i] - m[i];
        m[i] = m[i] + d * f.shift;
        q[i] = q[i] + (d * d) * f.squares;
    }
}

inline void prepend_moments(int n, const MergeFactors f, const double* __restrict x, const double* __restrict mb,
                            const double* __restrict qb, double* __restrict m, double* __restrict q) {
    for (int i = 0; i < n; ++i) {
        double d = mb[i] - x[i];
        m[i] = x[i] + d * f.shift;
        q[i] = qb[i] + (d * d) * f.squares;
    }
}

// The sample standard deviation of a window from its mean and squared
// deviations: 0 when the spread is only rounding.
inline double deviation(double mean, double squares, double days) {
    double threshold = flat_spread_tolerance * mean;
    double spread = squares <= threshold * threshold * days ? 0.0 : squares;
    return finite_or_missing(std::sqrt(spread / (days - 1.0)));
}

inline void deviations(int n, double days, const double* __restrict m, const double* __restrict q,
                       double* __restrict out) {
    for (int i = 0; i < n; ++i) out[i] = deviation(m[i], q[i], days);
}

inline void merged_deviations(int n, double days, const MergeFactors f, const double* __restrict ma,
                              const double* __restrict qa, const double* __restrict mb, const double* __restrict qb,
                              double* __restrict out) {
    for (int i = 0; i < n; ++i) {
        double d = mb[i] - ma[i];
        out[i] = deviation(ma[i] + d * f.shift, (qa[i] + qb[i]) + (d * d) * f.squares, days);
    }
}

// The prefix takes in today (grow_moments), then the suffix (older) merges
// with it into the window's deviation (merged_deviations), in one pass.
inline void grow_and_deviate(int n, double days, const MergeFactors grow, const MergeFactors merge,
                             const double* __restrict x, const double* __restrict ma, const double* __restrict qa,
                             double* __restrict m, double* __restrict q, double* __restrict out) {
    for (int i = 0; i < n; ++i) {
        const double g = x[i] - m[i];
        const double grown_mean = m[i] + g * grow.shift;
        const double grown_squares = q[i] + (g * g) * grow.squares;
        m[i] = grown_mean;
        q[i] = grown_squares;
        const double d = grown_mean - ma[i];
        out[i] = deviation(ma[i] + d * merge.shift, (qa[i] + grown_squares) + (d * d) * merge.squares, days);
    }
}

inline void Evaluator::window_moments(NodeState& state, long t) {
    const int n = n_;
    const long window = state.node.window;
    const long j = chunk_position(t, window);
    const Rows& argument = states_[static_cast<std::size_t>(state.node.args[0])].out;
    const double* today = argument.row(t);
    double* mean = prefix_row(state, 0);
    double* squares = prefix_row(state, 1);
    const double days = static_cast<double>(window);
    if (t >= window && j > 0 && j < window - 1) {  // most days: grow the prefix and merge it in one pass
        grow_and_deviate(n, days, merge_factors(j, 1), merge_factors(window - 1 - j, j + 1), today,
                         suffix_row(state, 0, j + 1), suffix_row(state, 1, j + 1), mean, squares, state.out.row(t));
        return;
    }
    if (j == 0) {
        std::copy(today, today + n, mean);
        std::fill(squares, squares + n, 0.0);
    } else {
        grow_moments(n, merge_factors(j, 1), today, mean, squares);
    }
    double* out = state.out.row(t);
    if (t < window - 1) {
        std::fill(out, out + n, missing());
    } else if (j == window - 1) {
        deviations(n, days, mean, squares, out);
    } else {  // the suffix (older) merges with the prefix straight into the deviation
        merged_deviations(n, days, merge_factors(window - 1 - j, j + 1), suffix_row(state, 0, j + 1),
                          suffix_row(state, 1, j + 1), mean, squares, out);
    }
    if (j == window - 1) {  // the chunk ends: its suffixes, newest day first
        std::copy(today, today + n, suffix_row(state, 0, window - 1));
        std::fill(suffix_row(state, 1, window - 1), suffix_row(state, 1, window - 1) + n, 0.0);
        for (long p = window - 2; p >= 1; --p) {
            prepend_moments(n, merge_factors(1, window - 1 - p), argument.row(t - (window - 1) + p),
                            suffix_row(state, 0, p + 1), suffix_row(state, 1, p + 1), suffix_row(state, 0, p),
                            suffix_row(state, 1, p));
        }
    }
}

// Moments of two series: (mean a, mean b, squared deviations a, b, cross products).
struct Comoments {
    double* mean_a;
    double* mean_b;
    double* squares_a;
    double* squares_b;
    double* cross;
};

inline void grow_comoments_rows(int n, const MergeFactors f, const double* __restrict x, const double* __restrict y,
                                double* __restrict ma, double* __restrict mb, double* __restrict qa,
                                double* __restrict qb, double* __restrict c) {
    for (int i = 0; i < n; ++i) {
        double dx = x[i] - ma[i];
        double dy = y[i] - mb[i];
        ma[i] = ma[i] + dx * f.shift;
        mb[i] = mb[i] + dy * f.shift;
        qa[i] = qa[i] + (dx * dx) * f.squares;
        qb[i] = qb[i] + (dy * dy) * f.squares;
        c[i] = c[i] + (dx * dy) * f.squares;
    }
}

inline void prepend_comoments_rows(int n, const MergeFactors f, const double* __restrict x,
                                   const double* __restrict y, const double* __restrict na,
                                   const double* __restrict nb, const double* __restrict ra,
                                   const double* __restrict rb, const double* __restrict cb,
                                   double* __restrict ma, double* __restrict mb, double* __restrict qa,
                                   double* __restrict qb, double* __restrict c) {
    // newer block: means na/nb, squares ra/rb, cross cb
    for (int i = 0; i < n; ++i) {
        double dx = na[i] - x[i];
        double dy = nb[i] - y[i];
        ma[i] = x[i] + dx * f.shift;
        mb[i] = y[i] + dy * f.shift;
        qa[i] = ra[i] + (dx * dx) * f.squares;
        qb[i] = rb[i] + (dy * dy) * f.squares;
        c[i] = cb[i] + (dx * dy) * f.squares;
    }
}

// The correlation of a window from its statistics: missing when either side
// is flat (no spread beyond rounding), else clipped to [-1, 1].
inline double correlation(double mean_a, double mean_b, double squares_a, double squares_b, double cross, double days) {
    double ta = flat_spread_tolerance * mean_a;
    double tb = flat_spread_tolerance * mean_b;
    bool flat = (squares_a <= ta * ta * days) | (squares_b <= tb * tb * days);
    double r = cross / std::sqrt(squares_a * squares_b);
    r = flat ? missing() : r;
    r = r < -1.0 ? -1.0 : (r > 1.0 ? 1.0 : r);
    return finite_or_missing(r);
}

inline void correlations(int n, double days, const Comoments& window, double* __restrict out) {
    for (int i = 0; i < n; ++i) {
        out[i] = correlation(window.mean_a[i], window.mean_b[i], window.squares_a[i], window.squares_b[i],
                             window.cross[i], days);
    }
}

inline void merged_correlations_rows(int n, double days, const MergeFactors f, const double* __restrict ma,
                                     const double* __restrict mb, const double* __restrict qa,
                                     const double* __restrict qb, const double* __restrict ca,
                                     const double* __restrict na, const double* __restrict nb,
                                     const double* __restrict ra, const double* __restrict rb,
                                     const double* __restrict cb, double* __restrict out) {
    for (int i = 0; i < n; ++i) {
        double dx = na[i] - ma[i];
        double dy = nb[i] - mb[i];
        out[i] = correlation(ma[i] + dx * f.shift, mb[i] + dy * f.shift, (qa[i] + ra[i]) + (dx * dx) * f.squares,
                             (qb[i] + rb[i]) + (dy * dy) * f.squares, (ca[i] + cb[i]) + (dx * dy) * f.squares, days);
    }
}

// The prefix takes in today's pair (grow_comoments_rows), then the suffix
// (older) merges with it into the window's correlation
// (merged_correlations_rows), asset by asset in one pass.
inline void grow_and_correlate_rows(int n, double days, const MergeFactors grow, const MergeFactors merge,
                                    const double* __restrict x, const double* __restrict y,
                                    const double* __restrict oa, const double* __restrict ob,
                                    const double* __restrict ra, const double* __restrict rb,
                                    const double* __restrict rc, double* __restrict ma, double* __restrict mb,
                                    double* __restrict qa, double* __restrict qb, double* __restrict c,
                                    double* __restrict out) {
    // older block (the suffix): means oa/ob, squares ra/rb, cross rc; the prefix: ma/mb, qa/qb, c
    for (int i = 0; i < n; ++i) {
        const double gx = x[i] - ma[i];
        const double gy = y[i] - mb[i];
        const double na = ma[i] + gx * grow.shift;
        const double nb = mb[i] + gy * grow.shift;
        const double sa = qa[i] + (gx * gx) * grow.squares;
        const double sb = qb[i] + (gy * gy) * grow.squares;
        const double sc = c[i] + (gx * gy) * grow.squares;
        ma[i] = na;
        mb[i] = nb;
        qa[i] = sa;
        qb[i] = sb;
        c[i] = sc;
        const double dx = na - oa[i];
        const double dy = nb - ob[i];
        out[i] = correlation(oa[i] + dx * merge.shift, ob[i] + dy * merge.shift, (ra[i] + sa) + (dx * dx) * merge.squares,
                             (rb[i] + sb) + (dy * dy) * merge.squares, (rc[i] + sc) + (dx * dy) * merge.squares, days);
    }
}

inline void grow_and_correlate(int n, double days, const MergeFactors grow, const MergeFactors merge, const double* x,
                               const double* y, const Comoments& older, const Comoments& prefix, double* out) {
    grow_and_correlate_rows(n, days, grow, merge, x, y, older.mean_a, older.mean_b, older.squares_a, older.squares_b,
                            older.cross, prefix.mean_a, prefix.mean_b, prefix.squares_a, prefix.squares_b, prefix.cross,
                            out);
}

inline void Evaluator::window_comoments(NodeState& state, long t) {
    const int n = n_;
    const long window = state.node.window;
    const long j = chunk_position(t, window);
    const Rows& left = states_[static_cast<std::size_t>(state.node.args[0])].out;
    const Rows& right = states_[static_cast<std::size_t>(state.node.args[1])].out;
    auto prefix = [&] {
        return Comoments{prefix_row(state, 0), prefix_row(state, 1), prefix_row(state, 2), prefix_row(state, 3),
                         prefix_row(state, 4)};
    };
    auto suffix = [&](long p) {
        return Comoments{suffix_row(state, 0, p), suffix_row(state, 1, p), suffix_row(state, 2, p),
                         suffix_row(state, 3, p), suffix_row(state, 4, p)};
    };
    // A single day: its values, no spread.
    auto single = [&](const Comoments& to, const double* x, const double* y) {
        std::copy(x, x + n, to.mean_a);
        std::copy(y, y + n, to.mean_b);
        std::fill(to.squares_a, to.squares_a + n, 0.0);
        std::fill(to.squares_b, to.squares_b + n, 0.0);
        std::fill(to.cross, to.cross + n, 0.0);
    };
    const double* x = left.row(t);
    const double* y = right.row(t);
    const Comoments grown = prefix();
    const double days = static_cast<double>(window);
    if (t >= window && j > 0 && j < window - 1) {  // most days: grow the prefix and merge it in one pass
        const Comoments older = suffix(j + 1);
        grow_and_correlate(n, days, merge_factors(j, 1), merge_factors(window - 1 - j, j + 1), x, y, older, grown,
                           state.out.row(t));
        return;
    }
    if (j == 0) {
        single(grown, x, y);
    } else {
        grow_comoments_rows(n, merge_factors(j, 1), x, y, grown.mean_a, grown.mean_b, grown.squares_a,
                            grown.squares_b, grown.cross);
    }
    double* out = state.out.row(t);
    if (t < window - 1) {
        std::fill(out, out + n, missing());
    } else if (j == window - 1) {
        correlations(n, days, grown, out);
    } else {  // the suffix (older) merges with the prefix straight into the correlation
        const Comoments older = suffix(j + 1);
        merged_correlations_rows(n, days, merge_factors(window - 1 - j, j + 1), older.mean_a, older.mean_b,
                                 older.squares_a, older.squares_b, older.cross, grown.mean_a, grown.mean_b,
                                 grown.squares_a, grown.squares_b, grown.cross, out);
    }
    if (j == window - 1) {  // the chunk ends: its suffixes, newest day first
        single(suffix(window - 1), x, y);
        for (long p = window - 2; p >= 1; --p) {
            const Comoments after = suffix(p + 1), to = suffix(p);
            const long day = t - (window - 1) + p;
            prepend_comoments_rows(n, merge_factors(1, window - 1 - p), left.row(day), right.row(day), after.mean_a,
                                   after.mean_b, after.squares_a, after.squares_b, after.cross, to.mean_a, to.mean_b,
                                   to.squares_a, to.squares_b, to.cross);
        }
    }
}

inline void Evaluator::window_extreme(NodeState& state, long t) {
    const int n = n_;
    const long window = state.node.window;
    const bool lowest = state.node.op == Op::ts_min;
    const Rows& argument = states_[static_cast<std::size_t>(state.node.args[0])].out;
    auto block = [&](int level, long day) -> const double* {
        return level == 0 ? argument.row(day) : state.block_rows[static_cast<std::size_t>(level)].row(day);
    };
    auto combine = [&](const double* a, const double* b, double* out) {
        if (lowest) {
            for (int i = 0; i < n; ++i) out[i] = numpy_min(a[i], b[i]);
        } else {
            for (int i = 0; i < n; ++i) out[i] = numpy_max(a[i], b[i]);
        }
    };
    for (int k = 1; k <= state.levels; ++k) {
        long half = 1L << (k - 1);
        if (t < 2 * half - 1) break;
        combine(block(k - 1, t - half), block(k - 1, t), state.block_rows[static_cast<std::size_t>(k)].row(t));
    }
    double* out = state.out.row(t);
    if (t < window - 1) {
        std::fill(out, out + n, missing());
        return;
    }
    combine(block(state.levels, t - state.cover[0]), block(state.levels, t - state.cover[1]), out);
}

// The rank of today's value among the window's earlier values: each earlier
// value below it counts 1, each equal one 1/2, over window - 1.
inline void Evaluator::window_rank(NodeState& state, long t) {
    const int n = n_;
    const long window = state.node.window;
    const Rows& argument = states_[static_cast<std::size_t>(state.node.args[0])].out;
    double* out = state.out.row(t);
    if (t < window - 1) {
        std::fill(out, out + n, missing());
        return;
    }
    const double* current = argument.row(t);
    double* below = out;
    int* gaps = state.missing_count.data();
    for (int i = 0; i < n; ++i) {
        below[i] = 0.0;
        gaps[i] = current[i] != current[i] ? 1 : 0;
    }
    for (long lag = 1; lag < window; ++lag) {
        const double* earlier = argument.row(t - lag);
        for (int i = 0; i < n; ++i) {
            below[i] += (earlier[i] < current[i] ? 1.0 : 0.0) + (earlier[i] == current[i] ? 0.5 : 0.0);
            gaps[i] |= earlier[i] != earlier[i] ? 1 : 0;
        }
    }
    const double earlier_days = static_cast<double>(window - 1);
    const double nan = missing();
    for (int i = 0; i < n; ++i) {
        double r = below[i] / earlier_days;
        out[i] = gaps[i] != 0 ? nan : r;
    }
}

inline void Evaluator::shift(NodeState& state, long t) {
    const int n = n_;
    const long window = state.node.window;
    double* out = state.out.row(t);
    if (t < window) {
        std::fill(out, out + n, missing());
        return;
    }
    const Rows& argument = states_[static_cast<std::size_t>(state.node.args[0])].out;
    const double* earlier = argument.row(t - window);
    if (state.node.op == Op::ts_delay) {
        std::copy(earlier, earlier + n, out);
    } else {
        const double* today = argument.row(t);
        for (int i = 0; i < n; ++i) out[i] = finite_or_missing(today[i] - earlier[i]);
    }
}

// ---- weights and the daily book ------------------------------------------------------

// Demeaned across the assets with a value and scaled to a gross exposure of
// 1; a day with fewer than two values, or no spread beyond rounding, holds
// nothing.
inline void Evaluator::write_weights(const double* values, double* weights) const {
    const int n = n_;
    // One pass for the present values' sum, their size and their count (a sum
    // of ones, exact), each added in lanes as lane_sum adds.
    double sums[lanes] = {}, sizes[lanes] = {}, counts[lanes] = {};
    int i = 0;
#if defined(TALLOWMERE_ENGINE_AVX2_CODE)
    {
        const int full = n - n % lanes;
        const __m256d zero = _mm256_setzero_pd(), one = _mm256_set1_pd(1.0), sign = _mm256_set1_pd(-0.0);
        __m256d sum[2] = {zero, zero}, size[2] = {zero, zero}, count[2] = {zero, zero};
        for (; i < full; i += lanes) {
            for (int h = 0; h < 2; ++h) {
                const __m256d x = _mm256_loadu_pd(values + i + 4 * h);
                const __m256d here = _mm256_cmp_pd(_mm256_sub_pd(x, x), zero, _CMP_EQ_OQ);
                const __m256d filled = _mm256_and_pd(here, x);  // 0.0 where missing
                sum[h] = _mm256_add_pd(sum[h], filled);
                size[h] = _mm256_add_pd(size[h], _mm256_andnot_pd(sign, filled));
                count[h] = _mm256_add_pd(count[h], _mm256_and_pd(here, one));
            }
        }
        for (int h = 0; h < 2; ++h) {
            _mm256_storeu_pd(sums + 4 * h, sum[h]);
            _mm256_storeu_pd(sizes + 4 * h, size[h]);
            _mm256_storeu_pd(counts + 4 * h, count[h]);
        }
    }
#endif
    for (; i < n; ++i) {
        const int j = i % lanes;
        const double x = values[i];
        const bool here = x - x == 0.0;
        const double filled = here ? x : 0.0;
        sums[j] += filled;
        sizes[j] += std::fabs(filled);
        counts[j] += here ? 1.0 : 0.0;
    }
    const int count = static_cast<int>(combined_lanes(counts));
    const double mean = combined_lanes(sums) / static_cast<double>(std::max(count, 1));
    const double size = combined_lanes(sizes);
    // The gross exposure: |x - mean| of the present values (0 for a missing
    // one), added in lanes as lane_sum adds. The deviations are not stored:
    // the last pass computes each again, the same subtraction.
    double magnitudes[lanes] = {};
    i = 0;
#if defined(TALLOWMERE_ENGINE_AVX2_CODE)
    {
        const int full = n - n % lanes;
        const __m256d zero = _mm256_setzero_pd(), sign = _mm256_set1_pd(-0.0), centre = _mm256_set1_pd(mean);
        __m256d gross[2] = {zero, zero};
        for (; i < full; i += lanes) {
            for (int h = 0; h < 2; ++h) {
                const __m256d x = _mm256_loadu_pd(values + i + 4 * h);
                const __m256d here = _mm256_cmp_pd(_mm256_sub_pd(x, x), zero, _CMP_EQ_OQ);
                const __m256d deviation = _mm256_and_pd(here, _mm256_sub_pd(x, centre));
                gross[h] = _mm256_add_pd(gross[h], _mm256_andnot_pd(sign, deviation));
            }
        }
        _mm256_storeu_pd(magnitudes, gross[0]);
        _mm256_storeu_pd(magnitudes + 4, gross[1]);
    }
#endif
    for (; i < n; ++i) {
        const double x = values[i];
        magnitudes[i % lanes] += std::fabs(x - x == 0.0 ? x - mean : 0.0);
    }
    const double gross = combined_lanes(magnitudes);
    const bool holds = count >= 2 && gross > 0.0 && gross > dispersion_tolerance * size;
    if (!holds) {
        std::fill(weights, weights + n, 0.0);
        return;
    }
    for (int k = 0; k < n; ++k) {
        const double x = values[k];
        const double w = (x - x == 0.0 ? x - mean : 0.0) / gross;
        weights[k] = w - w == 0.0 ? w : 0.0;
    }
}

// The day's PnL (yesterday's weights on today's returns), traded amount,
// net and gross exposure and largest weight, in one pass.
inline void Evaluator::write_daily(long t) {
    const int n = n_;
    const long days = run_.days;
    const double* w = run_.weights + t * n;
    if (t == 0) std::fill(scratch_.get(), scratch_.get() + n, 0.0);
    const double* previous = t == 0 ? scratch_.get() : w - n;  // no position before the first day
    const double* returns = run_.returns.data + t * run_.returns.row_stride;
    double pnl[lanes] = {}, traded[lanes] = {}, net[lanes] = {}, gross[lanes] = {};
    double largest[lanes] = {};  // weights are finite: any order gives the same maximum
    int i = 0;
#if defined(TALLOWMERE_ENGINE_AVX2_CODE)
    {
        const int full = n - n % lanes;
        const __m256d zero = _mm256_setzero_pd(), sign = _mm256_set1_pd(-0.0);
        __m256d p[2] = {zero, zero}, d[2] = {zero, zero}, e[2] = {zero, zero}, g[2] = {zero, zero}, l[2] = {zero, zero};
        for (; i < full; i += lanes) {
            for (int h = 0; h < 2; ++h) {
                const __m256d now = _mm256_loadu_pd(w + i + 4 * h), before = _mm256_loadu_pd(previous + i + 4 * h);
                const __m256d r = _mm256_loadu_pd(returns + i + 4 * h);
                const __m256d earned = _mm256_and_pd(_mm256_cmp_pd(r, r, _CMP_EQ_OQ), r);  // 0.0 for a missing return
                const __m256d size = _mm256_andnot_pd(sign, now);
                p[h] = _mm256_add_pd(p[h], _mm256_mul_pd(before, earned));
                d[h] = _mm256_add_pd(d[h], _mm256_andnot_pd(sign, _mm256_sub_pd(now, before)));
                e[h] = _mm256_add_pd(e[h], now);
                g[h] = _mm256_add_pd(g[h], size);
                l[h] = _mm256_max_pd(l[h], size);
            }
        }
        for (int h = 0; h < 2; ++h) {
            _mm256_storeu_pd(pnl + 4 * h, p[h]);
            _mm256_storeu_pd(traded + 4 * h, d[h]);
            _mm256_storeu_pd(net + 4 * h, e[h]);
            _mm256_storeu_pd(gross + 4 * h, g[h]);
            _mm256_storeu_pd(largest + 4 * h, l[h]);
        }
    }
#endif
    for (; i < n; ++i) {
        const int j = i % lanes;
        const double r = returns[i];
        pnl[j] += previous[i] * (r != r ? 0.0 : r);
        traded[j] += std::fabs(w[i] - previous[i]);
        net[j] += w[i];
        gross[j] += std::fabs(w[i]);
        largest[j] = std::max(largest[j], std::fabs(w[i]));
    }
    double most = 0.0;
    for (double value : largest) most = std::max(most, value);
    double* figures = run_.daily;
    figures[t] = t == 0 ? 0.0 : combined_lanes(pnl);
    figures[days + t] = combined_lanes(traded);
    figures[2 * days + t] = combined_lanes(net);
    figures[3 * days + t] = combined_lanes(gross);
    figures[4 * days + t] = most;
}

inline Timing Evaluator::execute() {
    using Clock = std::chrono::steady_clock;
    Timing timing;
    const int n = n_;
    const long days = run_.days;
    const Rows& root = states_.back().out;
    double expression = 0.0, slowest = 0.0;
    for (long t = 0; t < days; ++t) {
        const Clock::time_point began = Clock::now();
        for (NodeState& state : states_) step(state, t);
        const Clock::time_point evaluated = Clock::now();
        Clock::time_point finished = evaluated;
        if (run_.weights != nullptr) {
            write_weights(root.row(t), run_.weights + t * n);
            finished = Clock::now();
        }
        expression += std::chrono::duration<double>(evaluated - began).count();
        slowest = std::max(slowest, std::chrono::duration<double>(finished - began).count());
        if (run_.values != nullptr) {
            const double* row = root.row(t);
            std::copy(row, row + n, run_.values + t * n);
        }
        if (run_.daily != nullptr) write_daily(t);
    }
    timing.expression_seconds = expression;
    timing.max_row_seconds = slowest;
    return timing;
}

inline std::unique_ptr<Prepared> prepare_here(const Run& run) { return std::make_unique<Evaluator>(run); }

// The day-by-day evaluator. This file is compiled once per instruction set
// (evaluator.cpp for any processor, evaluator_avx2.cpp), inside a namespace of
// its own, so every loop below is vectorised for the processor it runs on.
//
// Every operation is the same sequence of IEEE operations as the numpy
// reference in tallowmere.simulation (rolling.py, cross_section.py,
// portfolio.py), so both give identical numbers, ties and missing values:
//
// - window sums are pairwise: a window of w rows is split into the dyadic
//   blocks of w's binary digits (largest and oldest first), each block the sum
//   of two half blocks, kept from day to day; no running total is ever
//   subtracted from, so nothing drifts;
// - window means and spreads combine (count, mean, sum of squared deviations)
//   of the same blocks with the pairwise update of Chan, Golub and LeVeque,
//   so large levels (prices, volumes) lose nothing to cancellation;
// - window minima and maxima combine power-of-two blocks (two overlapping
//   blocks cover any window);
// - sums across assets add every eighth asset into one of eight lanes, then
//   the lanes pairwise.
//
// Every day costs O(assets) per node (O(assets · log window) for windows),
// except ts_rank, which compares today's value with each earlier day of its
// window (O(assets · window), four assets per instruction): that beats
// keeping each asset's window sorted, whose searches the processor cannot
// predict.

inline constexpr double flat_spread_tolerance = 1e-10;
inline constexpr double dispersion_tolerance = 1e-9;
inline constexpr int lanes = 8;
// Members of a bucket the cross-sectional rank compares in one step.
inline constexpr int rank_slots = 8;

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
// order: a value's rank is the count of the values in the buckets below it
// plus its place among its bucket's members (eight compared in one step).
class Ranker {
public:
    explicit Ranker(int n)
        : n_(n),
          buckets_(n),
          slotted_buckets_(2 * n),
          slots_(allocate(static_cast<std::size_t>(2 * n + 1) * rank_slots)),
          count_(2 * static_cast<std::size_t>(n) + 2),
          below_(2 * static_cast<std::size_t>(n) + 2),
          bucket_(static_cast<std::size_t>(n) + 4),
          place_(static_cast<std::size_t>(n) + 4),
          start_(static_cast<std::size_t>(n) + 2),
          members_(static_cast<std::size_t>(n) + rank_slots),
          table_(2 * static_cast<std::size_t>(n) + 1),
          pairs_(static_cast<std::size_t>(n)) {
        // Slots past a bucket's members are read and ignored; give them a value once.
        std::fill(slots_.get(), slots_.get() + static_cast<std::size_t>(2 * n + 1) * rank_slots, 0.0);
    }

    void rank(const double* x, double* out);

private:
    void build_table(int present);
    void rank_by_sorting(const double* x, double* out);
    void assign_buckets(const double* x, double lo, double scale, int buckets);
    bool rank_in_slots(const double* x, double lo, double span, double* out);
    void rank_in_runs(const double* x, double lo, double span, double* out);

    int n_;
    int buckets_;  // missing values go to the extra bucket `buckets_`
    // The fast way: 2n buckets of eight slots each (a cache line), filled in
    // one pass; a day that crowds more than eight values into a bucket takes
    // the general way instead.
    int slotted_buckets_;
    Storage slots_;
    std::vector<int> count_;
    std::vector<int> below_;
    std::vector<int> bucket_;
    std::vector<int> place_;  // a value's place among its bucket's members, in arrival order
    std::vector<int> start_;
    std::vector<double> members_;
    std::vector<double> table_;
    int table_present_ = -1;
    std::vector<std::pair<double, int>> pairs_;
};

// table_[k] = k / (2 (m - 1)): the rank of a tie group whose first and last
// positions add up to k, exactly as the reference divides.
inline void Ranker::build_table(int present) {
    if (present == table_present_) return;
    double denominator = 2.0 * static_cast<double>(present - 1);
    for (int k = 0; k <= 2 * (present - 1); ++k) table_[static_cast<std::size_t>(k)] = static_cast<double>(k) / denominator;
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
    if (!(span - span == 0.0)) {  // values too far apart to bucket (an infinity among them)
        rank_by_sorting(x, out);
        return;
    }
    if (span == 0.0) {  // one value: every present value ranks in the middle
        for (int k = 0; k < n; ++k) out[k] = x[k] == x[k] ? 0.5 : missing();
        return;
    }
    if (!rank_in_slots(x, lo, span, out)) rank_in_runs(x, lo, span, out);
}

// A value's rank: the values in the buckets below its own, plus its place
// among its bucket's members (at most eight, compared in one step).
inline bool Ranker::rank_in_slots(const double* x, double lo, double span, double* out) {
    const int n = n_;
    const int buckets = slotted_buckets_;
    assign_buckets(x, lo, static_cast<double>(buckets - 1) / span, buckets);
    const int* bucket = bucket_.data();
    int* count = count_.data();
    double* slots = slots_.get();
    std::fill(count, count + buckets + 1, 0);
    int crowded = 0;
    for (int k = 0; k < n; ++k) {
        const int b = bucket[k];
        const int members = count[b];
        slots[b * rank_slots + (members & (rank_slots - 1))] = x[k];
        count[b] = members + 1;
        crowded |= members >= rank_slots ? 1 : 0;
    }
    if (crowded) return false;
    int* below = below_.data();
    int present = 0;
    for (int b = 0; b < buckets; ++b) {
        below[b] = present;
        present += count[b];
    }
    if (present == 1) {
        for (int k = 0; k < n; ++k) out[k] = bucket[k] < buckets ? 0.5 : missing();
        return true;
    }
    build_table(present);
    const double* table = table_.data();
    for (int k = 0; k < n; ++k) {
        const int b = bucket[k];
        if (b == buckets) {
            out[k] = missing();
            continue;
        }
        const double* members = slots + b * rank_slots;
        const int size = count[b];
        int less, equal;
#if defined(TALLOWMERE_ENGINE_AVX2_CODE)
        const __m256d value = _mm256_set1_pd(x[k]);
        const __m256d low = _mm256_load_pd(members), high = _mm256_load_pd(members + 4);
        const unsigned mask = (1u << size) - 1;
        const unsigned smaller = static_cast<unsigned>(_mm256_movemask_pd(_mm256_cmp_pd(low, value, _CMP_LT_OQ)) |
                                                       (_mm256_movemask_pd(_mm256_cmp_pd(high, value, _CMP_LT_OQ)) << 4));
        const unsigned same = static_cast<unsigned>(_mm256_movemask_pd(_mm256_cmp_pd(low, value, _CMP_EQ_OQ)) |
                                                    (_mm256_movemask_pd(_mm256_cmp_pd(high, value, _CMP_EQ_OQ)) << 4));
        less = __builtin_popcount(smaller & mask);
        equal = __builtin_popcount(same & mask);
#else
        less = 0;
        equal = 0;
        for (int q = 0; q < rank_slots; ++q) {
            int inside = q < size ? 1 : 0;
            less += inside & (members[q] < x[k] ? 1 : 0);
            equal += inside & (members[q] == x[k] ? 1 : 0);
        }
#endif
        // the tie group runs from position below + less to below + less + equal - 1
        out[k] = table[2 * (below[b] + less) + equal - 1];
    }
    return true;
}

// The general way, for days that crowd a bucket (many ties, or a far
// outlier): n buckets laid out one after another, crowded ones sorted and
// searched.
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
    int levels = 0;     // K = floor(log2(window)) for the block operators
    // Dyadic blocks of the window, oldest first: (level, rows back from today).
    std::vector<std::pair<int, long>> blocks;
    // Block rows per quantity and level (index 0 unused: level 0 is the argument).
    std::vector<std::vector<Rows>> block_rows;
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
    void plan_blocks(NodeState& state, int quantities, bool sparse_cover);
    const double* argument_row(const NodeState& state, int which, long t) const;
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
    Storage zeros_;       // a row of zeros: the spread of a single value
    Storage scratch_;     // rows for folding blocks and the weights' deviations
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
        allocate_rows(state, node.op == Op::constant ? 1 : lookback[i] + 1);
        if (node.op == Op::constant) std::fill(state.out.data, state.out.data + n_, node.value);
        switch (node.op) {
            case Op::ts_sum:
            case Op::ts_mean: plan_blocks(state, 1, false); break;
            case Op::ts_std: plan_blocks(state, 2, false); break;
            case Op::ts_corr: plan_blocks(state, 5, false); break;
            case Op::ts_min:
            case Op::ts_max: plan_blocks(state, 1, true); break;
            case Op::ts_rank: state.missing_count.assign(static_cast<std::size_t>(n_), 0); break;
            default: break;
        }
    }
    zeros_ = allocate(static_cast<std::size_t>(stride_));
    std::fill(zeros_.get(), zeros_.get() + stride_, 0.0);
    scratch_ = allocate(static_cast<std::size_t>(stride_) * 10);
}

// How many rows before today a node reads of its arguments.
inline long Evaluator::lookback_of_argument(const Node& parent) const {
    switch (parent.op) {
        case Op::ts_delay:
        case Op::ts_delta: return parent.window;
        case Op::ts_rank: return parent.window - 1;
        case Op::ts_sum:
        case Op::ts_mean:
        case Op::ts_std:
        case Op::ts_corr:
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

// Plans the blocks of a window operator. Level k holds, for every day, the
// block of the 2^k days ending that day; it is read 2^k days later to build
// level k + 1, and at its offset when it is one of the window's blocks.
// Sums and moments split the window into the blocks of its binary digits;
// minima and maxima cover it with two blocks of the largest level instead.
inline void Evaluator::plan_blocks(NodeState& state, int quantities, bool sparse_cover) {
    const long window = state.node.window;
    int levels = 0;
    while ((2L << levels) <= window) ++levels;
    state.levels = levels;
    if (sparse_cover) {
        state.blocks = {{levels, window - (1L << levels)}, {levels, 0}};
    } else {
        for (int k = levels; k >= 0; --k) {
            if (window & (1L << k)) state.blocks.emplace_back(k, window & ((1L << k) - 1));
        }
    }
    std::vector<long> reach(static_cast<std::size_t>(levels) + 1, 0);
    for (int k = 0; k < levels; ++k) reach[static_cast<std::size_t>(k)] = 1L << k;
    for (const auto& [k, offset] : state.blocks) reach[static_cast<std::size_t>(k)] = std::max(reach[static_cast<std::size_t>(k)], offset);
    state.block_rows.assign(static_cast<std::size_t>(quantities), std::vector<Rows>(static_cast<std::size_t>(levels) + 1));
    for (int q = 0; q < quantities; ++q) {
        for (int k = 1; k <= levels; ++k) {
            const long size = ring_size(reach[static_cast<std::size_t>(k)] + 1);
            state.block_storage.push_back(allocate(static_cast<std::size_t>(stride_) * static_cast<std::size_t>(size)));
            state.block_rows[static_cast<std::size_t>(q)][static_cast<std::size_t>(k)] =
                Rows{state.block_storage.back().get(), stride_, size - 1};
        }
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

inline void Evaluator::window_sum(NodeState& state, long t) {
    const int n = n_;
    const long window = state.node.window;
    const Rows& argument = states_[static_cast<std::size_t>(state.node.args[0])].out;
    auto block = [&](int level, long day) -> const double* {
        return level == 0 ? argument.row(day) : state.block_rows[0][static_cast<std::size_t>(level)].row(day);
    };
    for (int k = 1; k <= state.levels; ++k) {
        long half = 1L << (k - 1);
        if (t < 2 * half - 1) break;
        const double* older = block(k - 1, t - half);
        const double* newer = block(k - 1, t);
        double* sum = state.block_rows[0][static_cast<std::size_t>(k)].row(t);
        for (int i = 0; i < n; ++i) sum[i] = older[i] + newer[i];
    }
    double* out = state.out.row(t);
    if (t < window - 1) {
        std::fill(out, out + n, missing());
        return;
    }
    const auto& blocks = state.blocks;
    const double* first = block(blocks[0].first, t - blocks[0].second);
    if (blocks.size() == 1) {
        std::copy(first, first + n, out);
    } else {
        const double* second = block(blocks[1].first, t - blocks[1].second);
        for (int i = 0; i < n; ++i) out[i] = first[i] + second[i];
        for (std::size_t j = 2; j < blocks.size(); ++j) {
            const double* next = block(blocks[j].first, t - blocks[j].second);
            for (int i = 0; i < n; ++i) out[i] += next[i];
        }
    }
    if (state.node.op == Op::ts_mean) {
        const double count = static_cast<double>(window);
        for (int i = 0; i < n; ++i) out[i] = finite_or_missing(out[i] / count);
    } else {
        for (int i = 0; i < n; ++i) out[i] = finite_or_missing(out[i]);
    }
}

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

// Block merges over a row of assets. The outputs never alias the inputs (folds
// alternate between two scratch rows), which lets the loops vectorise.
inline void merge_moments(int n, const MergeFactors f, const double* __restrict ma, const double* __restrict qa,
                          const double* __restrict mb, const double* __restrict qb, double* __restrict m,
                          double* __restrict q) {
    for (int i = 0; i < n; ++i) {
        double d = mb[i] - ma[i];
        m[i] = ma[i] + d * f.shift;
        q[i] = (qa[i] + qb[i]) + (d * d) * f.squares;
    }
}

// Merges of two single days, whose squared deviations and cross products are
// 0: the same operations as the general merges, without reading rows of zeros
// ((0 + 0) + x is 0 + x).
inline void merge_single_days(int n, const MergeFactors f, const double* __restrict a, const double* __restrict b,
                              double* __restrict m, double* __restrict q) {
    for (int i = 0; i < n; ++i) {
        double d = b[i] - a[i];
        m[i] = a[i] + d * f.shift;
        q[i] = 0.0 + (d * d) * f.squares;
    }
}

struct Comoments {
    const double* mean_a;
    const double* mean_b;
    const double* squares_a;
    const double* squares_b;
    const double* cross;
};

struct ComomentRows {
    double* mean_a;
    double* mean_b;
    double* squares_a;
    double* squares_b;
    double* cross;
};

inline void merge_comoments_rows(int n, const MergeFactors f, const double* __restrict ma, const double* __restrict mb,
                                 const double* __restrict qa, const double* __restrict qb,
                                 const double* __restrict ca, const double* __restrict na,
                                 const double* __restrict nb, const double* __restrict ra,
                                 const double* __restrict rb, const double* __restrict cb,
                                 double* __restrict out_ma, double* __restrict out_mb, double* __restrict out_qa,
                                 double* __restrict out_qb, double* __restrict out_c) {
    // older block: means ma/mb, squares qa/qb, cross ca; newer: na/nb, ra/rb, cb
    for (int i = 0; i < n; ++i) {
        double dx = na[i] - ma[i];
        double dy = nb[i] - mb[i];
        out_ma[i] = ma[i] + dx * f.shift;
        out_mb[i] = mb[i] + dy * f.shift;
        out_qa[i] = (qa[i] + ra[i]) + (dx * dx) * f.squares;
        out_qb[i] = (qb[i] + rb[i]) + (dy * dy) * f.squares;
        out_c[i] = (ca[i] + cb[i]) + (dx * dy) * f.squares;
    }
}

inline void merge_single_day_pairs_rows(int n, const MergeFactors f, const double* __restrict xa,
                                        const double* __restrict ya, const double* __restrict xb,
                                        const double* __restrict yb, double* __restrict out_ma,
                                        double* __restrict out_mb, double* __restrict out_qa,
                                        double* __restrict out_qb, double* __restrict out_c) {
    for (int i = 0; i < n; ++i) {
        double dx = xb[i] - xa[i];
        double dy = yb[i] - ya[i];
        out_ma[i] = xa[i] + dx * f.shift;
        out_mb[i] = ya[i] + dy * f.shift;
        out_qa[i] = 0.0 + (dx * dx) * f.squares;
        out_qb[i] = 0.0 + (dy * dy) * f.squares;
        out_c[i] = 0.0 + (dx * dy) * f.squares;
    }
}

inline void merge_single_day_pairs(int n, const MergeFactors f, const double* xa, const double* ya,
                                   const double* xb, const double* yb, const ComomentRows& out) {
    merge_single_day_pairs_rows(n, f, xa, ya, xb, yb, out.mean_a, out.mean_b, out.squares_a, out.squares_b,
                                out.cross);
}

inline void merge_comoments(int n, const MergeFactors f, const Comoments& older, const Comoments& newer,
                            const ComomentRows& out) {
    merge_comoments_rows(n, f, older.mean_a, older.mean_b, older.squares_a, older.squares_b, older.cross,
                         newer.mean_a, newer.mean_b, newer.squares_a, newer.squares_b, newer.cross, out.mean_a,
                         out.mean_b, out.squares_a, out.squares_b, out.cross);
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

inline void merged_correlations(int n, double days, const MergeFactors f, const Comoments& older,
                                const Comoments& newer, double* out) {
    merged_correlations_rows(n, days, f, older.mean_a, older.mean_b, older.squares_a, older.squares_b, older.cross,
                             newer.mean_a, newer.mean_b, newer.squares_a, newer.squares_b, newer.cross, out);
}

inline void Evaluator::window_moments(NodeState& state, long t) {
    const int n = n_;
    const long window = state.node.window;
    const Rows& argument = states_[static_cast<std::size_t>(state.node.args[0])].out;
    const double* zeros = zeros_.get();
    auto means = [&](int level, long day) -> const double* {
        return level == 0 ? argument.row(day) : state.block_rows[0][static_cast<std::size_t>(level)].row(day);
    };
    auto squares = [&](int level, long day) -> const double* {
        return level == 0 ? zeros : state.block_rows[1][static_cast<std::size_t>(level)].row(day);
    };
    for (int k = 1; k <= state.levels; ++k) {
        long half = 1L << (k - 1);
        if (t < 2 * half - 1) break;
        const MergeFactors f = merge_factors(half, half);
        const double *ma = means(k - 1, t - half), *mb = means(k - 1, t);
        const double *qa = squares(k - 1, t - half), *qb = squares(k - 1, t);
        double* m = state.block_rows[0][static_cast<std::size_t>(k)].row(t);
        double* q = state.block_rows[1][static_cast<std::size_t>(k)].row(t);
        if (k == 1) {
            merge_single_days(n, f, ma, mb, m, q);
        } else {
            merge_moments(n, f, ma, qa, mb, qb, m, q);
        }
    }
    double* out = state.out.row(t);
    if (t < window - 1) {
        std::fill(out, out + n, missing());
        return;
    }
    const auto& blocks = state.blocks;
    const double* m = means(blocks[0].first, t - blocks[0].second);
    const double* q = squares(blocks[0].first, t - blocks[0].second);
    long count = 1L << blocks[0].first;
    const double days = static_cast<double>(window);
    for (std::size_t j = 1; j + 1 < blocks.size(); ++j) {
        const double* mb = means(blocks[j].first, t - blocks[j].second);
        const double* qb = squares(blocks[j].first, t - blocks[j].second);
        long added = 1L << blocks[j].first;
        double* merged = scratch_.get() + static_cast<std::ptrdiff_t>(2 * (j % 2)) * stride_;
        merge_moments(n, merge_factors(count, added), m, q, mb, qb, merged, merged + stride_);
        m = merged;
        q = merged + stride_;
        count += added;
    }
    if (blocks.size() == 1) {
        deviations(n, days, m, q, out);
    } else {  // the last block merges straight into the deviation: the window's statistics are never stored
        const auto& [level, back] = blocks.back();
        merged_deviations(n, days, merge_factors(count, 1L << level), m, q, means(level, t - back),
                          squares(level, t - back), out);
    }
}

inline void Evaluator::window_comoments(NodeState& state, long t) {
    const int n = n_;
    const long window = state.node.window;
    const Rows& left = states_[static_cast<std::size_t>(state.node.args[0])].out;
    const Rows& right = states_[static_cast<std::size_t>(state.node.args[1])].out;
    const double* zeros = zeros_.get();
    // quantities: 0 mean of a, 1 mean of b, 2 squares of a, 3 squares of b, 4 cross products
    auto rows = [&](int quantity, int level, long day) -> const double* {
        if (level == 0) return quantity == 0 ? left.row(day) : quantity == 1 ? right.row(day) : zeros;
        return state.block_rows[static_cast<std::size_t>(quantity)][static_cast<std::size_t>(level)].row(day);
    };
    auto block = [&](int level, long day) {
        return Comoments{rows(0, level, day), rows(1, level, day), rows(2, level, day), rows(3, level, day),
                         rows(4, level, day)};
    };
    for (int k = 1; k <= state.levels; ++k) {
        long half = 1L << (k - 1);
        if (t < 2 * half - 1) break;
        auto target = [&](int quantity) {
            return state.block_rows[static_cast<std::size_t>(quantity)][static_cast<std::size_t>(k)].row(t);
        };
        const ComomentRows merged{target(0), target(1), target(2), target(3), target(4)};
        if (k == 1) {
            merge_single_day_pairs(n, merge_factors(1, 1), left.row(t - 1), right.row(t - 1), left.row(t),
                                   right.row(t), merged);
        } else {
            merge_comoments(n, merge_factors(half, half), block(k - 1, t - half), block(k - 1, t), merged);
        }
    }
    double* out = state.out.row(t);
    if (t < window - 1) {
        std::fill(out, out + n, missing());
        return;
    }
    const auto& blocks = state.blocks;
    Comoments acc = block(blocks[0].first, t - blocks[0].second);
    long count = 1L << blocks[0].first;
    const double days = static_cast<double>(window);
    if (blocks.size() == 1) {
        correlations(n, days, acc, out);
        return;
    }
    for (std::size_t j = 1; j + 1 < blocks.size(); ++j) {
        long added = 1L << blocks[j].first;
        double* base = scratch_.get() + static_cast<std::ptrdiff_t>(5 * (j % 2)) * stride_;
        ComomentRows merged{base, base + stride_, base + 2 * stride_, base + 3 * stride_, base + 4 * stride_};
        merge_comoments(n, merge_factors(count, added), acc, block(blocks[j].first, t - blocks[j].second), merged);
        acc = Comoments{merged.mean_a, merged.mean_b, merged.squares_a, merged.squares_b, merged.cross};
        count += added;
    }
    // The last block merges straight into the correlation: the window's statistics are never stored.
    const auto& [level, back] = blocks.back();
    merged_correlations(n, days, merge_factors(count, 1L << level), acc, block(level, t - back), out);
}

inline void Evaluator::window_extreme(NodeState& state, long t) {
    const int n = n_;
    const long window = state.node.window;
    const bool lowest = state.node.op == Op::ts_min;
    const Rows& argument = states_[static_cast<std::size_t>(state.node.args[0])].out;
    auto block = [&](int level, long day) -> const double* {
        return level == 0 ? argument.row(day) : state.block_rows[0][static_cast<std::size_t>(level)].row(day);
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
        combine(block(k - 1, t - half), block(k - 1, t), state.block_rows[0][static_cast<std::size_t>(k)].row(t));
    }
    double* out = state.out.row(t);
    if (t < window - 1) {
        std::fill(out, out + n, missing());
        return;
    }
    const auto& blocks = state.blocks;
    combine(block(blocks[0].first, t - blocks[0].second), block(blocks[1].first, t - blocks[1].second), out);
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
    auto present = [&](int i) { return values[i] - values[i] == 0.0; };
    const int count = count_if(n, present);
    auto filled = [&](int i) { return present(i) ? values[i] : 0.0; };
    const double mean = lane_sum(n, filled) / static_cast<double>(std::max(count, 1));
    double* deviations = scratch_.get();
    for (int i = 0; i < n; ++i) {
        double v = values[i];
        double d = v - mean;
        deviations[i] = v - v == 0.0 ? d : 0.0;
    }
    const double gross = lane_sum(n, [&](int i) { return std::fabs(deviations[i]); });
    const double size = lane_sum(n, [&](int i) { return std::fabs(filled(i)); });
    const bool holds = count >= 2 && gross > 0.0 && gross > dispersion_tolerance * size;
    const double scale = holds ? gross : 1.0;
    for (int i = 0; i < n; ++i) {
        double w = holds ? deviations[i] / scale : 0.0;
        weights[i] = w - w == 0.0 ? w : 0.0;
    }
}

inline void Evaluator::write_daily(long t) {
    const int n = n_;
    const long days = run_.days;
    const double* w = run_.weights + t * n;
    double* figures = run_.daily;
    if (t == 0) {
        figures[0] = 0.0;
        figures[days + t] = lane_sum(n, [&](int i) { return std::fabs(w[i] - 0.0); });
    } else {
        const double* previous = w - n;
        const double* returns = run_.returns.data + t * run_.returns.row_stride;
        figures[t] = lane_sum(n, [&](int i) { return previous[i] * (returns[i] != returns[i] ? 0.0 : returns[i]); });
        figures[days + t] = lane_sum(n, [&](int i) { return std::fabs(w[i] - previous[i]); });
    }
    figures[2 * days + t] = lane_sum(n, [&](int i) { return w[i]; });
    figures[3 * days + t] = lane_sum(n, [&](int i) { return std::fabs(w[i]); });
    double largest[4] = {0.0, 0.0, 0.0, 0.0};  // weights are finite: any order gives the same maximum
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        for (int j = 0; j < 4; ++j) largest[j] = std::max(largest[j], std::fabs(w[i + j]));
    }
    for (; i < n; ++i) largest[0] = std::max(largest[0], std::fabs(w[i]));
    figures[4 * days + t] = std::max(std::max(largest[0], largest[1]), std::max(largest[2], largest[3]));
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

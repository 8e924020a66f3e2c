// What the evaluator runs: a checked expression program over a market panel,
// written without any Python object so that it can run with the GIL released.
//
// A program is the graph's nodes in evaluation order (every node after its
// arguments; identical subtrees appear once); the last node is the root. The
// panel is a set of days × assets float64 matrices read in place, and the
// outputs are caller-owned matrices written in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace tallowmere::native::engine {

enum class Op : std::uint8_t {
    field,
    constant,
    add,
    sub,
    mul,
    div,
    pow,
    max,
    min,
    neg,
    abs,
    log,
    sqrt,
    sign,
    rank,
    zscore,
    demean,
    ts_mean,
    ts_sum,
    ts_std,
    ts_min,
    ts_max,
    ts_rank,
    ts_delay,
    ts_delta,
    ts_corr,
};

struct OpInfo {
    const char* name;
    Op op;
    int arity;
    int min_window;  // 0: the operator takes no window
};

// Every operator by the name the Python side uses; `field` nodes carry the
// index of their matrix in `window`, `constant` nodes their number in `value`.
inline constexpr OpInfo op_table[] = {
    {"field", Op::field, 0, 0},      {"const", Op::constant, 0, 0},   {"add", Op::add, 2, 0},
    {"sub", Op::sub, 2, 0},          {"mul", Op::mul, 2, 0},          {"div", Op::div, 2, 0},
    {"pow", Op::pow, 2, 0},          {"max", Op::max, 2, 0},          {"min", Op::min, 2, 0},
    {"neg", Op::neg, 1, 0},          {"abs", Op::abs, 1, 0},          {"log", Op::log, 1, 0},
    {"sqrt", Op::sqrt, 1, 0},        {"sign", Op::sign, 1, 0},        {"rank", Op::rank, 1, 0},
    {"zscore", Op::zscore, 1, 0},    {"demean", Op::demean, 1, 0},    {"ts_mean", Op::ts_mean, 1, 1},
    {"ts_sum", Op::ts_sum, 1, 1},    {"ts_std", Op::ts_std, 1, 2},    {"ts_min", Op::ts_min, 1, 1},
    {"ts_max", Op::ts_max, 1, 1},    {"ts_rank", Op::ts_rank, 1, 2},  {"ts_delay", Op::ts_delay, 1, 1},
    {"ts_delta", Op::ts_delta, 1, 1}, {"ts_corr", Op::ts_corr, 2, 2},
};

struct Node {
    Op op;
    int args[2] = {-1, -1};  // indices of earlier nodes
    int window = 0;          // the window, or for a field node the index of its matrix
    double value = 0.0;      // a constant's number
};

// A days × assets matrix of float64, rows `row_stride` doubles apart.
struct Matrix {
    const double* data = nullptr;
    std::ptrdiff_t row_stride = 0;
};

// What one evaluation reads and writes. Every output is optional (null):
// `values` receives the root's values, `weights` the portfolio weights, and
// `daily` (which needs `weights` and `returns`) five rows of `days` figures:
// the PnL, the traded amount sum |w[t] - w[t-1]|, the net sum w[t], the gross
// sum |w[t]| and the largest |w[t]| of every day.
struct Run {
    std::vector<Node> nodes;
    std::vector<Matrix> fields;
    Matrix returns;
    long days = 0;
    int assets = 0;
    double* values = nullptr;
    double* weights = nullptr;
    double* daily = nullptr;
};

inline constexpr int daily_rows = 5;

struct Timing {
    double expression_seconds = 0.0;  // the summed per-day evaluation of the expression
    double max_row_seconds = 0.0;     // the slowest day: expression and weights
};

// Prepares everything a run needs (allocations happen here, so it can throw
// std::bad_alloc), then `Prepared::execute` evaluates day by day without
// allocating or touching any Python object.
class Prepared {
public:
    virtual ~Prepared() = default;
    virtual Timing execute() = 0;
};

// The evaluator for this processor (a vectorised build where the processor
// supports one), or with `generic` the build for any processor. Throws
// std::bad_alloc when memory runs out.
std::unique_ptr<Prepared> prepare(const Run& run, bool generic);

}  // namespace tallowmere::native::engine

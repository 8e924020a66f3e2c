// The simulation engine's entry points: tallowmere._native.evaluate_program
// and tallowmere._native.synthetic_market.
//
// It checks the program and the arrays with the GIL held, then releases the
// GIL and evaluates the program over the panel day by day (evaluator.inl):
// nothing in that loop touches a Python object, so threads run side by side.
// Arrays are read and written in place through the buffer protocol.
#include "_native/engine/market.hpp"
#include "_native/engine/plan.hpp"
#include "_native/native_state.hpp"
#include "core/classes.hpp"
#include "core/function.hpp"
#include "core/python.hpp"

#include <cmath>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <string>

namespace tallowmere::native {

namespace {

using engine::Matrix;
using engine::Node;
using engine::Op;
using engine::OpInfo;

constexpr const char evaluate_program_doc[] =
    "Evaluate an expression program over a market panel, day by day, without the GIL.\n\n"
    "program: the nodes in evaluation order, each (operator, argument indices, window, value); a field\n"
    "node ('field', (), index, 0.0) reads fields[index]. fields: days x assets float64 arrays.\n"
    "values, weights: days x assets float64 arrays receiving the root's values and the portfolio\n"
    "weights; daily: a 5 x days float64 array receiving each day's PnL, traded, net, gross and largest\n"
    "weight (it needs weights and returns). generic: run the build for any processor instead of the\n"
    "vectorised one (both give identical numbers). Returns (expression_seconds, max_row_seconds).";

// A buffer held for the length of one call; released with the GIL held.
class HeldBuffer {
public:
    HeldBuffer() = default;
    HeldBuffer(const HeldBuffer&) = delete;
    HeldBuffer& operator=(const HeldBuffer&) = delete;
    ~HeldBuffer() {
        if (held_) PyBuffer_Release(&view_);
    }

    // Takes a C-contiguous float64 buffer of `object` with `dimensions`
    // dimensions; `label` names it in errors.
    void take(const Ref& object, const std::string& label, bool writable, int dimensions = 2) {
        const std::string kind = "C-contiguous " + std::to_string(dimensions) + "-D float64 array";
        int flags = PyBUF_C_CONTIGUOUS | PyBUF_FORMAT | (writable ? PyBUF_WRITABLE : 0);
        if (PyObject_GetBuffer(object.get(), &view_, flags) < 0) {
            Ref cause = Ref::steal(PyErr_GetRaisedException());
            std::string message = label + " must be a " + (writable ? "writable " : "") + kind;
            raise_from(PyExc_ValueError, message.c_str(), cause);
        }
        held_ = true;
        const char* format = view_.format == nullptr ? "B" : view_.format;
        bool float64 = view_.itemsize == 8 && (std::strcmp(format, "d") == 0 || std::strcmp(format, "<d") == 0 ||
                                               std::strcmp(format, "=d") == 0 || std::strcmp(format, "@d") == 0);
        if (!float64 || view_.ndim != dimensions) {
            std::string message = label + " must be a " + kind;
            raise_value_error(message.c_str());
        }
    }

    Py_ssize_t extent(int dimension) const { return view_.shape[dimension]; }

    Py_ssize_t rows() const { return view_.shape[0]; }
    Py_ssize_t columns() const { return view_.shape[1]; }
    double* data() const { return static_cast<double*>(view_.buf); }
    Matrix matrix() const { return Matrix{data(), static_cast<std::ptrdiff_t>(columns())}; }

private:
    Py_buffer view_{};
    bool held_ = false;
};

[[noreturn]] void program_error(Py_ssize_t index, const std::string& problem) {
    std::string message = "program[" + std::to_string(index) + "]: " + problem;
    raise_value_error(message.c_str());
}

const OpInfo* find_operator(const Ref& name) {
    if (!is_str(name)) return nullptr;
    const char* text_value = PyUnicode_AsUTF8(name.get());
    if (text_value == nullptr) propagate();
    for (const OpInfo& info : engine::op_table) {
        if (std::strcmp(info.name, text_value) == 0) return &info;
    }
    return nullptr;
}

long long exact_integer(const Ref& value, Py_ssize_t index, const char* what) {
    if (!is_int(value) || is_bool(value)) program_error(index, std::string(what) + " must be an int");
    int overflow = 0;
    long long result = PyLong_AsLongLongAndOverflow(value.get(), &overflow);
    if (result == -1 && PyErr_Occurred()) propagate();
    if (overflow != 0) program_error(index, std::string(what) + " is out of range");
    return result;
}

// Reads one node: (operator, argument indices, window, value).
Node read_node(const Ref& item, Py_ssize_t index, long days, Py_ssize_t field_count) {
    if (!PyTuple_Check(item.get()) || PyTuple_GET_SIZE(item.get()) != 4) {
        program_error(index, "a node must be a tuple (operator, arguments, window, value)");
    }
    Ref name(Borrowed(PyTuple_GET_ITEM(item.get(), 0)));
    Ref arguments(Borrowed(PyTuple_GET_ITEM(item.get(), 1)));
    Ref window(Borrowed(PyTuple_GET_ITEM(item.get(), 2)));
    Ref value(Borrowed(PyTuple_GET_ITEM(item.get(), 3)));

    const OpInfo* info = find_operator(name);
    if (info == nullptr) {
        PyErr_Format(PyExc_ValueError, "program[%zd]: unknown operator %R", index, name.get());
        propagate();
    }
    Node node;
    node.op = info->op;
    if (!PyTuple_Check(arguments.get()) || PyTuple_GET_SIZE(arguments.get()) != info->arity) {
        program_error(index, std::string(info->name) + " takes a tuple of " + std::to_string(info->arity) +
                                 " argument index(es)");
    }
    for (int a = 0; a < info->arity; ++a) {
        long long argument = exact_integer(Ref(Borrowed(PyTuple_GET_ITEM(arguments.get(), a))), index, "an argument index");
        if (argument < 0 || argument >= index) program_error(index, "an argument must be an earlier node");
        node.args[a] = static_cast<int>(argument);
    }
    long long w = exact_integer(window, index, "the window");
    if (node.op == Op::field) {
        if (w < 0 || w >= field_count) program_error(index, "the field index is out of range");
    } else if (info->min_window > 0) {
        if (w < info->min_window || w > days) {
            program_error(index, std::string(info->name) + " needs a window from " + std::to_string(info->min_window) +
                                     " to the panel's " + std::to_string(days) + " days");
        }
    } else if (w != 0) {
        program_error(index, std::string(info->name) + " takes no window (0)");
    }
    node.window = static_cast<int>(w);
    if (!PyFloat_Check(value.get())) program_error(index, "the value must be a float");
    node.value = PyFloat_AS_DOUBLE(value.get());
    if (node.op == Op::constant && !std::isfinite(node.value)) program_error(index, "a constant must be finite");
    return node;
}

// Releases the GIL for its lifetime.
class WithoutGil {
public:
    WithoutGil() : state_(PyEval_SaveThread()) {}
    WithoutGil(const WithoutGil&) = delete;
    WithoutGil& operator=(const WithoutGil&) = delete;
    ~WithoutGil() { PyEval_RestoreThread(state_); }

private:
    PyThreadState* state_;
};

void check_shape(const HeldBuffer& buffer, const std::string& label, Py_ssize_t rows, Py_ssize_t columns) {
    if (buffer.rows() != rows || buffer.columns() != columns) {
        std::string message = label + " must have shape (" + std::to_string(rows) + ", " + std::to_string(columns) +
                              "), got (" + std::to_string(buffer.rows()) + ", " + std::to_string(buffer.columns()) + ")";
        raise_value_error(message.c_str());
    }
}

Ref evaluate_program(const Module&, const Ref& program, const Ref& fields, const Ref& values, const Ref& weights,
                     const Ref& returns, const Ref& daily, const Ref& generic) {
    const bool any_processor = truthy(generic);
    Ref field_items = Ref::checked(PySequence_Tuple(fields.get()));
    const Py_ssize_t field_count = PyTuple_GET_SIZE(field_items.get());
    if (field_count == 0) raise_value_error("fields must hold at least one array");
    std::vector<HeldBuffer> field_buffers(static_cast<std::size_t>(field_count));
    for (Py_ssize_t f = 0; f < field_count; ++f) {
        std::string label = "fields[" + std::to_string(f) + "]";
        field_buffers[static_cast<std::size_t>(f)].take(Ref(Borrowed(PyTuple_GET_ITEM(field_items.get(), f))), label, false);
    }
    const Py_ssize_t days = field_buffers[0].rows(), assets = field_buffers[0].columns();
    if (days < 1 || assets < 1) raise_value_error("fields must have at least one day and one asset");
    for (Py_ssize_t f = 1; f < field_count; ++f) {
        check_shape(field_buffers[static_cast<std::size_t>(f)], "fields[" + std::to_string(f) + "]", days, assets);
    }

    engine::Run run;
    run.days = static_cast<long>(days);
    run.assets = static_cast<int>(assets);
    for (const HeldBuffer& buffer : field_buffers) run.fields.push_back(buffer.matrix());

    Ref steps = Ref::checked(PySequence_Tuple(program.get()));
    const Py_ssize_t count = PyTuple_GET_SIZE(steps.get());
    if (count == 0) raise_value_error("program must hold at least one node");
    for (Py_ssize_t i = 0; i < count; ++i) {
        run.nodes.push_back(read_node(Ref(Borrowed(PyTuple_GET_ITEM(steps.get(), i))), i, run.days, field_count));
    }

    HeldBuffer values_buffer, weights_buffer, returns_buffer, daily_buffer;
    if (!values.is_none()) {
        values_buffer.take(values, "values", true);
        check_shape(values_buffer, "values", days, assets);
        run.values = values_buffer.data();
    }
    if (!weights.is_none()) {
        weights_buffer.take(weights, "weights", true);
        check_shape(weights_buffer, "weights", days, assets);
        run.weights = weights_buffer.data();
    }
    if (!returns.is_none()) {
        returns_buffer.take(returns, "returns", false);
        check_shape(returns_buffer, "returns", days, assets);
        run.returns = returns_buffer.matrix();
    }
    if (!daily.is_none()) {
        if (run.weights == nullptr || run.returns.data == nullptr) {
            raise_value_error("daily figures need both weights and returns");
        }
        daily_buffer.take(daily, "daily", true);
        check_shape(daily_buffer, "daily", engine::daily_rows, days);
        run.daily = daily_buffer.data();
    }

    engine::Timing timing;
    bool out_of_memory = false;
    {
        WithoutGil released;
        try {
            std::unique_ptr<engine::Prepared> prepared = engine::prepare(run, any_processor);
            timing = prepared->execute();
        } catch (const std::bad_alloc&) {
            out_of_memory = true;
        }
    }
    if (out_of_memory) {
        PyErr_NoMemory();
        propagate();
    }
    return new_tuple({floating(timing.expression_seconds), floating(timing.max_row_seconds)});
}

constexpr const char synthetic_market_doc[] =
    "Generate the default dataset of tallowmere.simulation.synthetic_market into fields, without the GIL.\n\n"
    "fields: a writable C-contiguous float64 array of shape (7, days, assets) receiving open, high, low,\n"
    "close, volume, returns and vwap. The recipe and every bit equal reference_market_fields(days, assets).\n"
    "generic: run the build for any processor instead of the vectorised one (both give identical numbers).";

Ref synthetic_market(const Module&, const Ref& fields, const Ref& generic) {
    const bool any_processor = truthy(generic);
    HeldBuffer buffer;
    buffer.take(fields, "fields", true, 3);
    const Py_ssize_t days = buffer.extent(1), assets = buffer.extent(2);
    if (buffer.extent(0) != 7 || days < 1 || assets < 1 || assets > std::numeric_limits<int>::max() / 8) {
        std::string message = "fields must have shape (7, days, assets) with at least one day and one asset, got (" +
                              std::to_string(buffer.extent(0)) + ", " + std::to_string(days) + ", " +
                              std::to_string(assets) + ")";
        raise_value_error(message.c_str());
    }
    bool out_of_memory = false;
    {
        WithoutGil released;
        try {
            engine::generate_market(buffer.data(), static_cast<long>(days), static_cast<int>(assets), any_processor);
        } catch (const std::bad_alloc&) {
            out_of_memory = true;
        }
    }
    if (out_of_memory) {
        PyErr_NoMemory();
        propagate();
    }
    return Ref(none());
}

constexpr auto synthetic_market_signature =
    signature("synthetic_market", Binding::module_function, synthetic_market_doc, param("fields"),
              keyword_only("generic", none_default));

constexpr auto evaluate_program_signature =
    signature("evaluate_program", Binding::module_function, evaluate_program_doc, param("program"), param("fields"),
              keyword_only("values", none_default), keyword_only("weights", none_default),
              keyword_only("returns", none_default), keyword_only("daily", none_default),
              keyword_only("generic", none_default));

}  // namespace

void bind_engine(PyObject* module) {
    add_function(module, member<evaluate_program_signature, evaluate_program>());
    add_function(module, member<synthetic_market_signature, synthetic_market>());
}

}  // namespace tallowmere::native

// JSON text of values made of the exact JSON types, byte for byte as the
// standard library's json module writes them (its C encoder, with
// ensure_ascii): what json.dumps(value) gives, and what the canonical form
// json.dumps(value, sort_keys=True, separators=(",", ":"), allow_nan=False)
// gives.
//
// The writer walks the value without recursion and without running any
// Python code. It declines (returns false, the error indicator clear) any
// value it cannot answer for exactly: another type than dict (with exact str
// keys), list, tuple, str, int, float, bool and None (subclasses included), a
// container that contains itself, nesting deeper than its caller allows, and
// what json.dumps refuses in that style. The caller then asks json.dumps,
// which gives the same text or raises its own error.
#pragma once

#include "core/containers.hpp"
#include "core/ref.hpp"

#include <cstddef>

namespace tallowmere {

struct JsonStyle {
    bool sort_keys;
    bool compact;    // separators (",", ":") rather than (", ", ": ")
    bool allow_nan;  // NaN and infinities written as NaN, Infinity, -Infinity
};

// json.dumps(value)
inline constexpr JsonStyle default_json{false, false, true};
// json.dumps(value, sort_keys=True, separators=(",", ":"), allow_nan=False)
inline constexpr JsonStyle canonical_json{true, true, false};

// A container whose text in the writer's style is known already (and known
// to be current): written as `text` wherever the container appears.
struct KnownText {
    PyObject* value;
    const char* text;
    size_t size;
    size_t depth;  // how deeply containers nest in it, itself included
};

class JsonText {
public:
    explicit JsonText(JsonStyle style) : style_(style) {}
    JsonText(const JsonText&) = delete;
    JsonText& operator=(const JsonText&) = delete;

    // Appends the text of `value`; false when it declines (see above), after
    // which the writer is of no further use. At most `max_depth` containers
    // may be open at once.
    bool write(PyObject* value, size_t max_depth, const KnownText* known = nullptr);

    const char* data() const { return text_.data(); }
    size_t size() const { return text_.size(); }
    // The deepest nesting of containers written so far.
    size_t depth() const { return deepest_; }

private:
    enum class Kind : unsigned char { value, key, item_separator, close_list, close_dict };
    struct Work {
        Kind kind;
        PyObject* object;
    };
    struct Item {
        PyObject* key;
        PyObject* value;
    };

    bool scalar(PyObject* value);
    void string(PyObject* value);
    bool open(PyObject* container, size_t max_depth);
    void close(PyObject* container);
    void add(char c) { text_.push_back(c); }
    void add(const char* text, size_t length) { text_.append(text, length); }

    JsonStyle style_;
    SmallVector<char, 2048> text_;
    SmallVector<Work, 64> work_;
    SmallVector<Item, 32> items_;
    // The containers open now, outermost first; past a few levels also in a
    // table, so that finding one stays cheap at any depth.
    SmallVector<PyObject*, 32> open_path_;
    PointerTable<bool> open_containers_;
    size_t depth_ = 0;
    size_t deepest_ = 0;
};

// How many containers json.dumps could open, called from here, before the
// interpreter's C recursion limit stops it with a RecursionError, less a
// margin for the calls between (json.dumps, JSONEncoder.encode, ...). Text of
// a value nested deeper comes from json.dumps itself, whatever it does.
size_t json_depth_budget();

// repr(value) of a float (finite or not), as float.__repr__ writes it: the
// shortest digits that read back as the same double, in positional notation
// for decimal exponents from -4 to 15, else in scientific notation.
void append_float_repr(SmallVector<char, 2048>& out, double value);

}  // namespace tallowmere

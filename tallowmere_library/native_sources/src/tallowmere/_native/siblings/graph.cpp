// tallowmere.simulation.graph_complexity: the size of an expression graph and
// its fingerprint, the SHA-256 of its canonical JSON
// (json.dumps(graph, sort_keys=True, separators=(",", ":"), allow_nan=False)).
//
// Both walk graphs made of the exact JSON types (dict with str keys, list,
// tuple, str, int, float, bool, None) without recursion and without running
// any Python code; a graph holding anything else, or one the module refuses,
// goes to the module's Python functions, which give the result or the error.
#include "_native/siblings/pointer_table.hpp"
#include "_native/siblings/sha256.hpp"
#include "_native/siblings/support.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>

namespace tallowmere::native {

namespace {

// a == b for two exact str objects.
bool same_text(PyObject* a, PyObject* b) {
    return a == b || (PyUnicode_GET_LENGTH(a) == PyUnicode_GET_LENGTH(b) && PyUnicode_Compare(a, b) == 0);
}

bool is_list_or_tuple(PyObject* value) { return PyList_CheckExact(value) || PyTuple_CheckExact(value); }

// ---- measure_graph_complexity -------------------------------------------------------------------

struct Measured {
    long long depth = 0;
    long long count = 0;
    bool open = false;
};

enum class Shape { leaf, branch, python };

// One node's own shape, as the Python implementation checks it; `python`
// when the Python implementation must judge it (a malformed node, or one
// built of other types than the exact JSON ones).
Shape node_shape(const Names& n, PyObject* node, PyObject** children) {
    if (!PyDict_CheckExact(node)) return Shape::python;
    Py_ssize_t position = 0;
    PyObject *key, *value;
    PyObject* op = nullptr;
    PyObject* args = nullptr;
    while (PyDict_Next(node, &position, &key, &value)) {
        if (!PyUnicode_CheckExact(key)) return Shape::python;
        if (same_text(key, n.sib_op)) {
            op = value;
        } else if (same_text(key, n.sib_args)) {
            args = value;
        } else if (PyFloat_CheckExact(value)) {
            if (!std::isfinite(PyFloat_AS_DOUBLE(value))) return Shape::python;
        } else if (!is_exact_scalar(value)) {
            return Shape::python;
        }
    }
    if (op == nullptr || !PyUnicode_CheckExact(op) || PyUnicode_GET_LENGTH(op) == 0) return Shape::python;
    if (args == nullptr) return Shape::leaf;
    if (!is_list_or_tuple(args)) return Shape::python;
    *children = args;
    return Shape::branch;
}

Py_ssize_t size_of(PyObject* sequence) {
    return PyList_CheckExact(sequence) ? PyList_GET_SIZE(sequence) : PyTuple_GET_SIZE(sequence);
}
PyObject* item_of(PyObject* sequence, Py_ssize_t index) {
    return PyList_CheckExact(sequence) ? PyList_GET_ITEM(sequence, index) : PyTuple_GET_ITEM(sequence, index);
}

// Depth and node count, or false when the Python implementation must measure
// the graph (a node it refuses, or a count beyond 64 bits).
bool measure(const Names& n, PyObject* graph, long long* depth_out, long long* count_out) {
    struct Frame {
        PyObject* node;
        PyObject* children;  // the node's checked children once opened
        bool opened;
    };
    SmallVector<Frame, 64> stack;
    stack.push_back({graph, nullptr, false});
    PointerTable<Measured> measured;
    while (!stack.empty()) {
        Frame frame = stack.back();
        stack.pop_back();
        if (frame.opened) {
            Measured result{1, 1, false};
            Py_ssize_t size = frame.children ? size_of(frame.children) : 0;
            for (Py_ssize_t i = 0; i < size; ++i) {
                const Measured* child = measured.find(item_of(frame.children, i));
                if (child->depth >= result.depth) result.depth = child->depth + 1;
                if (__builtin_add_overflow(result.count, child->count, &result.count)) return false;
            }
            measured.set(frame.node, result);
            continue;
        }
        if (const Measured* known = measured.find(frame.node)) {
            if (known->open) return false;  // the node contains itself
            continue;
        }
        PyObject* children = nullptr;
        Shape shape = node_shape(n, frame.node, &children);
        if (shape == Shape::python) return false;
        measured.set(frame.node, Measured{0, 0, true});
        stack.push_back({frame.node, children, true});
        for (Py_ssize_t i = children ? size_of(children) - 1 : -1; i >= 0; --i) {
            stack.push_back({item_of(children, i), nullptr, false});
        }
    }
    const Measured* root = measured.find(graph);
    *depth_out = root->depth;
    *count_out = root->count;
    return true;
}

constexpr auto measure_graph_complexity_signature =
    signature("measure_graph_complexity", Binding::module_function,
              "Check the shape of ``graph`` and return its depth and node count "
              "(compiled tallowmere.simulation.graph_complexity.measure_graph_complexity).",
              param("graph"));

Ref measure_graph_complexity(const Module& m, const Ref& graph) {
    const Names& n = m.n;
    long long depth = 0, count = 0;
    if (!sibling_intact(m, Sibling::graph_complexity) || !measure(n, graph.get(), &depth, &count)) {
        return call(python_implementation(m, Sibling::graph_complexity, n.sib_measure_graph_complexity), graph);
    }
    Ref cls = sibling_global(m, Sibling::graph_complexity, n.sib_GraphComplexity);
    return make_record(m, m.state().siblings.graph_complexity, cls.get(),
                       {{n.sib_depth, integer(depth)}, {n.sib_node_count, integer(count)}});
}

// ---- canonical JSON -------------------------------------------------------------------------

// The text json.dumps(value, sort_keys=True, separators=(",", ":"),
// allow_nan=False) gives, for values of the exact JSON types; `encode`
// answers false for anything else and for what json.dumps refuses.
class CanonicalJson {
public:
    bool encode(PyObject* value);
    const char* data() const { return text_.data(); }
    size_t size() const { return text_.size(); }

private:
    enum class Kind : unsigned char { value, key, comma, close_list, close_dict };
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
    bool open(PyObject* container);
    void add(char c) { text_.push_back(c); }
    void add(const char* text, size_t length) { text_.append(text, length); }
    void add(const char* text) { add(text, std::strlen(text)); }

    SmallVector<char, 1024> text_;
    SmallVector<Work, 64> work_;
    SmallVector<Item, 16> items_;
    PointerTable<bool> open_containers_;
};

// The escape json.dumps writes (with ensure_ascii) for a character it does
// not write as it is.
template <class Text>
void escape(Text& out, Py_UCS4 c) {
    static constexpr char digits[] = "0123456789abcdef";
    out.push_back('\\');
    switch (c) {
        case '\\':
        case '"':
            out.push_back(static_cast<char>(c));
            return;
        case '\b':
            out.push_back('b');
            return;
        case '\f':
            out.push_back('f');
            return;
        case '\n':
            out.push_back('n');
            return;
        case '\r':
            out.push_back('r');
            return;
        case '\t':
            out.push_back('t');
            return;
        default:
            break;
    }
    if (c >= 0x10000) {
        // A UTF-16 surrogate pair.
        Py_UCS4 high = 0xd800 | ((c - 0x10000) >> 10);
        out.push_back('u');
        for (int shift = 12; shift >= 0; shift -= 4) out.push_back(digits[(high >> shift) & 0xf]);
        c = 0xdc00 | ((c - 0x10000) & 0x3ff);
        out.push_back('\\');
    }
    out.push_back('u');
    for (int shift = 12; shift >= 0; shift -= 4) out.push_back(digits[(c >> shift) & 0xf]);
}

inline bool printable_ascii(Py_UCS4 c) { return c >= ' ' && c <= '~' && c != '\\' && c != '"'; }

void CanonicalJson::string(PyObject* value) {
    Py_ssize_t length = PyUnicode_GET_LENGTH(value);
    add('"');
    if (PyUnicode_IS_ASCII(value)) {
        const char* data = reinterpret_cast<const char*>(PyUnicode_1BYTE_DATA(value));
        Py_ssize_t start = 0;
        for (Py_ssize_t i = 0; i < length; ++i) {
            if (printable_ascii(static_cast<unsigned char>(data[i]))) continue;
            add(data + start, static_cast<size_t>(i - start));
            escape(text_, static_cast<unsigned char>(data[i]));
            start = i + 1;
        }
        add(data + start, static_cast<size_t>(length - start));
    } else {
        int kind = PyUnicode_KIND(value);
        const void* data = PyUnicode_DATA(value);
        for (Py_ssize_t i = 0; i < length; ++i) {
            Py_UCS4 c = PyUnicode_READ(kind, data, i);
            if (printable_ascii(c)) {
                add(static_cast<char>(c));
            } else {
                escape(text_, c);
            }
        }
    }
    add('"');
}

bool CanonicalJson::scalar(PyObject* value) {
    if (PyUnicode_CheckExact(value)) {
        string(value);
    } else if (value == Py_None) {
        add("null");
    } else if (value == Py_True) {
        add("true");
    } else if (value == Py_False) {
        add("false");
    } else if (PyLong_CheckExact(value)) {
        int overflow = 0;
        long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
        if (overflow == 0) {
            char digits[24];
            add(digits, static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, number).ptr - digits));
        } else {
            // int.__repr__, which refuses integers beyond the interpreter's digit limit.
            Ref digits = Ref::steal(PyLong_Type.tp_repr(value));
            if (!digits) return false;
            Py_ssize_t size = 0;
            const char* utf8 = PyUnicode_AsUTF8AndSize(digits.get(), &size);
            if (utf8 == nullptr) return false;
            add(utf8, static_cast<size_t>(size));
        }
    } else if (PyFloat_CheckExact(value)) {
        double number = PyFloat_AS_DOUBLE(value);
        if (!std::isfinite(number)) return false;
        // float.__repr__
        char* repr = PyOS_double_to_string(number, 'r', 0, Py_DTSF_ADD_DOT_0, nullptr);
        if (repr == nullptr) return false;
        add(repr);
        PyMem_Free(repr);
    } else {
        return false;
    }
    return true;
}

bool CanonicalJson::open(PyObject* container) {
    if (open_containers_.find(container)) return false;  // it contains itself
    open_containers_.set(container, true);
    return true;
}

bool CanonicalJson::encode(PyObject* root) {
    work_.push_back({Kind::value, root});
    while (!work_.empty()) {
        Work entry = work_.back();
        work_.pop_back();
        PyObject* value = entry.object;
        switch (entry.kind) {
            case Kind::comma:
                add(',');
                continue;
            case Kind::key:
                string(value);
                add(':');
                continue;
            case Kind::close_list:
                add(']');
                open_containers_.erase(value);
                continue;
            case Kind::close_dict:
                add('}');
                open_containers_.erase(value);
                continue;
            case Kind::value:
                break;
        }
        if (is_list_or_tuple(value)) {
            Py_ssize_t size = size_of(value);
            if (size == 0) {
                add("[]");
                continue;
            }
            if (!open(value)) return false;
            add('[');
            work_.push_back({Kind::close_list, value});
            for (Py_ssize_t i = size - 1; i >= 0; --i) {
                work_.push_back({Kind::value, item_of(value, i)});
                if (i > 0) work_.push_back({Kind::comma, nullptr});
            }
        } else if (PyDict_CheckExact(value)) {
            if (PyDict_GET_SIZE(value) == 0) {
                add("{}");
                continue;
            }
            if (!open(value)) return false;
            items_.clear();
            Py_ssize_t position = 0;
            PyObject *key, *member;
            while (PyDict_Next(value, &position, &key, &member)) {
                if (!PyUnicode_CheckExact(key)) return false;
                items_.push_back({key, member});
            }
            // Keys of one dict are distinct, so the order of the keys alone
            // decides, as sorting the (key, value) pairs does.
            std::sort(items_.begin(), items_.end(),
                      [](const Item& a, const Item& b) { return PyUnicode_Compare(a.key, b.key) < 0; });
            add('{');
            work_.push_back({Kind::close_dict, value});
            for (size_t i = items_.size(); i-- > 0;) {
                work_.push_back({Kind::value, items_[i].value});
                work_.push_back({Kind::key, items_[i].key});
                if (i > 0) work_.push_back({Kind::comma, nullptr});
            }
        } else if (!scalar(value)) {
            return false;
        }
    }
    return true;
}

// ---- the memo of recent fingerprints ----------------------------------------------------------
//
// A submission looks its graph's timing up and later consumes it, each time
// by the graph's fingerprint. The lookup remembers the graph it fingerprinted,
// with what proves it unchanged; the consumption takes that fingerprint when
// the graph is the same object and unchanged, instead of computing it again.
//
// The proof: the version tag of every dict in the graph (CPython 3.12 renews
// a dict's tag at each change of it) and the items of every list. The memo
// holds the graph and the items of its lists, so every object in it stays
// alive: a dict whose tag is unchanged still holds the same keys and values,
// a list whose items are the same objects is unchanged, a tuple cannot change,
// and the exact str, int, float, bool and None values a fingerprinted graph is
// made of cannot change either. Equal proof, equal canonical text.

// The items of the walk: for a dict its address and version tag, for a list
// its address, length and items, for a tuple its address; containers are
// entered in dict and list order.
using ShapeWords = SmallVector<uintptr_t, 32>;

uint64_t dict_version(PyObject* dict) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
#pragma GCC diagnostic pop
}

bool is_container(PyObject* value) { return PyDict_CheckExact(value) || is_list_or_tuple(value); }

// Calls note(word) for each item of the graph's shape in turn, and hold(item)
// for each list item; stops at the first false that note returns.
template <class Note, class Hold>
bool walk_shape(PyObject* graph, Note&& note, Hold&& hold) {
    SmallVector<PyObject*, 32> pending;
    if (is_container(graph)) pending.push_back(graph);
    while (!pending.empty()) {
        PyObject* container = pending.back();
        pending.pop_back();
        size_t first_child = pending.size();
        if (!note(reinterpret_cast<uintptr_t>(container))) return false;
        if (PyDict_CheckExact(container)) {
            if (!note(static_cast<uintptr_t>(dict_version(container)))) return false;
            Py_ssize_t position = 0;
            PyObject *key, *value;
            while (PyDict_Next(container, &position, &key, &value)) {
                if (is_container(value)) pending.push_back(value);
            }
        } else {
            bool list = PyList_CheckExact(container);
            Py_ssize_t size = size_of(container);
            if (list && !note(static_cast<uintptr_t>(size))) return false;
            for (Py_ssize_t i = 0; i < size; ++i) {
                PyObject* item = item_of(container, i);
                if (list) {
                    if (!note(reinterpret_cast<uintptr_t>(item))) return false;
                    hold(item);
                }
                if (is_container(item)) pending.push_back(item);
            }
        }
        // Children in their own order.
        std::reverse(pending.begin() + first_child, pending.end());
    }
    return true;
}

// One remembered graph (the pointer of a capsule).
struct MemoEntry {
    Ref graph;
    Ref fingerprint;
    ShapeWords shape;
    SmallVector<PyObject*, 16> held;  // strong references to the lists' items

    ~MemoEntry() {
        for (PyObject* item : held) Py_DECREF(item);
    }
};

constexpr const char memo_capsule_name[] = "tallowmere._native.fingerprint_memo";
constexpr size_t memo_max_shape = 1024;

MemoEntry* entry_of(PyObject* capsule) {
    return static_cast<MemoEntry*>(PyCapsule_GetPointer(capsule, memo_capsule_name));
}

void free_entry(PyObject* capsule) { delete entry_of(capsule); }

bool still_same(MemoEntry& entry) {
    size_t index = 0;
    size_t end = entry.shape.size();
    bool same = walk_shape(
        entry.graph.get(), [&](uintptr_t word) { return index < end && entry.shape[index++] == word; },
        [](PyObject*) {});
    return same && index == end;
}

// The fingerprint remembered for `graph` if the graph is unchanged; `take`
// forgets it at once.
Ref memo_lookup(SiblingsState& state, PyObject* graph, bool take) {
    for (int slot = 0; slot < fingerprint_memo_size; ++slot) {
        PyObject* capsule = state.fingerprint_memo[slot];
        if (capsule == nullptr) continue;
        MemoEntry& entry = *entry_of(capsule);
        if (entry.graph.get() != graph) continue;
        if (!still_same(entry)) return Ref();
        Ref fingerprint = entry.fingerprint;
        if (take) {
            Ref taken = Ref::steal(capsule);
            for (int i = slot; i + 1 < fingerprint_memo_size; ++i) {
                state.fingerprint_memo[i] = state.fingerprint_memo[i + 1];
            }
            state.fingerprint_memo[fingerprint_memo_size - 1] = nullptr;
        }
        return fingerprint;
    }
    return Ref();
}

void memo_store(SiblingsState& state, PyObject* graph, const Ref& fingerprint) {
    auto entry = std::make_unique<MemoEntry>();
    entry->graph = Ref(Borrowed(graph));
    entry->fingerprint = fingerprint;
    bool small = walk_shape(
        graph,
        [&](uintptr_t word) {
            entry->shape.push_back(word);
            return entry->shape.size() <= memo_max_shape;
        },
        [&](PyObject* item) { entry->held.push_back(Py_NewRef(item)); });
    if (!small) return;
    Ref capsule = Ref::checked(PyCapsule_New(entry.get(), memo_capsule_name, free_entry));
    entry.release();
    // Newest first; the oldest, or an earlier entry of the same graph, goes.
    int last = fingerprint_memo_size - 1;
    for (int slot = 0; slot < fingerprint_memo_size; ++slot) {
        PyObject* held = state.fingerprint_memo[slot];
        if (held == nullptr || entry_of(held)->graph.get() == graph) {
            last = slot;
            break;
        }
    }
    Ref dropped = Ref::steal(state.fingerprint_memo[last]);
    for (int i = last; i > 0; --i) state.fingerprint_memo[i] = state.fingerprint_memo[i - 1];
    state.fingerprint_memo[0] = capsule.release();
}

Ref hex_text(const char hex[64]) {
    Ref text = Ref::checked(PyUnicode_New(64, 127));
    std::memcpy(PyUnicode_1BYTE_DATA(text.get()), hex, 64);
    return text;
}

// ---- graph_fingerprint -----------------------------------------------------------------------

constexpr auto graph_fingerprint_signature =
    signature("graph_fingerprint", Binding::module_function,
              "Return the SHA-256 hex digest of the canonical JSON of ``graph`` "
              "(compiled tallowmere.simulation.graph_complexity.graph_fingerprint).",
              param("graph"));

Ref graph_fingerprint(const Module& m, const Ref& graph) { return fingerprint_graph(m, graph, Memo::consult); }

constexpr auto sha256_hexdigest_signature =
    signature("_sha256_hexdigest", Binding::module_function,
              "hashlib.sha256(data).hexdigest() for bytes, as fingerprints compute it; portable=True "
              "leaves the processor's SHA instructions unused.",
              param("data"), param("portable", none_default));

Ref sha256_hexdigest(const Module&, const Ref& data, const Ref& portable) {
    if (!PyBytes_CheckExact(data.get())) raise(PyExc_TypeError, "data must be bytes");
    char hex[64];
    sha256_hex(reinterpret_cast<const unsigned char*>(PyBytes_AS_STRING(data.get())),
               static_cast<size_t>(PyBytes_GET_SIZE(data.get())), hex,
               truthy(portable) ? Sha256Engine::portable : Sha256Engine::best);
    return hex_text(hex);
}

}  // namespace

Ref fingerprint_graph(const Module& m, const Ref& graph, Memo memo) {
    SiblingsState& state = m.state().siblings;
    if (sibling_intact(m, Sibling::graph_complexity)) {
        if (Ref known = memo_lookup(state, graph.get(), memo == Memo::take)) return known;
        CanonicalJson json;
        if (json.encode(graph.get())) {
            char hex[64];
            sha256_hex(reinterpret_cast<const unsigned char*>(json.data()), json.size(), hex);
            Ref fingerprint = hex_text(hex);
            if (memo == Memo::remember) memo_store(state, graph.get(), fingerprint);
            return fingerprint;
        }
        PyErr_Clear();
    }
    return call(python_implementation(m, Sibling::graph_complexity, m.n.sib_graph_fingerprint), graph);
}

namespace sibling_members {
const Member measure_graph_complexity =
    member<measure_graph_complexity_signature, tallowmere::native::measure_graph_complexity>();
const Member graph_fingerprint = member<graph_fingerprint_signature, tallowmere::native::graph_fingerprint>();
const Member sha256_hexdigest = member<sha256_hexdigest_signature, tallowmere::native::sha256_hexdigest>();
}  // namespace sibling_members

}  // namespace tallowmere::native

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
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

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
    std::vector<Frame> stack{{graph, nullptr, false}};
    PointerTable<Measured> measured;
    PyObject* const no_children = nullptr;
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
        PyObject* children = no_children;
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
    const std::string& text() const { return text_; }

private:
    enum class Kind : unsigned char { value, key, comma, close_list, close_dict };
    struct Work {
        Kind kind;
        PyObject* object;
    };

    bool scalar(PyObject* value);
    void string(PyObject* value);
    bool open(PyObject* container);

    std::string text_;
    std::vector<Work> work_;
    PointerTable<bool> open_containers_;
};

void escape(std::string& out, Py_UCS4 c) {
    static constexpr char digits[] = "0123456789abcdef";
    out += '\\';
    switch (c) {
        case '\\':
        case '"':
            out += static_cast<char>(c);
            return;
        case '\b':
            out += 'b';
            return;
        case '\f':
            out += 'f';
            return;
        case '\n':
            out += 'n';
            return;
        case '\r':
            out += 'r';
            return;
        case '\t':
            out += 't';
            return;
        default:
            break;
    }
    if (c >= 0x10000) {
        // A UTF-16 surrogate pair.
        Py_UCS4 high = 0xd800 | ((c - 0x10000) >> 10);
        out += 'u';
        for (int shift = 12; shift >= 0; shift -= 4) out += digits[(high >> shift) & 0xf];
        c = 0xdc00 | ((c - 0x10000) & 0x3ff);
        out += '\\';
    }
    out += 'u';
    for (int shift = 12; shift >= 0; shift -= 4) out += digits[(c >> shift) & 0xf];
}

inline bool printable_ascii(Py_UCS4 c) { return c >= ' ' && c <= '~' && c != '\\' && c != '"'; }

void CanonicalJson::string(PyObject* value) {
    Py_ssize_t length = PyUnicode_GET_LENGTH(value);
    text_ += '"';
    if (PyUnicode_IS_ASCII(value)) {
        const char* data = reinterpret_cast<const char*>(PyUnicode_1BYTE_DATA(value));
        Py_ssize_t start = 0;
        for (Py_ssize_t i = 0; i < length; ++i) {
            if (printable_ascii(static_cast<unsigned char>(data[i]))) continue;
            text_.append(data + start, static_cast<size_t>(i - start));
            escape(text_, static_cast<unsigned char>(data[i]));
            start = i + 1;
        }
        text_.append(data + start, static_cast<size_t>(length - start));
    } else {
        int kind = PyUnicode_KIND(value);
        const void* data = PyUnicode_DATA(value);
        for (Py_ssize_t i = 0; i < length; ++i) {
            Py_UCS4 c = PyUnicode_READ(kind, data, i);
            if (printable_ascii(c)) {
                text_ += static_cast<char>(c);
            } else {
                escape(text_, c);
            }
        }
    }
    text_ += '"';
}

bool CanonicalJson::scalar(PyObject* value) {
    if (PyUnicode_CheckExact(value)) {
        string(value);
    } else if (value == Py_None) {
        text_ += "null";
    } else if (value == Py_True) {
        text_ += "true";
    } else if (value == Py_False) {
        text_ += "false";
    } else if (PyLong_CheckExact(value)) {
        int overflow = 0;
        long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
        if (overflow == 0) {
            text_ += std::to_string(number);
        } else {
            // int.__repr__, which refuses integers beyond the interpreter's digit limit.
            Ref digits = Ref::steal(PyLong_Type.tp_repr(value));
            if (!digits) return false;
            Py_ssize_t size = 0;
            const char* utf8 = PyUnicode_AsUTF8AndSize(digits.get(), &size);
            if (utf8 == nullptr) return false;
            text_.append(utf8, static_cast<size_t>(size));
        }
    } else if (PyFloat_CheckExact(value)) {
        double number = PyFloat_AS_DOUBLE(value);
        if (!std::isfinite(number)) return false;
        // float.__repr__
        char* repr = PyOS_double_to_string(number, 'r', 0, Py_DTSF_ADD_DOT_0, nullptr);
        if (repr == nullptr) return false;
        text_ += repr;
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
    std::vector<std::pair<PyObject*, PyObject*>> items;
    while (!work_.empty()) {
        Work entry = work_.back();
        work_.pop_back();
        PyObject* value = entry.object;
        switch (entry.kind) {
            case Kind::comma:
                text_ += ',';
                continue;
            case Kind::key:
                string(value);
                text_ += ':';
                continue;
            case Kind::close_list:
                text_ += ']';
                open_containers_.erase(value);
                continue;
            case Kind::close_dict:
                text_ += '}';
                open_containers_.erase(value);
                continue;
            case Kind::value:
                break;
        }
        if (is_list_or_tuple(value)) {
            Py_ssize_t size = size_of(value);
            if (size == 0) {
                text_ += "[]";
                continue;
            }
            if (!open(value)) return false;
            text_ += '[';
            work_.push_back({Kind::close_list, value});
            for (Py_ssize_t i = size - 1; i >= 0; --i) {
                work_.push_back({Kind::value, item_of(value, i)});
                if (i > 0) work_.push_back({Kind::comma, nullptr});
            }
        } else if (PyDict_CheckExact(value)) {
            if (PyDict_GET_SIZE(value) == 0) {
                text_ += "{}";
                continue;
            }
            if (!open(value)) return false;
            items.clear();
            Py_ssize_t position = 0;
            PyObject *key, *member;
            while (PyDict_Next(value, &position, &key, &member)) {
                if (!PyUnicode_CheckExact(key)) return false;
                items.emplace_back(key, member);
            }
            // Keys of one dict are distinct, so the order of the keys alone
            // decides, as sorting the (key, value) pairs does.
            std::sort(items.begin(), items.end(),
                      [](const auto& a, const auto& b) { return PyUnicode_Compare(a.first, b.first) < 0; });
            text_ += '{';
            work_.push_back({Kind::close_dict, value});
            for (size_t i = items.size(); i-- > 0;) {
                work_.push_back({Kind::value, items[i].second});
                work_.push_back({Kind::key, items[i].first});
                if (i > 0) work_.push_back({Kind::comma, nullptr});
            }
        } else if (!scalar(value)) {
            return false;
        }
    }
    return true;
}

// ---- the memo of recent fingerprints ----------------------------------------------------------

// A graph's structure: every object in it, in dict and list order, each
// container followed by its members and closed by a marker. Two graphs with
// the same structure (by identity, the objects held so that they cannot be
// replaced by others at the same address) have the same canonical text:
// the exact types that appear in a fingerprinted graph cannot change their
// value or their type.
constexpr size_t memo_max_objects = 512;
PyObject* end_marker() { return Py_Ellipsis; }

bool is_container(PyObject* value) { return PyDict_CheckExact(value) || is_list_or_tuple(value); }

// Calls step(object) for each object of the structure in turn; stops at the
// first false and answers false.
template <class Step>
bool walk_structure(PyObject* graph, Step&& step) {
    struct Frame {
        PyObject* container;
        Py_ssize_t position;
    };
    std::vector<Frame> frames;
    if (!step(graph)) return false;
    if (is_container(graph)) frames.push_back({graph, 0});
    while (!frames.empty()) {
        Frame& top = frames.back();
        PyObject* next = nullptr;
        if (PyDict_CheckExact(top.container)) {
            PyObject* key;
            if (PyDict_Next(top.container, &top.position, &key, &next) && !step(key)) return false;
        } else if (top.position < size_of(top.container)) {
            next = item_of(top.container, top.position++);
        }
        if (next == nullptr) {
            frames.pop_back();
            if (!step(end_marker())) return false;
            continue;
        }
        if (!step(next)) return false;
        if (is_container(next)) frames.push_back({next, 0});
    }
    return true;
}

// The fingerprint remembered for `graph` if its structure is unchanged.
Ref memo_lookup(SiblingsState& state, PyObject* graph) {
    for (int slot = 0; slot < fingerprint_memo_size; ++slot) {
        PyObject* entry = state.fingerprint_memo[slot];
        if (entry == nullptr || PyTuple_GET_ITEM(entry, 0) != graph) continue;
        Py_ssize_t index = 2;
        Py_ssize_t end = PyTuple_GET_SIZE(entry);
        bool same = walk_structure(graph, [&](PyObject* object) {
            return index < end && PyTuple_GET_ITEM(entry, index++) == object;
        });
        if (!same || index != end) return Ref();
        // Most recent first.
        for (int i = slot; i > 0; --i) state.fingerprint_memo[i] = state.fingerprint_memo[i - 1];
        state.fingerprint_memo[0] = entry;
        return Ref(Borrowed(PyTuple_GET_ITEM(entry, 1)));
    }
    return Ref();
}

void memo_store(SiblingsState& state, PyObject* graph, const Ref& fingerprint) {
    std::vector<PyObject*> objects;
    bool small = walk_structure(graph, [&](PyObject* object) {
        objects.push_back(object);
        return objects.size() <= memo_max_objects;
    });
    if (!small) return;
    Ref entry = Ref::checked(PyTuple_New(static_cast<Py_ssize_t>(objects.size() + 2)));
    PyTuple_SET_ITEM(entry.get(), 0, Py_NewRef(graph));
    PyTuple_SET_ITEM(entry.get(), 1, Py_NewRef(fingerprint.get()));
    for (size_t i = 0; i < objects.size(); ++i) {
        PyTuple_SET_ITEM(entry.get(), static_cast<Py_ssize_t>(i + 2), Py_NewRef(objects[i]));
    }
    // The same graph is remembered once.
    int last = fingerprint_memo_size - 1;
    for (int slot = 0; slot < fingerprint_memo_size; ++slot) {
        PyObject* held = state.fingerprint_memo[slot];
        if (held != nullptr && PyTuple_GET_ITEM(held, 0) == graph) last = slot;
    }
    Ref dropped = Ref::steal(state.fingerprint_memo[last]);
    for (int i = last; i > 0; --i) state.fingerprint_memo[i] = state.fingerprint_memo[i - 1];
    state.fingerprint_memo[0] = entry.release();
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

Ref graph_fingerprint(const Module& m, const Ref& graph) { return fingerprint_graph(m, graph); }

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

Ref fingerprint_graph(const Module& m, const Ref& graph) {
    SiblingsState& state = m.state().siblings;
    if (sibling_intact(m, Sibling::graph_complexity)) {
        if (Ref known = memo_lookup(state, graph.get())) return known;
        CanonicalJson json;
        if (json.encode(graph.get())) {
            const std::string& text = json.text();
            char hex[64];
            sha256_hex(reinterpret_cast<const unsigned char*>(text.data()), text.size(), hex);
            Ref fingerprint = hex_text(hex);
            memo_store(state, graph.get(), fingerprint);
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

// tallowmere.simulation.graph_complexity: the size of an expression graph and
// its fingerprint, the SHA-256 of its canonical JSON
// (json.dumps(graph, sort_keys=True, separators=(",", ":"), allow_nan=False)).
//
// Both walk graphs made of the exact JSON types (dict with str keys, list,
// tuple, str, int, float, bool, None) without recursion and without running
// any Python code; a graph holding anything else, or one the module refuses,
// goes to the module's Python functions, which give the result or the error.
#include "core/containers.hpp"
#include "core/json_text.hpp"
#include "core/sha256.hpp"
#include "core/watch.hpp"
#include "_native/siblings/support.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>

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

}  // namespace

Ref measure_graph_complexity(const Module& m, const Ref& graph) {
    const Names& n = m.n;
    long long depth = 0, count = 0;
    if (!sibling_intact(m, Sibling::graph_complexity) || !measure(n, graph.get(), &depth, &count)) {
        return call(python_implementation(m, Sibling::graph_complexity, n.sib_measure_graph_complexity), graph);
    }
    Ref cls = sibling_global(m, Sibling::graph_complexity, n.sib_GraphComplexity);
    return make_record(m.state().siblings.graph_complexity, cls.get(),
                       {{n.sib_depth, integer(depth)}, {n.sib_node_count, integer(count)}});
}

namespace {

// ---- graph entries and the memo of recent fingerprints ------------------------------------------
//
// A submission looks its graph's timing up, later consumes it, and then keys
// its body, whose canonical text holds the graph's: three times the graph's
// canonical text. The lookup keeps an entry of the graph, its text and
// fingerprint, with what proves the graph unchanged; the later steps use the
// entry when the graph is the same object and unchanged, instead of
// encoding the graph again. The client holds the entry for the length of
// one submission (through the C API); calls from Python keep it in a memo of
// the last few graphs looked up, which the consumption empties.
//
// The proof: the version tag of every dict in the graph (CPython 3.12 renews
// a dict's tag at each change of it) and the items of every list. The entry
// holds the graph and the items of its lists, so every object in it stays
// alive: a dict whose tag is unchanged still holds the same keys and values,
// a list whose items are the same objects is unchanged, a tuple cannot change,
// and the exact str, int, float, bool and None values a fingerprinted graph is
// made of cannot change either. Equal proof, equal canonical text.

// The items of the walk: for a dict its address and version tag, for a list
// its address, length and items, for a tuple its address; containers are
// entered in dict and list order.
using ShapeWords = SmallVector<uintptr_t, 32>;

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

// One graph entry (the pointer of a capsule).
struct GraphEntry {
    Ref graph;
    Ref fingerprint;
    std::string text;  // the canonical JSON of the graph
    size_t depth = 0;  // how deeply containers nest in it
    ShapeWords shape;
    SmallVector<PyObject*, 16> held;  // strong references to the lists' items

    ~GraphEntry() {
        for (PyObject* item : held) Py_DECREF(item);
    }
};

constexpr const char entry_capsule_name[] = "tallowmere._native.graph_entry";
// Graphs whose proof would be longer get no entry: proving them unchanged
// would cost about as much as encoding them again.
constexpr size_t entry_max_shape = 1024;

GraphEntry* entry_of(PyObject* capsule) {
    if (!PyCapsule_IsValid(capsule, entry_capsule_name)) return nullptr;
    return static_cast<GraphEntry*>(PyCapsule_GetPointer(capsule, entry_capsule_name));
}

void free_entry(PyObject* capsule) { delete entry_of(capsule); }

bool still_same(GraphEntry& entry) {
    size_t index = 0;
    size_t end = entry.shape.size();
    bool same = walk_shape(
        entry.graph.get(), [&](uintptr_t word) { return index < end && entry.shape[index++] == word; },
        [](PyObject*) {});
    return same && index == end;
}

// The entry of `graph` if it is one and the graph is unchanged.
GraphEntry* current_entry(PyObject* capsule, PyObject* graph) {
    GraphEntry* entry = capsule != nullptr ? entry_of(capsule) : nullptr;  // None is no entry
    if (entry == nullptr || entry->graph.get() != graph || !still_same(*entry)) return nullptr;
    return entry;
}

Ref hex_text(const char hex[64]) {
    Ref text = Ref::checked(PyUnicode_New(64, 127));
    std::memcpy(PyUnicode_1BYTE_DATA(text.get()), hex, 64);
    return text;
}

// The fingerprint of the canonical text `json` holds.
Ref fingerprint_of_text(const JsonText& json) {
    char hex[64];
    sha256_hex(reinterpret_cast<const unsigned char*>(json.data()), json.size(), hex);
    return hex_text(hex);
}

// An entry of `graph`, whose canonical text `json` holds; empty when the
// graph is too large to keep an entry of.
Ref new_entry(PyObject* graph, const JsonText& json, const Ref& fingerprint) {
    auto entry = std::make_unique<GraphEntry>();
    entry->graph = Ref(Borrowed(graph));
    entry->fingerprint = fingerprint;
    bool small = walk_shape(
        graph,
        [&](uintptr_t word) {
            entry->shape.push_back(word);
            return entry->shape.size() <= entry_max_shape;
        },
        [&](PyObject* item) { entry->held.push_back(Py_NewRef(item)); });
    if (!small) return Ref();
    entry->text.assign(json.data(), json.size());
    entry->depth = json.depth();
    Ref capsule = Ref::checked(PyCapsule_New(entry.get(), entry_capsule_name, free_entry));
    entry.release();
    return capsule;
}

// The fingerprint remembered for `graph` if the graph is unchanged; `take`
// forgets it at once.
Ref memo_lookup(SiblingsState& state, PyObject* graph, bool take) {
    for (int slot = 0; slot < fingerprint_memo_size; ++slot) {
        PyObject* capsule = state.fingerprint_memo[slot];
        if (capsule == nullptr) continue;
        GraphEntry& entry = *entry_of(capsule);
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

void memo_store(SiblingsState& state, PyObject* graph, Ref capsule) {
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

Ref python_fingerprint(const Module& m, const Ref& graph) {
    return call(python_implementation(m, Sibling::graph_complexity, m.n.sib_graph_fingerprint), graph);
}

}  // namespace

Ref fingerprint_graph(const Module& m, const Ref& graph, Memo memo) {
    SiblingsState& state = m.state().siblings;
    if (sibling_intact(m, Sibling::graph_complexity)) {
        if (Ref known = memo_lookup(state, graph.get(), memo == Memo::take)) return known;
        JsonText json(canonical_json);
        if (json.write(graph.get(), SIZE_MAX)) {
            Ref fingerprint = fingerprint_of_text(json);
            if (memo == Memo::remember) {
                if (Ref entry = new_entry(graph.get(), json, fingerprint)) memo_store(state, graph.get(), entry);
            }
            return fingerprint;
        }
    }
    return python_fingerprint(m, graph);
}

Ref fingerprint_with_entry(const Module& m, const Ref& graph, Ref* entry) {
    *entry = Ref();
    if (sibling_intact(m, Sibling::graph_complexity)) {
        JsonText json(canonical_json);
        if (json.write(graph.get(), SIZE_MAX)) {
            Ref fingerprint = fingerprint_of_text(json);
            *entry = new_entry(graph.get(), json, fingerprint);
            return fingerprint;
        }
    }
    return python_fingerprint(m, graph);
}

Ref entry_fingerprint(PyObject* capsule, PyObject* graph) {
    GraphEntry* entry = current_entry(capsule, graph);
    return entry ? entry->fingerprint : Ref();
}

bool entry_text(PyObject* capsule, PyObject* graph, const char** text, size_t* size, size_t* depth) {
    GraphEntry* entry = current_entry(capsule, graph);
    if (entry == nullptr) return false;
    *text = entry->text.data();
    *size = entry->text.size();
    *depth = entry->depth;
    return true;
}

namespace sibling_members {
const Member measure_graph_complexity =
    member<measure_graph_complexity_signature, tallowmere::native::measure_graph_complexity>();
const Member graph_fingerprint = member<graph_fingerprint_signature, tallowmere::native::graph_fingerprint>();
const Member sha256_hexdigest = member<sha256_hexdigest_signature, tallowmere::native::sha256_hexdigest>();
}  // namespace sibling_members

}  // namespace tallowmere::native

#include "standard.hpp"

#include "core/sha256.hpp"

#include <cmath>
#include <cstring>
#include <optional>
#include <utility>

namespace tallowmere {

namespace {

StandardLibrary& standard(const Module& m) { return m.state().standard; }

// The module global `name` is `module`, the library module it imported.
bool global_is(const Module& m, PyObject* name, PyObject* module) {
    PyObject* current = PyDict_GetItemWithError(m.dict(), name);
    if (current == nullptr && PyErr_Occurred()) propagate();
    return current != nullptr && current == module;
}

bool json_encodes_as_captured(const Module& m) {
    StandardLibrary& s = standard(m);
    return global_is(m, m.n.json, s.json) && s.json_names.unchanged() && s.encoder_names.unchanged() &&
           s.encoder_methods.unchanged() && s.default_encoder.unchanged();
}

bool json_decodes_as_captured(const Module& m) {
    StandardLibrary& s = standard(m);
    return s.scan_once != nullptr && global_is(m, m.n.json, s.json) && s.json_names.unchanged() &&
           s.decoder_methods.unchanged() && s.default_decoder.unchanged();
}

bool hashlib_as_captured(const Module& m) {
    StandardLibrary& s = standard(m);
    return global_is(m, m.n.hashlib, s.hashlib) && s.hashlib_names.unchanged();
}

bool math_as_captured(const Module& m) {
    StandardLibrary& s = standard(m);
    return global_is(m, m.n.math, s.math) && s.math_names.unchanged();
}

Ref bytes_of(const JsonText& json) {
    return Ref::checked(PyBytes_FromStringAndSize(json.data(), static_cast<Py_ssize_t>(json.size())));
}

Ref hex_digest(const char* data, size_t size) {
    char hex[64];
    sha256_hex(reinterpret_cast<const unsigned char*>(data), size, hex);
    Ref text = Ref::checked(PyUnicode_New(64, 127));
    std::memcpy(PyUnicode_1BYTE_DATA(text.get()), hex, 64);
    return text;
}

PyObject* module_dict(const Ref& module) {
    if (!PyModule_Check(module.get())) raise(PyExc_TypeError, "not a module");
    return PyModule_GetDict(module.get());
}

// The type's own attribute dict (a class's __dict__ as the interpreter keeps it).
PyObject* type_dict(PyObject* cls) {
    if (!PyType_Check(cls)) raise(PyExc_TypeError, "not a class");
    return reinterpret_cast<PyTypeObject*>(cls)->tp_dict;
}

// An instance's __dict__, made a dict now if its attributes live in the object.
Ref instance_dict(const Ref& instance) { return Ref::checked(PyObject_GenericGetDict(instance.get(), nullptr)); }

// The settings json.dumps relies on when it hands a value to the default
// encoder: the instance's own, and the separators its class gives it.
bool default_encoder_settings(const Names& n, PyObject* instance_dict, PyObject* class_dict) {
    struct Setting {
        PyObject* name;
        PyObject* value;
    };
    const Setting settings[] = {
        {n.skipkeys, Py_False}, {n.ensure_ascii, Py_True}, {n.check_circular, Py_True}, {n.allow_nan, Py_True},
        {n.sort_keys, Py_False}, {n.indent, Py_None},
    };
    for (const Setting& setting : settings) {
        if (PyDict_GetItemWithError(instance_dict, setting.name) != setting.value) return false;
    }
    Ref item_separator = text(", "), key_separator = text(": ");
    for (auto [name, expected] : {std::pair{n.item_separator, &item_separator}, std::pair{n.key_separator, &key_separator}}) {
        PyObject* value = PyDict_GetItemWithError(class_dict, name);
        if (value == nullptr || !PyUnicode_CheckExact(value) || PyUnicode_Compare(value, expected->get()) != 0) return false;
    }
    return !PyErr_Occurred();
}

void capture(const Module& m, StandardLibrary& s) {
    const Names& n = m.n;
    Ref json = m.global(n.json);
    Ref hashlib = m.global(n.hashlib);
    Ref math = m.global(n.math);
    Py_XSETREF(s.json, Ref(json).release());
    Py_XSETREF(s.hashlib, Ref(hashlib).release());
    Py_XSETREF(s.math, Ref(math).release());

    s.json_names.capture(module_dict(json), {n.dumps, n.loads, n.detect_encoding, n.JSONEncoder,
                                                        n.JSONDecoder, n._default_encoder, n._default_decoder});
    Ref encoder_module = getattr(json, n.encoder);
    s.encoder_names.capture(module_dict(encoder_module), {n.c_make_encoder, n.encode_basestring_ascii});
    PyObject* encoder_class = type_dict(getattr(json, n.JSONEncoder).get());
    Ref default_encoder = getattr(json, n._default_encoder);
    Ref encoder_settings = instance_dict(default_encoder);
    if (default_encoder_settings(n, encoder_settings.get(), encoder_class)) {
        s.encoder_methods.capture(encoder_class,
                                  {n.__init__, n.encode, n.iterencode, n.default_, n.item_separator, n.key_separator});
        s.default_encoder.capture(encoder_settings.get(),
                                  {n.skipkeys, n.ensure_ascii, n.check_circular, n.allow_nan, n.sort_keys, n.indent},
                                  default_encoder.get(), {n.item_separator, n.key_separator});
    }
    s.decoder_methods.capture(type_dict(getattr(json, n.JSONDecoder).get()), {n.decode, n.raw_decode});
    Ref default_decoder = getattr(json, n._default_decoder);
    Ref decoder_attributes = instance_dict(default_decoder);
    Ref scanner = get_item(decoder_attributes, Borrowed(n.scan_once));
    s.default_decoder.capture(decoder_attributes.get(), {n.scan_once}, default_decoder.get());
    Py_XSETREF(s.scan_once, scanner.release());

    s.hashlib_names.capture(module_dict(hashlib), {n.sha256});
    s.math_names.capture(module_dict(math), {n.isinf, n.isfinite});
}

// json.detect_encoding(data) is "utf-8" for data that opens with an ASCII
// byte other than NUL followed by a byte other than NUL (no byte-order mark
// opens so).
bool plainly_utf8(const char* data, Py_ssize_t size) {
    auto byte = [&](Py_ssize_t i) { return static_cast<unsigned char>(data[i]); };
    return size >= 1 && byte(0) != 0 && byte(0) < 0x80 && (size < 2 || byte(1) != 0);
}

bool json_space(Py_UCS4 c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// What json.loads gives for UTF-8 `data`, or nothing when it must decide
// itself (the exceptions of the attempt are not the caller's to see).
std::optional<Ref> scan_json(const Module& m, const Ref& data) {
    const char* bytes = PyBytes_AS_STRING(data.get());
    Py_ssize_t size = PyBytes_GET_SIZE(data.get());
    if (!plainly_utf8(bytes, size)) return std::nullopt;
    auto attempt = [&]() -> std::optional<Ref> {
        Ref text = Ref::checked(PyUnicode_DecodeUTF8(bytes, size, "surrogatepass"));
        Py_ssize_t length = PyUnicode_GET_LENGTH(text.get());
        int kind = PyUnicode_KIND(text.get());
        const void* characters = PyUnicode_DATA(text.get());
        auto skip_space = [&](Py_ssize_t at) {
            while (at < length && json_space(PyUnicode_READ(kind, characters, at))) ++at;
            return at;
        };
        Ref scanner{Borrowed(standard(m).scan_once)};
        Ref scanned = call(scanner, text, integer(skip_space(0)));
        if (!PyTuple_CheckExact(scanned.get()) || PyTuple_GET_SIZE(scanned.get()) != 2) return std::nullopt;
        PyObject* end = PyTuple_GET_ITEM(scanned.get(), 1);
        if (!PyLong_CheckExact(end)) return std::nullopt;
        Py_ssize_t stop = PyLong_AsSsize_t(end);
        if (stop == -1 && PyErr_Occurred()) propagate();
        if (stop < 0 || skip_space(stop) != length) return std::nullopt;
        return Ref(Borrowed(PyTuple_GET_ITEM(scanned.get(), 0)));
    };
    try {
        return attempt();
    } catch (const PyErrorSet&) {
        // Only ordinary errors are retried; an interruption goes on.
        if (!PyErr_ExceptionMatches(PyExc_Exception)) throw;
        PyErr_Clear();
        return std::nullopt;
    }
}

}  // namespace

void capture_standard_library(PyObject* module, ModuleState* state) {
    // A library laid out otherwise leaves its calls to be made as written.
    try {
        capture(Module::of(module), state->standard);
    } catch (const PyErrorSet&) {
        if (!PyErr_ExceptionMatches(PyExc_Exception)) throw;
        PyErr_Clear();
    }
}

Ref json_dumps_bytes(const Module& m, const Ref& value) {
    if (json_encodes_as_captured(m)) {
        JsonText json(default_json);
        if (json.write(value.get(), json_depth_budget())) return bytes_of(json);
    }
    Ref serialised = call_method(m.global(m.n.json), m.n.dumps, value);
    return call_method(serialised, m.n.encode, Borrowed(m.n.utf_8));
}

// Writes the canonical text of `value` in place, if the module's json is
// still the one it imported (and the writer takes the value).
bool write_canonical(const Module& m, const Ref& value, const GraphAndEntry* graph, JsonText& json) {
    if (!json_encodes_as_captured(m)) return false;
    // The graph's text is checked current here, after the last Python code
    // that could have changed the graph and before the writer, which runs none.
    KnownText known{};
    bool have_text = graph != nullptr && calls::graph_text(m, graph->entry, graph->graph, &known);
    return json.write(value.get(), json_depth_budget(), have_text ? &known : nullptr);
}

Ref canonical_json_digest(const Module& m, const Ref& value, const GraphAndEntry* graph) {
    const Names& n = m.n;
    JsonText json(canonical_json);
    Ref encoded;
    if (!write_canonical(m, value, graph, json)) {
        Ref canonical = call_method_kw(m.global(n.json), n.dumps, {value},
                                       {{n.sort_keys, boolean(true)},
                                        {n.separators, Borrowed(m.state().canonical_separators)},
                                        {n.allow_nan, boolean(false)}});
        encoded = call_method(canonical, n.encode, Borrowed(n.utf_8));
    }
    if (hashlib_as_captured(m)) {
        if (!encoded) return hex_digest(json.data(), json.size());
        if (PyBytes_CheckExact(encoded.get())) {
            return hex_digest(PyBytes_AS_STRING(encoded.get()), static_cast<size_t>(PyBytes_GET_SIZE(encoded.get())));
        }
    }
    if (!encoded) encoded = bytes_of(json);
    return call_method(call_method(m.global(n.hashlib), n.sha256, encoded), n.hexdigest);
}

Ref json_loads(const Module& m, const Ref& data) {
    if (PyBytes_CheckExact(data.get()) && json_decodes_as_captured(m)) {
        if (std::optional<Ref> value = scan_json(m, data)) return *value;
    }
    return call_method(m.global(m.n.json), m.n.loads, data);
}

bool math_isinf(const Module& m, const Ref& value) {
    if (PyFloat_CheckExact(value.get()) && math_as_captured(m)) return std::isinf(PyFloat_AS_DOUBLE(value.get()));
    return truthy(call_method(m.global(m.n.math), m.n.isinf, value));
}

bool math_isfinite(const Module& m, const Ref& value) {
    if (PyFloat_CheckExact(value.get()) && math_as_captured(m)) return std::isfinite(PyFloat_AS_DOUBLE(value.get()));
    return truthy(call_method(m.global(m.n.math), m.n.isfinite, value));
}

}  // namespace tallowmere

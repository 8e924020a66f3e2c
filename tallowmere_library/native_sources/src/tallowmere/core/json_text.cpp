#include "core/json_text.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>

namespace tallowmere {

namespace {

bool is_list_or_tuple(PyObject* value) { return PyList_CheckExact(value) || PyTuple_CheckExact(value); }

Py_ssize_t size_of(PyObject* sequence) {
    return PyList_CheckExact(sequence) ? PyList_GET_SIZE(sequence) : PyTuple_GET_SIZE(sequence);
}

PyObject* item_of(PyObject* sequence, Py_ssize_t index) {
    return PyList_CheckExact(sequence) ? PyList_GET_ITEM(sequence, index) : PyTuple_GET_ITEM(sequence, index);
}

// The escape the encoder writes (with ensure_ascii) for a character it does
// not write as it is: the short escapes, else \uXXXX in lowercase hexadecimal,
// a UTF-16 surrogate pair beyond the Basic Multilingual Plane.
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
        Py_UCS4 high = 0xd800 | ((c - 0x10000) >> 10);
        out.push_back('u');
        for (int shift = 12; shift >= 0; shift -= 4) out.push_back(digits[(high >> shift) & 0xf]);
        c = 0xdc00 | ((c - 0x10000) & 0x3ff);
        out.push_back('\\');
    }
    out.push_back('u');
    for (int shift = 12; shift >= 0; shift -= 4) out.push_back(digits[(c >> shift) & 0xf]);
}

constexpr bool printable_ascii(Py_UCS4 c) { return c >= ' ' && c <= '~' && c != '\\' && c != '"'; }

// printable_ascii for each byte value.
constexpr auto printable_bytes = [] {
    std::array<unsigned char, 256> table{};
    for (unsigned c = 0; c < 256; ++c) table[c] = printable_ascii(c) ? 1 : 0;
    return table;
}();

// The open path is searched in place up to this depth, through the table beyond.
constexpr size_t path_scan_depth = 24;

// a < b in code point order, for exact str objects.
bool text_less(PyObject* a, PyObject* b) {
    if (PyUnicode_IS_ASCII(a) && PyUnicode_IS_ASCII(b)) {
        Py_ssize_t length_a = PyUnicode_GET_LENGTH(a), length_b = PyUnicode_GET_LENGTH(b);
        int order = std::memcmp(PyUnicode_1BYTE_DATA(a), PyUnicode_1BYTE_DATA(b),
                                static_cast<size_t>(length_a < length_b ? length_a : length_b));
        return order < 0 || (order == 0 && length_a < length_b);
    }
    return PyUnicode_Compare(a, b) < 0;
}

}  // namespace

void append_float_repr(SmallVector<char, 2048>& out, double value) {
    // The shortest round-trip digits in scientific form, "[-]d[.ddd]e(+|-)XX",
    // then laid out as float.__repr__ lays out the same digits.
    char buffer[40];
    const char* end = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific).ptr;
    const char* p = buffer;
    if (*p == '-') {
        out.push_back('-');
        ++p;
    }
    const char* mantissa = p;
    char digits[24];
    size_t count = 0;
    digits[count++] = *p++;
    if (*p == '.') {
        for (++p; *p != 'e'; ++p) digits[count++] = *p;
    }
    int exponent = 0;
    std::from_chars(p + (p[1] == '+' ? 2 : 1), end, exponent);
    // The position of the decimal point after the first digit's place.
    long point = static_cast<long>(exponent) + 1;
    if (point <= -4 || point > 16) {
        // Scientific: the same text ("1e-05", "1.5e+16").
        out.append(mantissa, static_cast<size_t>(end - mantissa));
        return;
    }
    if (point <= 0) {
        out.append("0.", 2);
        for (long i = point; i < 0; ++i) out.push_back('0');
        out.append(digits, count);
    } else if (static_cast<size_t>(point) >= count) {
        out.append(digits, count);
        for (size_t i = count; i < static_cast<size_t>(point); ++i) out.push_back('0');
        out.append(".0", 2);
    } else {
        out.append(digits, static_cast<size_t>(point));
        out.push_back('.');
        out.append(digits + point, count - static_cast<size_t>(point));
    }
}

size_t json_depth_budget() {
    // The C encoder enters the recursion guard once per container it opens.
    constexpr int margin = 64;
    int remaining = PyThreadState_Get()->c_recursion_remaining;
    return remaining > margin ? static_cast<size_t>(remaining - margin) : 0;
}

void JsonText::string(PyObject* value) {
    Py_ssize_t length = PyUnicode_GET_LENGTH(value);
    add('"');
    if (PyUnicode_IS_ASCII(value)) {
        const char* data = reinterpret_cast<const char*>(PyUnicode_1BYTE_DATA(value));
        // Most texts need no escape at all: one test over the whole text
        // (which the compiler vectorises), then one copy.
        unsigned plain = 1;
        for (Py_ssize_t i = 0; i < length; ++i) plain &= printable_bytes[static_cast<unsigned char>(data[i])];
        if (plain) {
            add(data, static_cast<size_t>(length));
            add('"');
            return;
        }
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

bool JsonText::scalar(PyObject* value) {
    if (PyUnicode_CheckExact(value)) {
        string(value);
    } else if (value == Py_None) {
        add("null", 4);
    } else if (value == Py_True) {
        add("true", 4);
    } else if (value == Py_False) {
        add("false", 5);
    } else if (PyLong_CheckExact(value)) {
        int overflow = 0;
        long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
        if (overflow == 0) {
            char digits[24];
            add(digits, static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, number).ptr - digits));
        } else {
            // int.__repr__, which refuses integers beyond the interpreter's digit limit.
            Ref digits = Ref::steal(PyLong_Type.tp_repr(value));
            Py_ssize_t size = 0;
            const char* utf8 = digits ? PyUnicode_AsUTF8AndSize(digits.get(), &size) : nullptr;
            if (utf8 == nullptr) {
                PyErr_Clear();
                return false;
            }
            add(utf8, static_cast<size_t>(size));
        }
    } else if (PyFloat_CheckExact(value)) {
        double number = PyFloat_AS_DOUBLE(value);
        if (std::isfinite(number)) {
            append_float_repr(text_, number);
        } else if (!style_.allow_nan) {
            return false;
        } else if (std::isnan(number)) {
            add("NaN", 3);
        } else if (number > 0) {
            add("Infinity", 8);
        } else {
            add("-Infinity", 9);
        }
    } else {
        return false;
    }
    return true;
}

bool JsonText::open(PyObject* container, size_t max_depth) {
    if (depth_ >= max_depth) return false;
    // A container met again while it is open contains itself.
    size_t scanned = std::min(open_path_.size(), path_scan_depth);
    for (size_t i = 0; i < scanned; ++i) {
        if (open_path_[i] == container) return false;
    }
    if (open_path_.size() >= path_scan_depth) {
        if (open_containers_.find(container)) return false;
        open_containers_.set(container, true);
    }
    open_path_.push_back(container);
    deepest_ = std::max(deepest_, ++depth_);
    return true;
}

void JsonText::close(PyObject* container) {
    open_path_.pop_back();
    if (open_path_.size() >= path_scan_depth) open_containers_.erase(container);
    --depth_;
}

bool JsonText::write(PyObject* root, size_t max_depth, const KnownText* known) {
    const char* item_separator = style_.compact ? "," : ", ";
    const char* key_separator = style_.compact ? ":" : ": ";
    const size_t separator_length = style_.compact ? 1 : 2;
    size_t base = work_.size();
    work_.push_back({Kind::value, root});
    while (work_.size() > base) {
        Work entry = work_.back();
        work_.pop_back();
        PyObject* value = entry.object;
        switch (entry.kind) {
            case Kind::item_separator:
                add(item_separator, separator_length);
                continue;
            case Kind::key:
                string(value);
                add(key_separator, separator_length);
                continue;
            case Kind::close_list:
                add(']');
                close(value);
                continue;
            case Kind::close_dict:
                add('}');
                close(value);
                continue;
            case Kind::value:
                break;
        }
        if (known != nullptr && value == known->value) {
            if (depth_ + known->depth > max_depth) return false;
            deepest_ = std::max(deepest_, depth_ + known->depth);
            add(known->text, known->size);
        } else if (is_list_or_tuple(value)) {
            Py_ssize_t size = size_of(value);
            if (size == 0) {
                // Opened and closed at once: it still counts as one level.
                if (depth_ >= max_depth) return false;
                deepest_ = std::max(deepest_, depth_ + 1);
                add("[]", 2);
                continue;
            }
            if (!open(value, max_depth)) return false;
            add('[');
            work_.push_back({Kind::close_list, value});
            for (Py_ssize_t i = size - 1; i >= 0; --i) {
                work_.push_back({Kind::value, item_of(value, i)});
                if (i > 0) work_.push_back({Kind::item_separator, nullptr});
            }
        } else if (PyDict_CheckExact(value)) {
            if (PyDict_GET_SIZE(value) == 0) {
                if (depth_ >= max_depth) return false;
                deepest_ = std::max(deepest_, depth_ + 1);
                add("{}", 2);
                continue;
            }
            if (!open(value, max_depth)) return false;
            items_.clear();
            Py_ssize_t position = 0;
            PyObject *key, *member;
            while (PyDict_Next(value, &position, &key, &member)) {
                if (!PyUnicode_CheckExact(key)) return false;
                items_.push_back({key, member});
            }
            if (style_.sort_keys) {
                // Keys of one dict are distinct, so the order of the keys alone
                // decides, as sorting the (key, value) pairs does.
                std::sort(items_.begin(), items_.end(), [](const Item& a, const Item& b) { return text_less(a.key, b.key); });
            }
            add('{');
            work_.push_back({Kind::close_dict, value});
            for (size_t i = items_.size(); i-- > 0;) {
                work_.push_back({Kind::value, items_[i].value});
                work_.push_back({Kind::key, items_[i].key});
                if (i > 0) work_.push_back({Kind::item_separator, nullptr});
            }
        } else if (!scalar(value)) {
            return false;
        }
    }
    return true;
}

}  // namespace tallowmere

#include "core/python.hpp"

#include <cstdarg>
#include <vector>

namespace tallowmere {

namespace {

// Argument vector of a keyword call: positional values, keyword values, and the
// tuple of keyword names. One spare slot in front, as `call` keeps.
struct KeywordCall {
    KeywordCall(std::initializer_list<Arg> leading, std::initializer_list<Arg> positional,
                std::initializer_list<Kw> keywords)
        : positional_count(leading.size() + positional.size()),
          names(Ref::checked(PyTuple_New(static_cast<Py_ssize_t>(keywords.size())))) {
        argv.reserve(1 + positional_count + keywords.size());
        argv.push_back(nullptr);
        for (Arg value : leading) argv.push_back(value.get());
        for (Arg value : positional) argv.push_back(value.get());
        Py_ssize_t i = 0;
        for (const Kw& keyword : keywords) {
            argv.push_back(keyword.value.get());
            PyTuple_SET_ITEM(names.get(), i++, Py_NewRef(keyword.name));
        }
    }
    size_t nargsf() const { return positional_count | PY_VECTORCALL_ARGUMENTS_OFFSET; }
    PyObject* const* args() const { return argv.data() + 1; }
    PyObject* kwnames() const { return PyTuple_GET_SIZE(names.get()) ? names.get() : nullptr; }

    size_t positional_count;
    std::vector<PyObject*> argv;
    Ref names;
};

}  // namespace

Ref call_kw(const Ref& callable, std::initializer_list<Arg> positional, std::initializer_list<Kw> keywords) {
    KeywordCall c({}, positional, keywords);
    return Ref::checked(PyObject_Vectorcall(callable.get(), c.args(), c.nargsf(), c.kwnames()));
}

Ref call_method_kw(const Ref& self, PyObject* name, std::initializer_list<Arg> positional,
                   std::initializer_list<Kw> keywords) {
    KeywordCall c({self}, positional, keywords);
    return Ref::checked(PyObject_VectorcallMethod(name, c.args(), c.nargsf(), c.kwnames()));
}

FoundMethod find_method(const Ref& self, PyObject* name) {
    PyObject* callable = nullptr;
    int unbound = _PyObject_GetMethod(self.get(), name, &callable);
    if (callable == nullptr) propagate();
    return {Ref::steal(callable), unbound != 0};
}

Ref call_found(const FoundMethod& found, const Ref& self, std::initializer_list<Arg> positional,
               std::initializer_list<Kw> keywords) {
    if (found.unbound) {
        KeywordCall c({self}, positional, keywords);
        return Ref::checked(PyObject_Vectorcall(found.callable.get(), c.args(), c.nargsf(), c.kwnames()));
    }
    KeywordCall c({}, positional, keywords);
    return Ref::checked(PyObject_Vectorcall(found.callable.get(), c.args(), c.nargsf(), c.kwnames()));
}

Ref call_global_kw(const ModuleBase& m, PyObject* name, std::initializer_list<Arg> positional,
                   std::initializer_list<Kw> keywords) {
    Ref callable = m.global(name);
    return call_kw(callable, positional, keywords);
}

// ---- attributes ---------------------------------------------------------------

Ref getattr(const Ref& object, PyObject* name) { return Ref::checked(PyObject_GetAttr(object.get(), name)); }

Ref getattr_or(const Ref& object, PyObject* name, const Ref& fallback) {
    PyObject* value = PyObject_GetAttr(object.get(), name);
    if (value != nullptr) return Ref::steal(value);
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) propagate();
    PyErr_Clear();
    return Ref(fallback);
}

bool hasattr(const Ref& object, PyObject* name) {
    PyObject* value = PyObject_GetAttr(object.get(), name);
    if (value != nullptr) {
        Py_DECREF(value);
        return true;
    }
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) propagate();
    PyErr_Clear();
    return false;
}

void setattr(const Ref& object, PyObject* name, const Ref& value) {
    check_status(PyObject_SetAttr(object.get(), name, value.get()));
}

// ---- containers --------------------------------------------------------------

Ref new_dict() { return Ref::checked(PyDict_New()); }
Ref new_list() { return Ref::checked(PyList_New(0)); }

namespace {

// The value of an exact dict as a new reference, or nothing when the key is missing.
std::optional<Ref> exact_dict_value(const Ref& dict, const Ref& key) {
    PyObject* value = PyDict_GetItemWithError(dict.get(), key.get());
    if (value != nullptr) return Ref(Borrowed(value));
    if (PyErr_Occurred()) propagate();
    return std::nullopt;
}

}  // namespace

Ref mapping_get_by(PyObject* get_name, const Ref& mapping, const Ref& key) {
    if (PyDict_CheckExact(mapping.get())) return exact_dict_value(mapping, key).value_or(Ref(none()));
    return call_method(mapping, get_name, key);
}

Ref mapping_get_or_by(PyObject* get_name, const Ref& mapping, const Ref& key, const Ref& fallback) {
    if (PyDict_CheckExact(mapping.get())) return exact_dict_value(mapping, key).value_or(fallback);
    return call_method(mapping, get_name, key, fallback);
}

void set_item(const Ref& mapping, const Ref& key, const Ref& value) {
    if (PyDict_CheckExact(mapping.get())) {
        check_status(PyDict_SetItem(mapping.get(), key.get(), value.get()));
    } else {
        check_status(PyObject_SetItem(mapping.get(), key.get(), value.get()));
    }
}

Ref get_item(const Ref& container, const Ref& key) { return Ref::checked(PyObject_GetItem(container.get(), key.get())); }

bool contains(const Ref& container, const Ref& key) {
    return check_status(PySequence_Contains(container.get(), key.get())) != 0;
}

void list_append(const Ref& list, const Ref& item) { check_status(PyList_Append(list.get(), item.get())); }

void list_extend(const Ref& list, const Ref& items) {
    Ref extended = Ref::checked(PySequence_InPlaceConcat(list.get(), items.get()));
}

Py_ssize_t length(const Ref& object) {
    Py_ssize_t size = PyObject_Length(object.get());
    if (size < 0) propagate();
    return size;
}

Ref new_tuple(std::initializer_list<Arg> items) {
    Ref tuple = Ref::checked(PyTuple_New(static_cast<Py_ssize_t>(items.size())));
    Py_ssize_t i = 0;
    for (Arg item : items) PyTuple_SET_ITEM(tuple.get(), i++, Py_NewRef(item.get()));
    return tuple;
}

Ref slice(const Ref& sequence, Py_ssize_t start, Py_ssize_t stop) {
    return Ref::checked(PySequence_GetSlice(sequence.get(), start, stop));
}

Ref slice_to(const Ref& sequence, const Ref& stop) {
    Ref bounds = Ref::checked(PySlice_New(nullptr, stop.get(), nullptr));
    return get_item(sequence, bounds);
}

Ref only_member(const Ref& set) {
    Ref iterator = Ref::checked(PyObject_GetIter(set.get()));
    PyObject* member = PyIter_Next(iterator.get());
    if (member == nullptr && !PyErr_Occurred()) PyErr_SetNone(PyExc_StopIteration);
    return Ref::checked(member);
}

// ---- text ----------------------------------------------------------------------

Ref text(const char* utf8) { return Ref::checked(PyUnicode_FromString(utf8)); }
Ref str(const Ref& value) { return Ref::checked(PyObject_Str(value.get())); }
Ref repr(const Ref& value) { return Ref::checked(PyObject_Repr(value.get())); }

Ref format(const Ref& value) {
    if (PyUnicode_CheckExact(value.get())) return Ref(value);
    return Ref::checked(PyObject_Format(value.get(), nullptr));
}

Ref concat(std::initializer_list<Arg> parts) {
    Ref pieces = new_tuple(parts);
    Ref separator = Ref::checked(PyUnicode_FromStringAndSize("", 0));
    return Ref::checked(PyUnicode_Join(separator.get(), pieces.get()));
}

Ref format_text(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    PyObject* result = PyUnicode_FromFormatV(format, arguments);
    va_end(arguments);
    return Ref::checked(result);
}

// ---- numbers and comparisons --------------------------------------------------

Ref integer(long long value) { return Ref::checked(PyLong_FromLongLong(value)); }
Ref floating(double value) { return Ref::checked(PyFloat_FromDouble(value)); }

Ref to_int(const Ref& value) {
    if (PyLong_CheckExact(value.get())) return Ref(value);
    return Ref::checked(PyNumber_Long(value.get()));
}

long long as_long_long(const Ref& value) {
    long long result = PyLong_AsLongLong(value.get());
    if (result == -1 && PyErr_Occurred()) propagate();
    return result;
}

bool equals(const Ref& a, const Ref& b) { return compare(a, b, Py_EQ); }

bool compare(const Ref& a, const Ref& b, int op) {
    return check_status(PyObject_RichCompareBool(a.get(), b.get(), op)) != 0;
}

std::pair<Ref, Ref> unpack_pair(const Ref& result) {
    if (PyTuple_CheckExact(result.get()) && PyTuple_GET_SIZE(result.get()) == 2) {
        return {Ref(Borrowed(PyTuple_GET_ITEM(result.get(), 0))), Ref(Borrowed(PyTuple_GET_ITEM(result.get(), 1)))};
    }
    PyObject* iterable = PyObject_GetIter(result.get());
    if (iterable == nullptr) {
        // The interpreter's own wording for `a, b = value` when value cannot be iterated.
        if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(result.get())->tp_iter == nullptr &&
            !PySequence_Check(result.get())) {
            PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(result.get())->tp_name);
        }
        propagate();
    }
    Ref iterator = Ref::steal(iterable);
    Ref values[2];
    for (int i = 0; i < 2; ++i) {
        values[i] = Ref::steal(PyIter_Next(iterator.get()));
        if (!values[i]) {
            if (PyErr_Occurred()) propagate();
            PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected 2, got %d)", i);
            propagate();
        }
    }
    Ref extra = Ref::steal(PyIter_Next(iterator.get()));
    if (extra) raise_value_error("too many values to unpack (expected 2)");
    if (PyErr_Occurred()) propagate();
    return {std::move(values[0]), std::move(values[1])};
}

// ---- raising ---------------------------------------------------------------------

void raise(PyObject* type, const char* message) {
    PyErr_SetString(type, message);
    propagate();
}

void raise(PyObject* type, const Ref& message) {
    PyErr_SetObject(type, message.get());
    propagate();
}

void raise_value_error(const char* message) { raise(PyExc_ValueError, message); }
void raise_value_error(const Ref& message) { raise(PyExc_ValueError, message); }

void raise_from(PyObject* type, const char* message, const Ref& cause) {
    raise_instance_from(call(Borrowed(type), text(message)), cause);
}

namespace {

// The exception instance `raise value` raises (the interpreter's do_raise).
Ref exception_to_raise(const Ref& value) {
    if (PyExceptionInstance_Check(value.get())) return value;
    if (PyExceptionClass_Check(value.get())) {
        Ref instance = Ref::checked(PyObject_CallNoArgs(value.get()));
        if (!PyExceptionInstance_Check(instance.get())) {
            PyErr_Format(PyExc_TypeError, "calling %R should have returned an instance of BaseException, not %R",
                         value.get(), Py_TYPE(instance.get()));
            propagate();
        }
        return instance;
    }
    raise(PyExc_TypeError, "exceptions must derive from BaseException");
}

[[noreturn]] void set_raised(const Ref& exception) {
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exception.get())), exception.get());
    propagate();
}

}  // namespace

void raise_instance(const Ref& value) { set_raised(exception_to_raise(value)); }

void raise_instance_from(const Ref& value, const Ref& cause) {
    Ref exception = exception_to_raise(value);
    Ref fixed_cause;
    if (PyExceptionClass_Check(cause.get())) {
        fixed_cause = Ref::checked(PyObject_CallNoArgs(cause.get()));
        if (!PyExceptionInstance_Check(fixed_cause.get())) {
            PyErr_Format(PyExc_TypeError, "calling %R should have returned an instance of BaseException, not %R",
                         cause.get(), Py_TYPE(fixed_cause.get()));
            propagate();
        }
    } else if (PyExceptionInstance_Check(cause.get())) {
        fixed_cause = cause;
    } else if (!cause.is_none()) {
        raise(PyExc_TypeError, "exception causes must derive from BaseException");
    }
    // Steals the new reference; a NULL cause clears __cause__ and sets __suppress_context__.
    PyException_SetCause(exception.get(), fixed_cause.release());
    set_raised(exception);
}

bool Caught::matches(const Ref& types) const {
    auto invalid = [](PyObject* candidate) { return !PyExceptionClass_Check(candidate); };
    bool rejected = false;
    if (PyTuple_Check(types.get())) {
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(types.get()) && !rejected; ++i) {
            rejected = invalid(PyTuple_GET_ITEM(types.get(), i));
        }
    } else {
        rejected = invalid(types.get());
    }
    if (rejected) raise(PyExc_TypeError, "catching classes that do not inherit from BaseException is not allowed");
    return PyErr_GivenExceptionMatches(exception_.get(), types.get()) != 0;
}

void Caught::reraise() const {
    PyErr_SetRaisedException(Ref(exception_).release());
    propagate();
}

}  // namespace tallowmere

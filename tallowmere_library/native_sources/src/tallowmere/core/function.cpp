#include "core/function.hpp"

#include "core/python.hpp"

#include <vector>

namespace tallowmere {

namespace {

// The parameters as the interpreter sees them: an instance method's `self`
// first, then the declared ones.
class Parameters {
public:
    explicit Parameters(const SignatureView& signature)
        : signature_(signature), self_(signature.binding == Binding::instance_method ? 1 : 0) {}

    size_t size() const { return signature_.count + self_; }
    const Param& operator[](size_t i) const { return i < self_ ? self_param : signature_.params[i - self_]; }
    const char* qualname() const { return signature_.qualname; }

private:
    static constexpr Param self_param = param("self");
    const SignatureView& signature_;
    size_t self_;
};

bool name_matches(PyObject* keyword, const Param& p) {
    if (!PyUnicode_Check(keyword) || !PyUnicode_IS_COMPACT_ASCII(keyword)) return false;
    return static_cast<size_t>(PyUnicode_GET_LENGTH(keyword)) == p.name_length &&
           std::memcmp(PyUnicode_DATA(keyword), p.name, p.name_length) == 0;
}

// 'a' / 'a' and 'b' / 'a', 'b', and 'c'
Ref quoted_list(const std::vector<const Param*>& names) {
    std::string joined;
    for (size_t i = 0; i < names.size(); ++i) {
        if (i > 0) joined += names.size() == 2 ? " and " : (i + 1 == names.size() ? ", and " : ", ");
        joined += "'";
        joined += names[i]->name;
        joined += "'";
    }
    return text(joined.c_str());
}

[[noreturn]] void raise_missing(const Parameters& params, const std::vector<const Param*>& missing,
                                const char* kind) {
    Ref names = quoted_list(missing);
    Ref qualname = text(params.qualname());
    PyErr_Format(PyExc_TypeError, "%U() missing %zd required %s argument%s: %U", qualname.get(),
                 static_cast<Py_ssize_t>(missing.size()), kind, missing.size() == 1 ? "" : "s", names.get());
    propagate();
}

[[noreturn]] void raise_too_many_positional(const Parameters& params, Py_ssize_t given,
                                            Py_ssize_t keyword_only_given) {
    Py_ssize_t maximum = 0, minimum = 0;
    for (size_t i = 0; i < params.size(); ++i) {
        const Param& p = params[i];
        if (p.kind != ParamKind::positional_or_keyword) continue;
        ++maximum;
        if (p.default_value.type == DefaultValue::Type::required) ++minimum;
    }
    Ref accepted = minimum == maximum ? format_text("%zd positional argument%s", maximum, maximum == 1 ? "" : "s")
                                      : format_text("from %zd to %zd positional arguments", minimum, maximum);
    Ref keyword_note = keyword_only_given == 0
                           ? text("")
                           : format_text(" positional argument%s (and %zd keyword-only argument%s)",
                                         given == 1 ? "" : "s", keyword_only_given,
                                         keyword_only_given == 1 ? "" : "s");
    Ref qualname = text(params.qualname());
    PyErr_Format(PyExc_TypeError, "%U() takes %U but %zd%U %s given", qualname.get(), accepted.get(), given,
                 keyword_note.get(), (given == 1 && keyword_only_given == 0) ? "was" : "were");
    propagate();
}

}  // namespace

void parse_arguments(const ModuleBase& m, const SignatureView& signature, PyObject* const* args, Py_ssize_t nargs,
                     PyObject* kwnames, PyObject** out) {
    const Parameters params(signature);
    Py_ssize_t positional_params = 0;
    for (size_t i = 0; i < params.size(); ++i) {
        if (params[i].kind == ParamKind::positional_or_keyword) ++positional_params;
    }
    Py_ssize_t taken = nargs < positional_params ? nargs : positional_params;
    for (Py_ssize_t i = 0; i < taken; ++i) out[i] = args[i];

    Py_ssize_t keyword_count = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
    Py_ssize_t keyword_only_given = 0;
    for (Py_ssize_t k = 0; k < keyword_count; ++k) {
        PyObject* keyword = PyTuple_GET_ITEM(kwnames, k);
        size_t index = params.size();
        for (size_t i = 0; i < params.size(); ++i) {
            if (name_matches(keyword, params[i])) {
                index = i;
                break;
            }
        }
        if (index == params.size()) {
            // Slow path: a keyword that is not compact ASCII text can still equal a name.
            for (size_t i = 0; i < params.size() && PyUnicode_Check(keyword); ++i) {
                if (PyUnicode_CompareWithASCIIString(keyword, params[i].name) == 0) {
                    index = i;
                    break;
                }
            }
        }
        if (index == params.size()) {
            Ref qualname = text(params.qualname());
            PyErr_Format(PyExc_TypeError, "%U() got an unexpected keyword argument '%S'", qualname.get(), keyword);
            propagate();
        }
        if (out[index] != nullptr) {
            Ref qualname = text(params.qualname());
            PyErr_Format(PyExc_TypeError, "%U() got multiple values for argument '%S'", qualname.get(), keyword);
            propagate();
        }
        if (params[index].kind == ParamKind::keyword_only) ++keyword_only_given;
        out[index] = args[nargs + k];
    }

    if (nargs > positional_params) raise_too_many_positional(params, nargs, keyword_only_given);

    std::vector<const Param*> missing;
    for (ParamKind kind : {ParamKind::positional_or_keyword, ParamKind::keyword_only}) {
        for (size_t i = 0; i < params.size(); ++i) {
            const Param& p = params[i];
            if (p.kind == kind && out[i] == nullptr && p.default_value.type == DefaultValue::Type::required) {
                missing.push_back(&p);
            }
        }
        if (!missing.empty()) {
            raise_missing(params, missing, kind == ParamKind::keyword_only ? "keyword-only" : "positional");
        }
    }

    for (size_t i = 0; i < params.size(); ++i) {
        if (out[i] != nullptr) continue;
        const DefaultValue& d = params[i].default_value;
        out[i] = d.type == DefaultValue::Type::none ? Py_None : d.constant(m);
    }
}

std::string signature_docstring(const SignatureView& signature) {
    std::string result = unqualified_name(signature.qualname);
    result += "($module, /";
    bool star_written = false;
    for (size_t i = 0; i < signature.count; ++i) {
        const Param& p = signature.params[i];
        if (p.kind == ParamKind::keyword_only && !star_written) {
            result += ", *";
            star_written = true;
        }
        result += ", ";
        result += p.name;
        if (p.default_value.type != DefaultValue::Type::required) {
            result += "=";
            result += p.default_value.text;
        }
    }
    result += ")\n--\n\n";
    if (signature.doc != nullptr) result += signature.doc;
    return result;
}

const char* unqualified_name(const char* qualname) {
    const char* dot = std::strrchr(qualname, '.');
    return dot ? dot + 1 : qualname;
}

}  // namespace tallowmere

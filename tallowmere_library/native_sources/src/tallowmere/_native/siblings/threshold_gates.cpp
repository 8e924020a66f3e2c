// tallowmere.submissions.threshold_gates: the gates a signal's in-sample
// statistics must pass.
//
// The fast path takes metrics and thresholds as exact dicts (or None) whose
// threshold keys are exact str (or other exact scalars, which are no gates)
// and whose values are exact numbers; a threshold the module refuses, or any
// other input, goes to the Python implementation.
#include "_native/siblings/support.hpp"

#include <cmath>
#include <vector>

namespace tallowmere::native {

namespace {

constexpr Sibling here = Sibling::threshold_gates;

constexpr auto evaluate_threshold_gates_signature = signature(
    "evaluate_threshold_gates", Binding::module_function,
    "Evaluate every gate named by the merged thresholds against ``metrics`` "
    "(compiled tallowmere.submissions.threshold_gates.evaluate_threshold_gates).",
    keyword_only("metrics"), keyword_only("threshold_set"), keyword_only("pool_thresholds"));

// None, or an exact dict whose keys are exact scalars.
bool plain_thresholds(PyObject* thresholds) {
    if (thresholds == Py_None) return true;
    if (!PyDict_CheckExact(thresholds)) return false;
    Py_ssize_t position = 0;
    PyObject *key, *value;
    while (PyDict_Next(thresholds, &position, &key, &value)) {
        if (!is_exact_scalar(key)) return false;
    }
    return true;
}

// key.startswith(prefix) and len(key) > len(prefix), for an exact str key.
bool starts_with(PyObject* key, const char* prefix, Py_ssize_t prefix_length) {
    if (PyUnicode_GET_LENGTH(key) <= prefix_length) return false;
    int kind = PyUnicode_KIND(key);
    const void* data = PyUnicode_DATA(key);
    for (Py_ssize_t i = 0; i < prefix_length; ++i) {
        if (PyUnicode_READ(kind, data, i) != static_cast<Py_UCS4>(prefix[i])) return false;
    }
    return true;
}

// _gate_holds for an exact threshold; `python` for an actual value that only
// the Python implementation may judge.
enum class Holds { yes, no, python };

Holds gate_holds(PyObject* actual, bool at_most, PyObject* threshold) {
    if (actual == Py_None || PyBool_Check(actual) || PyUnicode_CheckExact(actual)) return Holds::no;
    if (PyFloat_CheckExact(actual)) {
        double number = PyFloat_AS_DOUBLE(actual);
        if (std::isnan(number)) return Holds::no;
        if (std::isinf(number) && at_most) return Holds::no;
    } else if (!PyLong_CheckExact(actual)) {
        return is_exact_scalar(actual) || PyDict_CheckExact(actual) || PyList_CheckExact(actual) ||
                       PyTuple_CheckExact(actual)
                   ? Holds::no
                   : Holds::python;
    }
    // Exact ints and floats compare without running Python code.
    int result = PyObject_RichCompareBool(actual, threshold, at_most ? Py_LE : Py_GE);
    if (result < 0) propagate();
    return result ? Holds::yes : Holds::no;
}

}  // namespace

Ref evaluate_threshold_gates(const Module& m, const Ref& metrics, const Ref& threshold_set,
                             const Ref& pool_thresholds) {
    const Names& n = m.n;
    auto defer = [&] {
        return call_kw(python_implementation(m, here, n.sib_evaluate_threshold_gates), {},
                       {{n.sib_metrics, metrics}, {n.sib_threshold_set, threshold_set},
                        {n.sib_pool_thresholds, pool_thresholds}});
    };
    if (!sibling_intact(m, here) || !(metrics.is_none() || PyDict_CheckExact(metrics.get())) ||
        !plain_thresholds(threshold_set.get()) || !plain_thresholds(pool_thresholds.get())) {
        return defer();
    }
    Ref named_gates = sibling_global(m, here, n.sib__NAMED_GATES);
    if (!PyDict_CheckExact(named_gates.get())) return defer();

    Ref merged = new_dict();
    for (const Ref* thresholds : {&threshold_set, &pool_thresholds}) {
        if (!thresholds->is_none()) check_status(PyDict_Merge(merged.get(), thresholds->get(), 1));
    }

    // Thresholds are checked first: a refused one leaves the whole call to the
    // Python implementation, which raises its error, before any gate is judged.
    struct Gate {
        Ref metric;
        bool at_most;
        Ref threshold;
    };
    std::vector<Gate> gates;
    gates.reserve(static_cast<size_t>(PyDict_GET_SIZE(merged.get())));
    // No Python code runs in this loop: the merged dict's keys are exact
    // scalars and the named gates' keys exact str.
    Py_ssize_t position = 0;
    PyObject *raw_key, *raw_value;
    while (PyDict_Next(merged.get(), &position, &raw_key, &raw_value)) {
        if (!PyUnicode_CheckExact(raw_key)) continue;
        Ref value{Borrowed(raw_value)};
        Ref metric;
        bool at_most = true;
        PyObject* named = PyDict_GetItemWithError(named_gates.get(), raw_key);
        if (named != nullptr) {
            if (PyUnicode_Compare(raw_key, n.sib_mi_threshold) == 0 &&
                check_status(PyDict_Contains(merged.get(), n.sib_is_pnl_mi_threshold))) {
                continue;
            }
            metric = Ref(Borrowed(named));
        } else if (PyErr_Occurred()) {
            propagate();
        } else if (starts_with(raw_key, "max_", 4) || starts_with(raw_key, "min_", 4)) {
            at_most = PyUnicode_READ_CHAR(raw_key, 1) == 'a';
            metric = Ref::checked(PyUnicode_Substring(raw_key, 4, PyUnicode_GET_LENGTH(raw_key)));
        } else {
            continue;
        }
        bool usable = PyLong_CheckExact(raw_value) ||
                      (PyFloat_CheckExact(raw_value) && std::isfinite(PyFloat_AS_DOUBLE(raw_value)));
        if (!usable) return defer();
        gates.push_back({std::move(metric), at_most, std::move(value)});
    }

    Ref failures = new_list();
    for (const Gate& gate : gates) {
        Ref actual = metrics.is_none() ? Ref(none()) : mapping_get_by(n.sib_get, metrics, gate.metric);
        Holds holds = gate_holds(actual.get(), gate.at_most, gate.threshold.get());
        if (holds == Holds::python) return defer();
        if (holds == Holds::yes) continue;
        Ref cls = sibling_global(m, here, n.sib_ThresholdGateFailure);
        list_append(failures, make_record(m.state().siblings.gate_failure, cls.get(),
                                          {{n.sib_gate, gate.metric},
                                           {n.sib_actual, actual},
                                           {n.sib_operator, Borrowed(gate.at_most ? n.sib_at_most : n.sib_at_least)},
                                           {n.sib_threshold, gate.threshold}}));
    }
    Ref cls = sibling_global(m, here, n.sib_ThresholdGateResult);
    Ref failed = Ref::checked(PyList_AsTuple(failures.get()));
    return make_record(m.state().siblings.gate_result, cls.get(),
                       {{n.sib_passed, boolean(PyList_GET_SIZE(failures.get()) == 0)}, {n.sib_failures, failed}});
}


namespace sibling_members {
const Member evaluate_threshold_gates =
    member<evaluate_threshold_gates_signature, tallowmere::native::evaluate_threshold_gates>();
}  // namespace sibling_members

}  // namespace tallowmere::native

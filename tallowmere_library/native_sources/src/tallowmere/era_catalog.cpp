// Era catalog lookup: finding the era a submission belongs to in the
// catalog that `GET eras` returns, and reading the era's required fields.
// Pure functions over decoded JSON (or objects with attributes); lookups give
// None, required fields raise ValueError with the "era config ..." texts.
#include "common.hpp"
#include "core/function.hpp"
#include "core/python.hpp"
#include "dispatch.hpp"
#include "members.hpp"

namespace tallowmere {

namespace {

// ---- tolerant readers ---------------------------------------------------------------

constexpr auto field_value_signature = signature("_field_value", Binding::module_function, nullptr, param("value"),
                                                 param("key"), param("default", none_default));

Ref field_value(const Module& m, const Ref& value, const Ref& key, const Ref& fallback) {
    if (is_dict(value)) return mapping_get_or(m, value, key, fallback);
    if (!PyUnicode_Check(key.get())) {
        PyErr_Format(PyExc_TypeError, "attribute name must be string, not '%.200s'", Py_TYPE(key.get())->tp_name);
        propagate();
    }
    return getattr_or(value, key.get(), fallback);
}

constexpr auto mapping_lookup_signature =
    signature("_mapping_lookup", Binding::module_function, nullptr, param("mapping"), param("key"));

Ref mapping_lookup(const Module&, const Ref& mapping, const Ref& key) {
    if (!is_dict(mapping)) return Ref(none());
    if (contains(mapping, key)) return get_item(mapping, key);
    Ref key_text = str(key);
    if (contains(mapping, key_text)) return get_item(mapping, key_text);
    return Ref(none());
}

constexpr auto coerce_optional_int_signature =
    signature("_coerce_optional_int", Binding::module_function, nullptr, param("value"));

Ref coerce_optional_int(const Module&, const Ref& value) {
    if (is_bool(value) || value.is_none()) return Ref(none());
    return try_except([&] { return to_int(value); },
                      [&](const Caught& caught) -> Ref {
                          Ref tolerated = new_tuple({Borrowed(PyExc_TypeError), Borrowed(PyExc_ValueError),
                                                     Borrowed(PyExc_OverflowError)});
                          if (!caught.matches(tolerated)) caught.reraise();
                          return Ref(none());
                      });
}

// ---- finding the era --------------------------------------------------------------------

constexpr auto active_era_from_catalog_signature =
    signature("_active_era_from_catalog", Binding::module_function, nullptr, param("catalog"),
              param("market_id", none_default), param("era_number", none_default));

// The candidate eras of a catalog (steps 2 and 3 of the lookup).
Ref candidate_eras(const Module& m, const Ref& catalog, const Ref& market_id) {
    const Names& n = m.n;
    Ref eras_by_market = mapping_get(m, catalog, n.eras_by_market);
    if (!truthy(eras_by_market)) eras_by_market = mapping_get(m, catalog, n.market_era_groups);

    if (is_dict(eras_by_market) && !market_id.is_none()) {
        Ref eras = mapping_get(m, eras_by_market, str(to_int(market_id)));
        if (!truthy(eras)) eras = mapping_get(m, eras_by_market, to_int(market_id));
        return eras;
    }
    if (is_dict(eras_by_market)) {
        Ref grouped = new_list();
        for_each(call_method(eras_by_market, n.values), [&](const Ref& group) {
            if (is_list(group)) list_extend(grouped, group);
        });
        if (truthy(grouped)) return grouped;
    }
    return mapping_get(m, catalog, n.eras);
}

// The first era (in `for era in eras` order) that `matches`; every era is held
// while the callees it is given to run, and a list they change stays valid.
template <class Matches>
std::optional<Ref> first_era(const Ref& eras, Matches&& matches) {
    return find_first(eras, [&](const Ref& era) -> std::optional<Ref> {
        if (matches(era)) return era;
        return std::nullopt;
    });
}

Ref active_era_from_catalog(const Module& m, const Ref& catalog, const Ref& market_id, const Ref& era_number) {
    const Names& n = m.n;
    if (!is_dict(catalog)) return Ref(none());
    Ref eras = candidate_eras(m, catalog, market_id);
    if (!is_list(eras) || !truthy(eras)) return Ref(none());

    if (!era_number.is_none()) {
        Ref requested_number = coerced_int(m, era_number);
        std::optional<Ref> requested = first_era(eras, [&](const Ref& era) {
            return equals(coerced_int(m, field_of(m, era, n.era_number, none())), requested_number);
        });
        if (requested) return *requested;
    }

    Ref active_id = mapping_get(m, catalog, n.active_era_number);
    if (active_id.is_none()) {
        Ref active_identity = mapping_get(m, catalog, n.active_market_era);
        if (!truthy(active_identity)) active_identity = mapping_get(m, catalog, n.current_market_era);
        if (is_dict(active_identity)) active_id = mapping_get(m, active_identity, n.era_number);
    }
    active_id = coerced_int(m, active_id);

    if (!active_id.is_none()) {
        std::optional<Ref> active = first_era(eras, [&](const Ref& era) {
            Ref identity = field_of(m, era, n.era_number, field_of(m, era, n.id));
            return equals(coerced_int(m, identity), active_id);
        });
        if (active) return *active;
    }

    Borrowed empty(m.state().empty_text);
    std::optional<Ref> open = first_era(eras, [&](const Ref& era) {
        Ref state = field_of(m, era, n.state, empty);
        if (!truthy(state)) state = empty;
        Ref lowered = call_method(str(state), n.lower);
        for (PyObject* usable : {n.active, n.current, n.open}) {
            if (equals(lowered, Borrowed(usable))) return true;
        }
        return false;
    });
    if (open) return *open;
    // eras[0]: a callee may have emptied the list meanwhile (IndexError then).
    return get_item(eras, integer(0));
}

constexpr auto required_active_submit_era_signature =
    signature("_required_active_submit_era", Binding::module_function, nullptr, param("catalog"),
              param("market_id", none_default), param("era_number", none_default));

Ref required_active_submit_era(const Module& m, const Ref& catalog, const Ref& market_id, const Ref& era_number) {
    Ref era = calls::active_era_from_catalog(m, catalog, market_id, era_number);
    if (era.is_none()) raise_value_error("era config unavailable: /eras returned no active era");
    return era;
}

// ---- required fields -----------------------------------------------------------------------

constexpr auto required_positive_era_int_signature = signature(
    "_required_positive_era_int", Binding::module_function, nullptr, param("era"), param("field_name"));

Ref required_positive_era_int(const Module& m, const Ref& era, const Ref& field_name) {
    Ref value = calls::field_value(m, era, field_name.get());
    if (is_bool(value) || !is_exact_int(value) || compare(value, integer(0), Py_LE)) {
        raise_value_error(concat({text("era config field "), format(field_name), text(" must be a positive integer")}));
    }
    return value;
}

constexpr auto required_era_frequency_signature =
    signature("_required_era_frequency", Binding::module_function, nullptr, param("era"));

Ref required_era_frequency(const Module& m, const Ref& era) {
    Ref value = field_of(m, era, m.n.frequency);
    if (!is_str(value) || equals(call_method(value, m.n.strip), Borrowed(m.state().empty_text))) {
        raise_value_error("era config field frequency must be a non-empty string");
    }
    return value;
}

constexpr auto projection_signature = signature("_simulation_data_contract_projection_from_era",
                                                Binding::module_function, nullptr, param("era"));

Ref simulation_data_contract_projection_from_era(const Module& m, const Ref& era) {
    Ref projection = field_of(m, era, m.n.simulation_data_contract_projection, none());
    if (projection.is_none()) return projection;
    if (is_dict(projection)) return dict_copy(projection);
    raise_value_error("era config field simulation_data_contract_projection must be a dict");
}

}  // namespace

namespace calls {

Ref field_value(const Module& m, const Ref& value, PyObject* key) {
    Ref name{Borrowed(key)};
    return through_global(
        m, Own::field_value, m.n._field_value, [&] { return tallowmere::field_value(m, value, name, Ref(none())); },
        [&](const Ref& f) { return call(f, value, name); });
}

Ref field_value(const Module& m, const Ref& value, PyObject* key, const Ref& fallback) {
    Ref name{Borrowed(key)};
    return through_global(
        m, Own::field_value, m.n._field_value, [&] { return tallowmere::field_value(m, value, name, fallback); },
        [&](const Ref& f) { return call(f, value, name, fallback); });
}

Ref mapping_lookup(const Module& m, const Ref& mapping, const Ref& key) {
    return through_global(
        m, Own::mapping_lookup, m.n._mapping_lookup, [&] { return tallowmere::mapping_lookup(m, mapping, key); },
        [&](const Ref& f) { return call(f, mapping, key); });
}

Ref coerce_optional_int(const Module& m, const Ref& value) {
    return through_global(
        m, Own::coerce_optional_int, m.n._coerce_optional_int, [&] { return tallowmere::coerce_optional_int(m, value); },
        [&](const Ref& f) { return call(f, value); });
}

Ref active_era_from_catalog(const Module& m, const Ref& catalog, const Ref& market_id, const Ref& era_number) {
    const Names& n = m.n;
    return through_global(
        m, Own::active_era_from_catalog, n._active_era_from_catalog,
        [&] { return tallowmere::active_era_from_catalog(m, catalog, market_id, era_number); },
        [&](const Ref& f) { return call_kw(f, {catalog}, {{n.market_id, market_id}, {n.era_number, era_number}}); });
}

Ref required_active_submit_era(const Module& m, const Ref& catalog, const Ref& market_id, const Ref& era_number) {
    const Names& n = m.n;
    return through_global(
        m, Own::required_active_submit_era, n._required_active_submit_era,
        [&] { return tallowmere::required_active_submit_era(m, catalog, market_id, era_number); },
        [&](const Ref& f) { return call_kw(f, {catalog}, {{n.market_id, market_id}, {n.era_number, era_number}}); });
}

Ref required_positive_era_int(const Module& m, const Ref& era, PyObject* field_name) {
    Ref name{Borrowed(field_name)};
    return through_global(
        m, Own::required_positive_era_int, m.n._required_positive_era_int,
        [&] { return tallowmere::required_positive_era_int(m, era, name); },
        [&](const Ref& f) { return call(f, era, name); });
}

Ref required_era_frequency(const Module& m, const Ref& era) {
    return through_global(
        m, Own::required_era_frequency, m.n._required_era_frequency,
        [&] { return tallowmere::required_era_frequency(m, era); }, [&](const Ref& f) { return call(f, era); });
}

Ref simulation_data_contract_projection_from_era(const Module& m, const Ref& era) {
    return through_global(
        m, Own::simulation_data_contract_projection_from_era, m.n._simulation_data_contract_projection_from_era,
        [&] { return tallowmere::simulation_data_contract_projection_from_era(m, era); },
        [&](const Ref& f) { return call(f, era); });
}

}  // namespace calls

namespace members {
const Member field_value = member<field_value_signature, tallowmere::field_value>();
const Member mapping_lookup = member<mapping_lookup_signature, tallowmere::mapping_lookup>();
const Member coerce_optional_int = member<coerce_optional_int_signature, tallowmere::coerce_optional_int>();
const Member active_era_from_catalog =
    member<active_era_from_catalog_signature, tallowmere::active_era_from_catalog>();
const Member required_active_submit_era =
    member<required_active_submit_era_signature, tallowmere::required_active_submit_era>();
const Member required_positive_era_int =
    member<required_positive_era_int_signature, tallowmere::required_positive_era_int>();
const Member required_era_frequency = member<required_era_frequency_signature, tallowmere::required_era_frequency>();
const Member simulation_data_contract_projection_from_era =
    member<projection_signature, tallowmere::simulation_data_contract_projection_from_era>();
}  // namespace members

}  // namespace tallowmere

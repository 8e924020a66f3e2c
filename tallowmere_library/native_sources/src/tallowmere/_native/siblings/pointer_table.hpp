// A hash table keyed by object identity, for walks over a graph that run no
// Python code (so that the objects it names cannot go away meanwhile).
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cstdint>
#include <vector>

namespace tallowmere::native {

template <class Value>
class PointerTable {
public:
    explicit PointerTable(size_t expected = 16) {
        size_t capacity = 32;
        while (capacity < expected * 2) capacity *= 2;
        slots_.resize(capacity);
    }

    Value* find(PyObject* key) {
        for (size_t i = index_of(key);; i = (i + 1) & mask()) {
            Slot& slot = slots_[i];
            if (slot.key == key) return &slot.value;
            if (slot.key == nullptr) return nullptr;
        }
    }

    // Inserts or replaces.
    Value& set(PyObject* key, const Value& value) {
        if (2 * (count_ + 1) > slots_.size()) grow();
        for (size_t i = index_of(key);; i = (i + 1) & mask()) {
            Slot& slot = slots_[i];
            if (slot.key == nullptr) {
                ++count_;
                slot.key = key;
            }
            if (slot.key == key) {
                slot.value = value;
                return slot.value;
            }
        }
    }

    // Removes `key` (linear probing with backward shift, no tombstones).
    void erase(PyObject* key) {
        size_t i = index_of(key);
        while (slots_[i].key != key) {
            if (slots_[i].key == nullptr) return;
            i = (i + 1) & mask();
        }
        for (size_t j = (i + 1) & mask();; j = (j + 1) & mask()) {
            if (slots_[j].key == nullptr) break;
            size_t home = index_of(slots_[j].key);
            // Move slot j back into the hole at i unless its home lies in (i, j].
            bool stays = i <= j ? (i < home && home <= j) : (i < home || home <= j);
            if (!stays) {
                slots_[i] = slots_[j];
                i = j;
            }
        }
        slots_[i] = Slot{};
        --count_;
    }

private:
    struct Slot {
        PyObject* key = nullptr;
        Value value{};
    };

    size_t mask() const { return slots_.size() - 1; }
    size_t index_of(PyObject* key) const {
        uint64_t x = reinterpret_cast<uintptr_t>(key);
        x ^= x >> 29;
        x *= 0xbf58476d1ce4e5b9ULL;
        x ^= x >> 32;
        return static_cast<size_t>(x) & mask();
    }
    void grow() {
        std::vector<Slot> old;
        old.swap(slots_);
        slots_.resize(old.size() * 2);
        count_ = 0;
        for (const Slot& slot : old) {
            if (slot.key != nullptr) set(slot.key, slot.value);
        }
    }

    std::vector<Slot> slots_;
    size_t count_ = 0;
};

}  // namespace tallowmere::native

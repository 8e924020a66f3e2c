// Containers for walks over JSON values and graphs: a stack and a hash table
// keyed by object identity, both keeping their first elements inside the
// object so that walking a small value allocates nothing. The walks that use
// them run no Python code, so the objects they name cannot go away meanwhile.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <type_traits>

namespace tallowmere {

// A vector of trivially copyable values whose first N live inline.
template <class T, size_t N>
class SmallVector {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_default_constructible_v<T>);

public:
    SmallVector() = default;
    SmallVector(const SmallVector&) = delete;
    SmallVector& operator=(const SmallVector&) = delete;

    void push_back(const T& value) {
        if (size_ == capacity_) reserve(capacity_ * 2);
        data_[size_++] = value;
    }
    void append(const T* values, size_t count) {
        if (count == 0) return;  // `values` may then be null
        if (size_ + count > capacity_) reserve(std::max(capacity_ * 2, size_ + count));
        std::memcpy(data_ + size_, values, count * sizeof(T));
        size_ += count;
    }
    T& back() { return data_[size_ - 1]; }
    void pop_back() { --size_; }
    bool empty() const { return size_ == 0; }
    size_t size() const { return size_; }
    void clear() { size_ = 0; }
    T* data() { return data_; }
    const T* data() const { return data_; }
    T& operator[](size_t index) { return data_[index]; }
    T* begin() { return data_; }
    T* end() { return data_ + size_; }

    void reserve(size_t capacity) {
        if (capacity <= capacity_) return;
        std::unique_ptr<T[]> grown(new T[capacity]);
        std::memcpy(grown.get(), data_, size_ * sizeof(T));
        heap_ = std::move(grown);
        data_ = heap_.get();
        capacity_ = capacity;
    }

private:
    T inline_[N];
    T* data_ = inline_;
    size_t size_ = 0;
    size_t capacity_ = N;
    std::unique_ptr<T[]> heap_;
};

// Open addressing with linear probing; at most half full.
template <class Value>
class PointerTable {
public:
    PointerTable() = default;
    PointerTable(const PointerTable&) = delete;
    PointerTable& operator=(const PointerTable&) = delete;

    Value* find(PyObject* key) {
        for (size_t i = index_of(key);; i = (i + 1) & mask_) {
            Slot& slot = slots_[i];
            if (slot.key == key) return &slot.value;
            if (slot.key == nullptr) return nullptr;
        }
    }

    // Inserts or replaces.
    void set(PyObject* key, const Value& value) {
        if (2 * (count_ + 1) > mask_ + 1) grow();
        for (size_t i = index_of(key);; i = (i + 1) & mask_) {
            Slot& slot = slots_[i];
            if (slot.key == nullptr) {
                ++count_;
                slot.key = key;
            }
            if (slot.key == key) {
                slot.value = value;
                return;
            }
        }
    }

    // Removes `key` (backward shift, no tombstones).
    void erase(PyObject* key) {
        size_t i = index_of(key);
        while (slots_[i].key != key) {
            if (slots_[i].key == nullptr) return;
            i = (i + 1) & mask_;
        }
        for (size_t j = (i + 1) & mask_;; j = (j + 1) & mask_) {
            if (slots_[j].key == nullptr) break;
            size_t home = index_of(slots_[j].key);
            // Slot j may fill the hole at i unless its home lies cyclically in (i, j].
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
        PyObject* key;
        Value value;
    };
    static constexpr size_t inline_slots = 32;

    size_t index_of(PyObject* key) const {
        uint64_t x = reinterpret_cast<uintptr_t>(key);
        x ^= x >> 29;
        x *= 0xbf58476d1ce4e5b9ULL;
        x ^= x >> 32;
        return static_cast<size_t>(x) & mask_;
    }

    void grow() {
        size_t old_size = mask_ + 1;
        Slot* old = slots_;
        std::unique_ptr<Slot[]> keep = std::move(heap_);
        heap_.reset(new Slot[old_size * 2]());
        slots_ = heap_.get();
        mask_ = old_size * 2 - 1;
        count_ = 0;
        for (size_t i = 0; i < old_size; ++i) {
            if (old[i].key != nullptr) set(old[i].key, old[i].value);
        }
    }

    Slot inline_[inline_slots]{};
    Slot* slots_ = inline_;
    size_t mask_ = inline_slots - 1;
    size_t count_ = 0;
    std::unique_ptr<Slot[]> heap_;
};

}  // namespace tallowmere

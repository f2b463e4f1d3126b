#ifndef QUARVEL_SUPPORT_GROWING_ARRAY_H
#define QUARVEL_SUPPORT_GROWING_ARRAY_H

#include "support/bulk_memory.h"

#include <quarvel/namespace.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

QUARVEL_NAMESPACE_BEGIN

// An array of plain values appended one at a time, for the arrays with an
// entry per region (the address history's slots, the jit rva runs). Its
// memory comes from bulk_memory as a BulkVector's does, but once the array
// has a mapping of its own it grows by moving that mapping's pages into a
// larger one (bulk_memory::reallocate). A vector copies every element into
// fresh pages and gives the old ones back: a 1M-load read faulted in and
// threw away some 160 MB of huge pages that way, and on a virtual machine a
// fresh page is the dearest part of an array.
template <class T>
class GrowingArray {
    static_assert(std::is_trivially_copyable<T>::value && std::is_trivially_destructible<T>::value,
                  "elements move as bytes");

public:
    typedef T value_type;
    typedef T& reference;
    typedef const T& const_reference;
    typedef T* iterator;
    typedef const T* const_iterator;

    GrowingArray() noexcept = default;
    GrowingArray(const GrowingArray&) = delete;
    GrowingArray(GrowingArray&& other) noexcept { swap(other); }
    GrowingArray& operator=(GrowingArray&& other) noexcept {
        swap(other);
        return *this;
    }
    ~GrowingArray() { bulk_memory::free(m_data, m_bytes); }

    size_t size() const noexcept { return m_size; }
    size_t capacity() const noexcept { return m_bytes / sizeof(T); }
    bool empty() const noexcept { return m_size == 0; }

    T* data() noexcept { return m_data; }
    const T* data() const noexcept { return m_data; }
    iterator begin() noexcept { return m_data; }
    iterator end() noexcept { return m_data + m_size; }
    const_iterator begin() const noexcept { return m_data; }
    const_iterator end() const noexcept { return m_data + m_size; }
    T& operator[](size_t i) noexcept { return m_data[i]; }
    const T& operator[](size_t i) const noexcept { return m_data[i]; }
    T& front() noexcept { return m_data[0]; }
    const T& front() const noexcept { return m_data[0]; }
    T& back() noexcept { return m_data[m_size - 1]; }
    const T& back() const noexcept { return m_data[m_size - 1]; }

    void push_back(const T& value) {
        if (m_size == capacity()) {
            const T copy = value; // value may lie in the storage that moves
            moveTo(std::max(m_size + 1, std::max(capacity() * 2, kFirstCapacity)));
            m_data[m_size++] = copy;
            return;
        }
        m_data[m_size++] = value;
    }
    void reserve(size_t count) {
        if (count > capacity())
            moveTo(count);
    }
    void swap(GrowingArray& other) noexcept {
        std::swap(m_data, other.m_data);
        std::swap(m_size, other.m_size);
        std::swap(m_bytes, other.m_bytes);
    }

private:
    static constexpr size_t kFirstCapacity = 64 / sizeof(T) > 0 ? 64 / sizeof(T) : 1;

    void moveTo(size_t count) {
        if (count > std::numeric_limits<size_t>::max() / sizeof(T))
            throw std::bad_alloc();
        const size_t bytes = bulk_memory::usableSize(count * sizeof(T));
        m_data = static_cast<T*>(bulk_memory::reallocate(m_data, m_bytes, m_size * sizeof(T), bytes));
        m_bytes = bytes;
    }

    T* m_data = nullptr;
    size_t m_size = 0;
    size_t m_bytes = 0; // as given to bulk_memory::allocate
};

QUARVEL_NAMESPACE_END

#endif

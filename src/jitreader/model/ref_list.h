#ifndef QUARVEL_MODEL_REF_LIST_H
#define QUARVEL_MODEL_REF_LIST_H

#include "support/block_heap.h"

#include <quarvel/types.h>

#include <boost/intrusive_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

QUARVEL_NAMESPACE_BEGIN

// Reference-counted objects in the order they were added, one pointer wide,
// for lists there are millions of and that mostly hold one element or two (a
// method's code regions, a region's inlines). The only element is held in
// that word; more share one block of the block heap with their count and
// capacity, whose address the word holds with its low bit set. An empty list
// holds nothing. T may be incomplete where the list is declared, not where it
// is changed or destroyed.
template <class T>
class RefList {
public:
    typedef boost::intrusive_ptr<T> Ptr;
    typedef Ptr value_type;
    typedef const Ptr* const_iterator;

    RefList() = default;
    ~RefList() { clear(); }
    RefList(const RefList& other) { *this = other; }
    RefList& operator=(const RefList& other) {
        if (this == &other)
            return *this;
        clear();
        if (!other.empty()) {
            reserve(other.size());
            for (const Ptr& element : other)
                push_back(element);
        }
        return *this;
    }
    RefList(RefList&& other) noexcept { take(other); }
    RefList& operator=(RefList&& other) noexcept {
        if (this != &other) {
            clear();
            take(other);
        }
        return *this;
    }

    size_t size() const {
        const uintptr_t w = word();
        return w & kBlockTag ? block()->size : w != 0;
    }
    bool empty() const { return size() == 0; }
    const Ptr* begin() const {
        const uintptr_t w = word();
        return w & kBlockTag ? items(block()) : w ? single() : nullptr;
    }
    const Ptr* end() const { return begin() + size(); }
    const Ptr& front() const { return *begin(); }
    const Ptr& operator[](size_t i) const { return begin()[i]; }
    // Throws std::out_of_range past the end.
    const Ptr& at(size_t i) const {
        if (i >= size())
            throw std::out_of_range("RefList::at");
        return begin()[i];
    }

    void push_back(const Ptr& element) {
        // A copy first: element may be one of ours, and a regrow moves it.
        Ptr kept = element;
        push_back(std::move(kept));
    }
    // Takes the reference over: no count changes.
    void push_back(Ptr&& element) {
        static_assert(alignof(T) > 1, "an element's address leaves the tag bit clear");
        if (word() == 0) { // neither an element nor a block (one reserved ahead may be empty)
            if (element) {
                new (m_word) Ptr(std::move(element));
                return;
            }
            regrow(1); // a null in the word would read as no element
        }
        const size_t count = size();
        if (count == capacity())
            regrow(2 * count); // an rvalue is not one of ours: ours are handed out const
        new (items(block()) + count) Ptr(std::move(element));
        ++block()->size;
    }
    // Room for count elements in all, so that adding them takes no new block.
    void reserve(size_t count) {
        if (count > capacity())
            regrow(count);
    }

private:
    struct Header {
        u32 size;
        u32 capacity;
    };
    static_assert(sizeof(Header) % alignof(Ptr) == 0, "the elements follow the header");
    static_assert(sizeof(Ptr) == sizeof(uintptr_t) && alignof(Header) > 1,
                  "an element's pointer or a tagged block address fills the word");
    static constexpr uintptr_t kBlockTag = 1;

    static Ptr* items(Header* block) { return reinterpret_cast<Ptr*>(block + 1); }
    static size_t bytes(size_t capacity) { return sizeof(Header) + capacity * sizeof(Ptr); }

    // The word's bits, read as bytes: it may hold a live Ptr.
    uintptr_t word() const {
        uintptr_t w;
        std::memcpy(&w, m_word, sizeof w);
        return w;
    }
    Header* block() const { return reinterpret_cast<Header*>(word() & ~kBlockTag); }
    const Ptr* single() const { return std::launder(reinterpret_cast<const Ptr*>(m_word)); }
    Ptr* single() { return std::launder(reinterpret_cast<Ptr*>(m_word)); }
    void setWord(uintptr_t w) { std::memcpy(m_word, &w, sizeof w); }
    size_t capacity() const { return word() & kBlockTag ? block()->capacity : 1; }

    // Moves the elements into a block of `capacity` and frees the old one.
    void regrow(size_t capacity) {
        if (capacity > std::numeric_limits<u32>::max())
            throw std::length_error("RefList");
        Header* const grown = static_cast<Header*>(block_heap::allocate(bytes(capacity)));
        const size_t count = size();
        grown->size = static_cast<u32>(count);
        grown->capacity = static_cast<u32>(capacity);
        // Moved, not copied: no reference count changes.
        const uintptr_t w = word();
        Ptr* const from = w & kBlockTag ? items(block()) : w ? single() : nullptr;
        for (size_t i = 0; i < count; ++i) {
            new (items(grown) + i) Ptr(std::move(from[i]));
            std::destroy_at(from + i);
        }
        if (w & kBlockTag)
            block_heap::free(block(), bytes(block()->capacity));
        setWord(reinterpret_cast<uintptr_t>(grown) | kBlockTag);
    }

    // Moves other's elements here (this one is empty); other ends empty.
    void take(RefList& other) noexcept {
        const uintptr_t w = other.word();
        if (w & kBlockTag) {
            setWord(w);
        } else if (w) {
            new (m_word) Ptr(std::move(*other.single()));
            std::destroy_at(other.single());
        }
        other.setWord(0);
    }

    void clear() noexcept {
        const uintptr_t w = word();
        if (w & kBlockTag) {
            Header* const b = block();
            for (size_t i = 0; i < b->size; ++i)
                std::destroy_at(items(b) + i);
            block_heap::free(b, bytes(b->capacity));
        } else if (w) {
            std::destroy_at(single());
        }
        setWord(0);
    }

    alignas(Ptr) unsigned char m_word[sizeof(Ptr)] = {};
};

QUARVEL_NAMESPACE_END

#endif

#ifndef QUARVEL_MODEL_REGION_LIST_H
#define QUARVEL_MODEL_REGION_LIST_H

#include "model/region.h"

#include <quarvel/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

QUARVEL_NAMESPACE_BEGIN

// A method's code regions, in the order they were added. Every method has
// one (most have one to three regions), so the list is one pointer wide. Its
// only region is held in that word (most methods have one, and every inlined
// one); more share one block of the block heap with their count and
// capacity, whose address the word holds with its low bit set. An empty list
// holds nothing.
class RegionList {
public:
    typedef Region::Ptr value_type;
    typedef const Region::Ptr* const_iterator;

    RegionList() = default;
    ~RegionList();
    RegionList(const RegionList& other);
    RegionList& operator=(const RegionList& other);
    RegionList(RegionList&& other) noexcept { take(other); }
    RegionList& operator=(RegionList&& other) noexcept;

    size_t size() const {
        const uintptr_t w = word();
        return w & kBlockTag ? block()->size : w != 0;
    }
    bool empty() const { return size() == 0; }
    const Region::Ptr* begin() const {
        const uintptr_t w = word();
        return w & kBlockTag ? items(block()) : w ? single() : nullptr;
    }
    const Region::Ptr* end() const { return begin() + size(); }
    const Region::Ptr& front() const { return *begin(); }
    const Region::Ptr& operator[](size_t i) const { return begin()[i]; }
    // Throws std::out_of_range past the end.
    const Region::Ptr& at(size_t i) const;

    void push_back(const Region::Ptr& region);
    // Takes the reference over: no count changes.
    void push_back(Region::Ptr&& region);
    // Room for count regions in all, so that adding them takes no new block.
    void reserve(size_t count);

private:
    struct Header {
        u32 size;
        u32 capacity;
    };
    static_assert(sizeof(Header) % alignof(Region::Ptr) == 0, "the elements follow the header");
    static_assert(sizeof(Region::Ptr) == sizeof(uintptr_t) && alignof(Region) > 1 && alignof(Header) > 1,
                  "a region pointer or a tagged block address fills the word");
    static constexpr uintptr_t kBlockTag = 1;

    static Region::Ptr* items(Header* block) { return reinterpret_cast<Region::Ptr*>(block + 1); }
    static size_t bytes(size_t capacity) { return sizeof(Header) + capacity * sizeof(Region::Ptr); }

    // The word's bits, read as bytes: it may hold a live Region::Ptr.
    uintptr_t word() const {
        uintptr_t w;
        std::memcpy(&w, m_word, sizeof w);
        return w;
    }
    Header* block() const { return reinterpret_cast<Header*>(word() & ~kBlockTag); }
    const Region::Ptr* single() const { return std::launder(reinterpret_cast<const Region::Ptr*>(m_word)); }
    Region::Ptr* single() { return std::launder(reinterpret_cast<Region::Ptr*>(m_word)); }
    void setWord(uintptr_t w) { std::memcpy(m_word, &w, sizeof w); }
    size_t capacity() const { return word() & kBlockTag ? block()->capacity : 1; }

    // Moves the elements into a block of `capacity` and frees the old one.
    void regrow(size_t capacity);
    // Moves other's elements here (this one is empty); other ends empty.
    void take(RegionList& other) noexcept;
    void clear() noexcept;

    alignas(Region::Ptr) unsigned char m_word[sizeof(Region::Ptr)] = {};
};

QUARVEL_NAMESPACE_END

#endif

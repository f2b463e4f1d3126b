#ifndef QUARVEL_MODEL_REGION_LIST_H
#define QUARVEL_MODEL_REGION_LIST_H

#include "model/region.h"

#include <quarvel/types.h>

#include <cstddef>

QUARVEL_NAMESPACE_BEGIN

// A method's code regions, in the order they were added. Every method has
// one (most have one to three regions), so the list is one pointer wide: its
// count, capacity and elements share one block of the block heap, and an
// empty list holds none.
class RegionList {
public:
    typedef Region::Ptr value_type;
    typedef const Region::Ptr* const_iterator;

    RegionList() = default;
    ~RegionList();
    RegionList(const RegionList& other);
    RegionList& operator=(const RegionList& other);
    RegionList(RegionList&& other) noexcept : m_block(other.m_block) { other.m_block = nullptr; }
    RegionList& operator=(RegionList&& other) noexcept;

    size_t size() const { return m_block ? m_block->size : 0; }
    bool empty() const { return size() == 0; }
    const Region::Ptr* begin() const { return m_block ? items(m_block) : nullptr; }
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
    static Region::Ptr* items(Header* block) { return reinterpret_cast<Region::Ptr*>(block + 1); }
    static size_t bytes(size_t capacity) { return sizeof(Header) + capacity * sizeof(Region::Ptr); }
    // Moves the elements into a block of `capacity` and frees the old one.
    void regrow(size_t capacity);
    void clear() noexcept;

    Header* m_block = nullptr;
};

QUARVEL_NAMESPACE_END

#endif

#include "model/region_list.h"

#include "support/block_heap.h"

#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

QUARVEL_NAMESPACE_BEGIN

RegionList::~RegionList() {
    clear();
}

RegionList::RegionList(const RegionList& other) {
    *this = other;
}

RegionList& RegionList::operator=(const RegionList& other) {
    if (this == &other)
        return *this;
    clear();
    if (!other.empty()) {
        reserve(other.size());
        for (const Region::Ptr& region : other)
            push_back(region);
    }
    return *this;
}

RegionList& RegionList::operator=(RegionList&& other) noexcept {
    if (this != &other) {
        clear();
        m_block = other.m_block;
        other.m_block = nullptr;
    }
    return *this;
}

const Region::Ptr& RegionList::at(size_t i) const {
    if (i >= size())
        throw std::out_of_range("RegionList::at");
    return begin()[i];
}

void RegionList::push_back(const Region::Ptr& region) {
    const size_t count = size();
    if (!m_block || count == m_block->capacity) {
        // A copy first: region may be one of ours, and the block moves.
        const Region::Ptr kept = region;
        regrow(count == 0 ? 1 : 2 * count);
        new (items(m_block) + count) Region::Ptr(kept);
    } else {
        new (items(m_block) + count) Region::Ptr(region);
    }
    ++m_block->size;
}

void RegionList::push_back(Region::Ptr&& region) {
    const size_t count = size();
    if (!m_block || count == m_block->capacity)
        regrow(count == 0 ? 1 : 2 * count); // an rvalue is not one of ours: ours are handed out const
    new (items(m_block) + count) Region::Ptr(std::move(region));
    ++m_block->size;
}

void RegionList::reserve(size_t count) {
    if (count > (m_block ? m_block->capacity : 0))
        regrow(count);
}

void RegionList::regrow(size_t capacity) {
    if (capacity > std::numeric_limits<u32>::max())
        throw std::length_error("RegionList");
    Header* const block = static_cast<Header*>(block_heap::allocate(bytes(capacity)));
    const size_t count = size();
    block->size = static_cast<u32>(count);
    block->capacity = static_cast<u32>(capacity);
    // Moved, not copied: no reference count changes.
    for (size_t i = 0; i < count; ++i)
        new (items(block) + i) Region::Ptr(std::move(items(m_block)[i]));
    if (m_block) {
        for (size_t i = 0; i < count; ++i)
            std::destroy_at(items(m_block) + i);
        block_heap::free(m_block, bytes(m_block->capacity));
    }
    m_block = block;
}

void RegionList::clear() noexcept {
    if (!m_block)
        return;
    for (size_t i = 0; i < m_block->size; ++i)
        std::destroy_at(items(m_block) + i);
    block_heap::free(m_block, bytes(m_block->capacity));
    m_block = nullptr;
}

QUARVEL_NAMESPACE_END

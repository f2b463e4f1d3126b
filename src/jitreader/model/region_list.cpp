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
        take(other);
    }
    return *this;
}

void RegionList::take(RegionList& other) noexcept {
    const uintptr_t w = other.word();
    if (w & kBlockTag) {
        setWord(w);
    } else if (w) {
        new (m_word) Region::Ptr(std::move(*other.single()));
        std::destroy_at(other.single());
    }
    other.setWord(0);
}

const Region::Ptr& RegionList::at(size_t i) const {
    if (i >= size())
        throw std::out_of_range("RegionList::at");
    return begin()[i];
}

void RegionList::push_back(const Region::Ptr& region) {
    // A copy first: region may be one of ours, and a regrow moves it.
    Region::Ptr kept = region;
    push_back(std::move(kept));
}

void RegionList::push_back(Region::Ptr&& region) {
    if (word() == 0) { // neither a region nor a block (one reserved ahead may be empty)
        new (m_word) Region::Ptr(std::move(region));
        return;
    }
    const size_t count = size();
    if (count == capacity())
        regrow(2 * count); // an rvalue is not one of ours: ours are handed out const
    new (items(block()) + count) Region::Ptr(std::move(region));
    ++block()->size;
}

void RegionList::reserve(size_t count) {
    if (count > capacity())
        regrow(count);
}

void RegionList::regrow(size_t capacity) {
    if (capacity > std::numeric_limits<u32>::max())
        throw std::length_error("RegionList");
    Header* const grown = static_cast<Header*>(block_heap::allocate(bytes(capacity)));
    const size_t count = size();
    grown->size = static_cast<u32>(count);
    grown->capacity = static_cast<u32>(capacity);
    // Moved, not copied: no reference count changes.
    const uintptr_t w = word();
    Region::Ptr* const from = w & kBlockTag ? items(block()) : w ? single() : nullptr;
    for (size_t i = 0; i < count; ++i) {
        new (items(grown) + i) Region::Ptr(std::move(from[i]));
        std::destroy_at(from + i);
    }
    if (w & kBlockTag)
        block_heap::free(block(), bytes(block()->capacity));
    setWord(reinterpret_cast<uintptr_t>(grown) | kBlockTag);
}

void RegionList::clear() noexcept {
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

QUARVEL_NAMESPACE_END

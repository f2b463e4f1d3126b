#ifndef QUARVEL_GENERIC_ITERATOR_H
#define QUARVEL_GENERIC_ITERATOR_H

#include <quarvel/namespace.h>

#include <iterator>
#include <memory>
#include <utility>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// A forward sequence of T behind one type, so that any container or iterator
// pair can cross the library boundary without being copied:
//
//     for (auto it = resolver->getSymbols(); !it.atEnd(); it.advance())
//         use(it.current());
//
// A sequence made over a caller's container refers to it: the container must
// outlive the iterator. Sequences the library hands out keep what they walk
// alive themselves.
template <typename T>
class generic_iterator_t {
public:
    typedef T value_type;

    // An empty sequence: at its end at once.
    generic_iterator_t() = default;

    // Walks [begin, end); each element is converted to T when read.
    // keepAlive, when given (any copyable owner: a shared or intrusive
    // pointer), is held as long as the iterator (or a copy) lives.
    template <typename It, typename Keep = std::shared_ptr<const void>>
    generic_iterator_t(It begin, It end, Keep keepAlive = Keep())
        : m_impl(std::make_shared<Range<It, Keep>>(begin, end, std::move(keepAlive))) {}

    generic_iterator_t(const generic_iterator_t& other) : m_impl(other.m_impl ? other.m_impl->clone() : nullptr) {}
    generic_iterator_t& operator=(const generic_iterator_t& other) {
        if (this != &other)
            m_impl = other.m_impl ? other.m_impl->clone() : nullptr;
        return *this;
    }
    generic_iterator_t(generic_iterator_t&&) noexcept = default;
    generic_iterator_t& operator=(generic_iterator_t&&) noexcept = default;

    bool atEnd() const { return !m_impl || m_impl->atEnd(); }
    // Precondition: !atEnd().
    T current() const { return m_impl->current(); }
    void advance() {
        if (!atEnd())
            m_impl->advance();
    }

    // Counts the elements left, walking a copy.
    size_t remaining() const {
        size_t n = 0;
        for (generic_iterator_t copy(*this); !copy.atEnd(); copy.advance())
            ++n;
        return n;
    }

private:
    struct Impl {
        virtual ~Impl() = default;
        virtual bool atEnd() const = 0;
        virtual T current() const = 0;
        virtual void advance() = 0;
        virtual std::shared_ptr<Impl> clone() const = 0;
    };

    template <typename It, typename Keep>
    struct Range final : Impl {
        Range(It b, It e, Keep keep) : cur(b), end(e), keepAlive(std::move(keep)) {}
        bool atEnd() const override { return cur == end; }
        T current() const override { return T(*cur); }
        void advance() override { ++cur; }
        std::shared_ptr<Impl> clone() const override { return std::make_shared<Range>(*this); }
        It cur;
        It end;
        Keep keepAlive;
    };

    std::shared_ptr<Impl> m_impl;
};

// A sequence over a caller's container, which must outlive it.
template <typename T, typename Container>
generic_iterator_t<T> makeIterator(const Container& container) {
    return generic_iterator_t<T>(std::begin(container), std::end(container));
}

// A sequence that owns its elements.
template <typename T>
generic_iterator_t<T> makeOwningIterator(std::vector<T> values) {
    auto held = std::make_shared<const std::vector<T>>(std::move(values));
    return generic_iterator_t<T>(held->begin(), held->end(), held);
}

QUARVEL_NAMESPACE_END

#endif

#ifndef QUARVEL_BASE_OBJECT_H
#define QUARVEL_BASE_OBJECT_H

#include <quarvel/export.h>

#include <atomic>
#include <boost/intrusive_ptr.hpp>

QUARVEL_NAMESPACE_BEGIN

// Root of every reference-counted public object. A factory hands an object
// out through boost::intrusive_ptr, which brings the count from 0 to 1.
class QUARVEL_API BaseObject {
public:
    BaseObject() noexcept : m_refCount(0) {}
    virtual ~BaseObject();

    // Atomically raises the count; returns the new count.
    unsigned addRef() const noexcept;
    // Atomically lowers the count; destroys the object when it reaches 0.
    unsigned release() const noexcept;

protected:
    // Copies start with their own count.
    BaseObject(const BaseObject&) noexcept : m_refCount(0) {}
    BaseObject& operator=(const BaseObject&) noexcept { return *this; }

private:
    template <class T>
    friend boost::intrusive_ptr<T> adoptNew(T* fresh) noexcept;

    mutable std::atomic<unsigned> m_refCount;
};

// The first reference to an object just made with new, taken with a plain
// store: nothing else can see the object yet. An atomic increment there
// would wait for the stores that built the object to reach the cache.
template <class T>
boost::intrusive_ptr<T> adoptNew(T* fresh) noexcept {
    static_cast<const BaseObject*>(fresh)->m_refCount.store(1, std::memory_order_relaxed);
    return boost::intrusive_ptr<T>(fresh, false);
}

inline void intrusive_ptr_add_ref(const BaseObject* object) {
    object->addRef();
}
inline void intrusive_ptr_release(const BaseObject* object) {
    object->release();
}

QUARVEL_NAMESPACE_END

#endif

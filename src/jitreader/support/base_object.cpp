#include <quarvel/base_object.h>

QUARVEL_NAMESPACE_BEGIN

BaseObject::~BaseObject() = default;

unsigned BaseObject::addRef() const noexcept {
    return m_refCount.fetch_add(1, std::memory_order_seq_cst) + 1;
}

unsigned BaseObject::release() const noexcept {
    const unsigned before = m_refCount.fetch_sub(1, std::memory_order_seq_cst);
    if (before == 1) {
        delete this;
        return 0;
    }
    return before - 1;
}

QUARVEL_NAMESPACE_END

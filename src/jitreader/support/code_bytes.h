#ifndef QUARVEL_SUPPORT_CODE_BYTES_H
#define QUARVEL_SUPPORT_CODE_BYTES_H

// The code bytes of one piece of code a trace or runtime file carries. Such
// files hold up to millions of pieces of code that are read far more often
// than they are shown, so the model keeps each as a CodeView (the bytes and
// what keeps them alive: the file's mapping, or one owned copy) and makes a
// buffer only for whoever asks. That buffer views the bytes (keeping their
// keeper alive) until its first assign(), which makes it own a copy of
// exactly their size.

#include <quarvel/byte_buffer.h>

#include <memory>

QUARVEL_NAMESPACE_BEGIN

// Bytes that `keeper` keeps alive; no keeper: no bytes at all (which is not
// the same as none of a piece of code's bytes kept: a length of 0).
struct CodeView {
    std::shared_ptr<const void> keeper;
    const unsigned char* bytes = nullptr;
    unsigned length = 0;

    explicit operator bool() const { return keeper != nullptr; }
    // An owned copy of length bytes, as a view.
    static CodeView copyOf(const void* bytes, unsigned length);
    // A buffer's bytes, kept alive by the buffer; nobody may change it after.
    static CodeView of(const std::shared_ptr<IByteBuffer>& buffer);
};

class CodeBytes final : public IByteBuffer {
public:
    // A view of `length` bytes at `bytes`, which stay valid while `keeper` lives.
    CodeBytes(std::shared_ptr<const void> keeper, const unsigned char* bytes, unsigned length)
        : m_keeper(std::move(keeper)), m_view(length ? bytes : nullptr), m_size(bytes ? length : 0) {}

    // A view in a block-heap block, as the library's other buffers are.
    static IByteBuffer::Ptr view(std::shared_ptr<const void> keeper, const unsigned char* bytes, unsigned length);
    // A view of code's bytes; null when code holds none.
    static IByteBuffer::Ptr view(const CodeView& code);

    unsigned size() const override { return m_size; }
    const unsigned char* data() const override { return m_size ? m_view : nullptr; }
    void assign(const void* bytes, unsigned length) override;

private:
    std::shared_ptr<const void> m_keeper; // the mapping a view lies in; null for an owned copy
    std::unique_ptr<unsigned char[]> m_owned;
    const unsigned char* m_view = nullptr; // the bytes: the view, or m_owned
    unsigned m_size = 0;
    unsigned m_capacity = 0;
};

QUARVEL_NAMESPACE_END

#endif

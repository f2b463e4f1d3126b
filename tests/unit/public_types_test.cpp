// Reference counting, byte buffers, converters and sequences.

#include "support/byte_buffer_impl.h"

#include <quarvel/jitreader.h>

#include <gtest/gtest.h>

#include <list>
#include <string>
#include <vector>

using namespace quarvel;

namespace public_types_test {

struct Counted : BaseObject {
    explicit Counted(int* destroyed) : destroyed(destroyed) {}
    ~Counted() override { ++*destroyed; }
    int* destroyed;
};

TEST(BaseObjectTest, DestroyedAtTheLastReferenceWhetherCountedByHandOrByPointer) {
    int destroyed = 0;
    Counted* object = new Counted(&destroyed);
    EXPECT_EQ(1u, object->addRef());
    EXPECT_EQ(2u, object->addRef());
    EXPECT_EQ(1u, object->release());
    EXPECT_EQ(0, destroyed);
    EXPECT_EQ(0u, object->release());
    EXPECT_EQ(1, destroyed);
    {
        boost::intrusive_ptr<Counted> held(new Counted(&destroyed));
        boost::intrusive_ptr<BaseObject> shared = held;
        EXPECT_EQ(3u, held->addRef());
        EXPECT_EQ(2u, held->release());
    }
    EXPECT_EQ(2, destroyed);
}

TEST(ByteBufferTest, AssignEmptiesOnNullOrZeroAndNeverShrinks) {
    IByteBuffer::Ptr buffer = IByteBuffer::create();
    const std::vector<unsigned char> big(600, 0xAB);
    buffer->assign(big.data(), 600);
    EXPECT_EQ(600u, buffer->size());
    ASSERT_NE(nullptr, buffer->data());
    EXPECT_EQ(0xAB, buffer->data()[599]);

    const unsigned char small[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    buffer->assign(small, 10);
    EXPECT_EQ(10u, buffer->size());
    EXPECT_EQ(10, buffer->data()[9]);
    EXPECT_GE(static_cast<ByteBuffer&>(*buffer).capacityBytes(), 600u);

    buffer->assign(small, 0);
    EXPECT_EQ(0u, buffer->size());
    EXPECT_EQ(nullptr, buffer->data());
    buffer->assign(small, 3);
    buffer->assign(nullptr, 5);
    EXPECT_EQ(0u, buffer->size());
    EXPECT_EQ(nullptr, buffer->data());
}

TEST(ConvertersTest, CopyAtMostTheDestinationLength) {
    const char source[] = "abcdef";
    char destination[8] = {};
    size_t length = 3;
    EXPECT_EQ(destination, Utf8ToWchar::convert(source, 6, destination, length));
    EXPECT_EQ(3u, length);
    EXPECT_EQ(std::string("abc"), std::string(destination, 3));
    EXPECT_EQ('\0', destination[3]); // no terminator added, nothing past the copy

    length = sizeof destination;
    WcharToUtf8::convert(source, 6, destination, length);
    EXPECT_EQ(6u, length);
    EXPECT_EQ(std::string("abcdef"), std::string(destination, 6));
}

TEST(GenericIteratorTest, WalksAnyContainerWithoutCopyingIt) {
    std::list<int> values = {1, 2, 3};
    generic_iterator_t<int> it = makeIterator<int>(values);
    values.back() = 30; // the sequence refers to the container
    std::vector<int> seen;
    for (; !it.atEnd(); it.advance())
        seen.push_back(it.current());
    EXPECT_EQ((std::vector<int>{1, 2, 30}), seen);
    it.advance(); // past the end is harmless
    EXPECT_TRUE(it.atEnd());

    // Copies advance on their own; owning sequences keep their data.
    generic_iterator_t<std::string> owning = makeOwningIterator<std::string>({"a", "b"});
    generic_iterator_t<std::string> copy = owning;
    copy.advance();
    EXPECT_EQ("a", owning.current());
    EXPECT_EQ("b", copy.current());
    EXPECT_EQ(2u, owning.remaining());
    EXPECT_TRUE(generic_iterator_t<int>().atEnd());
}

} // namespace

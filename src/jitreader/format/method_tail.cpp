#include "format/method_tail.h"

#include <cstring>
#include <iterator>

QUARVEL_NAMESPACE_BEGIN

namespace {

const size_t kLineEntrySize = 12;

// A table's rows as they lie in the record, each read as it is visited: the
// table is filled in one pass, where a resize zero-filled it first.
class RowReader {
public:
    typedef std::forward_iterator_tag iterator_category;
    typedef quarvel_line_number_entry value_type;
    typedef std::ptrdiff_t difference_type;
    typedef const value_type* pointer;
    typedef value_type reference;

    RowReader(const uint8_t* at, bool swap) : m_at(at), m_swap(swap) {}
    value_type operator*() const {
        // Rows are three u32 fields on disk as in memory.
        static_assert(sizeof(value_type) == kLineEntrySize, "rows copy as they are");
        value_type row;
        std::memcpy(&row, m_at, kLineEntrySize);
        if (m_swap) {
            row.startOffset = ByteCursor::byteSwapped(row.startOffset);
            row.endOffset = ByteCursor::byteSwapped(row.endOffset);
            row.value = ByteCursor::byteSwapped(row.value);
        }
        return row;
    }
    RowReader& operator++() {
        m_at += kLineEntrySize;
        return *this;
    }
    RowReader operator++(int) {
        RowReader before = *this;
        ++*this;
        return before;
    }
    bool operator==(const RowReader& other) const { return m_at == other.m_at; }
    bool operator!=(const RowReader& other) const { return m_at != other.m_at; }

private:
    const uint8_t* m_at;
    bool m_swap;
};

bool readTable(ByteCursor& cursor, std::vector<quarvel_line_number_entry>& table, const char* name,
               const BodyOptions& options) {
    uint16_t count = 0;
    if (!cursor.u16(count, name))
        return false;
    const size_t bytes = static_cast<size_t>(count) * kLineEntrySize;
    // The whole table must be there before anything is allocated for it.
    if (!options.keepLineTables || bytes > cursor.remaining())
        return cursor.skip(bytes, name);
    const uint8_t* rows = nullptr;
    if (!cursor.bytes(bytes, rows, name))
        return false;
    table.assign(RowReader(rows, cursor.swapsBytes()), RowReader(rows + bytes, cursor.swapsBytes()));
    return true;
}

// Every field back to its default, strings and tables cleared in place so
// that they keep their storage. (A default struct to copy the values from
// costs more than the clearing.)
void recycleTail(TraceMethodTail& tail) {
    tail.moduleName.clear();
    tail.moduleArch = quarvel_arch_vx64;
    tail.methodName.clear();
    tail.className.clear();
    tail.sourceFile.clear();
    tail.checksumType = 0;
    tail.checksum.clear();
    tail.language = 0;
    tail.lines.managedToSource.clear();
    tail.lines.nativeToManaged.clear();
    tail.lines.nativeToSource.clear();
    tail.metadataToken = 0;
}

} // namespace

void recycle(TraceMethodLoad& load) {
    load.hashKey = 0;
    load.methodId = 0;
    load.inlineFlag = 0;
    load.loadTime = 0;
    load.regions.clear();
    recycleTail(load.tail);
}

void recycle(TraceInlineLoad& load) {
    load.methodId = 0;
    load.parentId = 0;
    load.loadTime = 0;
    load.region.startAddress = 0;
    load.region.codeSize = 0;
    load.region.bytes.clear();
    recycleTail(load.tail);
}

Reason bodyReason(const ByteCursor& cursor, const std::string& file, const char* field, std::string message) {
    Reason reason = Reason::badInput(cursor.ok() ? std::move(message) : cursor.error());
    return reason.inFile(file).at(cursor.fileOffset()).ofField(field);
}

bool readCodeRegion(ByteCursor& cursor, TraceCodeRegion& region, ByteSpan& bytes) {
    uint32_t byteCount = 0;
    const uint8_t* start = nullptr;
    cursor.u64(region.startAddress, "code start address");
    cursor.u32(region.codeSize, "code size");
    cursor.u32(byteCount, "number of code bytes");
    if (!cursor.bytes(byteCount, start, "code bytes"))
        return false;
    bytes = ByteSpan(start, byteCount);
    return true;
}

void keepCodeBytes(TraceCodeRegion& region, ByteSpan bytes, const BodyOptions& options) {
    if (!options.keepCodeBytes)
        return;
    if (options.codeSpans)
        options.codeSpans->push_back(bytes);
    else
        region.bytes.assign(bytes.begin(), bytes.end());
}

bool readModule(ByteCursor& cursor, TraceMethodTail& tail) {
    cursor.countedString(tail.moduleName, "module name");
    return cursor.u16(tail.moduleArch, "module architecture");
}

bool readSymbolic(ByteCursor& cursor, TraceMethodTail& tail, const BodyOptions& options) {
    cursor.countedString(tail.methodName, "method name");
    cursor.countedString(tail.className, "class name");
    cursor.countedString(tail.sourceFile, "source file name");
    cursor.u16(tail.checksumType, "checksum type");
    cursor.countedString(tail.checksum, "checksum");
    cursor.u16(tail.language, "source language");
    return readTable(cursor, tail.lines.managedToSource, "managed-to-source table", options) &&
           readTable(cursor, tail.lines.nativeToManaged, "native-to-managed table", options) &&
           readTable(cursor, tail.lines.nativeToSource, "native-to-source table", options);
}

bool readMetadataToken(ByteCursor& cursor, TraceMethodTail& tail) {
    if (cursor.remaining() >= 4)
        return cursor.u32(tail.metadataToken, "metadata token");
    return cursor.ok();
}

QUARVEL_NAMESPACE_END

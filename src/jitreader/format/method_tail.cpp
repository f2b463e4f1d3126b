#include "format/method_tail.h"

QUARVEL_NAMESPACE_BEGIN

namespace {

const size_t kLineEntrySize = 12;

bool readTable(ByteCursor& cursor, std::vector<quarvel_line_number_entry>& table, const char* name,
               const BodyOptions& options) {
    uint16_t count = 0;
    if (!cursor.u16(count, name))
        return false;
    const size_t bytes = static_cast<size_t>(count) * kLineEntrySize;
    // The whole table must be there before anything is allocated for it.
    if (!options.keepLineTables || bytes > cursor.remaining())
        return cursor.skip(bytes, name);
    // Rows are three u32 fields on disk as in memory.
    static_assert(sizeof(quarvel_line_number_entry) == kLineEntrySize, "rows copy as they are");
    table.resize(count);
    return cursor.u32s(table.data(), size_t(count) * 3, name);
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

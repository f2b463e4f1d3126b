#include "format/method_tail.h"

#include <limits>

QUARVEL_NAMESPACE_BEGIN

// Raw id, raw parent id, load time, a region count that must be 1, the one
// region, then the descriptive tail of the load records.
Status decodeInlineLoadInto(const Record& record, const std::string& file, const BodyOptions& options,
                            TraceInlineLoad& load) {
    recycle(load);
    if (options.codeSpans)
        options.codeSpans->clear();
    ByteCursor cursor(record.data.data(), record.data.size(), ByteCursor::Order::little, record.bodyOffset());
    const auto refuse = [&](const char* field, std::string message) -> Status {
        return bodyReason(cursor, file, field, std::move(message));
    };
    // A value the format does not allow: the reason points at the field's start.
    const auto badValue = [&](size_t at, const char* field, std::string message) -> Status {
        if (cursor)
            cursor.seek(at, field);
        return refuse(field, std::move(message));
    };

    cursor.u32(load.methodId, "raw method id");
    cursor.u32(load.parentId, "raw parent id");
    if (!cursor)
        return refuse("inline load header", "");

    size_t at = cursor.offset();
    if (!cursor.u64(load.loadTime, "load time") || load.loadTime == 0)
        return badValue(at, "load time", "Invalid load time: " + std::to_string(load.loadTime));

    at = cursor.offset();
    uint16_t regionCount = 0;
    if (!cursor.u16(regionCount, "number of code regions") || regionCount != 1)
        return badValue(at, "number of code regions", "Invalid number of code regions: " + std::to_string(regionCount));

    TraceCodeRegion& region = load.region;
    at = cursor.offset();
    if (!cursor.u64(region.startAddress, "start address of code range") || region.startAddress == 0)
        return badValue(at, "start address of code range",
                        "Invalid start address of code range: " + std::to_string(region.startAddress));
    at = cursor.offset();
    if (!cursor.u32(region.codeSize, "size of code range") || region.codeSize == 0 ||
        region.startAddress > std::numeric_limits<uint64_t>::max() - region.codeSize)
        return badValue(at, "size of code range", "Invalid size of code range: " + std::to_string(region.codeSize));
    at = cursor.offset();
    uint32_t byteCount = 0;
    if (!cursor.u32(byteCount, "number of code range's bytes"))
        return refuse("number of code range's bytes", "");
    // No bytes is fine: an inline's code is part of its parent's.
    const uint8_t* bytes = nullptr;
    if (byteCount > cursor.remaining() || !cursor.bytes(byteCount, bytes, "code bytes"))
        return badValue(at, "number of code range's bytes",
                        "Invalid number of code range's bytes: " + std::to_string(byteCount));
    keepCodeBytes(region, ByteSpan(bytes, byteCount), options);

    if (!readModule(cursor, load.tail) || !readSymbolic(cursor, load.tail, options) ||
        !readMetadataToken(cursor, load.tail))
        return refuse("inline load tail", "");
    return Status::success();
}

Expected<TraceInlineLoad> decodeInlineLoad(const Record& record, const std::string& file, const BodyOptions& options) {
    TraceInlineLoad load;
    Status status = decodeInlineLoadInto(record, file, options, load);
    if (!status)
        return std::move(status.reason());
    return load;
}

QUARVEL_NAMESPACE_END

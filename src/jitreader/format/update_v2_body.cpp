#include "format/method_tail.h"

#include <limits>

QUARVEL_NAMESPACE_BEGIN

// Raw id, load time, the range to patch and its new bytes; nothing follows.
Expected<TraceUpdateV2> decodeUpdateV2(const Record& record, const std::string& file) {
    TraceUpdateV2 update;
    ByteCursor cursor(record.data.data(), record.data.size(), ByteCursor::Order::little, record.bodyOffset());
    const auto refuse = [&](const char* field, std::string message) -> Expected<TraceUpdateV2> {
        return bodyReason(cursor, file, field, std::move(message));
    };
    // A value the format does not allow: the reason points at the field's start.
    const auto badValue = [&](size_t at, const char* field, std::string message) -> Expected<TraceUpdateV2> {
        if (cursor)
            cursor.seek(at, field);
        return refuse(field, std::move(message));
    };

    if (!cursor.u32(update.methodId, "raw method id"))
        return refuse("raw method id", "");
    size_t at = cursor.offset();
    if (!cursor.u64(update.loadTime, "load time") || update.loadTime == 0)
        return badValue(at, "load time", "Invalid load time: " + std::to_string(update.loadTime));
    at = cursor.offset();
    if (!cursor.u64(update.startAddress, "start address of code range") || update.startAddress == 0)
        return badValue(at, "start address of code range",
                        "Invalid start address of code range: " + std::to_string(update.startAddress));
    at = cursor.offset();
    if (!cursor.u32(update.length, "length of code range") || update.length == 0 ||
        update.startAddress > std::numeric_limits<uint64_t>::max() - update.length)
        return badValue(at, "length of code range", "Invalid length of code range: " + std::to_string(update.length));
    at = cursor.offset();
    uint32_t byteCount = 0;
    const uint8_t* bytes = nullptr;
    if (!cursor.u32(byteCount, "number of code range's bytes"))
        return refuse("number of code range's bytes", "");
    // An update without new bytes has nothing to say.
    if (byteCount == 0 || byteCount > cursor.remaining() || !cursor.bytes(byteCount, bytes, "code bytes"))
        return badValue(at, "number of code range's bytes",
                        "Invalid number of code range's bytes: " + std::to_string(byteCount));
    update.bytes.assign(bytes, bytes + byteCount);
    if (!cursor.atEnd())
        return refuse("method update",
                      std::to_string(cursor.remaining()) + " unexpected bytes after the code bytes (bytesRead = " +
                          std::to_string(cursor.offset()) + ", traceLen = " + std::to_string(cursor.size()) + ")");
    return update;
}

QUARVEL_NAMESPACE_END

#include "format/method_tail.h"

#include <limits>

QUARVEL_NAMESPACE_BEGIN

// Layouts by version (docs/trace-format.md): 0 and 1 start with the method id
// and the load time; 2 adds a hash key in front; 3 adds an inline flag after
// the method id. Regions and the descriptive tail follow in every version;
// version 3 may end with a metadata token.
Status decodeMethodLoadInto(const Record& record, int version, const std::string& file, const BodyOptions& options,
                            TraceMethodLoad& load) {
    recycle(load);
    if (options.codeSpans)
        options.codeSpans->clear();
    ByteCursor cursor(record.data.data(), record.data.size(), ByteCursor::Order::little, record.bodyOffset());
    const auto refuse = [&](const char* field, std::string message) -> Status {
        return bodyReason(cursor, file, field, std::move(message));
    };

    if (version >= 2)
        cursor.u32(load.hashKey, "hash key");
    cursor.u32(load.methodId, "method id");
    if (version >= 3)
        cursor.u8(load.inlineFlag, "inline flag");
    cursor.u64(load.loadTime, "load time");
    uint16_t regionCount = 0;
    if (!cursor.u16(regionCount, "number of code regions"))
        return refuse("method load header", "");

    // Each region is kept as soon as it is read whole.
    size_t empty = 0;
    for (unsigned i = 0; i < regionCount; ++i) {
        const size_t at = cursor.offset();
        TraceCodeRegion region;
        ByteSpan bytes;
        if (!readCodeRegion(cursor, region, bytes))
            return refuse("code region", "");
        // Every map keyed by an address range adds start and length: a range
        // that wraps past the top of the address space would break them.
        // Code never starts at address 0 (the model relies on it), nor wraps.
        if (region.codeSize != 0 && region.startAddress == 0) {
            cursor.seek(at, "code region");
            return refuse("code start address", "Invalid start address of code range: 0");
        }
        if (region.startAddress > std::numeric_limits<uint64_t>::max() - region.codeSize) {
            cursor.seek(at, "code region");
            return refuse("code start address",
                          "Invalid code range: start address = " + std::to_string(region.startAddress) +
                              ", size = " + std::to_string(region.codeSize));
        }
        if (region.codeSize == 0)
            ++empty;
        keepCodeBytes(region, bytes, options);
        load.regions.push_back(std::move(region));
    }
    if (regionCount != 0 && empty == regionCount)
        return refuse("code regions", "The bytes of the code are not supplied: every region has size 0");

    if (!readModule(cursor, load.tail) || !readSymbolic(cursor, load.tail, options) ||
        (version >= 3 && !readMetadataToken(cursor, load.tail)))
        return refuse("method load tail", "");
    return Status::success();
}

DecodedMethodLoad decodeMethodLoad(const Record& record, int version, const std::string& file,
                                   const BodyOptions& options) {
    DecodedMethodLoad result;
    result.status = decodeMethodLoadInto(record, version, file, options, result.load);
    return result;
}

QUARVEL_NAMESPACE_END

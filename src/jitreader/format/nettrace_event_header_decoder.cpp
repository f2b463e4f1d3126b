#include "format/nettrace_event_header_decoder.h"

#include "format/nettrace_primitives.h"

#include <string>

QUARVEL_NAMESPACE_BEGIN

namespace {

enum CompressedFlag : uint8_t {
    hasMetadataId = 0x01,
    hasCaptureThreadAndSequence = 0x02,
    hasThreadId = 0x04,
    hasStackId = 0x08,
    hasActivityIdOrLabelList = 0x10, // versions 4-5: activity id; version 6: label list id
    hasRelatedActivityId = 0x20,     // versions 4-5 only
    isSortedFlag = 0x40,
    hasPayloadSize = 0x80
};

const uint32_t kSortedBit = 0x80000000u;

// Bytes of an uncompressed header after its size field.
const uint32_t kObjectStreamFixedBytes = 4 + 4 + 8 + 8 + 4 + 4 + 8 + 16 + 16 + 4;
const uint32_t kBlocksFixedBytes = 4 + 4 + 8 + 8 + 4 + 4 + 8 + 4 + 4;

} // namespace

bool NettraceEventHeaderDecoder::decode(ByteCursor& c, NettraceEventHeader& header) {
    const bool ok = m_compressed ? decodeCompressed(c, header) : decodeUncompressed(c, header);
    if (ok)
        m_previous = header;
    return ok;
}

bool NettraceEventHeaderDecoder::decodeCompressed(ByteCursor& c, NettraceEventHeader& h) {
    using nettrace::readVarUInt32;
    using nettrace::readVarUInt64;
    h = m_previous;
    h.rowSize = 0;
    uint8_t flags = 0;
    if (!c.u8(flags, "event header flags"))
        return false;
    if ((flags & hasMetadataId) && !readVarUInt32(c, h.metadataId, "metadata id"))
        return false;
    if (flags & hasCaptureThreadAndSequence) {
        uint32_t delta = 0;
        if (!readVarUInt32(c, delta, "sequence number") || !readVarUInt64(c, h.captureThreadId, "capture thread id") ||
            !readVarUInt32(c, h.processorNumber, "processor number"))
            return false;
        h.sequenceNumber += delta; // wraps as the writer's counter does
    }
    // Versions 4-5 count only events (metadata rows carry id 0); version 6 always.
    if (m_layout == NettraceLayout::blocks || h.metadataId != 0)
        ++h.sequenceNumber;
    if ((flags & hasThreadId) && !readVarUInt64(c, h.threadId, "thread id"))
        return false;
    if ((flags & hasStackId) && !readVarUInt32(c, h.stackId, "stack id"))
        return false;
    uint64_t timeDelta = 0;
    if (!readVarUInt64(c, timeDelta, "timestamp"))
        return false;
    h.timestamp += timeDelta;
    if (m_layout == NettraceLayout::objectStream) {
        if ((flags & hasActivityIdOrLabelList) && !c.skip(16, "activity id"))
            return false;
        if ((flags & hasRelatedActivityId) && !c.skip(16, "related activity id"))
            return false;
    } else if ((flags & hasActivityIdOrLabelList) && !readVarUInt32(c, h.labelListId, "label list id")) {
        return false;
    }
    h.isSorted = (flags & isSortedFlag) != 0;
    if ((flags & hasPayloadSize) && !readVarUInt32(c, h.payloadSize, "payload size"))
        return false;
    return true;
}

bool NettraceEventHeaderDecoder::decodeUncompressed(ByteCursor& c, NettraceEventHeader& h) {
    h = NettraceEventHeader();
    const uint64_t start = c.fileOffset();
    uint32_t rowSize = 0, metadataId = 0;
    if (!c.u32(rowSize, "event size") || !c.u32(metadataId, "metadata id") ||
        !c.u32(h.sequenceNumber, "sequence number") || !c.u64(h.threadId, "thread id") ||
        !c.u64(h.captureThreadId, "capture thread id") || !c.u32(h.processorNumber, "processor number") ||
        !c.u32(h.stackId, "stack id") || !c.u64(h.timestamp, "timestamp"))
        return false;
    uint32_t fixed = kBlocksFixedBytes;
    if (m_layout == NettraceLayout::objectStream) {
        fixed = kObjectStreamFixedBytes;
        if (!c.skip(32, "activity ids"))
            return false;
    } else if (!c.u32(h.labelListId, "label list id")) {
        return false;
    }
    if (!c.u32(h.payloadSize, "payload size"))
        return false;
    h.metadataId = metadataId & ~kSortedBit;
    h.isSorted = (metadataId & kSortedBit) != 0;
    if (rowSize < fixed || rowSize - fixed < h.payloadSize) {
        c.fail("event size " + std::to_string(rowSize) + " at offset " + std::to_string(start) +
               " cannot hold its header and a payload of " + std::to_string(h.payloadSize) + " bytes");
        return false;
    }
    h.rowSize = rowSize;
    return true;
}

QUARVEL_NAMESPACE_END

#ifndef QUARVEL_FORMAT_NETTRACE_EVENT_HEADER_DECODER_H
#define QUARVEL_FORMAT_NETTRACE_EVENT_HEADER_DECODER_H

// Decodes the header in front of each event of a block. Compressed headers
// leave out what equals the previous header's value and store some fields
// as differences from it, so the decoder keeps the previous header; a new
// block starts from an all-zero one.

#include "format/nettrace_types.h"
#include "support/byte_cursor.h"

#include <cstdint>

QUARVEL_NAMESPACE_BEGIN

struct NettraceEventHeader {
    uint32_t metadataId = 0;
    uint32_t sequenceNumber = 0;
    uint64_t threadId = 0; // version 6: an index into the thread table
    uint64_t captureThreadId = 0;
    uint32_t processorNumber = 0;
    uint32_t stackId = 0;
    uint64_t timestamp = 0;
    uint32_t labelListId = 0;
    bool isSorted = false;
    uint32_t payloadSize = 0;
    // Uncompressed rows: the bytes after the size field up to the next row
    // (alignment padding included); 0 for compressed rows.
    uint32_t rowSize = 0;
};

class NettraceEventHeaderDecoder {
public:
    explicit NettraceEventHeaderDecoder(NettraceLayout layout) : m_layout(layout) {}

    void startBlock(bool compressed) {
        m_compressed = compressed;
        m_previous = NettraceEventHeader();
    }

    // Reads one header; the payload follows it.
    bool decode(ByteCursor& c, NettraceEventHeader& header);

private:
    bool decodeCompressed(ByteCursor& c, NettraceEventHeader& header);
    bool decodeUncompressed(ByteCursor& c, NettraceEventHeader& header);

    NettraceLayout m_layout;
    bool m_compressed = false;
    NettraceEventHeader m_previous;
};

QUARVEL_NAMESPACE_END

#endif

#ifndef QUARVEL_FORMAT_NETTRACE_READER_H
#define QUARVEL_FORMAT_NETTRACE_READER_H

// Reads the runtime's own event trace (.nettrace, the EventPipe file format)
// one event at a time, in file order, without copying payloads: each event
// points into the bytes (normally a mapped file). Events of different
// threads are not in time order across blocks; sorting is the caller's.
//
//     NettraceReader reader(file);
//     NettraceEvent e;
//     while (reader.next(e)) { ... e.metadata, e.payload, e.timeNs ... }
//     if (const Reason* why = reader.damage()) { ... everything before it was delivered ... }
//
// Metadata blocks are taken in as they come, stack and label blocks are
// skipped, sequence points and thread blocks are applied. A damaged or
// truncated file delivers every whole event before the damage, then stops
// with a reason naming the file, the offset and the bad value.

#include "format/nettrace_event_header_decoder.h"
#include "format/nettrace_types.h"
#include "support/byte_cursor.h"
#include "support/mapped_file.h"
#include "support/result.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

QUARVEL_NAMESPACE_BEGIN

class NettraceReader {
public:
    // How many leading bytes looksLikeNettrace wants (fewer are judged by the magic alone).
    static constexpr size_t kSniffBytes = 32;
    // Whether a file that starts with these bytes is an event trace of a layout this reader knows.
    static bool looksLikeNettrace(const uint8_t* data, size_t size);

    // Maps the file; meFileOpenError when it cannot be read.
    static Expected<std::unique_ptr<NettraceReader>> open(const std::string& path);

    explicit NettraceReader(std::shared_ptr<const MappedFile> file);
    // Reads bytes the caller keeps alive; name appears in reasons.
    NettraceReader(const uint8_t* data, size_t size, std::string name);

    NettraceReader(const NettraceReader&) = delete;
    NettraceReader& operator=(const NettraceReader&) = delete;

    // Reads the magic, the header and the trace's description; next() does
    // it first when it was not called. False (with damage()) when refused.
    bool readHeader();
    const NettraceTraceInfo& info() const { return m_info; }

    // The next event; false at the end of the trace or at damage.
    bool next(NettraceEvent& event);

    // The end-of-stream mark was read: the writer finished the file.
    bool complete() const { return m_state == State::finished; }
    // Why reading stopped early; null when it did not.
    const Reason* damage() const { return m_damage ? &*m_damage : nullptr; }

    // Ticks of the trace's clock to nanoseconds of the same clock (saturating).
    uint64_t toNanoseconds(uint64_t ticks) const;

    const NettraceReaderStats& stats() const { return m_stats; }
    const std::string& name() const { return m_name; }
    size_t size() const { return m_size; }

private:
    enum class State { start, betweenBlocks, inEventBlock, finished, failed };

    // A block's content as far as the file holds it.
    struct Block {
        const char* kind = "";
        uint64_t start = 0;    // file offset of the content
        uint64_t declared = 0; // the size the framing claims
        bool truncated = false;
    };

    bool fail(uint64_t offset, const char* structure, const std::string& message);
    bool failCursor(const ByteCursor& c, const char* structure);
    ByteCursor cursorAt(size_t offset) const;
    ByteCursor contentOf(uint64_t start, uint64_t declared, const char* kind);
    bool failTruncated();

    bool readObjectStreamHeader(ByteCursor& c);
    bool readBlocksHeader(ByteCursor& c);
    // Reads framing up to the next event block (taking in the blocks before it).
    bool openNextBlock();
    bool openNextObject();
    bool openNextSizedBlock();
    bool endBlock();

    bool readTraceObject(ByteCursor& c);
    bool readTraceBlock(ByteCursor c);
    bool startEventBlock(ByteCursor c, bool metadata);
    bool readMetadataEvents(ByteCursor c);
    bool readMetadataRows(ByteCursor c);
    bool readSequencePoint(ByteCursor c);
    bool readThreadBlock(ByteCursor c);
    bool readRemoveThreadBlock(ByteCursor c);
    bool nextInBlock(NettraceEvent& event);
    void countDropped(const NettraceEventHeader& header);
    void defineMetadata(NettraceEventMetadata&& metadata);

    std::shared_ptr<const MappedFile> m_file;
    const uint8_t* m_data;
    size_t m_size;
    std::string m_name;

    State m_state = State::start;
    size_t m_pos = 0;        // where the framing continues
    size_t m_afterBlock = 0; // the end of the current block's content
    bool m_haveTrace = false;
    NettraceTraceInfo m_info;
    std::optional<Reason> m_damage;
    NettraceReaderStats m_stats;

    Block m_block;
    ByteCursor m_rows{nullptr, 0};
    NettraceEventHeaderDecoder m_headers{NettraceLayout::objectStream};

    std::unordered_map<uint32_t, NettraceEventMetadata> m_metadata;
    const NettraceEventMetadata* m_lastMetadata = nullptr;
    uint32_t m_lastMetadataId = 0;

    struct ThreadRow {
        uint64_t osThreadId = 0;
        uint64_t osProcessId = 0;
        bool hasThreadId = false;
        bool hasProcessId = false;
    };
    std::unordered_map<uint64_t, ThreadRow> m_threads;
    // The last sequence number seen of each capture thread.
    std::unordered_map<uint64_t, uint32_t> m_sequences;
};

QUARVEL_NAMESPACE_END

#endif

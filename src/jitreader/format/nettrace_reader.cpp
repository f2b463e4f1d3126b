#include "format/nettrace_reader.h"

#include "format/nettrace_metadata_parser.h"
#include "format/nettrace_primitives.h"

#include <algorithm>
#include <cstring>
#include <limits>

QUARVEL_NAMESPACE_BEGIN

namespace {

const char kMagic[] = "Nettrace";
const size_t kMagicSize = 8;
// Object streams follow the magic with this length-prefixed name.
const char kSerializerName[] = "!FastSerialization.1";
const uint32_t kSerializerNameSize = 20;

enum ObjectTag : uint8_t { tagNullReference = 1, tagBeginPrivateObject = 5, tagEndObject = 6 };

enum BlockKind : uint8_t {
    kindEndOfStream = 0,
    kindTrace = 1,
    kindEvent = 2,
    kindMetadata = 3,
    kindSequencePoint = 4,
    kindStack = 5,
    kindThread = 6,
    kindRemoveThread = 7,
    kindLabelList = 8
};

enum ThreadInfoKind : uint8_t { threadName = 1, threadProcessId = 2, threadOsId = 3, threadKeyValue = 4 };

const uint32_t kMaxTypeNameLength = 64;
// The newest versions this reader understands.
const uint32_t kTraceReaderVersion = 4;
const uint32_t kBlockReaderVersion = 2;
const uint32_t kBlocksMajorVersion = 6;
const uint16_t kEventBlockHeaderSize = 20;
const uint64_t kNanosecondsPerSecond = 1000000000;

uint32_t littleEndian32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

const char* blockKindName(uint8_t kind) {
    switch (kind) {
    case kindEndOfStream:
        return "EndOfStream block";
    case kindTrace:
        return "Trace block";
    case kindEvent:
        return "EventBlock";
    case kindMetadata:
        return "MetadataBlock";
    case kindSequencePoint:
        return "SequencePoint block";
    case kindStack:
        return "StackBlock";
    case kindThread:
        return "Thread block";
    case kindRemoveThread:
        return "RemoveThread block";
    case kindLabelList:
        return "LabelList block";
    default:
        return "block of unknown kind";
    }
}

// Decimal digits only; false for anything else or a value past 32 bits.
bool parseDecimal32(const std::string& text, uint32_t& value) {
    if (text.empty() || text.size() > 10)
        return false;
    uint64_t v = 0;
    for (char ch : text) {
        if (ch < '0' || ch > '9')
            return false;
        v = v * 10 + static_cast<uint64_t>(ch - '0');
    }
    if (v > std::numeric_limits<uint32_t>::max())
        return false;
    value = static_cast<uint32_t>(v);
    return true;
}

bool readUtcTime(ByteCursor& c, NettraceTraceInfo::UtcTime& t) {
    return c.u16(t.year, "sync time year") && c.u16(t.month, "sync time month") &&
           c.u16(t.dayOfWeek, "sync time day of week") && c.u16(t.day, "sync time day") &&
           c.u16(t.hour, "sync time hour") && c.u16(t.minute, "sync time minute") &&
           c.u16(t.second, "sync time second") && c.u16(t.millisecond, "sync time millisecond");
}

} // namespace

bool NettraceReader::looksLikeNettrace(const uint8_t* data, size_t size) {
    if (size < kMagicSize || std::memcmp(data, kMagic, kMagicSize) != 0)
        return false;
    if (size < kMagicSize + 4)
        return true;
    const uint32_t word = littleEndian32(data + kMagicSize);
    if (word == 0) // version 6: a reserved zero, then the major version
        return size < kMagicSize + 8 || littleEndian32(data + kMagicSize + 4) >= kBlocksMajorVersion;
    if (word != kSerializerNameSize)
        return false;
    const size_t available = std::min<size_t>(size - kMagicSize - 4, kSerializerNameSize);
    return std::memcmp(data + kMagicSize + 4, kSerializerName, available) == 0;
}

Expected<std::unique_ptr<NettraceReader>> NettraceReader::open(const std::string& path) {
    Expected<std::shared_ptr<const MappedFile>> file = MappedFile::open(path);
    if (!file)
        return file.reason();
    return std::unique_ptr<NettraceReader>(new NettraceReader(std::move(file.value())));
}

NettraceReader::NettraceReader(std::shared_ptr<const MappedFile> file)
    : m_file(std::move(file)), m_data(m_file->data()), m_size(m_file->size()), m_name(m_file->path()) {}

NettraceReader::NettraceReader(const uint8_t* data, size_t size, std::string name)
    : m_data(data), m_size(size), m_name(std::move(name)) {}

uint64_t NettraceReader::toNanoseconds(uint64_t ticks) const {
    const uint64_t frequency = m_info.tickFrequency;
    if (frequency == kNanosecondsPerSecond || frequency == 0)
        return ticks;
    const unsigned __int128 ns = static_cast<unsigned __int128>(ticks) * kNanosecondsPerSecond / frequency;
    return ns > std::numeric_limits<uint64_t>::max() ? std::numeric_limits<uint64_t>::max() : static_cast<uint64_t>(ns);
}

bool NettraceReader::fail(uint64_t offset, const char* structure, const std::string& message) {
    Reason reason = Reason::badInput(message);
    reason.inFile(m_name).at(offset).ofField(structure);
    m_damage = std::move(reason);
    m_state = State::failed;
    return false;
}

bool NettraceReader::failCursor(const ByteCursor& c, const char* structure) {
    return fail(c.fileOffset(), structure, c.error().empty() ? "bad value" : c.error());
}

bool NettraceReader::failTruncated() {
    return fail(m_size, m_block.kind,
                "the file ends inside the block whose content starts at offset " + std::to_string(m_block.start) +
                    ": " + std::to_string(m_size - m_block.start) + " of its " + std::to_string(m_block.declared) +
                    " bytes are present");
}

ByteCursor NettraceReader::cursorAt(size_t offset) const {
    ByteCursor c(m_data, m_size);
    c.seek(std::min(offset, m_size), "block");
    return c;
}

ByteCursor NettraceReader::contentOf(uint64_t start, uint64_t declared, const char* kind) {
    const uint64_t available = std::min<uint64_t>(declared, m_size - start);
    m_block.kind = kind;
    m_block.start = start;
    m_block.declared = declared;
    m_block.truncated = available < declared;
    m_afterBlock = static_cast<size_t>(std::min<uint64_t>(start + declared, std::numeric_limits<size_t>::max()));
    return ByteCursor(m_data + start, static_cast<size_t>(available), ByteCursor::Order::little, start);
}

bool NettraceReader::readHeader() {
    if (m_state != State::start)
        return m_state != State::failed;
    ByteCursor c(m_data, m_size);
    const uint8_t* magic = nullptr;
    if (!c.bytes(kMagicSize, magic, "magic"))
        return failCursor(c, "file header");
    if (std::memcmp(magic, kMagic, kMagicSize) != 0)
        return fail(0, "file header", "not an event trace: the file does not start with \"Nettrace\"");
    uint32_t word = 0;
    if (!c.u32(word, "serializer header"))
        return failCursor(c, "file header");
    if (word == 0) {
        if (!readBlocksHeader(c))
            return false;
    } else if (word == kSerializerNameSize) {
        if (!readObjectStreamHeader(c))
            return false;
    } else {
        return fail(kMagicSize, "file header",
                    "unknown layout: " + std::to_string(word) + " follows the magic (20 or 0 expected)");
    }
    m_pos = c.offset();
    m_state = State::betweenBlocks;
    // The trace's description comes first.
    const bool opened = m_info.layout == NettraceLayout::objectStream ? openNextObject() : openNextSizedBlock();
    if (!opened && m_state != State::failed)
        return fail(m_pos, "file header", "the trace ends before describing itself");
    return m_state != State::failed;
}

bool NettraceReader::readObjectStreamHeader(ByteCursor& c) {
    const uint8_t* name = nullptr;
    if (!c.bytes(kSerializerNameSize, name, "serializer name"))
        return failCursor(c, "file header");
    if (std::memcmp(name, kSerializerName, kSerializerNameSize) != 0)
        return fail(kMagicSize + 4, "file header", "the serializer name is not \"!FastSerialization.1\"");
    m_info.layout = NettraceLayout::objectStream;
    m_headers = NettraceEventHeaderDecoder(NettraceLayout::objectStream);
    return true;
}

bool NettraceReader::readBlocksHeader(ByteCursor& c) {
    if (!c.u32(m_info.majorVersion, "major version") || !c.u32(m_info.minorVersion, "minor version"))
        return failCursor(c, "file header");
    if (m_info.majorVersion != kBlocksMajorVersion)
        return fail(kMagicSize + 4, "file header",
                    "major version " + std::to_string(m_info.majorVersion) + " (this reader knows " +
                        std::to_string(kBlocksMajorVersion) + ")");
    m_info.layout = NettraceLayout::blocks;
    m_headers = NettraceEventHeaderDecoder(NettraceLayout::blocks);
    return true;
}

bool NettraceReader::next(NettraceEvent& event) {
    if (m_state == State::start && !readHeader())
        return false;
    for (;;) {
        switch (m_state) {
        case State::inEventBlock:
            if (nextInBlock(event))
                return true;
            break;
        case State::betweenBlocks:
            if (!openNextBlock())
                return false;
            break;
        default:
            return false;
        }
    }
}

bool NettraceReader::openNextBlock() {
    while (m_state == State::betweenBlocks) {
        const bool opened = m_info.layout == NettraceLayout::objectStream ? openNextObject() : openNextSizedBlock();
        if (!opened)
            return false;
    }
    return m_state == State::inEventBlock;
}

bool NettraceReader::endBlock() {
    if (m_info.layout == NettraceLayout::objectStream) {
        ByteCursor c = cursorAt(m_afterBlock);
        uint8_t tag = 0;
        if (!c.u8(tag, "end-of-object tag"))
            return failCursor(c, m_block.kind);
        if (tag != tagEndObject)
            return fail(m_afterBlock, m_block.kind, "end-of-object tag is " + std::to_string(tag) + " (6 expected)");
        m_pos = m_afterBlock + 1;
    } else {
        m_pos = m_afterBlock;
    }
    m_state = State::betweenBlocks;
    return true;
}

// One serialized object: begin tag, its type (begin tag, null tag, version,
// minimum reader version, name, end tag), its fields, end tag. The blocks'
// fields are a size, padding to a 4-byte file offset, then the content.
bool NettraceReader::openNextObject() {
    ByteCursor c = cursorAt(m_pos);
    const uint64_t at = m_pos;
    uint8_t tag = 0;
    if (!c.u8(tag, "object tag")) {
        return fail(at, "end of stream",
                    "the file ends at offset " + std::to_string(at) + " without the end-of-stream mark");
    }
    if (tag == tagNullReference) {
        m_pos = c.offset();
        m_state = State::finished;
        return false;
    }
    if (tag != tagBeginPrivateObject)
        return fail(at, "object header",
                    "tag " + std::to_string(tag) + " (5, begin object, or 1, end of stream, expected)");
    uint8_t typeBegin = 0, typeNull = 0, typeEnd = 0;
    uint32_t version = 0, minimumReader = 0, nameLength = 0;
    const uint8_t* name = nullptr;
    if (!c.u8(typeBegin, "type tag") || !c.u8(typeNull, "type's type tag") || !c.u32(version, "object version") ||
        !c.u32(minimumReader, "minimum reader version") || !c.u32(nameLength, "type name length"))
        return failCursor(c, "object header");
    if (typeBegin != tagBeginPrivateObject || typeNull != tagNullReference)
        return fail(at + 1, "object header",
                    "type tags " + std::to_string(typeBegin) + " " + std::to_string(typeNull) + " (5 1 expected)");
    if (nameLength == 0 || nameLength > kMaxTypeNameLength)
        return fail(at + 11, "object header", "type name length " + std::to_string(nameLength));
    if (!c.bytes(nameLength, name, "type name") || !c.u8(typeEnd, "type end tag"))
        return failCursor(c, "object header");
    if (typeEnd != tagEndObject)
        return fail(c.fileOffset() - 1, "object header", "type end tag " + std::to_string(typeEnd) + " (6 expected)");
    const std::string type(reinterpret_cast<const char*>(name), nameLength);

    if (type == "Trace") {
        if (m_haveTrace)
            return fail(at, "Trace object", "a second Trace object");
        if (minimumReader > kTraceReaderVersion)
            return fail(at, "Trace object",
                        "needs a reader of version " + std::to_string(minimumReader) + " (this one reads " +
                            std::to_string(kTraceReaderVersion) + ")");
        m_info.majorVersion = version;
        if (!readTraceObject(c))
            return false;
        uint8_t end = 0;
        if (!c.u8(end, "end-of-object tag"))
            return failCursor(c, "Trace object");
        if (end != tagEndObject)
            return fail(c.fileOffset() - 1, "Trace object",
                        "end-of-object tag is " + std::to_string(end) + " (6 expected)");
        m_pos = c.offset();
        m_haveTrace = true;
        return true;
    }
    if (!m_haveTrace)
        return fail(at, "object header", "\"" + type + "\" before the Trace object");

    const char* kind = nullptr;
    if (type == "EventBlock")
        kind = "EventBlock";
    else if (type == "MetadataBlock")
        kind = "MetadataBlock";
    else if (type == "StackBlock")
        kind = "StackBlock";
    else if (type == "SPBlock")
        kind = "SPBlock";
    else // its length cannot be known
        return fail(at, "object header", "unknown object type \"" + type + "\"");
    if (minimumReader > kBlockReaderVersion)
        return fail(at, kind,
                    "needs a reader of version " + std::to_string(minimumReader) + " (this one reads " +
                        std::to_string(kBlockReaderVersion) + ")");
    uint32_t size = 0;
    if (!c.u32(size, "block size"))
        return failCursor(c, kind);
    if (size > static_cast<uint32_t>(std::numeric_limits<int32_t>::max()))
        return fail(c.fileOffset() - 4, kind, "block size " + std::to_string(size));
    if (!c.skip((4 - c.fileOffset() % 4) % 4, "block alignment"))
        return failCursor(c, kind);
    ByteCursor content = contentOf(c.fileOffset(), size, kind);

    if (type == "EventBlock")
        return startEventBlock(content, false);
    if (type == "MetadataBlock")
        return startEventBlock(content, true) && readMetadataEvents(m_rows) && endBlock();
    if (type == "StackBlock")
        ++m_stats.stackBlocks;
    else
        ++m_stats.sequencePoints;
    return m_block.truncated ? failTruncated() : endBlock();
}

// Version 6: a 4-byte header (24-bit size, 8-bit kind), then the content.
bool NettraceReader::openNextSizedBlock() {
    ByteCursor c = cursorAt(m_pos);
    const uint64_t at = m_pos;
    uint32_t header = 0;
    if (!c.u32(header, "block header")) {
        if (m_pos == m_size)
            return fail(at, "end of stream",
                        "the file ends at offset " + std::to_string(at) + " without the end-of-stream block");
        return failCursor(c, "block header");
    }
    const uint32_t size = header & 0xFFFFFF;
    const uint8_t kind = static_cast<uint8_t>(header >> 24);
    if (kind == kindEndOfStream) {
        m_pos = c.offset();
        m_state = State::finished;
        return false;
    }
    const char* name = blockKindName(kind);
    if (kind == kindTrace && m_haveTrace)
        return fail(at, name, "a second Trace block");
    if (kind != kindTrace && !m_haveTrace)
        return fail(at, name, "before the Trace block");
    ByteCursor content = contentOf(c.fileOffset(), size, name);
    switch (kind) {
    case kindTrace:
        if (!readTraceBlock(content))
            return false;
        m_haveTrace = true;
        break;
    case kindEvent:
        return startEventBlock(content, false);
    case kindMetadata:
        ++m_stats.metadataBlocks;
        if (!readMetadataRows(content))
            return false;
        break;
    case kindSequencePoint:
        if (!readSequencePoint(content))
            return false;
        break;
    case kindStack:
        ++m_stats.stackBlocks;
        break;
    case kindThread:
        if (!readThreadBlock(content))
            return false;
        break;
    case kindRemoveThread:
        if (!readRemoveThreadBlock(content))
            return false;
        break;
    default: // label lists and kinds added later
        ++m_stats.otherBlocks;
        break;
    }
    return m_block.truncated ? failTruncated() : endBlock();
}

bool NettraceReader::readTraceObject(ByteCursor& c) {
    NettraceTraceInfo& t = m_info;
    if (!readUtcTime(c, t.syncTimeUtc) || !c.u64(t.syncTimeTicks, "sync time ticks") ||
        !c.u64(t.tickFrequency, "tick frequency") || !c.u32(t.pointerSize, "pointer size") ||
        !c.u32(t.processId, "process id") || !c.u32(t.processorCount, "processor count") ||
        !c.u32(t.expectedCpuSamplingRate, "expected sampling rate"))
        return failCursor(c, "Trace object");
    if (t.tickFrequency == 0)
        return fail(c.fileOffset() - 24, "Trace object", "tick frequency 0");
    return true;
}

bool NettraceReader::readTraceBlock(ByteCursor c) {
    NettraceTraceInfo& t = m_info;
    uint32_t count = 0;
    if (!readUtcTime(c, t.syncTimeUtc) || !c.u64(t.syncTimeTicks, "sync time ticks") ||
        !c.u64(t.tickFrequency, "tick frequency") || !c.u32(t.pointerSize, "pointer size") ||
        !c.u32(count, "key/value count"))
        return failCursor(c, "Trace block");
    if (t.tickFrequency == 0)
        return fail(m_block.start + 24, "Trace block", "tick frequency 0");
    if (count > c.remaining() / 2)
        return fail(c.fileOffset() - 4, "Trace block", "key/value count " + std::to_string(count));
    for (uint32_t i = 0; i < count; ++i) {
        std::string key, value;
        if (!nettrace::readUtf8String(c, key, "key") || !nettrace::readUtf8String(c, value, "value"))
            return failCursor(c, "Trace block");
        if (key == "ProcessId")
            parseDecimal32(value, t.processId);
        else if (key == "HardwareThreadCount")
            parseDecimal32(value, t.processorCount);
        else if (key == "ExpectedCPUSamplingRate")
            parseDecimal32(value, t.expectedCpuSamplingRate);
        t.keyValues.emplace_back(std::move(key), std::move(value));
    }
    return true;
}

// Event and (versions 4-5) metadata blocks: a header that gives its own
// size and whether the rows' headers are compressed, then the rows.
bool NettraceReader::startEventBlock(ByteCursor c, bool metadata) {
    uint16_t headerSize = 0, flags = 0;
    uint64_t minTimestamp = 0, maxTimestamp = 0;
    if (!c.u16(headerSize, "block header size") || !c.u16(flags, "block flags") ||
        !c.u64(minTimestamp, "minimum timestamp") || !c.u64(maxTimestamp, "maximum timestamp"))
        return failCursor(c, m_block.kind);
    if (headerSize < kEventBlockHeaderSize)
        return fail(m_block.start, m_block.kind, "block header size " + std::to_string(headerSize));
    if (!c.skip(headerSize - kEventBlockHeaderSize, "block header"))
        return failCursor(c, m_block.kind);
    m_headers.startBlock((flags & 1) != 0);
    m_rows = c;
    if (metadata) {
        ++m_stats.metadataBlocks;
    } else {
        ++m_stats.eventBlocks;
        m_state = State::inEventBlock;
    }
    return true;
}

bool NettraceReader::readMetadataEvents(ByteCursor c) {
    while (!c.atEnd()) {
        const uint64_t at = c.fileOffset();
        NettraceEventHeader header;
        if (!m_headers.decode(c, header))
            return failCursor(c, "metadata event header");
        ByteCursor payload = c.sub(header.payloadSize, "metadata payload");
        if (!c)
            return failCursor(c, "metadata event");
        if (header.rowSize &&
            !c.skip(static_cast<size_t>(at + 4 + header.rowSize - c.fileOffset()), "metadata padding"))
            return failCursor(c, "metadata event");
        NettraceEventMetadata metadata;
        if (!NettraceMetadataParser::parseEventPayload(payload, metadata))
            return failCursor(payload, "metadata");
        defineMetadata(std::move(metadata));
    }
    return m_block.truncated ? failTruncated() : true;
}

bool NettraceReader::readMetadataRows(ByteCursor c) {
    uint16_t headerSize = 0;
    if (!c.u16(headerSize, "metadata block header size") || !c.skip(headerSize, "metadata block header"))
        return failCursor(c, "MetadataBlock");
    while (!c.atEnd()) {
        uint16_t size = 0;
        if (!c.u16(size, "metadata row size"))
            return failCursor(c, "MetadataBlock");
        ByteCursor row = c.sub(size, "metadata row");
        if (!c)
            return failCursor(c, "MetadataBlock");
        NettraceEventMetadata metadata;
        if (!NettraceMetadataParser::parseRow(row, metadata))
            return failCursor(row, "metadata row");
        defineMetadata(std::move(metadata));
    }
    return true;
}

void NettraceReader::defineMetadata(NettraceEventMetadata&& metadata) {
    const uint32_t id = metadata.id;
    m_metadata[id] = std::move(metadata);
    ++m_stats.metadataDefinitions;
    m_lastMetadata = nullptr;
}

bool NettraceReader::readSequencePoint(ByteCursor c) {
    ++m_stats.sequencePoints;
    uint64_t timestamp = 0;
    uint32_t flags = 0, count = 0;
    if (!c.u64(timestamp, "sequence point timestamp") || !c.u32(flags, "sequence point flags") ||
        !c.u32(count, "thread count"))
        return failCursor(c, "SequencePoint block");
    if (count > c.remaining() / 2)
        return fail(c.fileOffset() - 4, "SequencePoint block", "thread count " + std::to_string(count));
    for (uint32_t i = 0; i < count; ++i) {
        uint64_t index = 0;
        uint32_t sequence = 0;
        if (!nettrace::readVarUInt64(c, index, "thread index") ||
            !nettrace::readVarUInt32(c, sequence, "sequence number"))
            return failCursor(c, "SequencePoint block");
    }
    if (flags & 1) {
        m_threads.clear();
        m_sequences.clear();
    }
    if (flags & 2) {
        m_metadata.clear();
        m_lastMetadata = nullptr;
    }
    return true;
}

bool NettraceReader::readThreadBlock(ByteCursor c) {
    ++m_stats.otherBlocks;
    std::string text, value;
    while (c && !c.atEnd()) {
        uint16_t size = 0;
        if (!c.u16(size, "thread row size"))
            break;
        ByteCursor row = c.sub(size, "thread row");
        uint64_t index = 0;
        if (!c || !nettrace::readVarUInt64(row, index, "thread index"))
            return failCursor(c ? row : c, "Thread block");
        ThreadRow& thread = m_threads[index];
        while (!row.atEnd()) {
            uint8_t kind = 0;
            row.u8(kind, "thread info kind");
            if (kind == threadName) {
                nettrace::readUtf8String(row, text, "thread name");
            } else if (kind == threadProcessId) {
                thread.hasProcessId = nettrace::readVarUInt64(row, thread.osProcessId, "process id");
            } else if (kind == threadOsId) {
                thread.hasThreadId = nettrace::readVarUInt64(row, thread.osThreadId, "thread id");
            } else if (kind == threadKeyValue) {
                if (nettrace::readUtf8String(row, text, "key"))
                    nettrace::readUtf8String(row, value, "value");
            } else {
                break; // a kind added later ends what can be read of the row
            }
            if (!row)
                return failCursor(row, "Thread block");
        }
    }
    return c ? true : failCursor(c, "Thread block");
}

bool NettraceReader::readRemoveThreadBlock(ByteCursor c) {
    ++m_stats.otherBlocks;
    while (!c.atEnd()) {
        uint64_t index = 0;
        uint32_t sequence = 0;
        if (!nettrace::readVarUInt64(c, index, "thread index") ||
            !nettrace::readVarUInt32(c, sequence, "sequence number"))
            return failCursor(c, "RemoveThread block");
        m_threads.erase(index);
        m_sequences.erase(index);
    }
    return true;
}

void NettraceReader::countDropped(const NettraceEventHeader& h) {
    uint32_t& last = m_sequences[h.captureThreadId];
    // A smaller number is a new thread under a recycled id (or a wrap): start over.
    if (last != 0 && h.sequenceNumber > last + 1 && last != std::numeric_limits<uint32_t>::max())
        m_stats.droppedEvents += h.sequenceNumber - last - 1;
    last = h.sequenceNumber;
}

bool NettraceReader::nextInBlock(NettraceEvent& event) {
    if (m_rows.atEnd()) {
        if (m_block.truncated)
            return failTruncated();
        endBlock();
        return false;
    }
    const uint64_t at = m_rows.fileOffset();
    NettraceEventHeader h;
    if (!m_headers.decode(m_rows, h))
        return failCursor(m_rows, "event header");
    const uint64_t payloadAt = m_rows.fileOffset();
    const uint8_t* payload = nullptr;
    if (!m_rows.bytes(h.payloadSize, payload, "event payload"))
        return failCursor(m_rows, "event");
    if (h.rowSize) {
        // The size counts from after itself to the next row (padding included).
        const uint64_t rowEnd = at + 4 + h.rowSize;
        if (!m_rows.skip(static_cast<size_t>(rowEnd - m_rows.fileOffset()), "event padding"))
            return failCursor(m_rows, "event");
    }

    if (!m_lastMetadata || m_lastMetadataId != h.metadataId) {
        const auto it = m_metadata.find(h.metadataId);
        m_lastMetadata = it == m_metadata.end() ? nullptr : &it->second;
        m_lastMetadataId = h.metadataId;
    }
    event.metadata = m_lastMetadata;
    event.metadataId = h.metadataId;
    event.sequenceNumber = h.sequenceNumber;
    event.threadId = h.threadId;
    event.captureThreadId = h.captureThreadId;
    event.processId = m_info.processId;
    if (m_info.layout == NettraceLayout::blocks) {
        const auto thread = m_threads.find(h.threadId);
        if (thread != m_threads.end()) {
            if (thread->second.hasThreadId)
                event.threadId = thread->second.osThreadId;
            if (thread->second.hasProcessId)
                event.processId = static_cast<uint32_t>(thread->second.osProcessId);
        }
    }
    event.processorNumber = h.processorNumber;
    event.stackId = h.stackId;
    event.timestamp = h.timestamp;
    event.timeNs = toNanoseconds(h.timestamp);
    event.isSorted = h.isSorted;
    event.payload = payload;
    event.payloadSize = h.payloadSize;
    event.payloadOffset = payloadAt;
    event.offset = at;
    countDropped(h);
    ++m_stats.events;
    if (!event.metadata)
        ++m_stats.eventsWithoutMetadata;
    return true;
}

QUARVEL_NAMESPACE_END

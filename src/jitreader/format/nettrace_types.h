#ifndef QUARVEL_FORMAT_NETTRACE_TYPES_H
#define QUARVEL_FORMAT_NETTRACE_TYPES_H

// What the runtime's event trace (.nettrace) reader hands out: the trace as a
// whole, the event types it defines and one event at a time. Plain data; an
// event's payload points into the reader's bytes (the mapped file).

#include <quarvel/namespace.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// The two layouts the runtime has written: versions 4 and 5 frame every block
// as a serialized object ("!FastSerialization.1" after the magic; what .NET 8
// to 10 write for a session started from the environment), version 6 frames
// them as sized, typed blocks.
enum class NettraceLayout { objectStream, blocks };

struct NettraceTraceInfo {
    NettraceLayout layout = NettraceLayout::objectStream;
    // Object streams: the Trace object's version (4); blocks: the header's major.minor.
    uint32_t majorVersion = 0;
    uint32_t minorVersion = 0;

    // When the trace started, in UTC and on the trace's clock.
    struct UtcTime {
        uint16_t year = 0, month = 0, dayOfWeek = 0, day = 0, hour = 0, minute = 0, second = 0, millisecond = 0;
    } syncTimeUtc;
    uint64_t syncTimeTicks = 0;
    uint64_t tickFrequency = 0; // ticks per second; on Linux 1e9 (CLOCK_MONOTONIC nanoseconds)
    uint32_t pointerSize = 0;
    uint32_t processId = 0; // 0 when the trace does not say
    uint32_t processorCount = 0;
    uint32_t expectedCpuSamplingRate = 0;
    // Version 6: the trace's key/value pairs (ProcessId, HardwareThreadCount, ...).
    std::vector<std::pair<std::string, std::string>> keyValues;
};

// Type codes of payload fields, as the metadata spells them.
enum NettraceTypeCode : uint32_t {
    ntObject = 1,
    ntBoolean32 = 3,
    ntUtf16CodeUnit = 4,
    ntSByte = 5,
    ntByte = 6,
    ntInt16 = 7,
    ntUInt16 = 8,
    ntInt32 = 9,
    ntUInt32 = 10,
    ntInt64 = 11,
    ntUInt64 = 12,
    ntSingle = 13,
    ntDouble = 14,
    ntDateTime = 16,
    ntGuid = 17,
    ntUtf16String = 18,
    ntArray = 19,
    ntVarInt = 20,
    ntVarUInt = 21,
    ntFixedLengthArray = 22,
    ntUtf8CodeUnit = 23,
    ntRelLoc = 24,
    ntDataLoc = 25,
    ntBoolean8 = 26
};

// One payload field as the metadata describes it. Nested objects are
// described by their type code only.
struct NettraceFieldDescription {
    std::string name;
    uint32_t typeCode = 0;
    uint32_t elementTypeCode = 0; // arrays: the type of their elements
};

// One event type. The runtime's own events carry no name and no field list:
// they are known by (provider, event id, version).
struct NettraceEventMetadata {
    uint32_t id = 0;
    std::string providerName;
    uint32_t eventId = 0;
    std::string eventName;
    uint64_t keywords = 0;
    uint32_t version = 0;
    uint32_t level = 0;
    uint8_t opcode = 0;
    std::vector<NettraceFieldDescription> fields;
};

struct NettraceEvent {
    // Valid until the next call to the reader; null when the trace never
    // defined the event's metadata id.
    const NettraceEventMetadata* metadata = nullptr;
    uint32_t metadataId = 0;
    uint32_t sequenceNumber = 0;
    uint64_t threadId = 0;        // the OS thread (version 6: resolved through the thread table when known)
    uint64_t captureThreadId = 0; // the thread that wrote the event
    uint32_t processId = 0;       // the trace's process unless a version 6 thread row says otherwise
    uint32_t processorNumber = 0;
    uint32_t stackId = 0;
    uint64_t timestamp = 0; // raw ticks
    uint64_t timeNs = 0;    // the same instant in nanoseconds of the trace's clock
    bool isSorted = false;
    const uint8_t* payload = nullptr;
    size_t payloadSize = 0;
    uint64_t payloadOffset = 0; // file offset of the payload
    uint64_t offset = 0;        // file offset of the event's header
};

struct NettraceReaderStats {
    uint64_t events = 0;
    uint64_t eventsWithoutMetadata = 0;
    // Events the writer numbered but did not write (gaps in a capture
    // thread's sequence numbers): lost to full buffers or a closing session.
    uint64_t droppedEvents = 0;
    uint64_t metadataDefinitions = 0;
    uint64_t eventBlocks = 0;
    uint64_t metadataBlocks = 0;
    uint64_t stackBlocks = 0;
    uint64_t sequencePoints = 0;
    uint64_t otherBlocks = 0; // thread, label list and blocks of unknown kinds
};

QUARVEL_NAMESPACE_END

#endif

// The runtime's event trace reader on traces written by the fixtures'
// NettraceWriter: both layouts and every header form read back what was
// written (events and their metadata), every truncation keeps exactly the
// whole events before it, and each kind of damage stops the reading with a
// reason that names where.

#include "dotnet_event_payloads.h"
#include "format/nettrace_reader.h"
#include "nettrace_writer.h"
#include "temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace quarvel;
using quarvel_test::NettraceBlockOptions;
using quarvel_test::NettraceEventRow;
using quarvel_test::NettraceEventType;
using quarvel_test::NettraceThreadRow;
using quarvel_test::NettraceTraceShape;
using quarvel_test::NettraceWriter;
using quarvel_test::NettraceWriterLayout;

namespace nettrace_reader_test {

typedef std::vector<uint8_t> Bytes;

// What a test compares of each event read: the header as the reader gave it
// (its pointers cleared: they are valid only until the next event), copies
// of the metadata (empty when unknown) and of the payload.
struct ReadEvent {
    NettraceEvent header;
    NettraceEventMetadata metadata;
    Bytes payload;
};

struct ReadResult {
    std::vector<ReadEvent> events;
    bool complete = false;
    bool damaged = false;
    Reason damage;
    NettraceTraceInfo info;
    NettraceReaderStats stats;
};

ReadResult readAll(const Bytes& bytes, size_t length = SIZE_MAX) {
    // A buffer of exactly the length, so that a read past it shows under the sanitizers.
    const size_t n = std::min(length, bytes.size());
    std::unique_ptr<uint8_t[]> copy(new uint8_t[n ? n : 1]);
    std::copy(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n), copy.get());
    NettraceReader reader(copy.get(), n, "trace.nettrace");
    ReadResult result;
    NettraceEvent e;
    while (reader.next(e)) {
        ReadEvent r;
        if (e.metadata)
            r.metadata = *e.metadata;
        r.payload.assign(e.payload, e.payload + e.payloadSize);
        r.header = e;
        r.header.metadata = nullptr;
        r.header.payload = nullptr;
        result.events.push_back(r);
    }
    result.complete = reader.complete();
    if (reader.damage()) {
        result.damaged = true;
        result.damage = *reader.damage();
    }
    result.info = reader.info();
    result.stats = reader.stats();
    return result;
}

Bytes payloadOf(size_t size, uint8_t seed) {
    Bytes b(size);
    for (size_t i = 0; i < size; ++i)
        b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
}

// A runtime event (no name, no fields), and two with every property of a
// definition; the last lists its fields as the runtime does for arrays.
std::vector<NettraceEventType> threeTypes() {
    NettraceEventType a = quarvel_test::dotnetEventType(1, quarvel_test::kDotnetRuntimeProvider, 143, 1);
    NettraceEventType b;
    b.metadataId = 2;
    b.provider = "My-Provider";
    b.eventId = 12;
    b.version = 3;
    b.name = "Something";
    b.keywords = 0x20018;
    b.level = 5;
    b.opcode = 33;
    b.fields = {{"A", ntUInt64}, {"B", ntUtf16String}};
    NettraceEventType c = b;
    c.metadataId = 3;
    c.provider = "Arrays";
    c.eventId = 7;
    c.opcode = 0;
    c.fields = {{"Count", ntUInt16}, {"Offsets", ntArray, ntUInt32}};
    c.fieldsInParameterTag = true;
    return {a, b, c};
}

// Rows whose header fields change in every way the compressed form encodes:
// same and new metadata, threads, stacks, processors, payload sizes, gaps
// in the sequence, timestamps going back (another thread's).
std::vector<NettraceEventRow> rowsOfBlock(uint64_t base) {
    std::vector<NettraceEventRow> rows;
    const struct {
        uint32_t metadataId;
        uint64_t dt;
        size_t size;
        uint64_t thread;
        uint32_t stack;
        uint32_t processor;
        uint32_t sequence;
        bool sorted;
    } cases[] = {{1, 0, 40, 100, 0, 0, 0, true},           {1, 5, 40, 100, 0, 0, 0, false},
                 {2, 9, 0, 100, 1, 0, 0, false},           {3, 1000, 3, 200, 0, 1, 0, true},
                 {3, 1000, 3, 200, 2, 1, 77, false},       {1, 3, 260, 100, 2, 0, 0, false},
                 {2, 0, 1, 0xFFFFFFFFFFull, 0, 3, 0, true}};
    uint64_t t = base;
    for (const auto& s : cases) {
        NettraceEventRow r;
        r.metadataId = s.metadataId;
        t += s.dt;
        r.timestamp = s.thread == 200 ? t - 500 : t; // another thread's clock reading can be earlier
        r.payload = payloadOf(s.size, static_cast<uint8_t>(rows.size()));
        r.threadId = r.captureThreadId = s.thread;
        r.stackId = s.stack;
        r.processor = s.processor;
        r.sequenceNumber = s.sequence;
        r.sorted = s.sorted;
        rows.push_back(r);
    }
    return rows;
}

struct Form {
    const char* name;
    NettraceWriterLayout layout;
    NettraceBlockOptions options; // compressed, every optional field, bytes added to the block header
};

const Form kForms[] = {
    {"v5 compressed", NettraceWriterLayout::objectStream, {true, false, 0}},
    {"v5 compressed, every field", NettraceWriterLayout::objectStream, {true, true, 0}},
    {"v5 uncompressed", NettraceWriterLayout::objectStream, {false, false, 0}},
    {"v5 compressed, longer block header", NettraceWriterLayout::objectStream, {true, false, 12}},
    {"v6 compressed", NettraceWriterLayout::blocks, {true, false, 0}},
    {"v6 compressed, every field", NettraceWriterLayout::blocks, {true, true, 0}},
    {"v6 uncompressed", NettraceWriterLayout::blocks, {false, false, 0}},
    {"v6 uncompressed, longer block header", NettraceWriterLayout::blocks, {false, false, 6}},
};

// Two event blocks with stacks and a sequence point between them, on a
// 100 ns clock.
NettraceWriter smallTrace(const Form& form) {
    NettraceTraceShape shape;
    shape.layout = form.layout;
    shape.frequency = 10000000;
    NettraceWriter w(shape);
    w.metadata(threeTypes(), form.options);
    w.stacks(1, {{0x1000, 0x2000}, {}});
    w.events(rowsOfBlock(5000), form.options);
    w.sequencePoint(9000);
    w.stacks(1, {{0x3000}});
    w.events(rowsOfBlock(10000), form.options);
    w.end();
    return w;
}

// Every header form reads back what was written. And the promise to a user
// whose process died mid-write: a file cut anywhere delivers exactly the
// events that lie wholly before the cut, then says why it stopped. Only the
// whole file reads as complete and undamaged.
TEST(NettraceReader, EveryHeaderFormReadsBackWhatWasWrittenAndEveryCutKeepsTheWholeEventsBeforeIt) {
    // As the writer numbers them: from 1 per capture thread (100, 200 and
    // 0xFFFFFFFFFF); row 5 of each block gives its own, 77.
    const uint32_t sequences[] = {1, 2, 3, 1, 77, 4, 1, 5, 6, 7, 2, 77, 8, 2};
    for (const Form& form : kForms) {
        SCOPED_TRACE(form.name);
        const NettraceWriter w = smallTrace(form);
        const ReadResult r = readAll(w.bytes());
        ASSERT_FALSE(r.damaged) << r.damage.text();
        EXPECT_TRUE(r.complete);
        EXPECT_EQ(r.info.processId, 4242u);
        EXPECT_EQ(r.info.tickFrequency, 10000000u);
        EXPECT_EQ(r.info.syncTimeTicks, 1000000u);
        EXPECT_EQ(r.info.layout,
                  form.layout == NettraceWriterLayout::blocks ? NettraceLayout::blocks : NettraceLayout::objectStream);
        std::vector<NettraceEventRow> expected = rowsOfBlock(5000);
        for (const NettraceEventRow& row : rowsOfBlock(10000))
            expected.push_back(row);
        ASSERT_EQ(r.events.size(), expected.size());
        ASSERT_EQ(r.events.size(), w.eventEnds().size());
        const std::vector<NettraceEventType> types = threeTypes();
        for (size_t i = 0; i < expected.size(); ++i) {
            SCOPED_TRACE("event " + std::to_string(i));
            const NettraceEventRow& want = expected[i];
            const NettraceEvent& got = r.events[i].header;
            const NettraceEventType& type = types[want.metadataId - 1];
            EXPECT_EQ(r.events[i].metadata.providerName, type.provider);
            EXPECT_EQ(r.events[i].metadata.eventId, type.eventId);
            EXPECT_EQ(r.events[i].metadata.version, type.version);
            EXPECT_EQ(got.metadataId, want.metadataId);
            EXPECT_EQ(got.sequenceNumber, sequences[i]);
            EXPECT_EQ(got.threadId, want.threadId);
            EXPECT_EQ(got.captureThreadId, want.captureThreadId);
            EXPECT_EQ(got.processorNumber, want.processor);
            EXPECT_EQ(got.stackId, want.stackId);
            EXPECT_EQ(got.timestamp, want.timestamp);
            EXPECT_EQ(got.isSorted, want.sorted);
            EXPECT_EQ(got.processId, 4242u);
            EXPECT_EQ(r.events[i].payload, want.payload);
        }
        const NettraceEventMetadata& b = r.events[2].metadata;
        EXPECT_EQ(b.eventName, "Something");
        EXPECT_EQ(b.level, 5u);
        EXPECT_EQ(b.keywords, 0x20018u);
        EXPECT_EQ(b.opcode, 33);
        ASSERT_EQ(b.fields.size(), 2u);
        EXPECT_EQ(b.fields[1].name, "B");
        EXPECT_EQ(b.fields[1].typeCode, ntUtf16String);
        const NettraceEventMetadata& c = r.events[3].metadata;
        EXPECT_EQ(c.opcode, 0);
        ASSERT_EQ(c.fields.size(), 2u);
        EXPECT_EQ(c.fields[1].name, "Offsets");
        EXPECT_EQ(c.fields[1].typeCode, ntArray);
        EXPECT_EQ(c.fields[1].elementTypeCode, ntUInt32);
        EXPECT_EQ(r.stats.sequencePoints, 1u); // the reading pass orders events by them

        for (size_t length = 0; length < w.bytes().size(); ++length) {
            const ReadResult cut = readAll(w.bytes(), length);
            size_t whole = 0;
            while (whole < w.eventEnds().size() && w.eventEnds()[whole] <= length)
                ++whole;
            ASSERT_EQ(cut.events.size(), whole) << "cut at " << length;
            for (size_t i = 0; i < whole; ++i)
                ASSERT_EQ(cut.events[i].payload, r.events[i].payload) << "cut at " << length << ", event " << i;
            ASSERT_FALSE(cut.complete) << "cut at " << length;
            ASSERT_TRUE(cut.damaged) << "cut at " << length;
            EXPECT_EQ(cut.damage.file, "trace.nettrace");
            EXPECT_LE(cut.damage.offset, length) << cut.damage.text();
            EXPECT_FALSE(cut.damage.message.empty());
        }
    }
}

// Each layout's clock frequency: the test above.
TEST(NettraceReader, TicksBecomeNanosecondsOfTheTracesClock) {
    const struct {
        uint64_t frequency;
        uint64_t ticks;
        uint64_t ns;
    } cases[] = {
        {1000000000, 123456789012345ull, 123456789012345ull}, // Linux: CLOCK_MONOTONIC nanoseconds
        {10000000, 5, 500},                                   // a 100 ns tick
        {10000000, 1844674407370955ull, 184467440737095500ull},
        {3000000000ull, 3, 1}, // faster than a nanosecond: rounds down
        {3000000000ull, 30000000000000ull, 10000000000000ull},
        {1, UINT64_MAX / 2, UINT64_MAX}, // past 64 bits: saturates
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.frequency) + " Hz, " + std::to_string(c.ticks) + " ticks");
        NettraceTraceShape shape;
        shape.frequency = c.frequency;
        NettraceWriter w(shape);
        w.metadata({quarvel_test::dotnetEventType(1, "P", 1, 0)});
        NettraceEventRow row;
        row.metadataId = 1;
        row.timestamp = c.ticks;
        w.events({row}).end();
        const ReadResult r = readAll(w.bytes());
        ASSERT_FALSE(r.damaged) << r.damage.text();
        ASSERT_EQ(r.events.size(), 1u);
        EXPECT_EQ(r.events[0].header.timestamp, c.ticks);
        EXPECT_EQ(r.events[0].header.timeNs, c.ns);
    }
}

// The writer numbers each capture thread's events; what it numbered but
// never wrote shows as gaps, a thread id starting again does not.
TEST(NettraceReader, GapsInSequenceNumbersCountAsDroppedEvents) {
    for (NettraceWriterLayout layout : {NettraceWriterLayout::objectStream, NettraceWriterLayout::blocks}) {
        NettraceTraceShape shape;
        shape.layout = layout;
        NettraceWriter w(shape);
        w.metadata({quarvel_test::dotnetEventType(1, "P", 1, 0)});
        const auto on = [](uint64_t thread, uint32_t sequence) {
            NettraceEventRow r;
            r.metadataId = 1;
            r.threadId = r.captureThreadId = thread;
            r.sequenceNumber = sequence;
            return r;
        };
        w.events({on(1, 1), on(1, 2), on(2, 1), on(1, 5), on(2, 2)}); // 3 and 4 of thread 1 are lost
        w.events({on(2, 10), on(1, 6), on(1, 1), on(1, 2)});          // 3-9 of thread 2; thread 1 starts again
        w.end();
        const ReadResult r = readAll(w.bytes());
        ASSERT_FALSE(r.damaged) << r.damage.text();
        EXPECT_EQ(r.events.size(), 9u);
        EXPECT_EQ(r.stats.droppedEvents, 2u + 7u);
    }
}

TEST(NettraceReader, VersionSixThreadsAndCacheFlushesApply) {
    NettraceTraceShape shape;
    shape.layout = NettraceWriterLayout::blocks;
    NettraceWriter w(shape);
    w.threads({{1, 5001, 77, "main"}, {2, 5002, 78, ""}});
    w.metadata({quarvel_test::dotnetEventType(1, "P", 1, 0)});
    NettraceEventRow a, b;
    a.metadataId = b.metadataId = 1;
    a.threadId = a.captureThreadId = 1;
    b.threadId = b.captureThreadId = 2;
    w.events({a, b});
    w.removeThreads({2});
    w.events({b});
    w.sequencePoint(10, 2); // forgets the metadata
    w.events({a});
    w.sequencePoint(20, 1); // forgets the threads
    w.metadata({quarvel_test::dotnetEventType(1, "Q", 1, 0)});
    w.events({a});
    w.block(42, {1, 2, 3}); // a kind added later is skipped
    w.events({a});
    w.end();
    const ReadResult r = readAll(w.bytes());
    ASSERT_FALSE(r.damaged) << r.damage.text();
    ASSERT_EQ(r.events.size(), 6u);
    EXPECT_EQ(r.events[0].header.threadId, 5001u);
    EXPECT_EQ(r.events[0].header.processId, 77u);
    EXPECT_EQ(r.events[1].header.threadId, 5002u);
    EXPECT_EQ(r.events[1].header.processId, 78u);
    EXPECT_EQ(r.events[2].header.threadId, 2u); // removed: the index is all that is known
    EXPECT_EQ(r.events[2].header.processId, 4242u);
    EXPECT_EQ(r.events[3].metadata.providerName, ""); // metadata forgotten: delivered without it
    EXPECT_EQ(r.stats.eventsWithoutMetadata, 1u);
    EXPECT_EQ(r.events[3].header.threadId, 5001u);
    EXPECT_EQ(r.events[4].metadata.providerName, "Q");
    EXPECT_EQ(r.events[4].header.threadId, 1u);
    EXPECT_EQ(r.events[5].metadata.providerName, "Q");
}

TEST(NettraceReader, ContentDetectionNeedsTheMagicAndAKnownLayout) {
    NettraceWriter v5;
    NettraceTraceShape shape;
    shape.layout = NettraceWriterLayout::blocks;
    NettraceWriter v6(shape);
    const auto bytesOf = [](const std::string& s) {
        return Bytes(s.begin(), s.end());
    };
    const struct {
        const char* name;
        Bytes bytes;
        bool expected;
    } cases[] = {
        {"object stream", v5.bytes(), true},
        {"version 6", v6.bytes(), true},
        {"magic only", bytesOf("Nettrace"), true},
        {"magic and part of the serializer name", Bytes(v5.bytes().begin(), v5.bytes().begin() + 20), true},
        {"another serializer name", bytesOf(std::string("Nettrace\x14\0\0\0!FastSerialization.2", 32)), false},
        {"a length other than the serializer name's", bytesOf(std::string("Nettrace\x13\0\0\0", 12)), false},
        {"version 5 major in the version 6 header", bytesOf(std::string("Nettrace\0\0\0\0\5\0\0\0", 16)), false},
        {"too short", bytesOf("Nettrac"), false},
        {"another format", bytesOf("JiTD\x01\0\0\0 what else"), false},
        {"empty", Bytes(), false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(
            NettraceReader::looksLikeNettrace(c.bytes.data(), std::min(c.bytes.size(), NettraceReader::kSniffBytes)),
            c.expected)
            << c.name;
}

// Each damage stops the reading at the structure that is wrong, says which
// and where, and keeps every event delivered before it.
TEST(NettraceReader, DamageIsReportedWithWhereAndWhyAfterTheEventsBeforeIt) {
    struct Case {
        const char* name;
        NettraceWriterLayout layout;
        // Builds the trace; returns the offset the reason must name (SIZE_MAX: don't check).
        std::function<size_t(NettraceWriter&)> build;
        size_t eventsBefore;
        const char* field;
        const char* inMessage;
    };
    const auto one = [](uint32_t metadataId, size_t payload = 4) {
        NettraceEventRow r;
        r.metadataId = metadataId;
        r.payload = payloadOf(payload, 1);
        return r;
    };
    const auto types = [] {
        return std::vector<NettraceEventType>{quarvel_test::dotnetEventType(1, "P", 1, 0)};
    };
    using L = NettraceWriterLayout;
    const Case cases[] = {
        {"the end-of-stream mark is missing", L::objectStream,
         [&](NettraceWriter& w) {
             w.metadata(types()).events({one(1), one(1)});
             return w.bytes().size();
         },
         2, "end of stream", "without the end-of-stream mark"},
        {"version 6 without its end block", L::blocks,
         [&](NettraceWriter& w) {
             w.metadata(types()).events({one(1)});
             return w.bytes().size();
         },
         1, "end of stream", "without the end-of-stream block"},
        {"an object of unknown type", L::objectStream,
         [&](NettraceWriter& w) {
             w.metadata(types()).events({one(1)});
             const size_t at = w.bytes().size();
             w.raw({5, 5, 1, 2, 0, 0, 0, 2, 0, 0, 0, 8, 0, 0, 0, 'F', 'o', 'o', 'B', 'l', 'o', 'c', 'k', 6});
             return at;
         },
         1, "object header", "unknown object type \"FooBlock\""},
        {"a block for newer readers", L::objectStream,
         [&](NettraceWriter& w) {
             w.metadata(types()).events({one(1)});
             const size_t at = w.bytes().size();
             w.events({one(1)});
             w.patch(at + 7, {3}); // minimum reader version
             return at;
         },
         1, "EventBlock", "needs a reader of version 3"},
        {"a wrong end-of-object tag", L::objectStream,
         [&](NettraceWriter& w) {
             w.metadata(types()).events({one(1), one(1)});
             const size_t at = w.bytes().size() - 1;
             w.patch(at, {7});
             w.end();
             return at;
         },
         2, "EventBlock", "end-of-object tag is 7"},
        {"a payload past its block", L::objectStream,
         [&](NettraceWriter& w) {
             w.metadata(types()).events({one(1), one(1, 5)});
             // The second row's header ends with its payload size (5, one byte): claim 100.
             const size_t at = w.eventEnds().back() - 5 - 1;
             w.patch(at, {100});
             w.end();
             return at + 1;
         },
         1, "event", "while reading event payload: 100 bytes needed"},
        {"an uncompressed size too small for its payload", L::blocks,
         [&](NettraceWriter& w) {
             NettraceBlockOptions full;
             full.compressed = false;
             w.metadata(types()).events({one(1), one(1, 8)}, full);
             const size_t row = w.eventEnds()[0];
             w.patch(row, {10, 0, 0, 0});
             w.end();
             return SIZE_MAX;
         },
         1, "event header", "event size 10"},
        {"a metadata field count no block could hold", L::objectStream,
         [&](NettraceWriter& w) {
             NettraceEventType t = quarvel_test::dotnetEventType(1, "P", 1, 0);
             w.metadata({t});
             // The payload's last four bytes are its field count.
             w.patch(w.blocks().back().end - 1 - 4, {0xFF, 0xFF, 0xFF, 0x7F});
             w.events({one(1)}).end();
             return SIZE_MAX;
         },
         0, "metadata", "field count 2147483647"},
        {"a clock frequency of zero", L::objectStream,
         [&](NettraceWriter& w) {
             const size_t at = w.blocks()[0].contentStart + 24;
             w.patch(at, Bytes(8, 0));
             w.metadata(types()).events({one(1)}).end();
             return at;
         },
         0, "Trace object", "tick frequency 0"},
        {"a reserved header word that is not a known layout", L::objectStream,
         [&](NettraceWriter& w) {
             w.patch(8, {21});
             return 8;
         },
         0, "file header", "unknown layout: 21"},
        {"a major version from the future", L::blocks,
         [&](NettraceWriter& w) {
             w.patch(12, {7});
             w.metadata(types()).events({one(1)}).end();
             return 12;
         },
         0, "file header", "major version 7"},
        {"a Trace object for newer readers", L::objectStream,
         [&](NettraceWriter& w) {
             w.patch(32 + 7, {5}); // the object after the magic and the serializer's name
             return 32;
         },
         0, "Trace object", "needs a reader of version 5"},
        {"a block before the Trace block", L::blocks,
         [&](NettraceWriter& w) {
             // Make the Trace block's kind an event block's.
             w.patch(w.blocks()[0].start + 3, {2});
             return w.blocks()[0].start;
         },
         0, "EventBlock", "before the Trace block"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        NettraceTraceShape shape;
        shape.layout = c.layout;
        NettraceWriter w(shape);
        const size_t offset = c.build(w);
        const ReadResult r = readAll(w.bytes());
        EXPECT_EQ(r.events.size(), c.eventsBefore);
        ASSERT_TRUE(r.damaged);
        EXPECT_FALSE(r.complete);
        EXPECT_EQ(r.damage.file, "trace.nettrace");
        EXPECT_EQ(r.damage.field, c.field) << r.damage.text();
        EXPECT_NE(r.damage.message.find(c.inMessage), std::string::npos) << r.damage.text();
        if (offset != SIZE_MAX) {
            EXPECT_EQ(r.damage.offset, offset) << r.damage.text();
        }
    }
}

// Opening and reading a file: every test of the file set. What open() refuses:
TEST(NettraceReader, OpenRefusesMissingFilesAndOthersWithTheirReason) {
    quarvel_test::TempDir dir;
    Expected<std::unique_ptr<NettraceReader>> missing = NettraceReader::open(dir.path() + "/missing.nettrace");
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.code(), meFileOpenError);

    // Not a trace: refused at once, with the reason.
    const std::string other = dir.path() + "/other.nettrace";
    quarvel_test::NettraceWriter().patch(0, {'X'}).writeTo(other);
    Expected<std::unique_ptr<NettraceReader>> wrong = NettraceReader::open(other);
    ASSERT_TRUE(wrong.ok());
    EXPECT_FALSE((*wrong)->readHeader());
    ASSERT_NE((*wrong)->damage(), nullptr);
    EXPECT_NE((*wrong)->damage()->text().find("does not start with \"Nettrace\""), std::string::npos);
    EXPECT_NE((*wrong)->damage()->text().find(other), std::string::npos);
}

} // namespace

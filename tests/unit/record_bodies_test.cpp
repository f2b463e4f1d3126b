// Record bodies: bytes written out by hand from the tables of
// docs/trace-format.md, decoded and compared field by field (and encoded back
// to the same bytes); round trips of every layout; the values the format
// forbids and every truncation, each refused with a reason that names the
// file, the offset and the field.

#include "format/record_bodies.h"

#include "trace_equality.h"

#include <quarvel/jittrace_format.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace record_bodies_test {

using namespace quarvel;
using Bytes = std::vector<uint8_t>;

const char* const kFile = "host.4242.jit";
const u64 kRecordOffset = 100; // the body starts at 108

Record recordOf(u32 type, const Bytes& body) {
    Record record;
    record.offset = kRecordOffset;
    record.type = type;
    record.data = ByteSpan(body);
    return record;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// ---------------------------------------------------------------------------
// Hand-written bodies. Each group of bytes is one field of the format's tables.

const Bytes kRegion = {0x00, 0x10, 0x00, 0x00, 0x00, 0x7f, 0x00, 0x00, // start address 0x7f0000001000
                       0x20, 0x00, 0x00, 0x00,                         // code size 32
                       0x02, 0x00, 0x00, 0x00,                         // 2 code bytes follow
                       0xc3, 0x90};
const Bytes kTail = {
    0x05, 0x00, 'a',  '.',  'd',  'l',  'l',                                             // module name
    0x02, 0x00,                                                                          // architecture 2
    0x01, 0x00, 'm',                                                                     // method name
    0x01, 0x00, 'C',                                                                     // class name
    0x04, 0x00, 's',  '.',  'c',  's',                                                   // source file
    0x03, 0x00,                                                                          // checksum type 3
    0x02, 0x00, 'a',  'b',                                                               // checksum
    0x09, 0x00,                                                                          // language 9
    0x01, 0x00,                                                                          // managed to source: one row
    0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x01, 0x00,  // native to managed: one row
    0x00, 0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}; // native to source: no rows
const Bytes kIdAndTime = {0x07, 0x00, 0x00, 0x00,                                        // method id 7
                          0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,                // load time 0x0102030405060708
                          0x01, 0x00};                                                   // one region
const Bytes kHashKey = {0x44, 0x33, 0x22, 0x11};
const Bytes kV0Body = kIdAndTime + kRegion + kTail;
const Bytes kV2Body = kHashKey + kIdAndTime + kRegion + kTail;
const Bytes kV3Body = kHashKey + Bytes{0x07, 0x00, 0x00, 0x00,                         // method id 7
                                       0x00,                                           // not inline
                                       0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, // load time
                                       0x01, 0x00} +                                   // one region
                      kRegion +
                      kTail + Bytes{0x42, 0x00, 0x00, 0x06};                 // token 0x06000042
const Bytes kInlineBody = {0x09, 0x00, 0x00, 0x00,                           // raw id 9
                           0x07, 0x00, 0x00, 0x00,                           // raw parent id 7
                           0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,   // load time 16
                           0x01, 0x00,                                       // one region
                           0x08, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,   // start address 0x1008
                           0x04, 0x00, 0x00, 0x00,                           // size 4
                           0x00, 0x00, 0x00, 0x00,                           // no code bytes
                           0x00, 0x00, 0x01, 0x00,                           // no module name, architecture 1
                           0x01, 0x00, 'i',  0x00, 0x00, 0x00, 0x00,         // method "i", no class, no source
                           0x00, 0x00, 0x00, 0x00, 0x05, 0x00,               // checksum type 0, no checksum, language 5
                           0x00, 0x00, 0x00, 0x00, 0x00, 0x00};              // three empty tables
const Bytes kUpdateV2Body = {0x07, 0x00, 0x00, 0x00,                         // raw id 7
                             0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // load time 32
                             0x04, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // start 0x1004
                             0x02, 0x00, 0x00, 0x00,                         // length 2
                             0x02, 0x00, 0x00, 0x00, 0xe8, 0x00};            // two new bytes
const Bytes kRuntimeInfoBody = {0x01, 0x00, 0x00, 0x00, 0x02, 0x00, '1', '7', 0x02, 0x00, 'V', 'M'};

TraceMethodLoad expectedLoad(int version) {
    TraceMethodLoad load;
    load.hashKey = version >= 2 ? 0x11223344u : 0;
    load.methodId = 7;
    load.loadTime = 0x0102030405060708ull;
    load.regions.push_back(TraceCodeRegion{0x7f0000001000ull, 32, {0xc3, 0x90}});
    TraceMethodTail& t = load.tail;
    t.moduleName = "a.dll";
    t.moduleArch = 2;
    t.methodName = "m";
    t.className = "C";
    t.sourceFile = "s.cs";
    t.checksumType = 3;
    t.checksum = "ab";
    t.language = 9;
    t.lines.managedToSource = {{0, 2, 7}};
    t.lines.nativeToManaged = {{0, 32, 0}};
    t.metadataToken = version >= 3 ? 0x06000042u : 0;
    return load;
}

TEST(HandWrittenBodies, MethodLoadsOfEveryVersionAndBothVariants) {
    const struct {
        int version;
        u32 types[2];
        const Bytes* body;
    } cases[] = {
        {0, {quarvel_jt_FunctionLoad32, quarvel_jt_FunctionLoad64}, &kV0Body},
        {1, {quarvel_jt_FunctionLoad32_v1, quarvel_jt_FunctionLoad64_v1}, &kV0Body},
        {2, {quarvel_jt_FunctionLoad32_v2, quarvel_jt_FunctionLoad64_v2}, &kV2Body},
        {3, {quarvel_jt_FunctionLoad32_v3, quarvel_jt_FunctionLoad64_v3}, &kV3Body},
        {3, {quarvel_jt_FunctionUpdate, quarvel_jt_FunctionUpdate}, &kV3Body},
    };
    for (const auto& c : cases) {
        for (u32 type : c.types) {
            const DecodedMethodLoad decoded = decodeMethodLoad(recordOf(type, *c.body), c.version, kFile);
            ASSERT_TRUE(decoded.status) << "type " << type << ": " << decoded.status.reason().text();
            EXPECT_EQ(expectedLoad(c.version), decoded.load) << "type " << type;
        }
        EXPECT_EQ(*c.body, jittrace::encodeMethodLoad(expectedLoad(c.version), c.version)) << "version " << c.version;
    }
}

TEST(HandWrittenBodies, InlineUpdateAndRuntimeInfo) {
    TraceInlineLoad inlined;
    inlined.methodId = 9;
    inlined.parentId = 7;
    inlined.loadTime = 16;
    inlined.region = TraceCodeRegion{0x1008, 4, {}};
    inlined.tail.moduleArch = 1;
    inlined.tail.methodName = "i";
    inlined.tail.language = 5;
    for (u32 type : {quarvel_jt_FunctionInlineLoad32, quarvel_jt_FunctionInlineLoad64}) {
        const Expected<TraceInlineLoad> decoded = decodeInlineLoad(recordOf(type, kInlineBody), kFile);
        ASSERT_TRUE(decoded) << decoded.reason().text();
        EXPECT_EQ(inlined, *decoded);
    }
    EXPECT_EQ(kInlineBody, jittrace::encodeInlineLoad(inlined));

    const TraceUpdateV2 update{7, 32, 0x1004, 2, {0xe8, 0x00}};
    const Expected<TraceUpdateV2> decodedUpdate =
        decodeUpdateV2(recordOf(quarvel_jt_FunctionUpdate_v2, kUpdateV2Body), kFile);
    ASSERT_TRUE(decodedUpdate) << decodedUpdate.reason().text();
    EXPECT_EQ(update, *decodedUpdate);
    EXPECT_EQ(kUpdateV2Body, jittrace::encodeUpdateV2(update));

    const TraceRuntimeInfo info{1, "17", "VM"};
    const Expected<TraceRuntimeInfo> decodedInfo =
        decodeRuntimeInfo(recordOf(quarvel_jt_ManagedRuntimeInfo, kRuntimeInfoBody), kFile);
    ASSERT_TRUE(decodedInfo) << decodedInfo.reason().text();
    EXPECT_EQ(info, *decodedInfo);
    EXPECT_EQ(kRuntimeInfoBody, jittrace::encodeRuntimeInfo(info));
}

// ---------------------------------------------------------------------------
// Round trips of richer structs, and what the options leave out.

TraceMethodLoad richLoad() {
    TraceMethodLoad load = expectedLoad(3);
    load.inlineFlag = 1;
    load.regions.push_back(TraceCodeRegion{0x7f0000002000ull, 0, {}}); // an empty region is kept as read
    load.regions.push_back(TraceCodeRegion{0x7f0000003000ull, 64, Bytes(64, 0xcc)});
    load.tail.className = std::string("with\0zero", 9); // the text ends at the zero
    load.tail.lines.nativeToSource = {{0, 8, 10}, {8, 96, 11}};
    return load;
}

TEST(RoundTrips, EveryLoadVersionKeepsWhatItsLayoutHolds) {
    for (int version = 0; version < 4; ++version) {
        TraceMethodLoad expected = richLoad();
        expected.tail.className = "with";
        if (version < 3) {
            expected.inlineFlag = 0;
            expected.tail.metadataToken = 0;
        }
        if (version < 2)
            expected.hashKey = 0;
        const Bytes body = jittrace::encodeMethodLoad(richLoad(), version);
        const Record record = recordOf(jittrace::methodLoadType(version, true), body);
        const DecodedMethodLoad full = decodeMethodLoad(record, version, kFile);
        ASSERT_TRUE(full.status) << version << ": " << full.status.reason().text();
        EXPECT_EQ(expected, full.load) << "version " << version;

        // Leaving bytes and tables out changes nothing else, acceptance included.
        BodyOptions lean;
        lean.keepCodeBytes = false;
        lean.keepLineTables = false;
        const DecodedMethodLoad skipped = decodeMethodLoad(record, version, kFile, lean);
        ASSERT_TRUE(skipped.status) << version;
        for (TraceCodeRegion& region : expected.regions)
            region.bytes.clear();
        expected.tail.lines = TraceLineTables();
        EXPECT_EQ(expected, skipped.load) << "version " << version;
    }
}

// A reading pass decodes every record into the same structs: nothing of an
// earlier record may show through, whatever the later one leaves unset
// (hash key, inline flag, token, tables or bytes left out) or where it is
// refused.
TEST(RoundTrips, DecodingIntoAUsedStructGivesWhatAFreshOneGets) {
    BodyOptions lean;
    lean.keepCodeBytes = false;
    lean.keepLineTables = false;
    const Bytes rich = jittrace::encodeMethodLoad(richLoad(), 3);
    const Record richRecord = recordOf(jittrace::methodLoadType(3, true), rich);
    const Bytes truncated(kV2Body.begin(), kV2Body.begin() + kHashKey.size() + kIdAndTime.size() + kRegion.size() + 3);
    const struct {
        int version;
        const Bytes* body;
    } cases[] = {{0, &kV0Body}, {1, &kV0Body}, {2, &kV2Body}, {3, &kV3Body}, {2, &truncated}};
    TraceMethodLoad reused;
    for (const auto& c : cases) {
        for (const BodyOptions& options : {BodyOptions(), lean}) {
            ASSERT_TRUE(decodeMethodLoadInto(richRecord, 3, kFile, BodyOptions(), reused));
            const Record record = recordOf(jittrace::methodLoadType(c.version, true), *c.body);
            const DecodedMethodLoad fresh = decodeMethodLoad(record, c.version, kFile, options);
            const Status status = decodeMethodLoadInto(record, c.version, kFile, options, reused);
            EXPECT_EQ(fresh.status.ok(), status.ok()) << "version " << c.version;
            EXPECT_EQ(fresh.load, reused) << "version " << c.version << (options.keepLineTables ? "" : ", lean");
        }
    }

    TraceInlineLoad richInline;
    richInline.methodId = 3;
    richInline.parentId = 2;
    richInline.loadTime = 99;
    richInline.region = TraceCodeRegion{0x2000, 8, Bytes(8, 0xcc)};
    richInline.tail = richLoad().tail;
    richInline.tail.className = "with";
    TraceInlineLoad reusedInline;
    ASSERT_TRUE(decodeInlineLoadInto(recordOf(quarvel_jt_FunctionInlineLoad64, jittrace::encodeInlineLoad(richInline)),
                                     kFile, BodyOptions(), reusedInline));
    EXPECT_EQ(richInline, reusedInline);
    ASSERT_TRUE(decodeInlineLoadInto(recordOf(quarvel_jt_FunctionInlineLoad64, kInlineBody), kFile, BodyOptions(),
                                     reusedInline));
    EXPECT_EQ(*decodeInlineLoad(recordOf(quarvel_jt_FunctionInlineLoad64, kInlineBody), kFile), reusedInline);
}

// ---------------------------------------------------------------------------
// Values the format forbids: the reason points at the field.

// What a decoder made of a body: accepted, or refused for a reason; a method
// load also says how many regions it kept.
struct Outcome {
    bool accepted;
    Reason reason;
    size_t regions;
};

template <typename T>
Outcome outcomeOf(const Expected<T>& decoded) {
    return decoded ? Outcome{true, Reason(), 0} : Outcome{false, decoded.reason(), 0};
}

// Decodes a body of any layout; method loads of the given version.
Outcome decode(const Record& record, int version) {
    switch (record.type) {
    case quarvel_jt_FunctionInlineLoad64:
        return outcomeOf(decodeInlineLoad(record, kFile));
    case quarvel_jt_FunctionUpdate_v2:
        return outcomeOf(decodeUpdateV2(record, kFile));
    case quarvel_jt_ManagedRuntimeInfo:
        return outcomeOf(decodeRuntimeInfo(record, kFile));
    default: {
        const DecodedMethodLoad load = decodeMethodLoad(record, version, kFile);
        return Outcome{load.status.ok(), load.status.reason(), load.load.regions.size()};
    }
    }
}

void put(Bytes& body, size_t at, uint64_t value, int width) {
    for (int i = 0; i < width; ++i)
        body[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

TEST(Refusals, ForbiddenValuesNameTheFieldAndItsOffset) {
    const u64 body = kRecordOffset + 8;
    const struct {
        u32 type;
        const Bytes* base;
        size_t at;
        uint64_t value;
        int width;
        const char* field;
        const char* message;
    } cases[] = {
        {quarvel_jt_FunctionInlineLoad64, &kInlineBody, 8, 0, 8, "load time", "Invalid load time: 0"},
        {quarvel_jt_FunctionInlineLoad64, &kInlineBody, 16, 2, 2, "number of code regions",
         "Invalid number of code regions: 2"},
        {quarvel_jt_FunctionInlineLoad64, &kInlineBody, 18, 0, 8, "start address of code range",
         "Invalid start address of code range: 0"},
        {quarvel_jt_FunctionInlineLoad64, &kInlineBody, 26, 0, 4, "size of code range",
         "Invalid size of code range: 0"},
        {quarvel_jt_FunctionInlineLoad64, &kInlineBody, 30, 0xFFFFFFF0u, 4, "number of code range's bytes",
         "Invalid number of code range's bytes: 4294967280"},
        {quarvel_jt_FunctionUpdate_v2, &kUpdateV2Body, 4, 0, 8, "load time", "Invalid load time: 0"},
        {quarvel_jt_FunctionUpdate_v2, &kUpdateV2Body, 12, 0, 8, "start address of code range",
         "Invalid start address of code range: 0"},
        {quarvel_jt_FunctionUpdate_v2, &kUpdateV2Body, 20, 0, 4, "length of code range",
         "Invalid length of code range: 0"},
        {quarvel_jt_FunctionUpdate_v2, &kUpdateV2Body, 24, 0, 4, "number of code range's bytes",
         "Invalid number of code range's bytes: 0"},
        // A region whose end wraps past the top of the address space.
        {quarvel_jt_FunctionLoad64, &kV0Body, 14, ~0ull - 8, 8, "code start address",
         "Invalid code range: start address = 18446744073709551607, size = 32"},
        // Every region empty: there is no code.
        {quarvel_jt_FunctionLoad64, &kV0Body, 22, 0, 4, "code regions", "The bytes of the code are not supplied"},
    };
    for (const auto& c : cases) {
        Bytes bytes = *c.base;
        put(bytes, c.at, c.value, c.width);
        const Outcome outcome = decode(recordOf(c.type, bytes), 0);
        ASSERT_FALSE(outcome.accepted) << c.message;
        const Reason& reason = outcome.reason;
        EXPECT_EQ(ErrorKind::badInput, reason.kind) << c.message;
        EXPECT_EQ(kFile, reason.file) << c.message;
        EXPECT_EQ(c.field, reason.field) << c.message;
        EXPECT_EQ(0u, reason.message.find(c.message)) << reason.text();
        const u64 expectedOffset =
            std::string(c.field) == "code regions" ? body + bytes.size() - kTail.size() : body + c.at;
        EXPECT_EQ(expectedOffset, reason.offset) << reason.text();
    }

    // Bytes after an update's code bytes are not part of its layout.
    Bytes longer = kUpdateV2Body;
    longer.push_back(0);
    const Reason trailing = decodeUpdateV2(recordOf(quarvel_jt_FunctionUpdate_v2, longer), kFile).reason();
    EXPECT_NE(std::string::npos, trailing.message.find("1 unexpected bytes after the code bytes")) << trailing.text();
}

// ---------------------------------------------------------------------------
// Every layout cut at every length: refused, with a reason inside the body;
// a method load keeps the regions that were whole before the cut.

TEST(Refusals, EveryTruncationIsRefusedWithinTheBody) {
    const TraceMethodLoad twoRegions = [] {
        TraceMethodLoad load = expectedLoad(3);
        load.regions.push_back(TraceCodeRegion{0x7f0000004000ull, 16, Bytes(3, 0x90)});
        return load;
    }();
    const struct {
        const char* name;
        u32 type;
        int version;
        Bytes body;
        size_t regions; // a method load's, kept from the cuts before the tail
    } layouts[] = {
        {"load v0", quarvel_jt_FunctionLoad64, 0, jittrace::encodeMethodLoad(twoRegions, 0), 2},
        {"load v2", quarvel_jt_FunctionLoad32_v2, 2, jittrace::encodeMethodLoad(twoRegions, 2), 2},
        {"load v3", quarvel_jt_FunctionLoad64_v3, 3, jittrace::encodeMethodLoad(twoRegions, 3), 2},
        {"inline", quarvel_jt_FunctionInlineLoad64, 0, kInlineBody, 0},
        {"update v2", quarvel_jt_FunctionUpdate_v2, 0, kUpdateV2Body, 0},
        {"runtime info", quarvel_jt_ManagedRuntimeInfo, 0, kRuntimeInfoBody, 0},
    };
    for (const auto& layout : layouts) {
        size_t regionsBefore = 0;
        for (size_t n = 0; n < layout.body.size(); ++n) {
            // The cut body is copied: a read past its end shows under ASan.
            const Bytes cut(layout.body.begin(), layout.body.begin() + static_cast<std::ptrdiff_t>(n));
            const Outcome outcome = decode(recordOf(layout.type, cut), layout.version);
            EXPECT_GE(outcome.regions, regionsBefore) << layout.name << " cut at " << n;
            regionsBefore = outcome.regions;
            // A version 3 load cut inside its optional token is whole without it.
            if (outcome.accepted && layout.type == quarvel_jt_FunctionLoad64_v3 && n + 4 >= layout.body.size())
                continue;
            ASSERT_FALSE(outcome.accepted) << layout.name << " cut at " << n;
            const Reason& reason = outcome.reason;
            EXPECT_EQ(kFile, reason.file);
            EXPECT_GE(reason.offset, kRecordOffset + 8) << reason.text();
            EXPECT_LE(reason.offset, kRecordOffset + 8 + n) << reason.text();
            EXPECT_FALSE(reason.message.empty()) << layout.name << " cut at " << n;
        }
        EXPECT_EQ(layout.regions, regionsBefore) << layout.name;
    }
}

} // namespace

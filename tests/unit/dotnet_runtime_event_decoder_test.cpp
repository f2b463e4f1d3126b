// The runtime's method, module and assembly events: recognised by provider,
// id and version, decoded from every payload version the runtime writes,
// newer versions decoded as far as their known fields go, short payloads
// refused with the field that is missing.

#include "dotnet_event_payloads.h"
#include "format/dotnet_runtime_event_decoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quarvel;
using namespace quarvel_test;

namespace dotnet_runtime_event_decoder_test {

typedef std::vector<uint8_t> Bytes;

// An event of the given type over a payload, as the reader would hand it out.
struct EventOf {
    EventOf(const std::string& provider, uint32_t id, uint32_t version, const Bytes& payload) : bytes(payload) {
        metadata.providerName = provider;
        metadata.eventId = id;
        metadata.version = version;
        event.metadata = &metadata;
        event.payload = bytes.data();
        event.payloadSize = bytes.size();
        event.payloadOffset = 1000;
    }
    DotnetEventType type() const { return DotnetRuntimeEventDecoder::classify(metadata); }
    NettraceEventMetadata metadata;
    Bytes bytes;
    NettraceEvent event;
};

Bytes withTrailing(Bytes b, size_t extra) {
    for (size_t i = 0; i < extra; ++i)
        b.push_back(static_cast<uint8_t>(0xA0 + i));
    return b;
}

// The ids the decoding tests below do not reach, the ids that mean another
// event (or none) under the other provider, and names that almost match.
TEST(DotnetRuntimeEvents, EventsAreKnownByProviderIdAndNothingElse) {
    using K = DotnetEventKind;
    using P = DotnetEventPhase;
    const struct {
        const char* provider;
        uint32_t id;
        K kind;
        P phase;
        bool verbose;
    } cases[] = {
        {kDotnetRuntimeProvider, 142, K::method, P::unload, false},
        {kDotnetRuntimeProvider, 144, K::method, P::unload, true},
        {kDotnetRuntimeProvider, 145, K::other, P::load, false}, // MethodJittingStarted
        {kDotnetRuntimeProvider, 150, K::other, P::load, false},
        {kDotnetRundownProvider, 141, K::method, P::rundownStart, false},
        {kDotnetRundownProvider, 142, K::method, P::rundownEnd, false},
        {kDotnetRundownProvider, 143, K::method, P::rundownStart, true},
        {kDotnetRundownProvider, 144, K::method, P::rundownEnd, true},
        {kDotnetRundownProvider, 145, K::rundownComplete, P::rundownStart, false},
        {kDotnetRundownProvider, 146, K::rundownComplete, P::rundownEnd, false},
        {kDotnetRundownProvider, 152, K::other, P::load, false}, // DomainModuleDCEnd
        {kDotnetRundownProvider, 153, K::module, P::rundownStart, false},
        {kDotnetRundownProvider, 155, K::assembly, P::rundownStart, false},
        {kDotnetRundownProvider, 190, K::other, P::load, false},
        {"microsoft-windows-dotnetruntime", 143, K::method, P::load, true}, // names are case-insensitive
        {"Microsoft-Windows-DotNETRuntimeX", 143, K::other, P::load, false},
        {"Microsoft-Windows-DotNETRuntim", 143, K::other, P::load, false},
        {"Microsoft-DotNETCore-EventPipe", 143, K::other, P::load, false},
        {"", 143, K::other, P::load, false},
    };
    for (const auto& c : cases) {
        NettraceEventMetadata m;
        m.providerName = c.provider;
        m.eventId = c.id;
        const DotnetEventType t = DotnetRuntimeEventDecoder::classify(m);
        SCOPED_TRACE(std::string(c.provider) + " " + std::to_string(c.id));
        EXPECT_EQ(t.kind, c.kind);
        if (c.kind != K::other) {
            EXPECT_EQ(t.phase, c.phase);
            EXPECT_EQ(t.verbose, c.verbose);
        }
    }
}

DotnetMethodFields sampleMethod() {
    DotnetMethodFields m;
    m.methodId = 0x7fa0e5670408;
    m.moduleId = 0x7fa0e565e938;
    m.startAddress = 0x7fa0e54a43a0;
    m.size = 53;
    m.token = 0x06000001;
    m.flags = 0x288; // jitted, tier 5 (OSR)
    m.methodNamespace = "Workload.Generic`1[System.Int32]";
    m.methodName = "Sum\xE2\x82\xAC";               // a euro sign: one UTF-16 unit
    m.methodSignature = "int32 (\xF0\x9F\x98\x80)"; // outside the BMP: a surrogate pair
    m.clrInstanceId = 9;
    m.rejitId = 0x1234;
    return m;
}

TEST(DotnetRuntimeEvents, MethodEventsOfEveryVersionDecode) {
    const DotnetMethodFields m = sampleMethod();
    const struct {
        bool verbose;
        uint32_t writtenVersion;  // the layout of the payload
        uint32_t declaredVersion; // what the metadata says
        size_t trailing;
    } cases[] = {
        {false, 0, 0, 0}, {false, 1, 1, 0}, {false, 2, 2, 0}, {true, 0, 0, 0},
        {true, 1, 1, 0},  {true, 2, 2, 0},  {true, 2, 3, 12}, {false, 2, 7, 3}, // newer versions: the known prefix
        {true, 1, 1, 5},                                                        // extra bytes after a known version
    };
    // One output for every case, as the reading pass reuses it: a plain or
    // older event after a verbose or newer one must leave nothing behind.
    DotnetMethodEvent out;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.verbose ? "verbose" : "plain") + " v" + std::to_string(c.declaredVersion));
        EventOf e(kDotnetRuntimeProvider, c.verbose ? 143 : 141, c.declaredVersion,
                  withTrailing(dotnetMethodPayload(m, c.verbose, c.writtenVersion), c.trailing));
        EXPECT_EQ(e.type().kind, DotnetEventKind::method);
        const Status s = DotnetRuntimeEventDecoder::decodeMethod(e.event, e.type(), out);
        ASSERT_TRUE(s.ok()) << s.reason().text();
        EXPECT_EQ(out.phase, DotnetEventPhase::load);
        EXPECT_EQ(out.verbose, c.verbose);
        EXPECT_EQ(out.version, c.declaredVersion);
        EXPECT_EQ(out.methodId, m.methodId);
        EXPECT_EQ(out.moduleId, m.moduleId);
        EXPECT_EQ(out.startAddress, m.startAddress);
        EXPECT_EQ(out.size, m.size);
        EXPECT_EQ(out.token, m.token);
        EXPECT_EQ(out.flags, m.flags);
        EXPECT_EQ(out.tier(), DotnetOptimizationTier::optimizedTier1Osr);
        EXPECT_EQ(out.methodNamespace, c.verbose ? m.methodNamespace : "");
        EXPECT_EQ(out.methodName, c.verbose ? m.methodName : "");
        EXPECT_EQ(out.methodSignature, c.verbose ? m.methodSignature : "");
        EXPECT_EQ(out.clrInstanceId, c.writtenVersion >= 1 ? m.clrInstanceId : 0);
        EXPECT_EQ(out.rejitId, c.writtenVersion >= 2 ? m.rejitId : 0u);
    }
}

TEST(DotnetRuntimeEvents, ShortPayloadsAreRefusedNamingTheMissingField) {
    const Bytes verboseV2 = dotnetMethodPayload(sampleMethod(), true, 2);
    DotnetILMapFields map;
    map.entries = {{DotnetILToNativeMap::kProlog, 0}, {0, 4}};
    const Bytes mapV1 = dotnetILMapPayload(map, 1);
    const struct {
        uint32_t id;
        uint32_t version;
        Bytes payload;
        const char* missing;
        size_t missingAt; // payload offset of the missing field
    } cases[] = {
        {143, 2, Bytes(verboseV2.begin(), verboseV2.begin() + 20), "MethodStartAddress", 16},
        {143, 2, Bytes(verboseV2.begin(), verboseV2.end() - 1), "ReJITID", verboseV2.size() - 8},
        {143, 1, Bytes(verboseV2.begin(), verboseV2.begin() + 40), "unterminated MethodNamespace", 36},
        {190, 1, Bytes(mapV1.begin(), mapV1.begin() + 18), "CountOfMapEntries", 17},
        {190, 1, Bytes(mapV1.begin(), mapV1.end() - 9), "ClrInstanceID", mapV1.size() - 10},
        {190, 1, Bytes(mapV1.begin(), mapV1.end() - 8), "ILVersionID", mapV1.size() - 8},
        {190, 0, Bytes(mapV1.begin(), mapV1.begin() + 30), "CountOfMapEntries 2 needs 16 bytes", 19},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.missing);
        EventOf e(kDotnetRuntimeProvider, c.id, c.version, c.payload);
        Status s;
        if (c.id == 190) {
            DotnetILToNativeMap out;
            s = DotnetRuntimeEventDecoder::decodeILToNativeMap(e.event, e.type(), out);
        } else {
            DotnetMethodEvent out;
            s = DotnetRuntimeEventDecoder::decodeMethod(e.event, e.type(), out);
        }
        ASSERT_FALSE(s.ok());
        EXPECT_NE(s.reason().message.find(c.missing), std::string::npos) << s.reason().text();
        EXPECT_EQ(s.reason().offset, 1000 + c.missingAt) << s.reason().text();
        EXPECT_EQ(s.reason().code, meBadRecord);
    }
}

TEST(DotnetRuntimeEvents, ILToNativeMapsKeepTheirSpecialOffsets) {
    DotnetILMapFields m;
    m.methodId = 0x7fa0e5567ea0;
    m.rejitId = 3;
    m.entries = {{0xFFFFFFFE, 0}, {0, 12}, {0xFFFFFFFF, 30}, {7, 31}, {0xFFFFFFFD, 40}, {12, 48}};
    m.clrInstanceId = 9;
    m.ilVersionId = 5;
    const struct {
        uint32_t written, declared;
        size_t trailing;
        const char* provider;
        uint32_t id;
        DotnetEventPhase phase;
    } cases[] = {{0, 0, 0, kDotnetRuntimeProvider, 190, DotnetEventPhase::load},
                 {1, 1, 0, kDotnetRuntimeProvider, 190, DotnetEventPhase::load},
                 {1, 2, 6, kDotnetRuntimeProvider, 190, DotnetEventPhase::load},
                 {1, 1, 0, kDotnetRundownProvider, 150, DotnetEventPhase::rundownEnd},
                 {0, 0, 0, kDotnetRundownProvider, 149, DotnetEventPhase::rundownStart}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.provider) + " v" + std::to_string(c.declared));
        EventOf e(c.provider, c.id, c.declared, withTrailing(dotnetILMapPayload(m, c.written), c.trailing));
        EXPECT_EQ(e.type().kind, DotnetEventKind::methodILToNativeMap);
        DotnetILToNativeMap out;
        const Status s = DotnetRuntimeEventDecoder::decodeILToNativeMap(e.event, e.type(), out);
        ASSERT_TRUE(s.ok()) << s.reason().text();
        EXPECT_EQ(out.phase, c.phase);
        EXPECT_EQ(out.methodId, m.methodId);
        EXPECT_EQ(out.rejitId, 3u);
        ASSERT_EQ(out.ilOffsets.size(), m.entries.size());
        for (size_t i = 0; i < m.entries.size(); ++i) {
            EXPECT_EQ(out.ilOffsets[i], m.entries[i].first);
            EXPECT_EQ(out.nativeOffsets[i], m.entries[i].second);
        }
        EXPECT_EQ(out.clrInstanceId, 9);
        EXPECT_EQ(out.ilVersionId, c.written >= 1 ? 5u : 0u);
    }
    // An empty map (methods the runtime reports without offsets).
    m.entries.clear();
    EventOf e(kDotnetRuntimeProvider, 190, 1, dotnetILMapPayload(m, 1));
    DotnetILToNativeMap out;
    out.ilOffsets = {1, 2, 3};
    ASSERT_TRUE(DotnetRuntimeEventDecoder::decodeILToNativeMap(e.event, e.type(), out).ok());
    EXPECT_TRUE(out.ilOffsets.empty());
    EXPECT_TRUE(out.nativeOffsets.empty());
}

TEST(DotnetRuntimeEvents, ModuleAndAssemblyEventsOfEveryVersionDecode) {
    DotnetModuleFields m;
    m.moduleId = 0x7fa0e4464000;
    m.assemblyId = 0x55aa;
    m.flags = 0x28; // manifest, ReadyToRun
    m.ilPath = "/usr/share/dotnet/shared/Microsoft.NETCore.App/10.0.12/System.Private.CoreLib.dll";
    m.clrInstanceId = 9;
    for (uint8_t i = 0; i < 16; ++i)
        m.managedPdbSignature[i] = static_cast<uint8_t>(0x81 + i);
    m.managedPdbAge = 1;
    m.managedPdbBuildPath = "/_/artifacts/obj/System.Private.CoreLib.pdb";
    const struct {
        const char* provider;
        uint32_t id, written, declared;
        size_t trailing;
        DotnetEventPhase phase;
    } modules[] = {{kDotnetRuntimeProvider, 152, 0, 0, 0, DotnetEventPhase::load},
                   {kDotnetRuntimeProvider, 152, 1, 1, 0, DotnetEventPhase::load},
                   {kDotnetRuntimeProvider, 153, 2, 2, 0, DotnetEventPhase::unload},
                   {kDotnetRuntimeProvider, 152, 2, 3, 20, DotnetEventPhase::load}, // a build id appended
                   {kDotnetRundownProvider, 154, 2, 2, 0, DotnetEventPhase::rundownEnd}};
    for (const auto& c : modules) {
        SCOPED_TRACE("module v" + std::to_string(c.declared));
        EventOf e(c.provider, c.id, c.declared, withTrailing(dotnetModulePayload(m, c.written), c.trailing));
        EXPECT_EQ(e.type().kind, DotnetEventKind::module);
        DotnetModuleEvent out;
        const Status s = DotnetRuntimeEventDecoder::decodeModule(e.event, e.type(), out);
        ASSERT_TRUE(s.ok()) << s.reason().text();
        EXPECT_EQ(out.phase, c.phase);
        EXPECT_EQ(out.moduleId, m.moduleId);
        EXPECT_EQ(out.assemblyId, m.assemblyId);
        EXPECT_EQ(out.flags, m.flags);
        EXPECT_EQ(out.ilPath, m.ilPath);
        EXPECT_EQ(out.clrInstanceId, c.written >= 1 ? 9 : 0);
        EXPECT_EQ(out.hasPdbInfo, c.written >= 2);
        if (c.written >= 2) {
            EXPECT_EQ(out.managedPdbSignature, m.managedPdbSignature);
            EXPECT_EQ(out.managedPdbAge, 1u);
            EXPECT_EQ(out.managedPdbBuildPath, m.managedPdbBuildPath);
            EXPECT_EQ(out.nativePdbBuildPath, "");
        }
    }

    DotnetAssemblyFields a;
    a.assemblyId = 0x55aa;
    a.appDomainId = 0x77;
    a.bindingId = 0x99;
    a.flags = 0x8; // collectible
    a.fullyQualifiedName = "Plugin, Version=1.0.0.0, Culture=neutral, PublicKeyToken=null";
    a.clrInstanceId = 9;
    const struct {
        const char* provider;
        uint32_t id, written, declared;
        DotnetEventPhase phase;
    } assemblies[] = {{kDotnetRuntimeProvider, 154, 0, 0, DotnetEventPhase::load},
                      {kDotnetRuntimeProvider, 155, 1, 1, DotnetEventPhase::unload},
                      {kDotnetRundownProvider, 156, 1, 1, DotnetEventPhase::rundownEnd}};
    for (const auto& c : assemblies) {
        SCOPED_TRACE("assembly v" + std::to_string(c.declared));
        EventOf e(c.provider, c.id, c.declared, dotnetAssemblyPayload(a, c.written));
        EXPECT_EQ(e.type().kind, DotnetEventKind::assembly);
        DotnetAssemblyEvent out;
        const Status s = DotnetRuntimeEventDecoder::decodeAssembly(e.event, e.type(), out);
        ASSERT_TRUE(s.ok()) << s.reason().text();
        EXPECT_EQ(out.phase, c.phase);
        EXPECT_EQ(out.assemblyId, a.assemblyId);
        EXPECT_EQ(out.appDomainId, a.appDomainId);
        EXPECT_EQ(out.bindingId, c.written >= 1 ? a.bindingId : 0u);
        EXPECT_EQ(out.flags & DotnetAssemblyEvent::collectible, DotnetAssemblyEvent::collectible);
        EXPECT_EQ(out.fullyQualifiedName, a.fullyQualifiedName);
    }
}

} // namespace

#include "format/dotnet_runtime_event_decoder.h"

#include "format/nettrace_primitives.h"
#include "support/byte_cursor.h"

#include <cstring>
#include <strings.h>

QUARVEL_NAMESPACE_BEGIN

const char* const DotnetRuntimeEventDecoder::kRuntimeProvider = "Microsoft-Windows-DotNETRuntime";
const char* const DotnetRuntimeEventDecoder::kRundownProvider = "Microsoft-Windows-DotNETRuntimeRundown";

namespace {

// Provider names are case-insensitive where sessions are configured.
bool sameName(const std::string& name, const char* expected) {
    return name.size() == std::strlen(expected) && strcasecmp(name.c_str(), expected) == 0;
}

DotnetEventType typeOf(DotnetEventKind kind, DotnetEventPhase phase, bool verbose = false) {
    DotnetEventType t;
    t.kind = kind;
    t.phase = phase;
    t.verbose = verbose;
    return t;
}

DotnetEventType runtimeEvent(uint32_t id) {
    using K = DotnetEventKind;
    using P = DotnetEventPhase;
    switch (id) {
    case 141: // MethodLoad
        return typeOf(K::method, P::load);
    case 142: // MethodUnload
        return typeOf(K::method, P::unload);
    case 143: // MethodLoadVerbose
        return typeOf(K::method, P::load, true);
    case 144: // MethodUnloadVerbose
        return typeOf(K::method, P::unload, true);
    case 190: // MethodILToNativeMap
        return typeOf(K::methodILToNativeMap, P::load);
    case 152: // ModuleLoad
        return typeOf(K::module, P::load);
    case 153: // ModuleUnload
        return typeOf(K::module, P::unload);
    case 154: // AssemblyLoad
        return typeOf(K::assembly, P::load);
    case 155: // AssemblyUnload
        return typeOf(K::assembly, P::unload);
    default:
        return DotnetEventType();
    }
}

DotnetEventType rundownEvent(uint32_t id) {
    using K = DotnetEventKind;
    using P = DotnetEventPhase;
    switch (id) {
    case 141: // MethodDCStart
        return typeOf(K::method, P::rundownStart);
    case 142: // MethodDCEnd
        return typeOf(K::method, P::rundownEnd);
    case 143: // MethodDCStartVerbose
        return typeOf(K::method, P::rundownStart, true);
    case 144: // MethodDCEndVerbose
        return typeOf(K::method, P::rundownEnd, true);
    case 145: // DCStartComplete
        return typeOf(K::rundownComplete, P::rundownStart);
    case 146: // DCEndComplete
        return typeOf(K::rundownComplete, P::rundownEnd);
    case 149: // MethodDCStartILToNativeMap
        return typeOf(K::methodILToNativeMap, P::rundownStart);
    case 150: // MethodDCEndILToNativeMap
        return typeOf(K::methodILToNativeMap, P::rundownEnd);
    case 153: // ModuleDCStart
        return typeOf(K::module, P::rundownStart);
    case 154: // ModuleDCEnd
        return typeOf(K::module, P::rundownEnd);
    case 155: // AssemblyDCStart
        return typeOf(K::assembly, P::rundownStart);
    case 156: // AssemblyDCEnd
        return typeOf(K::assembly, P::rundownEnd);
    default:
        return DotnetEventType();
    }
}

ByteCursor payloadOf(const NettraceEvent& event) {
    return ByteCursor(event.payload, event.payloadSize, ByteCursor::Order::little, event.payloadOffset);
}

std::string eventName(const NettraceEvent& event, const char* what) {
    const uint32_t version = event.metadata ? event.metadata->version : 0;
    return std::string(what) + " version " + std::to_string(version) + " payload";
}

Status refuse(const ByteCursor& c, const NettraceEvent& event, const char* what) {
    Reason reason = Reason::badInput(c.error());
    reason.at(c.fileOffset()).ofField(eventName(event, what));
    return reason;
}

bool readGuid(ByteCursor& c, DotnetGuid& guid, const char* field) {
    const uint8_t* p = nullptr;
    if (!c.bytes(guid.size(), p, field))
        return false;
    std::memcpy(guid.data(), p, guid.size());
    return true;
}

uint32_t littleEndian32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

uint32_t versionOf(const NettraceEvent& event) {
    return event.metadata ? event.metadata->version : 0;
}

} // namespace

DotnetEventType DotnetRuntimeEventDecoder::classify(const NettraceEventMetadata& metadata) {
    // The id decides first: most events are of other kinds, and a name compare costs more.
    DotnetEventType type = runtimeEvent(metadata.eventId);
    const bool runtimeId = type.kind != DotnetEventKind::other;
    const DotnetEventType rundown = rundownEvent(metadata.eventId);
    if (!runtimeId && rundown.kind == DotnetEventKind::other)
        return DotnetEventType();
    if (runtimeId && sameName(metadata.providerName, kRuntimeProvider))
        return type;
    if (rundown.kind != DotnetEventKind::other && sameName(metadata.providerName, kRundownProvider))
        return rundown;
    return DotnetEventType();
}

Status DotnetRuntimeEventDecoder::decodeMethod(const NettraceEvent& event, const DotnetEventType& type,
                                               DotnetMethodEvent& out) {
    ByteCursor c = payloadOf(event);
    out.phase = type.phase;
    out.verbose = type.verbose;
    out.version = versionOf(event);
    out.clrInstanceId = 0;
    out.rejitId = 0;
    if (!c.u64(out.methodId, "MethodID") || !c.u64(out.moduleId, "ModuleID") ||
        !c.u64(out.startAddress, "MethodStartAddress") || !c.u32(out.size, "MethodSize") ||
        !c.u32(out.token, "MethodToken") || !c.u32(out.flags, "MethodFlags"))
        return refuse(c, event, "method event");
    if (type.verbose) {
        if (!nettrace::readUtf16String(c, out.methodNamespace, "MethodNamespace") ||
            !nettrace::readUtf16String(c, out.methodName, "MethodName") ||
            !nettrace::readUtf16String(c, out.methodSignature, "MethodSignature"))
            return refuse(c, event, "method event");
    } else {
        out.methodNamespace.clear();
        out.methodName.clear();
        out.methodSignature.clear();
    }
    if (out.version >= 1 && !c.u16(out.clrInstanceId, "ClrInstanceID"))
        return refuse(c, event, "method event");
    if (out.version >= 2 && !c.u64(out.rejitId, "ReJITID"))
        return refuse(c, event, "method event");
    return Status::success();
}

Status DotnetRuntimeEventDecoder::decodeILToNativeMap(const NettraceEvent& event, const DotnetEventType& type,
                                                      DotnetILToNativeMap& out) {
    ByteCursor c = payloadOf(event);
    out.phase = type.phase;
    out.version = versionOf(event);
    out.ilVersionId = 0;
    uint16_t count = 0;
    if (!c.u64(out.methodId, "MethodID") || !c.u64(out.rejitId, "ReJITID") || !c.u8(out.methodExtent, "MethodExtent") ||
        !c.u16(count, "CountOfMapEntries"))
        return refuse(c, event, "IL-to-native map");
    // Both arrays must fit before anything is sized by the count.
    if (static_cast<size_t>(count) * 8 > c.remaining()) {
        c.fail("CountOfMapEntries " + std::to_string(count) + " needs " + std::to_string(count * 8) +
               " bytes of offsets, " + std::to_string(c.remaining()) + " left");
        return refuse(c, event, "IL-to-native map");
    }
    const uint8_t* ilBytes = nullptr;
    const uint8_t* nativeBytes = nullptr;
    c.bytes(static_cast<size_t>(count) * 4, ilBytes, "ILOffsets");
    c.bytes(static_cast<size_t>(count) * 4, nativeBytes, "NativeOffsets");
    out.ilOffsets.resize(count);
    out.nativeOffsets.resize(count);
    for (uint16_t i = 0; i < count; ++i) {
        out.ilOffsets[i] = littleEndian32(ilBytes + 4 * i);
        out.nativeOffsets[i] = littleEndian32(nativeBytes + 4 * i);
    }
    if (!c.u16(out.clrInstanceId, "ClrInstanceID"))
        return refuse(c, event, "IL-to-native map");
    if (out.version >= 1 && !c.u64(out.ilVersionId, "ILVersionID"))
        return refuse(c, event, "IL-to-native map");
    return Status::success();
}

Status DotnetRuntimeEventDecoder::decodeModule(const NettraceEvent& event, const DotnetEventType& type,
                                               DotnetModuleEvent& out) {
    ByteCursor c = payloadOf(event);
    out.phase = type.phase;
    out.version = versionOf(event);
    out.clrInstanceId = 0;
    out.hasPdbInfo = false;
    uint32_t reserved = 0;
    if (!c.u64(out.moduleId, "ModuleID") || !c.u64(out.assemblyId, "AssemblyID") || !c.u32(out.flags, "ModuleFlags") ||
        !c.u32(reserved, "Reserved1") || !nettrace::readUtf16String(c, out.ilPath, "ModuleILPath") ||
        !nettrace::readUtf16String(c, out.nativePath, "ModuleNativePath"))
        return refuse(c, event, "module event");
    if (out.version >= 1 && !c.u16(out.clrInstanceId, "ClrInstanceID"))
        return refuse(c, event, "module event");
    if (out.version >= 2) {
        if (!readGuid(c, out.managedPdbSignature, "ManagedPdbSignature") ||
            !c.u32(out.managedPdbAge, "ManagedPdbAge") ||
            !nettrace::readUtf16String(c, out.managedPdbBuildPath, "ManagedPdbBuildPath") ||
            !readGuid(c, out.nativePdbSignature, "NativePdbSignature") || !c.u32(out.nativePdbAge, "NativePdbAge") ||
            !nettrace::readUtf16String(c, out.nativePdbBuildPath, "NativePdbBuildPath"))
            return refuse(c, event, "module event");
        out.hasPdbInfo = true;
    }
    return Status::success();
}

Status DotnetRuntimeEventDecoder::decodeAssembly(const NettraceEvent& event, const DotnetEventType& type,
                                                 DotnetAssemblyEvent& out) {
    ByteCursor c = payloadOf(event);
    out.phase = type.phase;
    out.version = versionOf(event);
    out.bindingId = 0;
    out.clrInstanceId = 0;
    if (!c.u64(out.assemblyId, "AssemblyID") || !c.u64(out.appDomainId, "AppDomainID"))
        return refuse(c, event, "assembly event");
    if (out.version >= 1 && !c.u64(out.bindingId, "BindingID"))
        return refuse(c, event, "assembly event");
    if (!c.u32(out.flags, "AssemblyFlags") ||
        !nettrace::readUtf16String(c, out.fullyQualifiedName, "FullyQualifiedAssemblyName"))
        return refuse(c, event, "assembly event");
    if (out.version >= 1 && !c.u16(out.clrInstanceId, "ClrInstanceID"))
        return refuse(c, event, "assembly event");
    return Status::success();
}

QUARVEL_NAMESPACE_END

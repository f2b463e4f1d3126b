#ifndef QUARVEL_FORMAT_DOTNET_RUNTIME_EVENTS_H
#define QUARVEL_FORMAT_DOTNET_RUNTIME_EVENTS_H

// The runtime's method, module and assembly events as plain data, decoded
// from the payloads of its event trace. The same layouts come from the
// runtime provider (as code is compiled, loaded and freed) and from the
// rundown provider (what is alive when a session starts or ends).

#include <quarvel/namespace.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

enum class DotnetEventKind : uint8_t {
    other,
    method, // MethodLoad/Unload(Verbose), MethodDCStart/End(Verbose)
    methodILToNativeMap,
    module,
    assembly,
    rundownComplete // the rundown provider finished its enumeration (DCStart/DCEndComplete)
};

enum class DotnetEventPhase : uint8_t { load, unload, rundownStart, rundownEnd };

struct DotnetEventType {
    DotnetEventKind kind = DotnetEventKind::other;
    DotnetEventPhase phase = DotnetEventPhase::load;
    bool verbose = false; // method events with names
};

// The optimization tier a method event reports ((flags >> 7) & 7).
enum class DotnetOptimizationTier : uint8_t {
    unknown = 0,
    minOptJitted = 1,
    optimized = 2,
    quickJitted = 3, // tier 0
    optimizedTier1 = 4,
    optimizedTier1Osr = 5,
    instrumentedTier = 6,
    instrumentedTierOptimized = 7
};

struct DotnetMethodEvent {
    enum Flags : uint32_t {
        dynamic = 0x1,
        generic = 0x2,
        sharedGenericCode = 0x4,
        jitted = 0x8,
        jitHelper = 0x10,
        profilerRejectedPrecompiledCode = 0x20,
        readyToRunRejectedPrecompiledCode = 0x40
    };

    DotnetEventPhase phase = DotnetEventPhase::load;
    uint32_t version = 0;
    bool verbose = false;
    uint64_t methodId = 0; // the runtime's method descriptor; a helper's start address
    uint64_t moduleId = 0; // as in the module events; 0 for helpers
    uint64_t startAddress = 0;
    uint32_t size = 0;
    uint32_t token = 0; // the MethodDef token; 0 for dynamic methods, stubs and helpers
    uint32_t flags = 0;
    std::string methodNamespace; // verbose events only: the declaring type
    std::string methodName;
    std::string methodSignature;
    uint16_t clrInstanceId = 0;
    uint64_t rejitId = 0; // since .NET 7 the native code version id (version 2 and later)

    DotnetOptimizationTier tier() const { return static_cast<DotnetOptimizationTier>((flags >> 7) & 7); }
};

struct DotnetILToNativeMap {
    // Special IL offsets of the map's entries.
    static constexpr uint32_t kNoMapping = 0xFFFFFFFFu;
    static constexpr uint32_t kProlog = 0xFFFFFFFEu;
    static constexpr uint32_t kEpilog = 0xFFFFFFFDu;

    DotnetEventPhase phase = DotnetEventPhase::load;
    uint32_t version = 0;
    uint64_t methodId = 0;
    uint64_t rejitId = 0; // the native code version the map belongs to
    uint8_t methodExtent = 0;
    std::vector<uint32_t> ilOffsets;     // parallel to nativeOffsets
    std::vector<uint32_t> nativeOffsets; // from the method's start address
    uint16_t clrInstanceId = 0;
    uint64_t ilVersionId = 0; // version 1 and later
};

using DotnetGuid = std::array<uint8_t, 16>; // as stored: Data1-3 little-endian, then 8 bytes

struct DotnetModuleEvent {
    enum Flags : uint32_t {
        domainNeutral = 0x1,
        native = 0x2,
        dynamic = 0x4,
        manifest = 0x8,
        ibcOptimized = 0x10,
        readyToRun = 0x20,
        partialReadyToRun = 0x40
    };

    DotnetEventPhase phase = DotnetEventPhase::load;
    uint32_t version = 0;
    uint64_t moduleId = 0;
    uint64_t assemblyId = 0;
    uint32_t flags = 0;
    std::string ilPath; // the image path; a simple name for dynamic modules
    std::string nativePath;
    uint16_t clrInstanceId = 0;
    bool hasPdbInfo = false; // version 2 and later
    DotnetGuid managedPdbSignature{};
    uint32_t managedPdbAge = 0;
    std::string managedPdbBuildPath;
    DotnetGuid nativePdbSignature{};
    uint32_t nativePdbAge = 0;
    std::string nativePdbBuildPath;
};

struct DotnetAssemblyEvent {
    enum Flags : uint32_t { dynamic = 0x2, native = 0x4, collectible = 0x8 };

    DotnetEventPhase phase = DotnetEventPhase::load;
    uint32_t version = 0;
    uint64_t assemblyId = 0;
    uint64_t appDomainId = 0;
    uint64_t bindingId = 0; // version 1 and later
    uint32_t flags = 0;
    std::string fullyQualifiedName;
    uint16_t clrInstanceId = 0;
};

QUARVEL_NAMESPACE_END

#endif

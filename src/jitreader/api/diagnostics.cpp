// Diagnostics for tools, on top of the internal classes behind the facades.

#include <quarvel/diagnostics.h>

#include "api/symbol_resolver.h"
#include "ingest/jit_file_reader.h"
#include "ingest/jit_files_manager.h"
#include "model/jit_method.h"
#include "model/region.h"
#include "support/assertion.h"
#include "support/result.h"

#include <set>
#include <sstream>

QUARVEL_NAMESPACE_BEGIN

namespace {

// Methods attached below region, at every depth.
uint64_t countInlines(const Region& region) {
    uint64_t n = region.inlinedRegions().size();
    for (const Region::Ptr& child : region.inlinedRegions())
        if (child)
            n += countInlines(*child);
    return n;
}

const SymbolResolver* asResolver(const ISymbolResolver::Ptr& resolver) {
    return dynamic_cast<const SymbolResolver*>(resolver.get());
}

} // namespace

quarvel_error_t collectTraceStatistics(const ISymbolResolver::Ptr& resolver, TraceStatistics& out) {
    if (!resolver)
        return meInvalidPointer;
    const SymbolResolver* impl = asResolver(resolver);
    if (!impl)
        return meNotFound;

    const JitReadStats stats = impl->readStats();
    TraceStatistics result;
    result.files = stats.files;
    result.failedFiles = stats.failedFiles;
    result.bytes = stats.bytes;
    static_assert(JitReadStats::kTypeSlots == sizeof(result.records) / sizeof(result.records[0]),
                  "one counter per record type");
    for (size_t i = 0; i < JitReadStats::kTypeSlots; ++i)
        result.records[i] = stats.records[i];
    result.magicRecords = stats.magicRecords;
    result.refusedBodies = stats.refusedBodies;
    result.refusedByDataManager = stats.refusedByDataManager;
    result.architectureFiltered = stats.architectureFiltered;
    result.ignoredUpdates = stats.ignoredUpdates;
    result.secondTraces = stats.secondTraces;
    result.damagedRecords = stats.damagedRecords;
    result.jitdumpCodeLoads = stats.jitdumpCodeLoads;
    result.jitdumpCodeMoves = stats.jitdumpCodeMoves;
    result.jitdumpDebugInfo = stats.jitdumpDebugInfo;
    result.jitdumpOtherRecords = stats.jitdumpOtherRecords;
    result.perfMapEntries = stats.perfMapEntries;
    result.perfMapEntriesLeftToJitdump = stats.perfMapEntriesLeftToJitdump;
    result.nettraceEvents = stats.nettraceEvents;
    result.nettraceCodeLoads = stats.nettraceCodeLoads;
    result.nettraceRundownCode = stats.nettraceRundownCode;
    result.nettraceILMaps = stats.nettraceILMaps;
    result.nettraceUnloads = stats.nettraceUnloads;
    result.nettraceDroppedEvents = stats.nettraceDroppedEvents;
    for (const Reason& reason : stats.refusals) {
        TraceRefusal refusal;
        refusal.file = reason.file;
        refusal.offset = reason.offset == Reason::kNoOffset ? TraceRefusal::kNoOffset : reason.offset;
        refusal.field = reason.field;
        refusal.reason = reason.message;
        refusal.kind = errorKindName(reason.kind);
        refusal.code = reason.code;
        result.refusals.push_back(std::move(refusal));
    }
    result.refusalsNotKept = stats.refusalsNotKept;

    // getSymbols is a query of the finished model; it does not read again.
    for (auto it = resolver->getSymbols(); !it.atEnd(); it.advance()) {
        const JitMethod* method = dynamic_cast<const JitMethod*>(it.current().get());
        if (!method)
            continue;
        ++result.methods;
        result.regions += method->regionCount();
        for (const Region::Ptr& region : method->regions())
            if (region)
                result.inlinedMethods += countInlines(*region);
    }
    out = result;
    return meSuccess;
}

InternalCheckObserver setInternalCheckObserver(InternalCheckObserver observer) {
    return setAssertionObserver(observer);
}

quarvel_error_t checkTraceFiles(generic_iterator_t<const char*>& paths, TraceRefusal& why) {
    try {
        JitFilesManager files;
        const quarvel_error_t status = files.initialize(paths, taAny);
        if (status != meSuccess) {
            const Reason& reason = files.lastError();
            why = TraceRefusal();
            why.file = reason.file;
            why.reason = reason.message;
            why.kind = errorKindName(reason.kind);
            why.code = status;
        }
        return status;
    } catch (const std::exception& e) {
        why = TraceRefusal();
        why.reason = e.what();
        why.kind = errorKindName(ErrorKind::internal);
        why.code = meNotFound;
        return meNotFound;
    }
}

quarvel_error_t resolveJitPoint(const ISymbolResolver::Ptr& resolver, u64 timestamp, u64 virtualAddress, unsigned pid,
                                unsigned hostId, u64& jitRva) {
    if (!resolver)
        return meInvalidPointer;
    const SymbolResolver* impl = asResolver(resolver);
    if (!impl)
        return meNotFound;
    return impl->resolveJitPoint(timestamp, virtualAddress, pid, hostId, jitRva);
}

quarvel_error_t listTraceFiles(const ISymbolResolver::Ptr& resolver, std::vector<TraceFileInfo>& out) {
    if (!resolver)
        return meInvalidPointer;
    const SymbolResolver* impl = asResolver(resolver);
    if (!impl)
        return meNotFound;

    const JitFilesManager& files = impl->files();
    std::set<unsigned> pids;
    for (auto it = files.getJitPidArray(); !it.atEnd(); it.advance())
        pids.insert(it.current());

    std::vector<TraceFileInfo> result;
    for (unsigned hostId = 1; const char* hostName = files.getHostName(hostId); ++hostId) {
        for (unsigned pid : pids) {
            const ProcessJitInfo* process = files.getProcessJitInfo(pid, hostId);
            if (!process)
                continue;
            for (const JitFileInfo& file : process->files) {
                TraceFileInfo info;
                info.path = file.path.string();
                info.hostName = hostName;
                info.hostId = hostId;
                info.pid = pid;
                info.jitRvaBase = file.jitRvaBase;
                info.size = file.size;
                result.push_back(std::move(info));
            }
        }
    }
    out = std::move(result);
    return meSuccess;
}

quarvel_error_t dumpSymbol(const ISymbol::Ptr& symbol, std::ostream& os) {
    if (!symbol)
        return meInvalidPointer;
    JitMethod* method = dynamic_cast<JitMethod*>(symbol.get());
    if (!method)
        return meNotFound;
    os << *method;
    for (size_t i = 0; i < method->regionCount(); ++i) {
        const Region::Ptr& region = method->regions()[i];
        if (!region || region->inlinedRegions().empty())
            continue;
        std::ostringstream tree;
        region->dumpInlines(tree, 4);
        os << "Inlined into code region " << i << ":" << tree.str() << std::endl;
    }
    return meSuccess;
}

std::vector<InlinedCode> inlinedRegions(const ICodeRegion::Ptr& region) {
    std::vector<InlinedCode> result;
    const Region* impl = dynamic_cast<const Region*>(region.get());
    if (!impl)
        return result;
    const auto& regions = impl->inlinedRegions();
    const auto& methods = impl->inlinedMethods();
    for (size_t i = 0; i < regions.size() && i < methods.size(); ++i)
        result.push_back(InlinedCode{regions[i], methods[i]});
    return result;
}

unsigned rawParentId(const ISymbol::Ptr& symbol) {
    const JitMethod* method = dynamic_cast<const JitMethod*>(symbol.get());
    return method ? method->getRawParentId() : 0;
}

QUARVEL_NAMESPACE_END

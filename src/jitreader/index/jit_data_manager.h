#ifndef QUARVEL_INDEX_JIT_DATA_MANAGER_H
#define QUARVEL_INDEX_JIT_DATA_MANAGER_H

#include "index/address_history.h"
#include "index/address_lookup.h"
#include "index/frozen_address_index.h"
#include "index/inline_attacher.h"
#include "index/jit_id_converter.h"
#include "index/jit_rva_index.h"
#include "index/method_registry.h"
#include "model/jit_method.h"
#include "model/region.h"
#include "support/result.h"

#include <quarvel/symbol.h>
#include <quarvel/types.h>

#include <boost/thread/mutex.hpp>

#include <atomic>
#include <memory>
#include <utility>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// The registry that merges decoded methods into per-process address
// histories over time, attaches inlines, applies updates and answers
// queries. Filled by one thread during a reading pass; after finalize()
// every query is const and safe from many threads.
//
// Reading N records costs O(N log N) time and O(N) memory whatever their
// shape; a query costs O(log N). See docs/index.md.
class JitDataManager {
public:
    JitDataManager();
    ~JitDataManager();
    JitDataManager(const JitDataManager&) = delete;
    JitDataManager& operator=(const JitDataManager&) = delete;

    // ---- Registration (reading pass) --------------------------------------
    // Refusals carry the code of the refused operation (14 for a method
    // load, 4 for inlines, updates and a load time clash) and the logged text;
    // kind badInput when the file's content is at fault. A refused record
    // leaves nothing behind: its method is not listed, none of its regions
    // answers a query, no other region's life was ended by it.

    // A method load. Its regions are placed in the address space each
    // carries; a load ends the life of the regions it overwrites. A method
    // without regions is registered all the same (names, line tables; no
    // addresses). A method id seen before adds the new regions to the
    // method registered first.
    Status processMethodLoadRecord(u32 processId, u32 hostId, const JitMethod::Ptr& rawMethod);
    Status processMethodInlineLoadRecord(u32 processId, u32 hostId, const JitMethod::Ptr& rawMethod);
    Status processMethodUpdateRecord(u32 processId, u32 hostId, const JitMethod::Ptr& updateMethod);
    // Code unloaded by the runtime (a .NET MethodUnload event, for instance):
    // ends at `time` the life of every live region of the address space that
    // overlaps [startAddress, startAddress + length) and was loaded before
    // `time`. A region whose life ended already keeps its unload time. An
    // unload that meets no live region is not an error. Samples taken at or
    // after `time` then miss that code.
    Status processCodeUnload(u32 pid, u32 hostId, u64 startAddress, u32 length, u64 time);

    // Collector type of the file being read (ctJitProfiler identifies inline parents by id).
    u32 getCollectorType() const { return m_collectorType; }
    void setCollectorType(u32 type) { m_collectorType = type; }

    // After a reading pass: settles the jit rvas of inlines attached since
    // the last one and builds the query index of every address space that
    // changed. It costs what the pass read, not what the manager holds.
    void finalize();

    // ---- Queries (meSuccess, or 4 when nothing is found) -------------------
    quarvel_error_t findRegion(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId, Region::Ptr& region,
                               JitMethod::Ptr& method) const;
    quarvel_error_t resolveJitPoint(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId, JitMethod::Ptr& method,
                                    u64& jitRva) const;
    // What a sample needs, read from the query index alone: the jit rva and
    // the module of the method that held the address at that moment. The
    // module lives as long as the model (the methods hold it).
    quarvel_error_t resolveJitPoint(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId, IModule*& module,
                                    u64& jitRva) const;
    quarvel_error_t resolveJitPoint(u64 jitRva, JitMethod::Ptr& method) const;
    // As resolveJitPoint(jitRva, method), with the entry's copy of the
    // method's token; null when no region holds jitRva.
    const RegionInfo* symbolAt(u64 jitRva) const;
    quarvel_error_t findOverlappedRegion(u64 startAddress, u64 endAddress, u64 timestamp, u32 pid, u32 hostId,
                                         ICodeRegion::Ptr& region) const;
    quarvel_error_t getCalleeTarget(u64 callerJitRva, u64 targetAddress, u64& calleeJitRva) const;
    quarvel_error_t translateToJitRva(u32 methodId, u64 address, u64 baseJitRva, u64 jitRvaLimit, u64& jitRva) const;
    // The method that (module path, raw method id) names, the module path
    // being the one the method reports now (after any rename by the reading
    // pass). When methods of several address spaces share the pair, the one
    // of the lowest host id, then the lowest process id; within one address
    // space the first registered. Not const: the table is built on first use.
    quarvel_error_t findMethod(const char* moduleName, u32 methodId, ISymbol::Ptr& symbol);
    // Every registered method, in registration order.
    const JitMethodStorage& getJitMethods() const { return m_methods.all(); }
    // A reading pass that knows a method's id before it has built the rest
    // of the method: the registry's table, read first when the method (or an
    // inline under it) comes, starts loading into the cache meanwhile.
    void prefetchMethod(const BaseMethodId& id) const { m_methods.prefetch(id); }
    // The same for the source file a method about to be registered names.
    void prefetchSourceFile(const SourceFile* file) const { m_methods.prefetchKept(file); }
    // The same for an inline about to be attached by its parent's id.
    void prefetchInline(const BaseMethodId& parentId, const BaseMethodId& ownId) const {
        m_methods.prefetch(parentId);
        m_inlines.prefetch(parentId, ownId);
    }
    // The region that holds jitRva in the jit rva domain, if any.
    const RegionInfo* findJitRvaRegion(u64 jitRva) const;

    // Sizes of the structures, for tests that hold the storage to its bounds.
    struct IndexStats {
        size_t regions = 0;          // placed regions, all address spaces
        size_t topIntervals = 0;     // latest-region intervals
        size_t belowLinks = 0;       // history links between regions
        size_t belowLinkStorage = 0; // the same with the room they take: runs moved and room to grow
        size_t descentSteps = 0;     // walked down the links by loads out of time order
        size_t pieces = 0;           // pieces of the finalized query indexes
        size_t pieceEntries = 0;     // region entries of the finalized query indexes
        size_t jitRvaRuns = 0;
        size_t indexedRegions = 0; // regions indexed by every finalize() so far
    };
    IndexStats indexStats() const;

private:
    struct AddressSpace {
        u32 pid = 0;
        u32 hostId = 0;
        AddressHistory history;
        FrozenAddressIndex frozen;
        bool frozenCurrent = false; // the frozen index answers for the history
        bool changed = false;       // listed in m_changedSpaces
    };

    const AddressSpace* space(u32 pid, u32 hostId) const;
    AddressSpace* existingSpace(u32 pid, u32 hostId);
    AddressSpace& spaceFor(u32 pid, u32 hostId);
    void markChanged(AddressSpace& space);
    // The lookup of findRegion, without logging.
    // limited: a lookup of a record being read, whose walk down the history
    // counts against the space's step limit (AddressHistory::stepLimit()).
    AddressLookup lookup(u64 address, u64 timestamp, u32 pid, u32 hostId, bool limited = false) const;
    // Logs why lookup found nothing, as findRegion does.
    static void traceMiss(const AddressLookup& miss, u32 pid, u64 address, u64 timestamp);
    // The INFO and TRACE lines of a symbol query, once INFO is on.
    static void logSymbolQuery(u64 jitRva, const RegionInfo* info);
    // The TRACE lines of a query and of one that matched nothing.
    static void traceQuery(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId);
    static void traceUnmatched(const AddressLookup& miss, u32 pid, u64 virtualAddress, u64 timestamp);

    Status checkRegions(const JitMethod& rawMethod) const;
    Status registerRegions(u32 processId, u32 hostId, const JitMethod::Ptr& rawMethod);
    void buildJitIdConverter(u32 methodId, u32& indexOffset) const;

    MethodRegistry m_methods;
    JitRvaIndex m_jitRvas;
    InlineAttacher m_inlines;
    std::vector<std::pair<u64, std::unique_ptr<AddressSpace>>> m_spaces; // by (host id << 32 | pid)
    std::vector<AddressSpace*> m_changedSpaces;
    // Scratch of registration: the plan of each region of a record, made
    // when it is checked, and whether it was.
    struct Plan {
        std::vector<AddressHistory::Piece> pieces;
        bool made = false;
    };
    std::vector<Plan> m_plans;
    size_t m_indexedRegions = 0;
    u32 m_collectorType = 0;

    mutable JitIdConverter m_jitIdConverter;
    mutable std::atomic<bool> m_jitIdConverterBuilt{false}; // set under m_mutex once the converter is complete
    mutable boost::mutex m_mutex;
};

QUARVEL_NAMESPACE_END

#endif

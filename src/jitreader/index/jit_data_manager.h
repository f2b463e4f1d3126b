#ifndef QUARVEL_INDEX_JIT_DATA_MANAGER_H
#define QUARVEL_INDEX_JIT_DATA_MANAGER_H

#include "model/base_method_id.h"
#include "index/jit_id_converter.h"
#include "model/jit_method.h"
#include "model/range.h"
#include "model/region.h"

#include <quarvel/symbol.h>
#include <quarvel/types.h>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <atomic>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace quarvel_3_13 {

// A registered region and the method that owns it.
struct RegionInfo {
    Region::Ptr region;
    JitMethod::Ptr method;
};

// The history of one disjoint address range: every region that occupied it,
// by load time, and their methods, by start jit rva.
struct JitMethodContainer {
    typedef std::map<u64, Region::Ptr> SingleTimeDomain;
    typedef std::map<u64, JitMethod::Ptr> SingleRegionIdDomain;
    SingleTimeDomain timeDomain;
    SingleRegionIdDomain regionIdDomain;
};
typedef boost::shared_ptr<JitMethodContainer> JitMethodContainerPtr;

// Disjoint address ranges of one address space (host id, process id).
typedef std::map<Range, JitMethodContainerPtr, Range::Comparator> SingleRegionDomain;

typedef std::map<BaseMethodId, JitMethod::Ptr, BaseMethodId::Comparator> JitMethodMap;
typedef std::vector<JitMethod::Ptr> JitMethodStorage;

// The registry that merges decoded methods into per-process region domains
// over time, attaches inlines, applies updates and answers queries. Filled by
// one thread during the reading pass; after finalize() every query is const
// and safe from many threads.
class JitDataManager {
public:
    JitDataManager();
    ~JitDataManager();
    JitDataManager(const JitDataManager&) = delete;
    JitDataManager& operator=(const JitDataManager&) = delete;

    // Registration (reading pass).
    quarvel_error_t processMethodLoadRecord(u32 processId, u32 hostId, const JitMethod::Ptr& rawMethod);
    quarvel_error_t processMethodInlineLoadRecord(u32 processId, u32 hostId, const JitMethod::Ptr& rawMethod);
    quarvel_error_t processMethodUpdateRecord(u32 processId, u32 hostId, const JitMethod::Ptr& updateMethod);

    // Collector type of the file being read (ctJitProfiler identifies inline parents by id).
    u32 getCollectorType() const { return m_collectorType; }
    void setCollectorType(u32 type) { m_collectorType = type; }

    // After the last file of a pass: gives every inline region its jit rvas.
    void finalize();

    // Queries.
    quarvel_error_t findRegion(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId, Region::Ptr& region,
                               JitMethod::Ptr& method) const;
    quarvel_error_t resolveJitPoint(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId, JitMethod::Ptr& method,
                                    u64& jitRva) const;
    quarvel_error_t resolveJitPoint(u64 jitRva, JitMethod::Ptr& method) const;
    quarvel_error_t findOverlappedRegion(u64 startAddress, u64 endAddress, u64 timestamp, u32 pid, u32 hostId,
                                         ICodeRegion::Ptr& region) const;
    quarvel_error_t getCalleeTarget(u64 callerJitRva, u64 targetAddress, u64& calleeJitRva) const;
    quarvel_error_t translateToJitRva(u32 methodId, u64 address, u64 baseJitRva, u64 jitRvaLimit,
                                      u64& jitRva) const;
    quarvel_error_t findMethod(const char* moduleName, u32 methodId, ISymbol::Ptr& symbol);
    const JitMethodStorage& getJitMethods() const { return m_allMethods; }

    // Region domains.
    SingleRegionDomain& createSingleRegionDomain(u32 processId, u32 hostId);
    const SingleRegionDomain* getSingleRegionDomain(u32 processId, u32 hostId) const;

    // The region that holds jitRva in the jit rva domain, if any.
    const RegionInfo* findJitRvaRegion(u64 jitRva) const;

    // Steps of registration, exposed for tests.
    quarvel_error_t splitRegions(const Region::Ptr& region, const JitMethod::Ptr& method,
                                 SingleRegionDomain::iterator first, SingleRegionDomain::iterator last,
                                 SingleRegionDomain& domain, SingleRegionDomain& splittedRegions) const;
    quarvel_error_t addSplittedRegion(const Range& range, const JitMethodContainerPtr& container,
                                      SingleRegionDomain& splittedRegions) const;
    quarvel_error_t modifyRegionAssosiatedData(const JitMethod::Ptr& method, const Region::Ptr& region,
                                               JitMethodContainer& container) const;

private:
    // True when every region of rawMethod is a patched copy of a registered
    // region of the same method; their bytes then replace the stored ones.
    bool applyPatchedCopies(const JitMethod& rawMethod);
    // Inline attachment.
    quarvel_error_t findParentMethod(const BaseMethodId& parentId, JitMethod::Ptr& method) const;
    quarvel_error_t findInlineMethod(const BaseMethodId& parentId, JitMethod::Ptr& method) const;
    quarvel_error_t cacheParentMethod(const JitMethod::Ptr& method);
    quarvel_error_t cacheInlineMethod(const JitMethod::Ptr& inlineMethod);
    quarvel_error_t addInlineMethod(const JitMethod::Ptr& inlineMethod, Region::Ptr& parentRegion,
                                    const JitMethod::Ptr& parentMethod);
    quarvel_error_t addCachedInlineMethods(const JitMethod::Ptr& parentMethod);

    // Registration of one region of a method-load record.
    quarvel_error_t placeRegion(const Region::Ptr& region, const JitMethod::Ptr& method);
    // Gives every level of a region's inline tree its jit rvas.
    quarvel_error_t normalizeInlineTree(const Region::Ptr& root) const;
    // The jit id converter, built once on first use.
    void buildJitIdConverter(u32 methodId, u32& indexOffset) const;
    // Flat, sorted copies of the region domains and of the jit rva domain,
    // rebuilt by finalize(); dropped by anything that may change those maps.
    void buildDomainIndex();
    void dropDomainIndex();

    typedef std::map<Range, RegionInfo, Range::Comparator> JitRvaDomain;
    typedef std::map<u32, std::map<u32, SingleRegionDomain>> RegionDomains;

    JitRvaDomain m_jitRvaDomain;
    JitMethodMap m_methods;
    JitMethodMap m_inlineParents;   // inlines that can act as parents of nested inlines
    std::multimap<BaseMethodId, JitMethod::Ptr, BaseMethodId::Comparator> m_waitingInlines; // by parent id
    RegionDomains m_regionDomains;
    JitMethodStorage m_allMethods;
    mutable JitIdConverter m_jitIdConverter;
    mutable std::atomic<bool> m_jitIdConverterBuilt{false}; // set under m_mutex once the converter is complete
    mutable boost::mutex m_mutex;
    std::map<std::pair<std::string, u32>, ISymbol::Ptr> m_symbolTable;
    u32 m_collectorType = 0;

    // Address lookups after finalize() binary-search a flat copy of each
    // region domain (its ranges in order, with their containers) instead of
    // walking a tree whose nodes lie scattered over everything a reading pass
    // allocated. The maps stay the truth: handing out a domain for change
    // drops the copies until the next finalize().
    struct IndexedRange {
        Range range;
        const JitMethodContainer* container;
    };
    typedef std::vector<IndexedRange> DomainIndex;
    std::map<std::pair<u32, u32>, DomainIndex> m_domainIndex; // by (host id, process id)
    // The same for the jit rva domain: its ranges in order, with their entries.
    struct IndexedJitRvaRange {
        Range range;
        const RegionInfo* info;
    };
    std::vector<IndexedJitRvaRange> m_jitRvaIndex;
    bool m_domainIndexValid = false;
};

} // namespace quarvel_3_13

#endif

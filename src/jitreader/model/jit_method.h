#ifndef QUARVEL_MODEL_JIT_METHOD_H
#define QUARVEL_MODEL_JIT_METHOD_H

#include "model/base_method_info.h"
#include "model/line_tables.h"
#include "model/range.h"
#include "model/region.h"
#include "model/region_list.h"

#include "support/bulk_memory.h"
#include "support/object_pool.h"

#include <quarvel/symbol.h>

#include <ostream>
#include <string>
#include <utility>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// One jitted method: its descriptive record (shared with clones), raw ids,
// times, code regions and line tables.
class JitMethod : public ISymbol, public Pooled<JitMethod> {
public:
    typedef boost::intrusive_ptr<JitMethod> Ptr;
    typedef std::vector<quarvel_line_number_entry> LineTable;

    JitMethod();
    ~JitMethod() override;

    // Shares the descriptive record and the regions; copies the line map.
    Ptr clone() const;

    // ISymbol
    unsigned getMethodToken() const override { return m_info->methodToken(); }
    const char* getMethodName() const override { return m_info->methodNameCString(); }
    const char* getQualifiedMethodName() const override { return m_info->qualifiedMethodName().data(); }
    const char* getClassName() const override { return m_info->classNameCString(); }
    IModule::Ptr getModule() const override { return m_info->module(); }
    ISourceFile::Ptr getSourceFile() const override { return m_info->getSourceFile(); }
    generic_iterator_t<ICodeRegion::Ptr> getRegions() const override;
    quarvel_error_t getVirtualAddress(u64 jitRva, u64* virtualAddress) const override;
    quarvel_error_t getPid(u64 jitRva, unsigned& pid) const override;
    u64 getLoadTime() const override { return m_loadTime; }
    // Always 0: a method is never unloaded as a whole; its regions carry
    // their unload times (markAsUnloaded does nothing).
    u64 getUnloadTime() const override { return 0; }
    quarvel_error_t getLineNumberInfo(quarvel_line_info_type type, quarvel_line_number_entry* entries, unsigned* count,
                                      u64 jitRva) const override;
    quarvel_error_t getSourceRange(quarvel_line_number_entry* first, quarvel_line_number_entry* last,
                                   u64 jitRva) const override;
    ISourceLocation::Ptr getSourceLocation(u64 jitRva) const override;
    u64 getStartJitRva() const override { return m_startJitRva; }
    unsigned getMethodID() const override { return m_rawMethodId; }

    // Descriptive record.
    const BaseMethodInfo::Ptr& info() const { return m_info; }
    const BaseMethodId& getMethodId() const { return m_info->getMethodId(); }
    const BaseMethodId& getParentId() const { return m_info->getParentId(); }
    // getModule() without the reference count a returned pointer costs.
    const IModule::Ptr& module() const { return m_info->module(); }

    u32 getRawMethodId() const { return m_rawMethodId; }
    u32 getRawParentId() const { return m_rawParentId; }
    void setRawMethodId(u32 id) { m_rawMethodId = id; }
    void setRawParentId(u32 id) { m_rawParentId = id; }
    void setStartJitRva(jit_rva_t rva) { m_startJitRva = rva; }
    void setLoadTime(u64 time) { m_loadTime = time; }

    // Regions.
    void addCodeRegion(const Region::Ptr& region) { m_regions.push_back(region); }
    void addCodeRegion(Region::Ptr&& region) { m_regions.push_back(std::move(region)); }
    // Room for the regions about to be added: one allocation instead of one per doubling.
    void reserveRegions(size_t count) { m_regions.reserve(count); }
    size_t regionCount() const { return m_regions.size(); }
    const RegionList& regions() const { return m_regions; }

    bool isInlineAttached() const { return m_inlineAttached; }
    void setInlineAttached(bool attached) { m_inlineAttached = attached; }

    // Line tables. Their ranges are offsets until the method's jit rva is
    // settled, jit rvas after.
    bool addLineNumberInfo(quarvel_line_info_type type, const LineTable& entries, const Range& range);
    bool addLineNumberInfo(quarvel_line_info_type type, LineTables::Span entries, const Range& range);
    // Several tables of one range (indexed by type; empty ones left out) at once.
    bool addLineNumberInfo(const Range& range, const LineTables::Span (&tables)[LineTables::kTypes]);
    const LineTables& getLineNumberInfo() const { return m_lineInfo; }
    void setLineNumberInfo(LineTables tables) { m_lineInfo = std::move(tables); }
    void normalizeLineNumberInfoJitRvaRanges(jit_rva_t newStart);
    bool validateSymbolicInfo() const;
    void compareSymbolicInfoTo(const Ptr& jitMethod) const;

    // Unloading is tracked per region; kept for callers of the old interface.
    void markAsUnloaded(u64 time);

    // "Code region #i ..." per region, addresses in hexadecimal.
    std::string dumpRegions() const;

    // "(method id = <raw id>, name = <name>, load time = <time>)", used in log lines.
    std::string describe() const;

private:
    // Ordered so that the 32-bit fields and the flag fill the holes (the
    // first the base's tail padding): 72 bytes, not 96.
    u32 m_rawMethodId = 0;
    BaseMethodInfo::Ptr m_info;
    jit_rva_t m_startJitRva = 0;
    u32 m_rawParentId = 0;
    bool m_inlineAttached = false;
    u64 m_loadTime = 0;
    RegionList m_regions;
    // A query with a non-zero jit rva copies tables into the first range.
    mutable LineTables m_lineInfo;
};

// The full diagnostic dump of a method, with disassembly.
std::ostream& operator<<(std::ostream& os, JitMethod& method);

// Methods in registration order: an array with an entry per method, on huge
// pages once it is large (a fresh 4 KiB page per 512 methods otherwise).
typedef LargeVector<JitMethod::Ptr> JitMethodStorage;

QUARVEL_NAMESPACE_END

#endif

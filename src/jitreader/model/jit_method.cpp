#include "model/jit_method.h"

#include "model/source_location.h"
#include "support/assertion.h"
#include "support/log.h"

#include <sstream>
#include <utility>

QUARVEL_NAMESPACE_BEGIN

namespace {

// An item with start s and length n contains rva when s <= rva < s + n.
bool holds(u64 start, u64 length, u64 rva) {
    return start <= rva && rva - start < length;
}

const Region* findRegionOf(const RegionList& regions, u64 jitRva) {
    for (const Region::Ptr& region : regions)
        if (holds(region->startJitRva(), region->length(), jitRva))
            return region.get();
    return nullptr;
}

} // namespace

JitMethod::JitMethod() : m_info(adoptNew(new BaseMethodInfo())) {}

JitMethod::~JitMethod() = default;

JitMethod::Ptr JitMethod::clone() const {
    Ptr copy = adoptNew(new JitMethod());
    copy->m_info = m_info;
    copy->m_startJitRva = m_startJitRva;
    copy->m_rawMethodId = m_rawMethodId;
    copy->m_rawParentId = m_rawParentId;
    copy->m_loadTime = m_loadTime;
    copy->m_regions = m_regions;
    copy->m_inlineAttached = m_inlineAttached;
    copy->m_lineInfo = m_lineInfo;
    return copy;
}

generic_iterator_t<ICodeRegion::Ptr> JitMethod::getRegions() const {
    // The iterator keeps this method (and so its region vector) alive.
    return generic_iterator_t<ICodeRegion::Ptr>(m_regions.begin(), m_regions.end(), Ptr(const_cast<JitMethod*>(this)));
}

quarvel_error_t JitMethod::getVirtualAddress(u64 jitRva, u64* virtualAddress) const {
    const Region* region = findRegionOf(m_regions, jitRva);
    if (!region)
        return meNotFound;
    if (!virtualAddress)
        return meInvalidPointer;
    *virtualAddress = region->startAddress() + (jitRva - region->startJitRva());
    return meSuccess;
}

quarvel_error_t JitMethod::getPid(u64 jitRva, unsigned& pid) const {
    const Region* region = findRegionOf(m_regions, jitRva);
    if (!region)
        return meNotFound;
    pid = region->processId();
    return meSuccess;
}

quarvel_error_t JitMethod::getLineNumberInfo(quarvel_line_info_type type, quarvel_line_number_entry* entries,
                                             unsigned* count, u64 jitRva) const {
    if (!entries && !count)
        return meInvalidPointer;
    if (m_lineInfo.empty())
        return meNotFound;

    if (jitRva != 0) {
        const size_t found = m_lineInfo.find(jitRva);
        if (found == LineTables::npos)
            return meNotFound;
        // The selected range's tables are kept in the first range: after this
        // query the first code range reports them.
        m_lineInfo.copyTables(found, 0);
    }
    if (type > quarvel_line_info_native_to_source)
        return meNotFound;
    if (!count)
        return meInvalidPointer;

    const LineTables::Table table = m_lineInfo.table(0, type);
    const unsigned n = static_cast<unsigned>(table.size());
    if (!entries) {
        *count = n;
        return meSuccess;
    }
    if (*count < n)
        return meInsufficientBuffer;
    std::copy(table.begin(), table.end(), entries);
    *count = n;
    return meSuccess;
}

quarvel_error_t JitMethod::getSourceRange(quarvel_line_number_entry* first, quarvel_line_number_entry* last,
                                          u64 /*jitRva*/) const {
    if (!first || !last || m_lineInfo.empty())
        return meNotFound;
    u32 minLine = 0;
    u32 maxLine = 0;
    for (size_t r = 0; r < m_lineInfo.rangeCount(); ++r) {
        const LineTables::Table table = m_lineInfo.table(r, quarvel_line_info_native_to_source);
        if (table.empty())
            continue;
        // Entry 0 of a later table seeds nothing once min and max are set.
        auto row = table.begin();
        if (minLine == 0 || maxLine == 0)
            minLine = maxLine = row->value;
        for (++row; row != table.end(); ++row) {
            minLine = std::min(minLine, row->value);
            maxLine = std::max(maxLine, row->value);
        }
    }
    if (minLine == 0 || maxLine == 0)
        return meNotFound;
    *first = quarvel_line_number_entry{0, 0, minLine};
    *last = quarvel_line_number_entry{0, 0, maxLine};
    return meSuccess;
}

ISourceLocation::Ptr JitMethod::getSourceLocation(u64 jitRva) const {
    const size_t found = m_lineInfo.find(jitRva);
    if (found == LineTables::npos)
        return ISourceLocation::Ptr();
    const u64 off = jitRva - m_lineInfo.range(found).start;
    const LineTables::Table nativeToManaged = m_lineInfo.table(found, quarvel_line_info_native_to_managed);
    const LineTables::Table managedToSource = m_lineInfo.table(found, quarvel_line_info_managed_to_source);
    const LineTables::Table nativeToSource = m_lineInfo.table(found, quarvel_line_info_native_to_source);

    u32 line = 0;
    bool found_line = false;
    if (!nativeToManaged.empty() && !managedToSource.empty()) {
        u32 il = 0;
        bool haveIl = false;
        for (const auto& e : nativeToManaged)
            if (e.startOffset <= off && off < e.endOffset) {
                il = e.value;
                haveIl = true;
                break;
            }
        if (!haveIl || il == 0xFFFFFFFFu)
            return ISourceLocation::Ptr();
        for (const auto& e : managedToSource)
            if (e.startOffset == il || (e.startOffset <= il && il < e.endOffset)) {
                line = e.value;
                found_line = true;
                break;
            }
    } else {
        for (const auto& e : nativeToSource)
            if (e.startOffset == off || (e.startOffset <= off && off < e.endOffset)) {
                line = e.value;
                found_line = true;
                break;
            }
    }
    if (!found_line)
        return ISourceLocation::Ptr();
    return ISourceLocation::Ptr(new SourceLocation(line, m_info->sourceFile()));
}

bool JitMethod::addLineNumberInfo(quarvel_line_info_type type, const LineTable& entries, const Range& range) {
    return addLineNumberInfo(type, LineTables::Span{entries.data(), entries.size()}, range);
}

bool JitMethod::addLineNumberInfo(quarvel_line_info_type type, LineTables::Span entries, const Range& range) {
    if (type > quarvel_line_info_native_to_source)
        return false;
    LineTables::Span tables[LineTables::kTypes];
    tables[type] = entries;
    return addLineNumberInfo(range, tables);
}

bool JitMethod::addLineNumberInfo(const Range& range, const LineTables::Span (&tables)[LineTables::kTypes]) {
    if (!m_lineInfo.add(range, tables)) {
        QV_ERROR("Couldn't overwrite existing line number"
                 << " info for this code region of already registered method " << describe());
        return false;
    }
    return true;
}

void JitMethod::normalizeLineNumberInfoJitRvaRanges(jit_rva_t newStart) {
    m_lineInfo.rebase(newStart);
}

bool JitMethod::validateSymbolicInfo() const {
    if (m_regions.empty() || m_lineInfo.empty())
        return true;
    const Region& region = *m_regions.front();
    for (const auto& e : m_lineInfo.table(0, quarvel_line_info_native_to_source)) {
        if (e.endOffset > region.length()) {
            QV_ERROR("Detected line number (start offset = "
                     << e.startOffset << ", end offset = " << e.endOffset << ", src line = " << e.value
                     << ") that does not match to code range (ip range = " << region.startAddress() << "-"
                     << region.endAddress() << ")");
            return false;
        }
    }
    return true;
}

void JitMethod::compareSymbolicInfoTo(const Ptr& jitMethod) const {
    QV_CHECK(jitMethod, return );
    const std::string& registered = m_info->sourceFile().name();
    const std::string& supplied = jitMethod->info()->sourceFile().name();
    if (registered.empty()) {
        QV_TRACE("Registred method has a null source file " << describe()
                                                            << ". Mapping to source file is not available.");
    } else if (supplied.empty()) {
        QV_TRACE("Supplied a null source file for "
                 << jitMethod->describe() << ". Line number table will be associated"
                 << " with the source file of the first code region (src name = " << registered << ")");
    } else if (supplied != registered) {
        QV_TRACE("Supplied source file for " << jitMethod->describe()
                                             << " is differ from source file of the first code region (src name = "
                                             << registered << "). Map to source file will be incorrect.");
    }
}

void JitMethod::markAsUnloaded(u64 /*time*/) {}

std::string JitMethod::describe() const {
    std::ostringstream os;
    os << "(method id = " << m_rawMethodId << ", name = " << m_info->methodName() << ", load time = " << m_loadTime
       << ")";
    return os.str();
}

QUARVEL_NAMESPACE_END

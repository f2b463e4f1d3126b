#include "trace_view.h"

#include <quarvel/generic_iterator.h>
#include <quarvel/jittrace_format.h>

#include <algorithm>
#include <sstream>

namespace quarvel_jit {

namespace q = quarvel;

namespace {

// Inline trees are shallow; the bound only guards against a damaged model.
constexpr unsigned kMaxInlineDepth = 64;

std::string text(const char* s) {
    return s ? s : "";
}

// The qualified name where the symbol has one, else its method name.
const char* shownName(const q::ISymbol::Ptr& symbol) {
    const char* qualified = symbol->getQualifiedMethodName();
    return qualified && *qualified ? qualified : symbol->getMethodName();
}

std::string displayName(const q::ISymbol::Ptr& symbol) {
    return text(shownName(symbol));
}

// The file's name into out, copied while the file is held; false (out kept)
// when there is no file or it has no name.
bool assignFileName(const q::ISourceFile::Ptr& file, std::string& out) {
    const char* name = file ? file->getSourceFileName() : nullptr;
    if (!name || !*name)
        return false;
    out.assign(name);
    return true;
}

std::string sourceFileOf(const q::ISymbol::Ptr& symbol) {
    std::string name;
    assignFileName(symbol->getSourceFile(), name);
    return name;
}

void sourceRange(const q::ISymbol::Ptr& symbol, unsigned& first, unsigned& last) {
    quarvel_line_number_entry lo{}, hi{};
    if (symbol->getSourceRange(&lo, &hi, 0) == meSuccess) {
        first = lo.value;
        last = hi.value;
    }
}

// Fills p in place: a caller that keeps its SourcePoint from sample to
// sample reuses the strings' storage instead of allocating them anew.
void pointAt(const q::ISymbol::Ptr& symbol, uint64_t jitRva, SourcePoint& p) {
    const char* name = shownName(symbol);
    p.name.assign(name ? name : "");
    p.line = 0;
    const q::ISourceLocation::Ptr loc = symbol->getSourceLocation(jitRva);
    if (loc)
        p.line = loc->getLine();
    if (!(loc && assignFileName(loc->getSourceFile(), p.sourceFile)) &&
        !assignFileName(symbol->getSourceFile(), p.sourceFile))
        p.sourceFile.clear();
}

// The resolver completes a .NET method (names from its assembly, lines from
// its PDB) when getSymbol hands it out; the list of all symbols does not.
q::ISymbol::Ptr completed(const q::ISymbolResolver::Ptr& resolver, const q::ISymbol::Ptr& symbol) {
    if (!symbol || symbol->getMethodToken() == 0)
        return symbol;
    const q::ISymbol::Ptr full = resolver->getSymbol(symbol->getStartJitRva());
    return full ? full : symbol;
}

bool contains(const q::ICodeRegion::Ptr& region, uint64_t jitRva) {
    return region && jitRva >= region->getStartJitRva() && jitRva - region->getStartJitRva() < region->getLength();
}

std::vector<Counted> hottest(std::map<std::pair<std::string, std::string>, uint64_t> counts, size_t n) {
    std::vector<Counted> out;
    for (const auto& entry : counts)
        out.push_back(Counted{entry.first.first, entry.first.second, entry.second});
    std::stable_sort(out.begin(), out.end(), [](const Counted& a, const Counted& b) { return a.samples > b.samples; });
    if (out.size() > n)
        out.resize(n);
    return out;
}

} // namespace

bool TraceView::open(const std::vector<std::string>& paths) {
    m_paths = paths;
    std::vector<const char*> raw;
    for (const std::string& p : m_paths)
        raw.push_back(p.c_str());
    q::generic_iterator_t<const char*> it = q::makeIterator<const char*>(raw);
    // .NET methods get their names and lines from the assemblies the trace names.
    q::ISymbolFileLocator::Ptr locator = q::ISymbolFileLocator::createDefault();
    m_resolver = q::ISymbolResolver::create(it, locator);
    if (!m_resolver)
        return false;

    for (unsigned id = 1;; ++id) {
        const char* name = nullptr;
        if (m_resolver->getHostNameById(id, &name) != meSuccess || !name)
            break;
        m_hosts.push_back(name);
    }
    q::listTraceFiles(m_resolver, m_files);
    for (const q::TraceFileInfo& f : m_files)
        m_processes.insert({f.hostId, f.pid});
    return true;
}

std::string TraceView::hostName(unsigned hostId) const {
    return hostId >= 1 && hostId <= m_hosts.size() ? m_hosts[hostId - 1] : std::string();
}

std::vector<ProcessRow> TraceView::processes() const {
    // The process list itself comes from the files alone, without their records.
    std::vector<ProcessRow> rows;
    std::map<std::pair<unsigned, unsigned>, size_t> index;
    for (const q::TraceFileInfo& f : m_files) {
        auto key = std::make_pair(f.hostId, f.pid);
        auto found = index.find(key);
        if (found == index.end()) {
            found = index.emplace(key, rows.size()).first;
            ProcessRow row;
            row.host = f.hostName;
            row.pid = f.pid;
            rows.push_back(row);
        }
        ProcessRow& row = rows[found->second];
        ++row.files;
        row.bytes += f.size;
    }
    // The jit rva range is the one the process's code took.
    for (auto it = m_resolver->getSymbols(); !it.atEnd(); it.advance()) {
        q::generic_iterator_t<q::ICodeRegion::Ptr> regions = it.current()->getRegions();
        if (regions.atEnd())
            continue;
        const q::ICodeRegion::Ptr first = regions.current();
        const auto found = index.find({first->getHostID(), first->getProcessId()});
        if (found == index.end())
            continue;
        ProcessRow& row = rows[found->second];
        ++row.methods;
        for (; !regions.atEnd(); regions.advance()) {
            const q::ICodeRegion::Ptr& region = regions.current();
            const uint64_t start = region->getStartJitRva();
            const uint64_t end = start + region->getLength();
            row.jitRvaStart = row.jitRvaEnd == 0 ? start : std::min(row.jitRvaStart, start);
            row.jitRvaEnd = std::max(row.jitRvaEnd, end);
        }
    }
    return rows;
}

std::vector<InlineNode> TraceView::inlinesOf(const q::ICodeRegion::Ptr& region, unsigned depth) const {
    std::vector<InlineNode> nodes;
    if (depth >= kMaxInlineDepth)
        return nodes;
    for (const q::InlinedCode& child : q::inlinedRegions(region)) {
        if (!child.region || !child.symbol)
            continue;
        InlineNode node;
        node.methodId = child.symbol->getMethodID();
        node.name = displayName(child.symbol);
        node.sourceFile = sourceFileOf(child.symbol);
        sourceRange(child.symbol, node.firstLine, node.lastLine);
        node.start = child.region->getStartVirtualAddress();
        node.length = child.region->getLength();
        node.jitRva = child.region->getStartJitRva();
        node.inlined = inlinesOf(child.region, depth + 1);
        nodes.push_back(std::move(node));
    }
    return nodes;
}

SymbolRow TraceView::describe(const q::ISymbol::Ptr& symbol) const {
    SymbolRow row;
    row.methodId = symbol->getMethodID();
    row.name = displayName(symbol);
    row.className = text(symbol->getClassName());
    if (const q::IModule::Ptr module = symbol->getModule())
        row.module = text(module->getFilePath());
    row.sourceFile = sourceFileOf(symbol);
    sourceRange(symbol, row.firstLine, row.lastLine);
    row.loadTime = symbol->getLoadTime();
    row.jitRva = symbol->getStartJitRva();
    for (auto it = symbol->getRegions(); !it.atEnd(); it.advance()) {
        const q::ICodeRegion::Ptr region = it.current();
        if (!region)
            continue;
        RegionRow r;
        r.start = region->getStartVirtualAddress();
        r.length = region->getLength();
        r.jitRva = region->getStartJitRva();
        r.loadTime = region->getLoadTime();
        r.unloadTime = region->getUnloadTime();
        r.pid = region->getProcessId();
        r.host = hostName(region->getHostID());
        r.inlined = inlinesOf(region, 0);
        row.regions.push_back(std::move(r));
    }
    return row;
}

std::vector<SymbolRow> TraceView::symbols(const std::regex* match) const {
    std::vector<SymbolRow> rows;
    for (auto it = m_resolver->getSymbols(); !it.atEnd(); it.advance()) {
        const q::ISymbol::Ptr symbol = completed(m_resolver, it.current());
        if (symbol && (!match || std::regex_search(displayName(symbol), *match)))
            rows.push_back(describe(symbol));
    }
    return rows;
}

std::vector<DumpEntry> TraceView::dump(const std::regex* match) const {
    std::vector<DumpEntry> entries;
    for (auto it = m_resolver->getSymbols(); !it.atEnd(); it.advance()) {
        const q::ISymbol::Ptr symbol = completed(m_resolver, it.current());
        if (!symbol || (match && !std::regex_search(displayName(symbol), *match)))
            continue;
        std::ostringstream os;
        q::dumpSymbol(symbol, os);
        entries.push_back(DumpEntry{displayName(symbol), symbol->getStartJitRva(), os.str()});
    }
    return entries;
}

bool TraceView::dumpAt(uint64_t jitRva, DumpEntry& entry) const {
    const q::ISymbol::Ptr symbol = m_resolver->getSymbol(jitRva);
    if (!symbol)
        return false;
    std::ostringstream os;
    q::dumpSymbol(symbol, os);
    entry = DumpEntry{displayName(symbol), symbol->getStartJitRva(), os.str()};
    return true;
}

std::string TraceView::whyNotOpen() const {
    std::vector<const char*> raw;
    for (const std::string& p : m_paths)
        raw.push_back(p.c_str());
    q::generic_iterator_t<const char*> it = q::makeIterator<const char*>(raw);
    q::TraceRefusal why;
    if (q::checkTraceFiles(it, why) == meSuccess)
        return "the traces could not be read";
    return why.reason;
}

StatsReport TraceView::stats() const {
    q::TraceStatistics s;
    q::collectTraceStatistics(m_resolver, s);
    struct TypeName {
        unsigned type;
        const char* key;
        const char* label;
    };
    static const TypeName kTypes[] = {
        {quarvel_jt_FunctionLoad32, "method_load_v0_32", "method load v0, 32-bit"},
        {quarvel_jt_FunctionLoad64, "method_load_v0_64", "method load v0, 64-bit"},
        {quarvel_jt_FunctionLoad32_v1, "method_load_v1_32", "method load v1, 32-bit"},
        {quarvel_jt_FunctionLoad64_v1, "method_load_v1_64", "method load v1, 64-bit"},
        {quarvel_jt_FunctionLoad32_v2, "method_load_v2_32", "method load v2, 32-bit"},
        {quarvel_jt_FunctionLoad64_v2, "method_load_v2_64", "method load v2, 64-bit"},
        {quarvel_jt_FunctionLoad32_v3, "method_load_v3_32", "method load v3, 32-bit"},
        {quarvel_jt_FunctionLoad64_v3, "method_load_v3_64", "method load v3, 64-bit"},
        {quarvel_jt_FunctionUpdate, "method_update", "method update"},
        {quarvel_jt_FunctionInlineLoad32, "inline_load_32", "inline load, 32-bit"},
        {quarvel_jt_FunctionInlineLoad64, "inline_load_64", "inline load, 64-bit"},
        {quarvel_jt_CollectorType, "collector_type", "collector type"},
        {quarvel_jt_FunctionUpdate_v2, "update_v2", "update v2"},
        {quarvel_jt_ManagedRuntimeInfo, "runtime_info", "managed runtime info"},
    };
    std::vector<StatRow> rows = {
        {"hosts", "hosts", m_hosts.size()},
        {"processes", "processes", m_processes.size()},
        {"files", "files", s.files},
        {"failed_files", "files that failed", s.failedFiles},
        {"bytes", "bytes read", s.bytes},
        {"records", "records", s.totalRecords()},
        {"records_magic", "  magic", s.magicRecords},
    };
    for (const TypeName& t : kTypes)
        rows.push_back({std::string("records_") + t.key, std::string("  ") + t.label, s.records[t.type]});
    const std::vector<StatRow> runtimeFiles = {
        {"records_jitdump_code_load", "  jitdump code load", s.jitdumpCodeLoads},
        {"records_jitdump_code_move", "  jitdump code move", s.jitdumpCodeMoves},
        {"records_jitdump_debug_info", "  jitdump debug info", s.jitdumpDebugInfo},
        {"records_jitdump_other", "  jitdump other (skipped)", s.jitdumpOtherRecords},
        {"records_perf_map", "  perf map line", s.perfMapEntries},
        {"records_nettrace_event", "  event trace event", s.nettraceEvents},
    };
    rows.insert(rows.end(), runtimeFiles.begin(), runtimeFiles.end());
    const std::vector<StatRow> tail = {
        {"refused_bodies", "records refused by a decoder", s.refusedBodies},
        {"refused_by_model", "records refused by the model", s.refusedByDataManager},
        {"architecture_filtered", "files ended by the architecture filter", s.architectureFiltered},
        {"ignored_updates", "method updates not applied", s.ignoredUpdates},
        {"second_traces", "files ended by a second trace", s.secondTraces},
        {"damaged_records", "damaged records", s.damagedRecords},
        {"perf_map_left_to_jitdump", "perf map lines left to a jitdump", s.perfMapEntriesLeftToJitdump},
        {"nettrace_code_loads", "event trace method loads", s.nettraceCodeLoads},
        {"nettrace_rundown_code", "event trace code from the rundown", s.nettraceRundownCode},
        {"nettrace_il_maps", "event trace IL maps", s.nettraceILMaps},
        {"nettrace_unloads", "event trace unloads applied", s.nettraceUnloads},
        {"nettrace_dropped_events", "event trace events dropped", s.nettraceDroppedEvents},
        {"methods", "methods", s.methods},
        {"regions", "code regions", s.regions},
        {"inlined_methods", "inlined methods", s.inlinedMethods},
    };
    rows.insert(rows.end(), tail.begin(), tail.end());
    StatsReport report;
    report.counters = std::move(rows);
    for (const q::TraceRefusal& r : s.refusals)
        report.refusals.push_back(RefusalRow{
            r.file, r.offset == q::TraceRefusal::kNoOffset ? "-" : std::to_string(r.offset), r.field, r.reason});
    report.refusalsNotKept = s.refusalsNotKept;
    return report;
}

bool TraceView::hostIdOf(const std::string& host, unsigned& hostId, bool& noHost) {
    noHost = false;
    if (host.empty()) {
        // Without a host the sample can only mean the one host there is.
        if (m_hosts.size() != 1) {
            noHost = !m_hosts.empty();
            return false;
        }
        hostId = 1;
        return true;
    }
    const auto found = std::find(m_hosts.begin(), m_hosts.end(), host);
    if (found == m_hosts.end()) {
        ++m_unknownHosts[host];
        return false;
    }
    hostId = static_cast<unsigned>(found - m_hosts.begin()) + 1;
    return true;
}

// The resolver has read every file: asking it for the code at an address
// gives the loader's answer without a second reading of the same files.
bool TraceView::jitRvaAt(uint64_t time, uint64_t address, unsigned pid, unsigned hostId, uint64_t& jitRva) {
    return q::resolveJitPoint(m_resolver, time, address, pid, hostId, jitRva) == meSuccess;
}

bool TraceView::describeJitRva(uint64_t jitRva, SampleResult& r) const {
    const q::ISymbol::Ptr symbol = m_resolver->getSymbol(jitRva);
    if (!symbol)
        return false;
    r.jitRva = jitRva;
    r.module.clear();
    if (const q::IModule::Ptr m = symbol->getModule())
        if (const char* path = m->getFilePath())
            r.module.assign(path);
    pointAt(symbol, jitRva, r.method);
    r.inlined.clear();

    q::ICodeRegion::Ptr region;
    for (auto it = symbol->getRegions(); !it.atEnd(); it.advance())
        if (contains(it.current(), jitRva)) {
            region = it.current();
            break;
        }
    // Outermost inline first while walking down; reported innermost first.
    for (unsigned depth = 0; region && depth < kMaxInlineDepth; ++depth) {
        const q::ISymbol::Ptr inlinedSymbol = region->getInlinedSymbol(jitRva);
        const q::ICodeRegion::Ptr child = region->getInlinedCodeRegion(jitRva);
        if (!inlinedSymbol || !child)
            break;
        pointAt(inlinedSymbol, jitRva, r.inlined.emplace_back());
        region = child;
    }
    std::reverse(r.inlined.begin(), r.inlined.end());
    return true;
}

const TraceView::CodeExtent* TraceView::codeExtent(unsigned hostId, unsigned pid) {
    if (!m_extentsDone) {
        m_extentsDone = true;
        for (auto it = m_resolver->getSymbols(); !it.atEnd(); it.advance())
            for (auto regions = it.current()->getRegions(); !regions.atEnd(); regions.advance()) {
                const q::ICodeRegion::Ptr region = regions.current();
                if (!region || region->getLength() == 0)
                    continue;
                CodeExtent& e = m_extents[{region->getHostID(), region->getProcessId()}];
                e.lowest = std::min<uint64_t>(e.lowest, region->getStartVirtualAddress());
                e.highest = std::max<uint64_t>(e.highest, region->getStartVirtualAddress() + region->getLength());
                e.firstTime = std::min<uint64_t>(e.firstTime, region->getLoadTime());
            }
    }
    const auto found = m_extents.find({hostId, pid});
    return found == m_extents.end() ? nullptr : &found->second;
}

void TraceView::resolveOne(const Sample& sample, SampleResult& r) {
    // r may hold the sample before: what only a resolved sample has is cleared.
    r.jitRva = 0;
    r.module.clear();
    r.method.name.clear();
    r.method.sourceFile.clear();
    r.method.line = 0;
    r.inlined.clear();
    r.inputLine = sample.line;
    r.time = sample.time;
    r.address = sample.address;
    r.pid = sample.pid;
    r.host = sample.host;

    unsigned hostId = 0;
    bool noHost = false;
    if (!hostIdOf(sample.host, hostId, noHost)) {
        r.status = noHost ? SampleStatus::NoHost : SampleStatus::UnknownProcess;
        return;
    }
    if (sample.host.empty())
        r.host = m_hosts[0];
    if (!hasTraces(hostId, sample.pid)) {
        r.status = SampleStatus::UnknownProcess;
        return;
    }
    uint64_t jitRva = 0;
    if (!jitRvaAt(sample.time, sample.address, sample.pid, hostId, jitRva) || !describeJitRva(jitRva, r)) {
        r.status = SampleStatus::NotJit;
        return;
    }
    r.status = SampleStatus::Resolved;
}

void TraceView::resolveEach(SampleReader& samples, const std::function<void(const SampleResult&)>& each,
                            const std::function<void(uint64_t, uint64_t)>& progress) {
    Sample sample;
    SampleResult r;
    for (size_t i = 0; samples.next(sample); ++i) {
        resolveOne(sample, r);
        each(r);
        if (progress && i % 256 == 0)
            progress(samples.bytesRead(), samples.totalBytes());
    }
    if (progress)
        progress(samples.totalBytes(), samples.totalBytes());
}

void TraceView::count(const SampleResult& r, ResolveSummary& s) {
    ++s.samples;
    switch (r.status) {
    case SampleStatus::Resolved:
        ++s.resolved;
        break;
    case SampleStatus::NotJit:
        ++s.notJit;
        break;
    case SampleStatus::UnknownProcess:
        ++s.unknownProcess;
        break;
    case SampleStatus::NoHost:
        ++s.noHost;
        break;
    }
}

TopReport TraceView::top(const std::vector<SampleResult>& results, const ResolveSummary& summary, size_t n) {
    TopReport report;
    report.summary = summary;
    std::map<std::pair<std::string, std::string>, uint64_t> methods, lines;
    for (const SampleResult& r : results) {
        if (r.status != SampleStatus::Resolved)
            continue;
        // The time goes to the innermost method, inlined or not, and to the
        // innermost line known.
        ++methods[{r.inlined.empty() ? r.method.name : r.inlined.front().name, r.module}];
        const SourcePoint* at = nullptr;
        for (const SourcePoint& p : r.inlined)
            if (p.line) {
                at = &p;
                break;
            }
        if (!at && r.method.line)
            at = &r.method;
        const std::string key = at ? (at->sourceFile.empty() ? "?" : at->sourceFile) + ":" + std::to_string(at->line)
                                   : std::string("(no line information)");
        ++lines[{key, std::string()}];
    }
    report.methods = hottest(std::move(methods), n);
    report.lines = hottest(std::move(lines), n);
    return report;
}

} // namespace quarvel_jit

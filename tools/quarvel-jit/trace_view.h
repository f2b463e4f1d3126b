#ifndef QUARVEL_JIT_TRACE_VIEW_H
#define QUARVEL_JIT_TRACE_VIEW_H

// The tool's one door to the library: opens a trace set through the public
// facades and turns what they answer into the plain rows of report.h.

#include "report.h"
#include "samples.h"

#include <quarvel/diagnostics.h>
#include <quarvel/facades.h>

#include <functional>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace quarvel_jit {

class TraceView {
public:
    // Reads every trace file under paths (files or directories). False when
    // the library could not take the set; the reason is in the library's log.
    bool open(const std::vector<std::string>& paths);

    std::vector<ProcessRow> processes() const;
    // match: searched in the qualified name; null for all.
    std::vector<SymbolRow> symbols(const std::regex* match) const;
    std::vector<DumpEntry> dump(const std::regex* match) const;
    // False when no method holds the jit rva.
    bool dumpAt(uint64_t jitRva, DumpEntry& entry) const;
    StatsReport stats() const;
    // After a failed open(): why the paths do not make a trace set.
    std::string whyNotOpen() const;

    // progress(done, total) is called now and then.
    std::vector<SampleResult> resolve(const std::vector<Sample>& samples,
                                      const std::function<void(size_t, size_t)>& progress);
    // Hosts named by samples that the trace set does not know, with their sample count.
    const std::map<std::string, uint64_t>& unknownHosts() const { return m_unknownHosts; }

    static ResolveSummary summarize(const std::vector<SampleResult>& results);
    static TopReport top(const std::vector<SampleResult>& results, size_t n);

private:
    SymbolRow describe(const quarvel_3_13::ISymbol::Ptr& symbol) const;
    std::vector<InlineNode> inlinesOf(const quarvel_3_13::ICodeRegion::Ptr& region, unsigned depth) const;
    std::string hostName(unsigned hostId) const;
    void resolveOne(const Sample& sample, SampleResult& result);

    std::vector<std::string> m_paths;
    quarvel_3_13::ISymbolResolver::Ptr m_resolver;
    quarvel_3_13::IJitLoader::Ptr m_loader; // made by the first resolve
    std::vector<std::string> m_hosts;       // index = host id - 1
    std::vector<quarvel_3_13::TraceFileInfo> m_files;
    std::set<std::pair<unsigned, unsigned>> m_processes; // (host id, pid)
    std::map<std::string, uint64_t> m_unknownHosts;
};

} // namespace quarvel_jit

#endif

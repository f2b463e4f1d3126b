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

    // Resolves the samples in the order read, handing each result to `each`
    // (valid during the call only), so that no more than one sample is held
    // at a time. progress(bytes read, total bytes) is called now and then.
    void resolveEach(SampleReader& samples, const std::function<void(const SampleResult&)>& each,
                     const std::function<void(uint64_t, uint64_t)>& progress);
    // Hosts named by samples that the trace set does not know, with their sample count.
    const std::map<std::string, uint64_t>& unknownHosts() const { return m_unknownHosts; }

    // One address at one moment, for callers that resolve many addresses per
    // sample (call stacks). hostId: the host of the process, from hostIdOf.
    // False when no jitted code was at the address; the jit rva otherwise.
    bool jitRvaAt(uint64_t time, uint64_t address, unsigned pid, unsigned hostId, uint64_t& jitRva);
    // The method at a jit rva, its module and its inline chain (r.method,
    // r.module, r.inlined); false when no method holds the jit rva.
    bool describeJitRva(uint64_t jitRva, SampleResult& r) const;
    // The id of a host by name; an empty name means the only host there is.
    // False when the traces do not know the host (or, for an empty name, when
    // they come from several hosts: noHost is then set).
    bool hostIdOf(const std::string& host, unsigned& hostId, bool& noHost);
    bool hasTraces(unsigned hostId, unsigned pid) const { return m_processes.count({hostId, pid}) != 0; }
    // Where and since when a process's jitted code was: the lowest and
    // highest address of its regions and the first load time. Null for a
    // process without regions.
    struct CodeExtent {
        uint64_t lowest = ~0ull;
        uint64_t highest = 0; // exclusive
        uint64_t firstTime = ~0ull;
    };
    const CodeExtent* codeExtent(unsigned hostId, unsigned pid);

    static void count(const SampleResult& result, ResolveSummary& summary);
    // The n hottest methods and lines of results, with the summary counted as they were resolved.
    static TopReport top(const std::vector<SampleResult>& results, const ResolveSummary& summary, size_t n);

private:
    SymbolRow describe(const quarvel::ISymbol::Ptr& symbol) const;
    std::vector<InlineNode> inlinesOf(const quarvel::ICodeRegion::Ptr& region, unsigned depth) const;
    std::string hostName(unsigned hostId) const;
    void resolveOne(const Sample& sample, SampleResult& result);

    std::vector<std::string> m_paths;
    quarvel::ISymbolResolver::Ptr m_resolver;
    std::vector<std::string> m_hosts; // index = host id - 1
    std::vector<quarvel::TraceFileInfo> m_files;
    std::set<std::pair<unsigned, unsigned>> m_processes; // (host id, pid)
    std::map<std::string, uint64_t> m_unknownHosts;
    std::map<std::pair<unsigned, unsigned>, CodeExtent> m_extents; // filled on first use
    bool m_extentsDone = false;
};

} // namespace quarvel_jit

#endif

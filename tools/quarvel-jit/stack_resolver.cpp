#include "stack_resolver.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace quarvel_jit {

namespace {

// Expansions are cached per jit rva; past this many the cache starts over, so
// that memory stays bounded on inputs that touch every instruction.
constexpr size_t kMaxExpansions = 1u << 20;

// Kernel addresses on x86-64 and AArch64 have the top bits set.
constexpr uint64_t kKernelStart = 0xffff800000000000ull;

// The library's module of code without a module: the runtime's own stubs.
const char* const kDynamicCode = "[Dynamic code]";

bool startsWith(const std::string& s, const char* prefix) {
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

bool endsWith(const std::string& s, const char* suffix) {
    const size_t n = std::strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

std::string hexName(uint64_t address) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(address));
    return buf;
}

} // namespace

bool isAnonymousModule(const std::string& module) {
    return module.empty() || module == "[unknown]" || module == "//anon" || startsWith(module, "[anon") ||
           startsWith(module, "/memfd:") || (startsWith(module, "/tmp/perf-") && endsWith(module, ".map"));
}

bool isKernelFrame(const RawFrame& frame) {
    if (!frame.module.empty())
        return startsWith(frame.module, "[kernel") || startsWith(frame.module, "[guest.kernel");
    return frame.address >= kKernelStart;
}

const StackResolver::Process& StackResolver::processOf(const StackSample& sample) {
    const auto key = std::make_pair(sample.host, sample.pid);
    const auto found = m_processes.find(key);
    if (found != m_processes.end())
        return found->second;
    Process p;
    if (m_view.hostIdOf(sample.host, p.hostId, p.noHost) && m_view.hasTraces(p.hostId, sample.pid)) {
        p.traced = true;
        p.extent = m_view.codeExtent(p.hostId, sample.pid);
    }
    return m_processes.emplace(key, p).first->second;
}

bool StackResolver::appendJit(uint64_t jitRva, Stack& leafFirst) {
    auto found = m_expansions.find(jitRva);
    if (found == m_expansions.end()) {
        SampleResult r;
        if (!m_view.describeJitRva(jitRva, r))
            return false;
        if (m_expansions.size() >= kMaxExpansions)
            m_expansions.clear();
        Stack frames;
        for (const SourcePoint& p : r.inlined) // innermost first
            frames.push_back({m_frames.intern(FrameInfo{p.name, r.module, p.sourceFile, FrameKind::Inlined}), p.line});
        const FrameKind kind = r.module == kDynamicCode ? FrameKind::Stub : FrameKind::Compiled;
        frames.push_back(
            {m_frames.intern(FrameInfo{r.method.name, r.module, r.method.sourceFile, kind}), r.method.line});
        found = m_expansions.emplace(jitRva, std::move(frames)).first;
    }
    leafFirst.insert(leafFirst.end(), found->second.begin(), found->second.end());
    return true;
}

uint32_t StackResolver::profilerFrame(const RawFrame& raw, FrameKind kind) {
    if (raw.symbol.empty())
        return m_frames.intern(FrameInfo{hexName(raw.address), raw.module, "", kind});
    // Most frames are the same few library functions: found without building a FrameInfo.
    m_key.assign(1, static_cast<char>('0' + static_cast<int>(kind)));
    m_key += raw.symbol;
    m_key += '\0';
    m_key += raw.module;
    const auto found = m_profilerFrames.find(m_key);
    if (found != m_profilerFrames.end())
        return found->second;
    const uint32_t id = m_frames.intern(FrameInfo{raw.symbol, raw.module, "", kind});
    m_profilerFrames.emplace(m_key, id);
    return id;
}

void StackResolver::resolve(const StackSample& sample, Stack& out) {
    out.clear();
    ++m_counters.samples;
    const Process& process = processOf(sample);
    if (!process.traced) {
        if (process.noHost) {
            ++m_counters.noHostSamples;
        } else {
            ++m_counters.untracedSamples;
            ++m_counters.untracedProcesses[std::to_string(sample.pid) +
                                           (sample.host.empty() ? std::string() : "@" + sample.host)];
        }
    } else if (process.extent && sample.time < process.extent->firstTime) {
        ++m_counters.beforeTraces;
    }

    bool unnamed = false;
    bool afterKernel = false;
    for (size_t i = 0; i < sample.frames.size(); ++i) {
        const RawFrame& raw = sample.frames[i];
        ++m_counters.frames;
        if (isKernelFrame(raw)) {
            out.push_back({profilerFrame(raw, FrameKind::Kernel), 0});
            afterKernel = true;
            continue;
        }
        // Callers are return addresses: the call is the byte before. The
        // first user frame under kernel frames is where the thread entered
        // the kernel, an address of its own.
        const bool returnAddress = i > 0 && !afterKernel;
        afterKernel = false;
        const uint64_t address = returnAddress && raw.address > 0 ? raw.address - 1 : raw.address;
        const TraceView::CodeExtent* extent = process.extent;
        if (process.traced && extent && isAnonymousModule(raw.module) && address >= extent->lowest &&
            address < extent->highest) {
            uint64_t jitRva = 0;
            if (m_view.jitRvaAt(sample.time, address, sample.pid, process.hostId, jitRva) && appendJit(jitRva, out)) {
                ++m_counters.jitFrames;
                continue;
            }
            ++m_counters.unnamedJitFrames;
            unnamed = true;
            out.push_back({profilerFrame(raw, FrameKind::Unknown), 0});
            continue;
        }
        out.push_back({profilerFrame(raw, FrameKind::Native), 0});
    }
    if (unnamed)
        ++m_counters.samplesWithUnnamed;
    std::reverse(out.begin(), out.end());
}

} // namespace quarvel_jit

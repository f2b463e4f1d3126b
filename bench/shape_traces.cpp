#include "shape_traces.h"

#include <quarvel/jittrace_writer.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <numeric>
#include <random>
#include <stdexcept>

#include <sys/stat.h>

namespace quarvel_bench {

using quarvel::JitTraceWriter;
using quarvel::TraceCodeRegion;
using quarvel::TraceMethodLoad;

namespace {

const int kShapeVersion = 2;
const char* const kHost = "shapehost";
const uint64_t kBase = 0x7f0000000000ull;
const uint64_t kFirstTime = 1000000;

bool fileSize(const std::string& path, uint64_t& size) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    size = static_cast<uint64_t>(st.st_size);
    return true;
}

void makeDirs(const std::string& path) {
    for (size_t pos = 1; pos <= path.size(); ++pos)
        if (pos == path.size() || path[pos] == '/')
            ::mkdir(path.substr(0, pos).c_str(), 0755);
}

// One load of one region, written as version 3 of the jit profiler.
TraceMethodLoad load(uint32_t id, uint64_t time, uint64_t start, uint32_t size) {
    TraceMethodLoad l;
    l.hashKey = id;
    l.methodId = id;
    l.loadTime = time;
    TraceCodeRegion region;
    region.startAddress = start;
    region.codeSize = size;
    l.regions.push_back(region);
    l.tail.moduleName = "";
    l.tail.className = "Lbench/Shape" + std::to_string(id % 97) + ";";
    l.tail.methodName = "m" + std::to_string(id) + "()V";
    l.tail.sourceFile = "Shape.java";
    return l;
}

// Writes path (unless cached) with write(writer), which returns the loads written.
uint64_t writeOnce(const std::string& path, const std::function<void(JitTraceWriter&)>& write) {
    uint64_t size = 0;
    if (fileSize(path, size))
        return size;
    const std::string partial = path + ".part";
    JitTraceWriter writer;
    if (!writer.open(partial) || !writer.writeMagic() || !writer.writeCollectorType(quarvel::ctJitProfiler))
        throw std::runtime_error(writer.errorText());
    write(writer);
    writer.close();
    if (std::rename(partial.c_str(), path.c_str()) != 0 || !fileSize(path, size))
        throw std::runtime_error("cannot create " + path);
    return size;
}

// What a trace's cache directory says of its order, in LoadOrder's order.
const char* orderTag(LoadOrder order) {
    static const char* const kTags[] = {"", "backwards-", "shuffled-", "two-files-"};
    return kTags[static_cast<int>(order)];
}

// The load time of each load i of n in that order, from kFirstTime on. Two
// files: the first n / 2 loads (the first file) at even times, the rest at
// odd ones.
std::vector<uint64_t> loadTimes(size_t n, LoadOrder order) {
    std::vector<uint64_t> times(n);
    std::iota(times.begin(), times.end(), kFirstTime);
    if (order == LoadOrder::backwards)
        std::reverse(times.begin(), times.end());
    if (order == LoadOrder::shuffled)
        std::shuffle(times.begin(), times.end(), std::mt19937_64(n));
    if (order == LoadOrder::twoFiles)
        for (size_t i = 0; i < n; ++i)
            times[i] = kFirstTime + (i < n / 2 ? 2 * i : 2 * (i - n / 2) + 1);
    return times;
}

// The loads [0, n) of one process, in one file or, for two files, in two
// (the first n / 2 loads and the rest) in directories of their own, as their
// names are the same.
ShapeTrace oneProcess(const std::string& cacheDir, const std::string& tag, size_t n, LoadOrder order,
                      const std::function<TraceMethodLoad(size_t)>& loadAt) {
    const std::string dir = cacheDir + "/shape-v" + std::to_string(kShapeVersion) + "-" + tag;
    ShapeTrace trace;
    trace.hostName = kHost;
    const unsigned pid = 7000;
    trace.pids.push_back(pid);
    const size_t files = order == LoadOrder::twoFiles ? 2 : 1;
    for (size_t f = 0; f < files; ++f) {
        const std::string fileDir = files == 1 ? dir : dir + "/" + std::to_string(f + 1);
        makeDirs(fileDir);
        trace.paths.push_back(fileDir + "/" + kHost + "." + std::to_string(pid) + ".jit");
        const size_t from = f * (n / 2);
        const size_t to = f + 1 == files ? n : n / 2;
        trace.fileBytes += writeOnce(trace.paths.back(), [&](JitTraceWriter& writer) {
            for (size_t i = from; i < to; ++i)
                if (!writer.writeMethodLoad(3, true, loadAt(i)))
                    throw std::runtime_error(writer.errorText());
        });
    }
    const TraceMethodLoad first = loadAt(0);
    trace.probeAddress.push_back(first.regions[0].startAddress);
    trace.probeTime.push_back(first.loadTime);
    trace.loads = n;
    return trace;
}

} // namespace

ShapeTrace staggeredTrace(const std::string& cacheDir, size_t n, LoadOrder order) {
    const std::string tag = std::string("staggered-") + orderTag(order) + std::to_string(n);
    const std::vector<uint64_t> times = loadTimes(n, order);
    return oneProcess(cacheDir, tag, n, order, [n, &times](size_t i) {
        return load(static_cast<uint32_t>(i + 1), times[i], kBase + 16 * i, static_cast<uint32_t>(16 * n));
    });
}

ShapeTrace hotAreaTrace(const std::string& cacheDir, size_t n, LoadOrder order) {
    const std::string tag = std::string("hot-area-") + orderTag(order) + std::to_string(n);
    const std::vector<uint64_t> times = loadTimes(n, order);
    return oneProcess(cacheDir, tag, n, order, [&times](size_t i) {
        return load(static_cast<uint32_t>(i + 1), times[i], kBase + 8 * (i % 2), 256);
    });
}

ShapeTrace processesTrace(const std::string& cacheDir, size_t methods, size_t processes) {
    const std::string dir = cacheDir + "/shape-v" + std::to_string(kShapeVersion) + "-processes-" +
                            std::to_string(methods) + "-" + std::to_string(processes);
    makeDirs(dir);
    ShapeTrace trace;
    trace.hostName = kHost;
    const size_t perProcess = methods / processes;
    for (size_t p = 0; p < processes; ++p) {
        const unsigned pid = static_cast<unsigned>(10000 + p);
        trace.pids.push_back(pid);
        trace.paths.push_back(dir + "/" + kHost + "." + std::to_string(pid) + ".jit");
        // Regions shorter than their records: without code bytes, a file's
        // jit rvas must stay within the range its size gives it.
        trace.fileBytes += writeOnce(trace.paths.back(), [&](JitTraceWriter& writer) {
            for (size_t i = 0; i < perProcess; ++i)
                if (!writer.writeMethodLoad(
                        3, true, load(static_cast<uint32_t>(i + 1), kFirstTime + 10 * i, kBase + 256 * i, 48)))
                    throw std::runtime_error(writer.errorText());
        });
        trace.probeAddress.push_back(kBase);
        trace.probeTime.push_back(kFirstTime);
    }
    trace.loads = perProcess * processes;
    return trace;
}

} // namespace quarvel_bench

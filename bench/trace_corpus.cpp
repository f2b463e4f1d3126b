#include "trace_corpus.h"

#include <quarvel/jittrace_writer.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>

#include <sys/stat.h>

namespace quarvel_bench {

using quarvel::JitTraceWriter;
using quarvel::TraceCodeRegion;
using quarvel::TraceInlineLoad;
using quarvel::TraceMethodLoad;
using quarvel::TraceMethodTail;

namespace {

// Bump this when the shapes change, so stale cached traces are not reused.
const int kGeneratorVersion = 1;

const uint64_t kHeapBase = 0x7f3a00000000ull;
const uint64_t kHeapStride = 0x100000000ull; // hot code, cold code, stubs
const unsigned kHeaps = 3;
const unsigned kReusePercent = 10;
const unsigned kInlinePercent = 25;
const uint32_t kInlineIdBase = 0x40000000u;
const unsigned kPid = 4242;
const char* const kHost = "benchhost";

const char* const kSignatures[] = {"()V",
                                   "(I)I",
                                   "(Ljava/lang/String;)V",
                                   "(JJ)Z",
                                   "([BII)I",
                                   "(Ljava/lang/Object;I)Ljava/lang/Object;",
                                   "(DLjava/util/List;)D"};

bool fileExists(const std::string& path, uint64_t* size) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0)
        return false;
    if (size)
        *size = static_cast<uint64_t>(st.st_size);
    return S_ISREG(st.st_mode);
}

void makeDirs(const std::string& path) {
    for (size_t pos = 1; pos <= path.size(); ++pos)
        if (pos == path.size() || path[pos] == '/')
            ::mkdir(path.substr(0, pos).c_str(), 0755);
}

// Code bytes: slices of one pseudo-random block, so 1 GB of code costs no RNG time.
const std::vector<uint8_t>& codePattern() {
    static const std::vector<uint8_t> pattern = [] {
        std::vector<uint8_t> p(1 << 16);
        Rng rng(77);
        for (uint8_t& b : p)
            b = static_cast<uint8_t>(rng.next());
        return p;
    }();
    return pattern;
}

std::vector<quarvel_line_number_entry> lineTable(Rng& rng, uint32_t codeLength, unsigned entries, bool native,
                                                 uint32_t firstLine) {
    std::vector<quarvel_line_number_entry> table;
    table.reserve(entries);
    uint32_t at = 0;
    const uint32_t step = std::max<uint32_t>(1, codeLength / entries);
    for (unsigned i = 0; i < entries; ++i) {
        const uint32_t end = std::min<uint32_t>(codeLength, at + step);
        if (native)
            table.push_back({at, end, static_cast<uint32_t>(i * 4)});
        else
            table.push_back({i * 4, i * 4 + 3, firstLine + i + static_cast<uint32_t>(rng.between(0, 2))});
        at = end;
    }
    return table;
}

TraceMethodTail methodTail(Rng& rng, uint32_t classNo, uint32_t methodNo, uint32_t codeLength, unsigned entries) {
    TraceMethodTail tail;
    tail.moduleName = ""; // Java code: the reader files it under its compiled-code module
    tail.moduleArch = quarvel_arch_vx64;
    tail.className = "Lcom/quarvel/bench/p" + std::to_string(classNo % 64) + "/Class" + std::to_string(classNo) + ";";
    tail.methodName =
        "method" + std::to_string(methodNo) + kSignatures[methodNo % (sizeof kSignatures / sizeof kSignatures[0])];
    tail.sourceFile = "Class" + std::to_string(classNo) + ".java";
    tail.language = quarvel_language_java;
    const uint32_t firstLine = 10 + methodNo % 500;
    tail.lines.managedToSource = lineTable(rng, codeLength, entries, false, firstLine);
    tail.lines.nativeToManaged = lineTable(rng, codeLength, entries, true, 0);
    tail.lines.nativeToSource = lineTable(rng, codeLength, entries, true, firstLine);
    for (quarvel_line_number_entry& e : tail.lines.nativeToSource)
        e.value = firstLine + e.value / 4;
    return tail;
}

std::string corpusTag(const CorpusShape& shape) {
    return "v" + std::to_string(kGeneratorVersion) + "-m" + std::to_string(shape.methods) + "-r" +
           std::to_string(shape.maxRegions) + (shape.codeBytes ? "-bytes" : "-nobytes") + "-s" +
           std::to_string(shape.seed);
}

// Runs the generator; writes the trace when writer is given. All random draws
// happen whether or not the trace is written, so a dry run gives the same truth.
void generate(const CorpusShape& shape, JitTraceWriter* writer, Corpus& out) {
    Rng rng(shape.seed);
    const std::vector<uint8_t>& pattern = codePattern();
    uint64_t bump[kHeaps];
    std::vector<uint32_t> live[kHeaps]; // live regions per heap, candidates for reuse
    for (unsigned k = 0; k < kHeaps; ++k)
        bump[k] = kHeapBase + k * kHeapStride;

    std::vector<RegionTruth>& regions = out.regions;
    regions.reserve(shape.maxRegions ? shape.maxRegions : shape.methods * 2);
    uint64_t time = 1000000000ull;
    uint32_t inlineIds = kInlineIdBase;

    if (writer) {
        if (!writer->writeMagic() || !writer->writeCollectorType(quarvel::ctJitProfiler))
            throw std::runtime_error(writer->errorText());
        quarvel::TraceRuntimeInfo info;
        info.runtimeType = quarvel_runtime_java;
        info.version = "17.0";
        info.name = "bench-vm";
        if (!writer->writeRuntimeInfo(info))
            throw std::runtime_error(writer->errorText());
    }
    out.records = 3;

    for (size_t i = 0; i < shape.methods; ++i) {
        if (shape.maxRegions && regions.size() >= shape.maxRegions)
            break;
        time += rng.between(200, 2000);
        const uint32_t id = static_cast<uint32_t>(i + 1);
        const uint32_t total = static_cast<uint32_t>(rng.between(50, 2000));
        const uint64_t roll = rng.between(0, 99);
        unsigned count = roll < 60 ? 1 : roll < 90 ? 2 : 3;
        if (shape.maxRegions)
            count = static_cast<unsigned>(std::min<size_t>(count, shape.maxRegions - regions.size()));
        uint32_t sizes[3] = {total, 0, 0};
        if (count >= 2) {
            const uint32_t stubs = count == 3 ? static_cast<uint32_t>(rng.between(8, 24)) : 0;
            const uint32_t cold = static_cast<uint32_t>((total - stubs) * rng.between(10, 40) / 100);
            sizes[0] = total - stubs - cold;
            sizes[1] = std::max<uint32_t>(cold, 1);
            sizes[2] = stubs;
        }

        TraceMethodLoad load;
        load.hashKey = id;
        load.methodId = id;
        load.loadTime = time;
        uint32_t codeLength = 0;
        for (unsigned k = 0; k < count; ++k) {
            uint32_t size = sizes[k];
            uint64_t start = 0;
            std::vector<uint32_t>& pool = live[k];
            if (pool.size() > 64 && rng.chance(kReusePercent)) {
                // A freed block goes to the new method: the old code dies now.
                const size_t pick = rng.between(0, pool.size() - 1);
                RegionTruth& old = regions[pool[pick]];
                pool[pick] = pool.back();
                pool.pop_back();
                old.unloadTime = time;
                start = old.start;
                size = std::min(size, old.size);
            } else {
                start = bump[k];
                bump[k] += (size + 15) / 16 * 16 + 16 * rng.between(0, 3);
            }
            pool.push_back(static_cast<uint32_t>(regions.size()));
            regions.push_back(RegionTruth{start, size, time, 0, id});
            codeLength += size;
            if (writer) {
                TraceCodeRegion region;
                region.startAddress = start;
                region.codeSize = size;
                if (shape.codeBytes) {
                    const size_t from = (start / 16 * 61) % (pattern.size() - size);
                    region.bytes.assign(pattern.begin() + from, pattern.begin() + from + size);
                }
                load.regions.push_back(std::move(region));
            }
        }
        const uint32_t classNo = static_cast<uint32_t>(rng.between(0, 19999));
        const uint32_t methodNo = static_cast<uint32_t>(rng.between(0, 99999));
        const unsigned entries = static_cast<unsigned>(rng.between(2, 6));
        Rng tableRng(rng.next());
        if (writer) {
            load.tail = methodTail(tableRng, classNo, methodNo, codeLength, entries);
            if (!writer->writeMethodLoad(3, true, load))
                throw std::runtime_error(writer->errorText());
        }
        ++out.methodLoads;
        ++out.records;

        // Inlined callees, inside the hot region; a second one is nested in the
        // first or placed after it.
        const RegionTruth& hot = regions[regions.size() - count];
        if (hot.size >= 64 && rng.chance(kInlinePercent)) {
            const unsigned inlines = static_cast<unsigned>(rng.between(1, 2));
            uint32_t offsets[2] = {static_cast<uint32_t>(rng.between(0, hot.size / 4)), 0};
            uint32_t lengths[2] = {static_cast<uint32_t>(rng.between(8, hot.size / 2)), 0};
            const bool nested = rng.chance(50);
            if (nested) {
                offsets[1] = offsets[0] + static_cast<uint32_t>(rng.between(0, lengths[0] / 4));
                lengths[1] = static_cast<uint32_t>(rng.between(1, lengths[0] / 2));
            } else {
                offsets[1] = offsets[0] + lengths[0] + static_cast<uint32_t>(rng.between(0, 8));
                lengths[1] = offsets[1] < hot.size ? static_cast<uint32_t>(rng.between(1, hot.size - offsets[1]))
                                                   : static_cast<uint32_t>(rng.between(1, 8));
            }
            const uint32_t calleeNo = static_cast<uint32_t>(rng.between(0, 99999));
            for (unsigned n = 0; n < inlines; ++n) {
                if (uint64_t(offsets[n]) + lengths[n] > hot.size)
                    continue;
                const uint32_t inlineId = inlineIds++;
                if (writer) {
                    TraceInlineLoad inl;
                    inl.methodId = inlineId;
                    inl.parentId = id;
                    inl.loadTime = time;
                    inl.region.startAddress = hot.start + offsets[n];
                    inl.region.codeSize = lengths[n];
                    inl.tail = methodTail(tableRng, classNo + 1 + n, calleeNo + n, lengths[n], 2);
                    if (!writer->writeInlineLoad(true, inl))
                        throw std::runtime_error(writer->errorText());
                }
                ++out.inlineLoads;
                ++out.records;
            }
        }
    }
    out.lastLoadTime = time;
    if (!regions.empty()) {
        out.probeAddress = regions.front().start;
        out.probeTime = regions.front().unloadTime ? regions.front().loadTime : time;
    }
}

} // namespace

Corpus loadCorpus(const std::string& cacheDir, const CorpusShape& shape, bool withTruth) {
    Corpus corpus;
    const std::string dir = cacheDir + "/" + corpusTag(shape);
    corpus.pid = kPid;
    corpus.hostName = kHost;
    corpus.fileName = std::string(kHost) + "." + std::to_string(kPid) + ".jit";
    corpus.path = dir + "/" + corpus.fileName;

    if (!fileExists(corpus.path, &corpus.fileBytes)) {
        makeDirs(dir);
        const std::string partial = corpus.path + ".part";
        JitTraceWriter writer;
        if (!writer.open(partial))
            throw std::runtime_error(writer.errorText());
        generate(shape, &writer, corpus);
        writer.close();
        if (std::rename(partial.c_str(), corpus.path.c_str()) != 0 || !fileExists(corpus.path, &corpus.fileBytes))
            throw std::runtime_error("cannot create " + corpus.path);
    } else {
        generate(shape, nullptr, corpus);
    }
    if (!withTruth)
        std::vector<RegionTruth>().swap(corpus.regions);
    return corpus;
}

std::vector<Sample> makeLiveSamples(const Corpus& corpus, size_t count, uint64_t seed) {
    Rng rng(seed);
    std::vector<Sample> samples;
    samples.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const uint32_t index = static_cast<uint32_t>(rng.between(0, corpus.regions.size() - 1));
        const RegionTruth& r = corpus.regions[index];
        const uint64_t lastLive = r.unloadTime ? r.unloadTime - 1 : corpus.lastLoadTime + 5000;
        samples.push_back(Sample{r.start + rng.between(0, r.size - 1), rng.between(r.loadTime, lastLive), index});
    }
    return samples;
}

} // namespace quarvel_bench

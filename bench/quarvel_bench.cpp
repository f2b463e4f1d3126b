// Ingest, resolution and memory of the jit reader, measured through the
// public facades on synthetic traces, beside a flat sorted-array lookup that
// marks the floor for one address lookup. Progress goes to stderr; one table
// of results goes to stdout at the end.
//
// Own flags (the Google Benchmark flags work as usual):
//   --cache=DIR              where generated traces are kept (default ./bench-cache)
//   --sizes=N,N,...          method loads of the ingest traces (default 10000,100000,1000000)
//   --resolve-regions=N      code regions of the resolution trace (default 1000000)
//   --ingest-once=loader|resolver
//                            one ingest of the first size in this process, no
//                            benchmark run: for profilers (perf, callgrind)
//   --shape-once=staggered|hot_area|processes|staggered_backwards|hot_area_backwards|
//                hot_area_shuffled|hot_area_two_files
//                            one read of that shape's first size, in this process
//   --staggered=N,...        loads of the staggered-overlap traces (default 800,1600,3200,6400)
//   --hot-area=N,...         loads of the alternating hot-area traces (default 5000,10000,20000)
//   --processes=P,...        processes the many-process traces spread their loads over (default 1,100,1000)
//   --process-methods=N      loads of each many-process trace (default 200000)
//   --once                   one measurement per case (no repeated ingests or
//                            repetitions): for a machine shared with other work

#include "shape_traces.h"
#include "trace_corpus.h"

#include <quarvel/jitreader.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

using namespace quarvel;
using quarvel_bench::Corpus;
using quarvel_bench::CorpusShape;
using quarvel_bench::Sample;
using quarvel_bench::ShapeTrace;

namespace {

struct Options {
    std::string cacheDir = "bench-cache";
    std::vector<size_t> sizes{10000, 100000, 1000000};
    size_t resolveRegions = 1000000;
    std::vector<size_t> staggered{800, 1600, 3200, 6400};
    std::vector<size_t> hotArea{5000, 10000, 20000};
    std::vector<size_t> processes{1, 100, 1000};
    size_t processMethods = 200000;
    bool once = false;
};

Options g_options;

// ---------------------------------------------------------------------------
// Corpora, generated on first use.

const Corpus& ingestCorpus(size_t methods) {
    static std::map<size_t, Corpus> corpora;
    auto found = corpora.find(methods);
    if (found == corpora.end()) {
        CorpusShape shape;
        shape.methods = methods;
        found = corpora.emplace(methods, quarvel_bench::loadCorpus(g_options.cacheDir, shape, false)).first;
    }
    return found->second;
}

// ---------------------------------------------------------------------------
// Ingest: one fresh child process per measurement, so that its peak resident
// memory belongs to that one ingest.

enum class IngestKind { Resolver, Loader };

struct IngestResult {
    double seconds = 0; // CPU time of the child: the machine may be shared
    // Of which the kernel's: mostly zeroing the memory the read first
    // touches, whose cost depends on the machine (a guest whose host takes
    // freed memory back pays several times more) and varies run to run.
    double systemSeconds = 0;
    double wallSeconds = 0;
    long baselineKb = 0;
    long peakKb = 0;
    int ok = 0;
};

long statusKb(const char* key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const size_t keyLength = std::strlen(key);
    while (std::getline(status, line))
        if (line.compare(0, keyLength, key) == 0)
            return std::strtol(line.c_str() + keyLength, nullptr, 10);
    return -1;
}

double cpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

double systemSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_stime.tv_sec) + double(usage.ru_stime.tv_usec) * 1e-6;
}

IngestResult ingestOnce(IngestKind kind, const Corpus& corpus) {
    const char* paths[] = {corpus.path.c_str()};
    IngestResult result;
    const double cpuStart = cpuSeconds();
    const double systemStart = systemSeconds();
    const auto start = std::chrono::steady_clock::now();
    if (kind == IngestKind::Resolver) {
        generic_iterator_t<const char*> files(std::begin(paths), std::end(paths));
        ISymbolFileLocator::Ptr noLocator;
        ISymbolResolver::Ptr resolver = ISymbolResolver::create(files, noLocator);
        result.ok = resolver && resolver->getSymbols().atEnd() == false;
        result.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        result.seconds = cpuSeconds() - cpuStart;
        result.systemSeconds = systemSeconds() - systemStart;
        // The child exits right after: tearing the model down would only cost time.
        resolver.detach();
    } else {
        generic_iterator_t<const char*> files(std::begin(paths), std::end(paths));
        IJitLoader::Ptr loader = IJitLoader::create(files);
        unsigned hostId = 0;
        u64 jitRva = 0;
        IModule::Ptr module;
        result.ok = loader && loader->getHostIdByName(corpus.hostName.c_str(), &hostId) == meSuccess &&
                    loader->resolveJitPoint(corpus.probeTime, corpus.probeAddress, corpus.pid, hostId, &jitRva,
                                            module) == meSuccess;
        result.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        result.seconds = cpuSeconds() - cpuStart;
        result.systemSeconds = systemSeconds() - systemStart;
        loader.detach();
    }
    return result;
}

// Runs work in a fresh child process: its CPU time, wall time and the rise of
// its resident high-water mark belong to that one run.
IngestResult runInChild(const std::function<IngestResult()>& work) {
    int fds[2];
    if (::pipe(fds) != 0)
        return IngestResult{};
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(fds[0]);
        // Start the peak from what the child shares with the parent now.
        if (FILE* f = std::fopen("/proc/self/clear_refs", "w")) {
            std::fputs("5", f);
            std::fclose(f);
        }
        const long baseline = statusKb("VmRSS:");
        IngestResult r = work();
        r.baselineKb = baseline;
        r.peakKb = statusKb("VmHWM:");
        const ssize_t written = ::write(fds[1], &r, sizeof r);
        ::_exit(written == static_cast<ssize_t>(sizeof r) ? 0 : 1);
    }
    ::close(fds[1]);
    IngestResult r;
    const ssize_t got = child > 0 ? ::read(fds[0], &r, sizeof r) : -1;
    ::close(fds[0]);
    int status = 0;
    if (child > 0)
        ::waitpid(child, &status, 0);
    if (got != static_cast<ssize_t>(sizeof r))
        return IngestResult{};
    return r;
}

IngestResult ingestInChild(IngestKind kind, const Corpus& corpus) {
    return runInChild([&] { return ingestOnce(kind, corpus); });
}

void BM_Ingest(benchmark::State& state, IngestKind kind, size_t methods) {
    const Corpus& corpus = ingestCorpus(methods);
    double seconds = 0;
    double wallSeconds = 0;
    double kernelSeconds = 0;
    double peakKb = 0;
    for (auto _ : state) {
        const IngestResult r = ingestInChild(kind, corpus);
        if (!r.ok) {
            state.SkipWithError("the ingest failed or its probe query missed");
            return;
        }
        state.SetIterationTime(r.seconds);
        seconds += r.seconds;
        wallSeconds += r.wallSeconds;
        kernelSeconds += r.systemSeconds;
        peakKb = std::max(peakKb, double(r.peakKb - r.baselineKb));
    }
    const double perRun = seconds / double(state.iterations());
    state.counters["loads"] = double(corpus.methodLoads);
    state.counters["records"] = double(corpus.records);
    state.counters["file_mb"] = double(corpus.fileBytes) / 1e6;
    state.counters["seconds"] = perRun;
    state.counters["wall_seconds"] = wallSeconds / double(state.iterations());
    state.counters["system_seconds"] = kernelSeconds / double(state.iterations());
    state.counters["loads_per_s"] = double(corpus.methodLoads) / perRun;
    state.counters["mb_per_s"] = double(corpus.fileBytes) / 1e6 / perRun; // per CPU second
    state.counters["peak_mb"] = peakKb * 1024 / 1e6;
    state.counters["peak_b_per_method"] = peakKb * 1024 / double(corpus.methodLoads);
}

// ---------------------------------------------------------------------------
// Shapes: traces that stress the address history. A loader is created over
// the files and asked one sample per process, which reads that process (and
// finalises) lazily, as a profiler's first samples would.

enum class ShapeKind {
    Staggered,
    HotArea,
    Processes,
    StaggeredBackwards,
    HotAreaBackwards,
    HotAreaShuffled,
    HotAreaTwoFiles
};

// Each shape's name, the trace it reads, and the sizes it reads at.
struct ShapeInfo {
    ShapeKind kind;
    const char* name;
    ShapeKind layout; // Staggered, HotArea or Processes
    quarvel_bench::LoadOrder order;
};
using quarvel_bench::LoadOrder;
const ShapeInfo kShapes[] = {
    {ShapeKind::Staggered, "staggered", ShapeKind::Staggered, LoadOrder::inTime},
    {ShapeKind::HotArea, "hot_area", ShapeKind::HotArea, LoadOrder::inTime},
    {ShapeKind::Processes, "processes", ShapeKind::Processes, LoadOrder::inTime},
    {ShapeKind::StaggeredBackwards, "staggered_backwards", ShapeKind::Staggered, LoadOrder::backwards},
    {ShapeKind::HotAreaBackwards, "hot_area_backwards", ShapeKind::HotArea, LoadOrder::backwards},
    {ShapeKind::HotAreaShuffled, "hot_area_shuffled", ShapeKind::HotArea, LoadOrder::shuffled},
    {ShapeKind::HotAreaTwoFiles, "hot_area_two_files", ShapeKind::HotArea, LoadOrder::twoFiles}};

const ShapeInfo& shapeInfo(ShapeKind kind) {
    return kShapes[static_cast<int>(kind)]; // in the enum's order
}

const char* shapeName(ShapeKind kind) {
    return shapeInfo(kind).name;
}

const ShapeTrace& shapeTrace(ShapeKind kind, size_t n) {
    static std::map<std::pair<int, size_t>, ShapeTrace> traces;
    const auto key = std::make_pair(static_cast<int>(kind), n);
    auto found = traces.find(key);
    if (found == traces.end()) {
        const ShapeInfo& shape = shapeInfo(kind);
        ShapeTrace trace = shape.layout == ShapeKind::Staggered
                               ? quarvel_bench::staggeredTrace(g_options.cacheDir, n, shape.order)
                           : shape.layout == ShapeKind::HotArea
                               ? quarvel_bench::hotAreaTrace(g_options.cacheDir, n, shape.order)
                               : quarvel_bench::processesTrace(g_options.cacheDir, g_options.processMethods, n);
        found = traces.emplace(key, std::move(trace)).first;
    }
    return found->second;
}

IngestResult readShapeOnce(const ShapeTrace& trace) {
    IngestResult result;
    std::vector<const char*> paths;
    for (const std::string& path : trace.paths)
        paths.push_back(path.c_str());
    const double cpuStart = cpuSeconds();
    const auto start = std::chrono::steady_clock::now();
    generic_iterator_t<const char*> files(paths.begin(), paths.end());
    IJitLoader::Ptr loader = IJitLoader::create(files);
    unsigned hostId = 0;
    result.ok = loader && loader->getHostIdByName(trace.hostName.c_str(), &hostId) == meSuccess;
    for (size_t p = 0; result.ok && p < trace.pids.size(); ++p) {
        u64 jitRva = 0;
        IModule::Ptr module;
        result.ok = loader->resolveJitPoint(trace.probeTime[p], trace.probeAddress[p], trace.pids[p], hostId, &jitRva,
                                            module) == meSuccess;
    }
    result.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    result.seconds = cpuSeconds() - cpuStart;
    loader.detach();
    return result;
}

const std::vector<size_t>& shapeSizes(ShapeKind kind) {
    const ShapeKind layout = shapeInfo(kind).layout;
    return layout == ShapeKind::Staggered ? g_options.staggered
           : layout == ShapeKind::HotArea ? g_options.hotArea
                                          : g_options.processes;
}

// Each size of a shape read in turn, round after round, each read in a fresh
// child; a size keeps its best time. The goals compare the sizes of a shape
// with each other, and this machine's speed drifts by half over minutes: read
// one after the other, one size could fall in a slow stretch and another not.
struct ShapeRun {
    double seconds = 0; // the best round's CPU time
    double peakKb = 0;  // the highest peak of any round
    bool ok = false;
};

int shapeRounds() {
    return g_options.once ? 1 : 9;
}

const ShapeRun& shapeRun(ShapeKind kind, size_t n) {
    static std::map<std::pair<int, size_t>, ShapeRun> runs;
    const auto key = std::make_pair(static_cast<int>(kind), n);
    if (runs.count(key) == 0) {
        for (size_t size : shapeSizes(kind))
            runs[std::make_pair(static_cast<int>(kind), size)].ok = true;
        for (int round = 0; round < shapeRounds(); ++round)
            for (size_t size : shapeSizes(kind)) {
                const ShapeTrace& trace = shapeTrace(kind, size);
                const IngestResult r = runInChild([&] { return readShapeOnce(trace); });
                ShapeRun& run = runs[std::make_pair(static_cast<int>(kind), size)];
                run.seconds = round == 0 ? r.seconds : std::min(run.seconds, r.seconds);
                run.peakKb = std::max(run.peakKb, double(r.peakKb - r.baselineKb));
                run.ok = run.ok && r.ok;
            }
    }
    return runs[key];
}

void BM_Shape(benchmark::State& state, ShapeKind kind, size_t n) {
    const ShapeTrace& trace = shapeTrace(kind, n);
    const ShapeRun& run = shapeRun(kind, n);
    for (auto _ : state) {
        if (!run.ok) {
            state.SkipWithError("the read failed or a probe query missed");
            return;
        }
        state.SetIterationTime(run.seconds);
    }
    state.counters["loads"] = double(trace.loads);
    state.counters["files"] = double(trace.paths.size());
    state.counters["file_mb"] = double(trace.fileBytes) / 1e6;
    state.counters["seconds"] = run.seconds;
    state.counters["peak_mb"] = run.peakKb * 1024 / 1e6;
}

// ---------------------------------------------------------------------------
// Resolution: one trace of resolveRegions code regions with reuse history,
// read once by a loader (mode 2) and once by a resolver (mode 1).

struct FlatEntry {
    u64 start;
    u64 end;
    u32 id;
};

struct ResolveFixture {
    Corpus corpus;
    IJitLoader::Ptr loader;
    ISymbolResolver::Ptr resolver;
    unsigned hostId = 0;
    std::vector<Sample> samples;
    std::vector<u64> jitRvas;    // the loader's answer for each sample
    std::vector<FlatEntry> flat; // [start, end) -> region, no time dimension
    size_t loaderMisses = 0;
    double loaderIngestSeconds = 0;
};

const size_t kSamples = size_t(1) << 20; // a power of two: indices wrap with a mask
const int kBatch = 256;

std::unique_ptr<ResolveFixture> g_fixture;
std::once_flag g_fixtureOnce;

void buildFixture() {
    std::unique_ptr<ResolveFixture> f(new ResolveFixture);
    CorpusShape shape;
    shape.methods = g_options.resolveRegions; // never reached: the region limit ends it
    shape.maxRegions = g_options.resolveRegions;
    shape.seed = 0xfeed;
    f->corpus = quarvel_bench::loadCorpus(g_options.cacheDir, shape, true);

    const char* paths[] = {f->corpus.path.c_str()};
    {
        generic_iterator_t<const char*> files(std::begin(paths), std::end(paths));
        f->loader = IJitLoader::create(files);
    }
    if (!f->loader || f->loader->getHostIdByName(f->corpus.hostName.c_str(), &f->hostId) != meSuccess)
        throw std::runtime_error("cannot create the loader for " + f->corpus.path);
    f->samples = quarvel_bench::makeLiveSamples(f->corpus, kSamples, 99);

    // The first query reads the trace; then every sample must resolve.
    const auto start = std::chrono::steady_clock::now();
    f->jitRvas.resize(f->samples.size());
    for (size_t i = 0; i < f->samples.size(); ++i) {
        const Sample& s = f->samples[i];
        IModule::Ptr module;
        if (f->loader->resolveJitPoint(s.timestamp, s.address, f->corpus.pid, f->hostId, &f->jitRvas[i], module) !=
            meSuccess)
            ++f->loaderMisses;
        if (i == 0)
            f->loaderIngestSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }

    {
        generic_iterator_t<const char*> files(std::begin(paths), std::end(paths));
        ISymbolFileLocator::Ptr noLocator;
        f->resolver = ISymbolResolver::create(files, noLocator);
    }
    if (!f->resolver)
        throw std::runtime_error("cannot create the resolver for " + f->corpus.path);

    // The flat floor: the latest region at each start address.
    std::vector<FlatEntry> flat;
    flat.reserve(f->corpus.regions.size());
    for (size_t i = 0; i < f->corpus.regions.size(); ++i) {
        const quarvel_bench::RegionTruth& r = f->corpus.regions[i];
        flat.push_back(FlatEntry{r.start, r.start + r.size, static_cast<u32>(i)});
    }
    std::stable_sort(flat.begin(), flat.end(),
                     [](const FlatEntry& a, const FlatEntry& b) { return a.start < b.start; });
    std::vector<FlatEntry> unique;
    unique.reserve(flat.size());
    for (const FlatEntry& e : flat) {
        if (!unique.empty() && unique.back().start == e.start)
            unique.back() = e; // stable: the later region wins
        else
            unique.push_back(e);
    }
    f->flat.swap(unique);
    g_fixture = std::move(f);
}

void fixtureSetup(const benchmark::State&) {
    std::call_once(g_fixtureOnce, buildFixture);
}

size_t firstSample(const benchmark::State& state) {
    return (kSamples / static_cast<size_t>(state.threads())) * static_cast<size_t>(state.thread_index());
}

void BM_LoaderResolve(benchmark::State& state) {
    const ResolveFixture& f = *g_fixture;
    size_t i = firstSample(state);
    IModule::Ptr module;
    u64 jitRva = 0;
    unsigned failures = 0;
    for (auto _ : state) {
        for (int k = 0; k < kBatch; ++k, ++i) {
            const Sample& s = f.samples[i & (kSamples - 1)];
            failures +=
                f.loader->resolveJitPoint(s.timestamp, s.address, f.corpus.pid, f.hostId, &jitRva, module) != meSuccess;
        }
    }
    benchmark::DoNotOptimize(failures);
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_FlatBaseline(benchmark::State& state) {
    const ResolveFixture& f = *g_fixture;
    size_t i = firstSample(state);
    u64 sum = 0;
    const auto byStart = [](u64 address, const FlatEntry& e) {
        return address < e.start;
    };
    for (auto _ : state) {
        for (int k = 0; k < kBatch; ++k, ++i) {
            const Sample& s = f.samples[i & (kSamples - 1)];
            auto it = std::upper_bound(f.flat.begin(), f.flat.end(), s.address, byStart);
            if (it != f.flat.begin() && s.address < (--it)->end)
                sum += it->id;
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_GetSymbol(benchmark::State& state) {
    const ResolveFixture& f = *g_fixture;
    size_t i = firstSample(state);
    unsigned misses = 0;
    for (auto _ : state) {
        for (int k = 0; k < kBatch; ++k, ++i) {
            ISymbol::Ptr symbol = f.resolver->getSymbol(f.jitRvas[i & (kSamples - 1)]);
            misses += !symbol;
        }
    }
    benchmark::DoNotOptimize(misses);
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_TranslateToJitRva(benchmark::State& state) {
    const ResolveFixture& f = *g_fixture;
    size_t i = firstSample(state);
    const char* fileName = f.corpus.fileName.c_str();
    u64 jitRva = 0;
    unsigned hits = 0;
    for (auto _ : state) {
        for (int k = 0; k < kBatch; ++k, ++i) {
            const Sample& s = f.samples[i & (kSamples - 1)];
            hits += f.resolver->translateToJitRva(f.corpus.regions[s.region].methodId, s.address, fileName, &jitRva) ==
                    meSuccess;
        }
    }
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(state.iterations() * kBatch);
}

// ---------------------------------------------------------------------------
// The table.

std::string cpuModel() {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, 10, "model name") == 0) {
            const size_t colon = line.find(':');
            return colon == std::string::npos ? line : line.substr(colon + 2);
        }
    return "unknown CPU";
}

std::string fixed(double v, int digits) {
    std::ostringstream os;
    os << std::fixed << std::setprecision(digits) << v;
    return os.str();
}

std::string rate(double perSecond) {
    if (perSecond >= 1e6)
        return fixed(perSecond / 1e6, 2) + " M/s";
    if (perSecond >= 1e3)
        return fixed(perSecond / 1e3, 1) + " k/s";
    return fixed(perSecond, 0) + " /s";
}

std::string duration(double seconds) {
    if (seconds >= 1)
        return fixed(seconds, 2) + " s";
    if (seconds >= 1e-3)
        return fixed(seconds * 1e3, 1) + " ms";
    if (seconds >= 1e-6)
        return fixed(seconds * 1e6, 1) + " us";
    return fixed(seconds * 1e9, 0) + " ns";
}

std::string count(double n) {
    if (n >= 1e6 && std::fmod(n, 1e6) == 0)
        return fixed(n / 1e6, 0) + "M";
    if (n >= 1e3 && std::fmod(n, 1e3) == 0)
        return fixed(n / 1e3, 0) + "k";
    return fixed(n, 0);
}

class TableReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred)
                continue;
            // Of repeated runs the best counts: on a shared machine the others
            // measure the neighbours as well.
            const std::string key = run.run_name.function_name + "/threads:" + std::to_string(run.threads);
            auto stored = m_runs.find(key);
            if (stored == m_runs.end())
                m_runs.emplace(key, run);
            else if (counter(run, "items_per_second") > counter(stored->second, "items_per_second"))
                stored->second = run;
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        printTable(std::cout);
    }

private:
    struct Row {
        std::string section, what, size, time, rate, perCore, mbs, memory, note;
    };

    const Run* find(const std::string& name) const {
        auto it = m_runs.find(name);
        return it == m_runs.end() ? nullptr : &it->second;
    }
    static double counter(const Run& run, const char* name) {
        auto it = run.counters.find(name);
        return it == run.counters.end() ? 0 : it->second.value;
    }

    void addIngest(std::vector<Row>& rows, const char* kind, const char* label) const {
        for (size_t n : g_options.sizes) {
            const Run* run = find(std::string("ingest/") + kind + "/" + std::to_string(n) + "/threads:1");
            if (!run)
                continue;
            Row row;
            row.section = "ingest";
            row.what = label;
            row.size = count(double(n)) + " loads";
            row.time = duration(counter(*run, "seconds")) + " CPU";
            row.rate = rate(counter(*run, "loads") / counter(*run, "wall_seconds")) + " loads";
            row.perCore = rate(counter(*run, "loads_per_s")) + " loads";
            row.mbs = fixed(counter(*run, "mb_per_s"), 0);
            row.memory = fixed(counter(*run, "peak_b_per_method"), 0) + " B/method";
            row.note = fixed(counter(*run, "records"), 0) + " records, " + fixed(counter(*run, "file_mb"), 0) +
                       " MB file, peak +" + fixed(counter(*run, "peak_mb"), 0) + " MB, wall " +
                       duration(counter(*run, "wall_seconds")) + ", of the CPU time " +
                       duration(counter(*run, "system_seconds")) + " system";
            rows.push_back(row);
        }
    }

    void addShapes(std::vector<Row>& rows, ShapeKind kind, const char* label, const std::vector<size_t>& sizes,
                   const char* unit) const {
        double previous = 0;
        size_t previousN = 0;
        for (size_t n : sizes) {
            const Run* run = find(std::string("shape/") + shapeName(kind) + "/" + std::to_string(n) + "/threads:1");
            if (!run)
                continue;
            const double seconds = counter(*run, "seconds");
            Row row;
            row.section = "shapes";
            row.what = label;
            row.size = count(double(n)) + unit;
            row.time = duration(seconds) + " CPU";
            row.memory = fixed(counter(*run, "peak_mb"), 1) + " MB peak";
            row.note = fixed(counter(*run, "loads"), 0) + " loads, " + fixed(counter(*run, "files"), 0) + " file(s), " +
                       fixed(counter(*run, "file_mb"), 1) + " MB";
            if (previous > 0)
                row.note += "; x" + fixed(seconds / previous, 2) + " the time of " + count(double(previousN));
            rows.push_back(row);
            previous = seconds;
            previousN = n;
        }
    }

    // The time of shape runs, by size.
    std::vector<std::pair<size_t, double>> shapeTimes(ShapeKind kind, const std::vector<size_t>& sizes) const {
        std::vector<std::pair<size_t, double>> times;
        for (size_t n : sizes)
            if (const Run* run = find(std::string("shape/") + shapeName(kind) + "/" + std::to_string(n) + "/threads:1"))
                times.emplace_back(n, counter(*run, "seconds"));
        return times;
    }

    void addScaling(std::vector<Row>& rows, const char* kind, const char* label) const {
        if (g_options.sizes.size() < 2)
            return;
        const size_t lo = g_options.sizes.front();
        const size_t hi = g_options.sizes.back();
        const Run* a = find(std::string("ingest/") + kind + "/" + std::to_string(lo) + "/threads:1");
        const Run* b = find(std::string("ingest/") + kind + "/" + std::to_string(hi) + "/threads:1");
        if (!a || !b)
            return;
        const double n = double(hi) / double(lo);
        const double nlogn = n * std::log(double(hi)) / std::log(double(lo));
        Row row;
        row.section = "scaling";
        row.what = label;
        row.size = count(double(lo)) + " -> " + count(double(hi));
        row.time = "x" + fixed(counter(*b, "seconds") / counter(*a, "seconds"), 1);
        row.memory =
            fixed(counter(*a, "peak_b_per_method"), 0) + " -> " + fixed(counter(*b, "peak_b_per_method"), 0) + " B";
        row.note = "n grows x" + fixed(n, 0) + ", n log n x" + fixed(nlogn, 0) + "; time per load x" +
                   fixed((counter(*b, "seconds") / double(hi)) / (counter(*a, "seconds") / double(lo)), 2);
        rows.push_back(row);
    }

    // Per core: samples per CPU second of the benchmark threads (the machine
    // may be shared); throughput: samples per wall-clock second, all threads.
    static double perCoreRate(const Run& run) { return counter(run, "items_per_second"); }
    static double wallRate(const Run& run) {
        return run.real_accumulated_time > 0 ? double(run.iterations) * kBatch / run.real_accumulated_time : 0;
    }

    void addResolve(std::vector<Row>& rows, const std::string& name, const char* label, const std::string& baseline,
                    const std::string& regions) const {
        const Run* run = find(name);
        if (!run)
            return;
        const double perCore = perCoreRate(*run);
        const int threads = static_cast<int>(run->threads);
        Row row;
        row.section = "resolve";
        row.what = label + std::string(threads > 1 ? ", " + std::to_string(threads) + " threads" : ", 1 thread");
        row.size = regions;
        row.time = duration(1 / perCore) + "/op";
        row.rate = rate(wallRate(*run));
        row.perCore = rate(perCore);
        if (const Run* base = baseline.empty() ? nullptr : find(baseline))
            row.note = fixed(perCoreRate(*base) / perCore, 1) + "x the flat floor's time";
        rows.push_back(row);
    }

    void printTable(std::ostream& os) const {
        std::vector<Row> rows;
        rows.push_back({"section", "case", "size", "time", "throughput", "per core", "MB/s", "memory", "notes"});
        addIngest(rows, "resolver", "ISymbolResolver::create (mode 1, code bytes kept)");
        addIngest(rows, "loader", "IJitLoader create + first query (mode 2)");

        const std::string regions =
            g_fixture ? count(double(g_fixture->corpus.regions.size())) + " regions" : std::string();
        const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
        const std::string all = "/threads:" + std::to_string(cores);
        addResolve(rows, "resolve/loader_resolveJitPoint/threads:1", "IJitLoader::resolveJitPoint",
                   "resolve/flat_upper_bound/threads:1", regions);
        if (cores > 1)
            addResolve(rows, "resolve/loader_resolveJitPoint" + all, "IJitLoader::resolveJitPoint",
                       "resolve/flat_upper_bound" + all, regions);
        addResolve(rows, "resolve/flat_upper_bound/threads:1", "flat sorted array + upper_bound", "", regions);
        if (cores > 1)
            addResolve(rows, "resolve/flat_upper_bound" + all, "flat sorted array + upper_bound", "", regions);
        addResolve(rows, "resolve/resolver_getSymbol/threads:1", "ISymbolResolver::getSymbol(jitRva)", "", regions);
        addResolve(rows, "resolve/resolver_translateToJitRva/threads:1", "ISymbolResolver::translateToJitRva", "",
                   regions);
        addShapes(rows, ShapeKind::Staggered, "staggered overlap, read lazily", g_options.staggered, " loads");
        addShapes(rows, ShapeKind::HotArea, "alternating hot area, read lazily", g_options.hotArea, " loads");
        addShapes(rows, ShapeKind::Processes, "processes read lazily, one sample each", g_options.processes,
                  " processes");
        addShapes(rows, ShapeKind::StaggeredBackwards, "staggered overlap written backwards", g_options.staggered,
                  " loads");
        addShapes(rows, ShapeKind::HotAreaBackwards, "alternating hot area written backwards", g_options.hotArea,
                  " loads");
        addShapes(rows, ShapeKind::HotAreaShuffled, "alternating hot area in random time order", g_options.hotArea,
                  " loads");
        addShapes(rows, ShapeKind::HotAreaTwoFiles, "alternating hot area in two files, times interleaved",
                  g_options.hotArea, " loads");
        addScaling(rows, "resolver", "ingest, mode 1");
        addScaling(rows, "loader", "ingest, mode 2");
        addGoals(rows, cores, all);

        size_t widths[9] = {};
        for (const Row& r : rows) {
            const std::string* cells[9] = {&r.section, &r.what, &r.size,   &r.time, &r.rate,
                                           &r.perCore, &r.mbs,  &r.memory, &r.note};
            for (int c = 0; c < 9; ++c)
                widths[c] = std::max(widths[c], cells[c]->size());
        }
        os << "\nQuarvel benchmarks: " << cores << " cores, " << cpuModel() << "\n\n";
        for (size_t i = 0; i < rows.size(); ++i) {
            const Row& r = rows[i];
            const std::string* cells[9] = {&r.section, &r.what, &r.size,   &r.time, &r.rate,
                                           &r.perCore, &r.mbs,  &r.memory, &r.note};
            os << "|";
            for (int c = 0; c < 9; ++c)
                os << " " << std::left << std::setw(static_cast<int>(widths[c])) << *cells[c] << " |";
            os << "\n";
            if (i == 0) {
                os << "|";
                for (int c = 0; c < 9; ++c)
                    os << std::string(widths[c] + 2, '-') << "|";
                os << "\n";
            }
        }
        os << "\nTimes, per-core rates and MB/s are per CPU second of the measured thread(s); throughput is per "
              "wall-clock second. Peak memory: resident high-water mark of a fresh child process, less what it "
              "started with. A shape's sizes are read in turn, "
           << shapeRounds() << " round(s), and each keeps its best time.\n";
        if (g_fixture)
            os << "Resolution trace: " << g_fixture->corpus.regions.size() << " regions of "
               << g_fixture->corpus.methodLoads << " method loads, " << g_fixture->corpus.fileBytes / 1000000 << " MB; "
               << g_fixture->samples.size() << " live samples, " << g_fixture->loaderMisses
               << " of them unresolved; the loader read it in " << duration(g_fixture->loaderIngestSeconds) << ".\n";
    }

    void addGoals(std::vector<Row>& rows, unsigned cores, const std::string& all) const {
        auto goal = [&rows](const std::string& what, const std::string& size, const std::string& value, bool met) {
            rows.push_back({"goal", what, size, "", "", "", "", "", value + (met ? ": met" : ": MISSED")});
        };
        const std::string biggest = g_options.sizes.empty() ? "" : std::to_string(g_options.sizes.back());
        const std::string biggestLabel =
            g_options.sizes.empty() ? "" : count(double(g_options.sizes.back())) + " loads";
        if (const Run* run = find("ingest/loader/" + biggest + "/threads:1")) {
            const double v = counter(*run, "loads_per_s");
            goal(">= 500k loads/s per core (mode 2)", biggestLabel, rate(v), v >= 5e5);
            const double m = counter(*run, "peak_b_per_method");
            goal("<= 1 KiB peak per method (mode 2)", biggestLabel, fixed(m, 0) + " B/method", m <= 1024);
        }
        if (const Run* run = find("ingest/resolver/" + biggest + "/threads:1")) {
            const double v = counter(*run, "loads_per_s");
            goal(">= 300k loads/s per core (mode 1)", biggestLabel, rate(v), v >= 3e5);
        }
        for (const std::string& threads : {std::string("/threads:1"), all}) {
            const Run* one = find("resolve/loader_resolveJitPoint" + threads);
            const Run* base = find("resolve/flat_upper_bound" + threads);
            if (one && base && (threads != all || cores > 1)) {
                const double ratio = perCoreRate(*base) / perCoreRate(*one);
                goal("resolveJitPoint within 2x of the flat floor, " + threads.substr(9) + " thread(s)", "",
                     fixed(ratio, 2) + "x", ratio <= 2);
            }
        }
        if (const Run* run = find("resolve/resolver_getSymbol/threads:1")) {
            const double ns = 1e9 / perCoreRate(*run);
            goal("getSymbol under 250 ns", "", fixed(ns, 0) + " ns", ns < 250);
        }
        const auto staggered = shapeTimes(ShapeKind::Staggered, g_options.staggered);
        if (staggered.size() >= 2) {
            double worst = 0;
            for (size_t k = 1; k < staggered.size(); ++k)
                if (staggered[k].first == 2 * staggered[k - 1].first)
                    worst = std::max(worst, staggered[k].second / staggered[k - 1].second);
            goal("staggered overlap: each doubling <= 2.5x the time", "", "x" + fixed(worst, 2), worst <= 2.5);
        }
        for (const auto& t : staggered)
            if (t.first == 6400)
                goal("staggered overlap of 6400 loads under 2 s", "6400 loads", duration(t.second), t.second < 2);
        for (const auto& t : shapeTimes(ShapeKind::HotArea, g_options.hotArea))
            if (t.first == 20000)
                goal("alternating hot area of 20k loads under 1 s", "20k loads", duration(t.second), t.second < 1);
        const auto processes = shapeTimes(ShapeKind::Processes, g_options.processes);
        if (processes.size() >= 2) {
            double lo = processes.front().second;
            double hi = lo;
            for (const auto& t : processes) {
                lo = std::min(lo, t.second);
                hi = std::max(hi, t.second);
            }
            goal("processes read lazily: within 1.5x of each other", count(double(g_options.processMethods)) + " loads",
                 "x" + fixed(hi / lo, 2), hi / lo <= 1.5);
        }
    }

    std::map<std::string, Run> m_runs;
};

std::vector<size_t> parseSizes(const std::string& text) {
    std::vector<size_t> sizes;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ','))
        if (!item.empty())
            sizes.push_back(static_cast<size_t>(std::stoull(item)));
    return sizes;
}

} // namespace

int main(int argc, char** argv) {
    std::vector<char*> rest;
    std::string ingestOnceKind;
    std::string shapeOnceKind;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.compare(0, 8, "--cache=") == 0)
            g_options.cacheDir = arg.substr(8);
        else if (arg.compare(0, 8, "--sizes=") == 0)
            g_options.sizes = parseSizes(arg.substr(8));
        else if (arg.compare(0, 14, "--ingest-once=") == 0)
            ingestOnceKind = arg.substr(14);
        else if (arg.compare(0, 13, "--shape-once=") == 0)
            shapeOnceKind = arg.substr(13);
        else if (arg.compare(0, 18, "--resolve-regions=") == 0)
            g_options.resolveRegions = static_cast<size_t>(std::stoull(arg.substr(18)));
        else if (arg.compare(0, 12, "--staggered=") == 0)
            g_options.staggered = parseSizes(arg.substr(12));
        else if (arg.compare(0, 11, "--hot-area=") == 0)
            g_options.hotArea = parseSizes(arg.substr(11));
        else if (arg.compare(0, 12, "--processes=") == 0)
            g_options.processes = parseSizes(arg.substr(12));
        else if (arg.compare(0, 18, "--process-methods=") == 0)
            g_options.processMethods = static_cast<size_t>(std::stoull(arg.substr(18)));
        else if (arg == "--once")
            g_options.once = true;
        else
            rest.push_back(argv[i]);
    }
    if (!ingestOnceKind.empty()) {
        const size_t n = g_options.sizes.empty() ? 10000 : g_options.sizes.front();
        const IngestResult r =
            ingestOnce(ingestOnceKind == "resolver" ? IngestKind::Resolver : IngestKind::Loader, ingestCorpus(n));
        std::cout << ingestOnceKind << " " << n << " loads: " << (r.ok ? "ok" : "FAILED") << ", " << r.seconds
                  << " s CPU, " << r.systemSeconds << " s of it system\n";
        return r.ok ? 0 : 1;
    }
    if (!shapeOnceKind.empty()) {
        ShapeKind kind = ShapeKind::Processes;
        for (const ShapeInfo& shape : kShapes)
            if (shapeOnceKind == shape.name)
                kind = shape.kind;
        const std::vector<size_t>& sizes = shapeSizes(kind);
        const IngestResult r = readShapeOnce(shapeTrace(kind, sizes.front()));
        std::cout << shapeName(kind) << " " << sizes.front() << ": " << (r.ok ? "ok" : "FAILED") << ", " << r.seconds
                  << " s CPU\n";
        return r.ok ? 0 : 1;
    }
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());

    for (IngestKind kind : {IngestKind::Resolver, IngestKind::Loader})
        for (size_t n : g_options.sizes) {
            const std::string name = std::string("ingest/") + (kind == IngestKind::Resolver ? "resolver" : "loader") +
                                     "/" + std::to_string(n);
            // Few repetitions of the large runs keep the whole run within minutes.
            const int iterations = g_options.once ? 1 : n >= 1000000 ? 2 : n >= 100000 ? 3 : 10;
            benchmark::RegisterBenchmark(name.c_str(), BM_Ingest, kind, n)
                ->UseManualTime()
                ->Iterations(iterations)
                ->Unit(benchmark::kMillisecond);
        }

    for (const ShapeInfo& shape : kShapes)
        for (size_t n : shapeSizes(shape.kind)) {
            const std::string name = std::string("shape/") + shape.name + "/" + std::to_string(n);
            benchmark::RegisterBenchmark(name.c_str(), BM_Shape, shape.kind, n)
                ->UseManualTime()
                ->Iterations(1)
                ->Unit(benchmark::kMillisecond);
        }

    const int cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    struct ResolveCase {
        const char* name;
        void (*fn)(benchmark::State&);
        bool threaded;
    };
    const ResolveCase cases[] = {{"resolve/loader_resolveJitPoint", BM_LoaderResolve, true},
                                 {"resolve/flat_upper_bound", BM_FlatBaseline, true},
                                 {"resolve/resolver_getSymbol", BM_GetSymbol, false},
                                 {"resolve/resolver_translateToJitRva", BM_TranslateToJitRva, false}};
    for (const ResolveCase& c : cases) {
        benchmark::internal::Benchmark* b = benchmark::RegisterBenchmark(c.name, c.fn);
        b->Setup(fixtureSetup)->MinTime(0.5)->Repetitions(g_options.once ? 1 : 3)->Threads(1);
        if (c.threaded && cores > 1)
            b->Threads(cores);
    }

    TableReporter reporter;
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

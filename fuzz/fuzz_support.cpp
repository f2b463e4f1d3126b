#include "fuzz_support.h"

#include "format/jit_file_decoder.h"
#include "ingest/jit_file_reader.h"

#include "model/method_dump.h"
#include "support/assertion.h"
#include "support/log.h"

#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/nullappender.h>

#include <boost/filesystem.hpp>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <unistd.h>

namespace quarvel_fuzz {

using namespace quarvel;

namespace {

// Bad input is refused with a reason before it reaches an internal check: a
// check that fires means a broken invariant, which is a finding.
void failOnCheck(const char* condition, const char* file, int line) {
    std::fprintf(stderr, "quarvel fuzz: internal check failed: %s (%s:%d)\n", condition, file, line);
    // QUARVEL_FUZZ_CHECKS=log lists every check a corpus reaches instead of stopping at the first.
    const char* mode = std::getenv("QUARVEL_FUZZ_CHECKS");
    if (!mode || std::strcmp(mode, "log") != 0)
        std::abort();
}

} // namespace

void setUpLogging() {
    static bool done = false;
    if (done)
        return;
    done = true;
    setAssertionObserver(&failOnCheck);
    const char* keep = std::getenv("QUARVEL_FUZZ_LOG");
    if (keep && *keep == '1') {
        setenv("QUARVEL_LOG", "TRACE", 1);
        log::reconfigure();
        return;
    }
    log::logger(); // the library configures its logger once; ours replaces the appender after that
    log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("quarvel.jitreader"));
    logger.removeAllAppenders();
    logger.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
    logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

namespace {

std::string g_scratch;

void removeScratch() {
    boost::system::error_code ec;
    if (!g_scratch.empty())
        boost::filesystem::remove_all(g_scratch, ec);
}

} // namespace

const std::string& scratchDir() {
    if (!g_scratch.empty())
        return g_scratch;
    std::string base;
    const char* tmp = std::getenv("TMPDIR");
    if (tmp && *tmp)
        base = tmp;
    else if (access("/dev/shm", W_OK) == 0)
        base = "/dev/shm";
    else
        base = "/tmp";
    std::string templ = base + "/quarvel-fuzz-" + std::to_string(getpid()) + "-XXXXXX";
    std::vector<char> buffer(templ.begin(), templ.end());
    buffer.push_back('\0');
    if (!mkdtemp(buffer.data())) {
        std::perror("quarvel fuzz: mkdtemp");
        std::abort();
    }
    g_scratch = buffer.data();
    std::atexit(removeScratch);
    return g_scratch;
}

bool writeFile(const std::string& path, const uint8_t* data, size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    const bool ok = size == 0 || std::fwrite(data, 1, size, f) == size;
    return std::fclose(f) == 0 && ok;
}

namespace {

// Reads every byte of a string the library handed out, so that a dangling or
// unterminated one shows under the address sanitizer.
size_t touch(const char* text) {
    size_t n = 0;
    if (text)
        while (text[n])
            ++n;
    return n;
}

void exerciseRegion(const ICodeRegion::Ptr& region, std::vector<u64>& jitRvas, size_t depth) {
    if (!region)
        return;
    const u64 start = region->getStartJitRva();
    const u64 length = region->getLength();
    jitRvas.push_back(start);
    if (length) {
        jitRvas.push_back(start + length / 2);
        jitRvas.push_back(start + length - 1);
    }
    jitRvas.push_back(start + length);
    (void)region->getLoadTime();
    (void)region->getUnloadTime();
    (void)region->getStartVirtualAddress();
    (void)region->getProcessId();
    (void)region->getHostID();
    if (const IByteBuffer::Ptr bytes = region->getBytes()) {
        volatile unsigned char sum = 0;
        const unsigned char* data = bytes->data();
        const unsigned size = bytes->size();
        if (data && size)
            sum = static_cast<unsigned char>(sum + data[0] + data[size - 1]);
        (void)sum;
    }
    // Inline trees are finite by construction; the depth bound keeps a bug
    // from turning into a stack overflow that hides the real report.
    if (depth > 64)
        return;
    for (const u64 probe : {start, start + length / 2}) {
        if (const boost::intrusive_ptr<ISymbol> inlined = region->getInlinedSymbol(probe))
            touch(inlined->getMethodName());
        exerciseRegion(region->getInlinedCodeRegion(probe), jitRvas, depth + 1);
    }
}

} // namespace

void exerciseMethod(JitMethod& method) {
    touch(method.getMethodName());
    touch(method.getQualifiedMethodName());
    touch(method.getClassName());
    (void)method.getMethodToken();
    (void)method.getMethodID();
    (void)method.getLoadTime();
    (void)method.getUnloadTime();
    if (const IModule::Ptr module = method.getModule()) {
        touch(module->getFilePath());
        (void)module->isBogus();
        (void)module->getArchitecture();
    }
    if (const ISourceFile::Ptr source = method.getSourceFile()) {
        touch(source->getSourceFileName());
        touch(source->getChecksum());
        (void)source->getChecksumType();
        (void)source->getTime();
        (void)source->getSize();
        (void)source->getLanguageType();
    }

    std::vector<u64> jitRvas{0, method.getStartJitRva(), 1, ~u64(0)};
    for (auto it = method.getRegions(); !it.atEnd(); it.advance())
        exerciseRegion(it.current(), jitRvas, 0);
    const LineTables& lines = method.getLineNumberInfo();
    for (size_t r = 0; r < lines.rangeCount(); ++r) {
        jitRvas.push_back(lines.range(r).start);
        jitRvas.push_back(lines.range(r).start + lines.range(r).length / 2);
    }
    if (jitRvas.size() > 64)
        jitRvas.resize(64);

    for (const u64 jitRva : jitRvas) {
        u64 address = 0;
        (void)method.getVirtualAddress(jitRva, &address);
        (void)method.getVirtualAddress(jitRva, nullptr);
        unsigned pid = 0;
        (void)method.getPid(jitRva, pid);
        for (int t = 0; t < 4; ++t) {
            const quarvel_line_info_type type = static_cast<quarvel_line_info_type>(t);
            unsigned count = 0;
            if (method.getLineNumberInfo(type, nullptr, &count, jitRva) != meSuccess)
                continue;
            // Exactly as many entries as announced, then one short.
            std::vector<quarvel_line_number_entry> entries(count);
            unsigned capacity = count;
            (void)method.getLineNumberInfo(type, entries.data(), &capacity, jitRva);
            if (count) {
                capacity = count - 1;
                (void)method.getLineNumberInfo(type, entries.data(), &capacity, jitRva);
            }
        }
        quarvel_line_number_entry first{}, last{};
        (void)method.getSourceRange(&first, &last, jitRva);
        if (const ISourceLocation::Ptr location = method.getSourceLocation(jitRva)) {
            (void)location->getLine();
            if (const ISourceFile::Ptr file = location->getSourceFile())
                touch(file->getSourceFileName());
        }
    }

    touch(method.dumpRegions().c_str());
    touch(method.describe().c_str());
    std::ostringstream dump;
    dump << method;
    for (const Region::Ptr& region : method.regions()) {
        if (!region)
            continue;
        std::ostringstream inlines;
        region->dumpInlines(inlines, 0);
    }
    (void)method.validateSymbolicInfo();
}

} // namespace quarvel_fuzz

namespace quarvel_fuzz {

namespace {

// A small deterministic generator for the extra probes.
struct SplitMix {
    u64 state;
    u64 next() {
        u64 z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
};

} // namespace

void queryDataManager(JitDataManager& mutableManager, uint64_t seed) {
    const JitDataManager& dataManager = mutableManager;
    SplitMix random{seed};
    const JitMethodStorage& methods = dataManager.getJitMethods();
    size_t budget = 512; // probes per input, whatever the number of regions
    size_t exercised = 0;
    for (const JitMethod::Ptr& method : methods) {
        if (!method)
            continue;
        if (exercised++ < 32)
            exerciseMethod(*method);
        if (const IModule::Ptr module = method->getModule()) {
            ISymbol::Ptr symbol;
            (void)mutableManager.findMethod(module->getFilePath(), method->getRawMethodId(), symbol);
        }
        for (const Region::Ptr& region : method->regions()) {
            if (!region || budget == 0)
                continue;
            --budget;
            const u64 start = region->startAddress();
            const u64 length = region->length();
            const u32 pid = region->processId();
            const u32 host = region->hostId();
            const u64 times[] = {region->loadTime(), region->loadTime() ? region->loadTime() - 1 : 0,
                                 region->unloadTime(), ~u64(0)};
            const u64 addresses[] = {start, start + length / 2, length ? start + length - 1 : start, start + length,
                                     start ? start - 1 : 0};
            for (const u64 time : times)
                for (const u64 address : addresses) {
                    JitMethod::Ptr found;
                    u64 jitRva = 0;
                    if (dataManager.resolveJitPoint(address, time, pid, host, found, jitRva) == meSuccess) {
                        JitMethod::Ptr byRva;
                        (void)dataManager.resolveJitPoint(jitRva, byRva);
                        u64 callee = 0;
                        (void)dataManager.getCalleeTarget(jitRva, address, callee);
                        u64 translated = 0;
                        (void)dataManager.translateToJitRva(found->getRawMethodId(), address, 0, ~u64(0), translated);
                    }
                    ICodeRegion::Ptr overlapped;
                    (void)dataManager.findOverlappedRegion(address, address + length, time, pid, host, overlapped);
                    (void)dataManager.findOverlappedRegion(address + length, address, time, pid, host, overlapped);
                }
        }
    }
    // Probes anywhere: unknown processes, random addresses and times.
    for (int i = 0; i < 16; ++i) {
        const u64 address = random.next();
        const u64 time = random.next();
        const u32 pid = static_cast<u32>(random.next() & 3);
        const u32 host = static_cast<u32>(random.next() & 3);
        JitMethod::Ptr found;
        u64 jitRva = 0;
        (void)dataManager.resolveJitPoint(address, time, pid, host, found, jitRva);
        (void)dataManager.resolveJitPoint(address, found);
        ICodeRegion::Ptr overlapped;
        (void)dataManager.findOverlappedRegion(address, random.next(), time, pid, host, overlapped);
        u64 out = 0;
        (void)dataManager.getCalleeTarget(address, random.next(), out);
        (void)dataManager.translateToJitRva(static_cast<u32>(random.next()), address, random.next(), random.next(),
                                            out);
    }
}

void readTrace(const std::vector<uint8_t>& trace, decoding_mode_t mode, jit_rva_t jitRvaBase,
               JitDataManager& dataManager) {
    JitFileDecoder decoder("fuzz.7.jit", ByteSpan(trace), 7, 1, jitRvaBase, mode);
    JitReadStats stats;
    ModuleCache modules;
    JitFileReader reader(&stats, modules);
    (void)reader.readJitFile(decoder, taAny, dataManager);
}

std::vector<uint8_t> frameRecord(uint32_t type, const uint8_t* body, size_t size, uint32_t collector) {
    std::vector<uint8_t> out;
    const auto u32 = [&out](uint32_t v) {
        for (int i = 0; i < 4; ++i)
            out.push_back(static_cast<uint8_t>(v >> (8 * i)));
    };
    if (collector) {
        u32(quarvel_jt_CollectorType);
        u32(collector);
    }
    u32(type);
    u32(static_cast<uint32_t>(size));
    out.insert(out.end(), body, body + size);
    return out;
}

} // namespace quarvel_fuzz

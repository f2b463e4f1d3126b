// Walks jitdump files and perf maps with the library's readers and prints, per
// file, one JSON object of what it found: record counts, debug pairing, the
// debug-address bias, where a cut or damaged file stopped, and how long the
// walk took. The end-to-end test sets these against an independent count and
// against perf's own tools.
//
//   quarvel_jit_file_walk [--loads LIST] FILE...
//
// --loads writes one line per code load of the jitdumps to LIST: code index,
// code address, code size, FNV-1a hash of the code bytes and name, tab
// separated, for a comparison with the ELF files perf inject writes.

#include "format/jitdump_debug_bias.h"
#include "format/jitdump_debug_pairing.h"
#include "format/jitdump_reader.h"
#include "format/perf_map_reader.h"
#include "support/mapped_file.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <unordered_map>

using namespace quarvel;

namespace {

std::string quote(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string reasonJson(const Reason& r, bool truncated) {
    std::ostringstream os;
    os << "{\"offset\":" << r.offset << ",\"field\":" << quote(r.field) << ",\"message\":" << quote(r.message)
       << ",\"truncated\":" << (truncated ? "true" : "false") << "}";
    return os.str();
}

FILE* g_loads = nullptr;

uint64_t fnv1a(const uint8_t* p, uint64_t n) {
    uint64_t h = 0xcbf29ce484222325ULL;
    for (uint64_t i = 0; i < n; ++i)
        h = (h ^ p[i]) * 0x100000001b3ULL;
    return h;
}

int walkJitdump(const std::string& path) {
    const auto started = std::chrono::steady_clock::now();
    Expected<JitdumpReader> reader = JitdumpReader::open(path);
    if (!reader) {
        std::printf("{\"file\":%s,\"error\":%s}\n", quote(path).c_str(), quote(reader.reason().text()).c_str());
        return 1;
    }
    uint64_t loads = 0, moves = 0, debug = 0, debugEntries = 0, close = 0, unwinding = 0, unknown = 0;
    uint64_t codeBytes = 0, codeSum = 0, loadsWithoutDebug = 0, positionWouldMispair = 0;
    std::unordered_map<uint64_t, uint64_t> loadsAt;
    JitdumpDebugPairing pairing;
    JitdumpDebugBias bias(reader->header().elfMachine);
    bool previousWasDebug = false;
    uint64_t previousDebugAddr = 0;
    JitdumpRecord r;
    while (reader->next(r)) {
        switch (r.kind) {
        case JitdumpRecordKind::codeLoad: {
            ++loads;
            ++loadsAt[r.load.codeAddr];
            codeBytes += r.load.codeSize;
            // Every code byte is read, as a consumer that decodes it would.
            for (uint64_t i = 0; i < r.load.codeSize; ++i)
                codeSum += r.load.code[i];
            if (g_loads)
                std::fprintf(g_loads, "%llu\t%llx\t%llu\t%016llx\t%.*s\n", (unsigned long long)r.load.codeIndex,
                             (unsigned long long)r.load.codeAddr, (unsigned long long)r.load.codeSize,
                             (unsigned long long)fnv1a(r.load.code, r.load.codeSize), (int)r.load.name.size(),
                             r.load.name.data());
            if (previousWasDebug && previousDebugAddr != r.load.codeAddr)
                ++positionWouldMispair;
            if (const JitdumpDebugInfo* info = pairing.takeFor(r.load.codeAddr))
                bias.observe(*info, r.load.codeAddr, r.load.codeSize);
            else
                ++loadsWithoutDebug;
            break;
        }
        case JitdumpRecordKind::codeMove:
            ++moves;
            break;
        case JitdumpRecordKind::debugInfo:
            ++debug;
            debugEntries += r.debugInfo.entries.size();
            pairing.addDebugInfo(r.debugInfo);
            break;
        case JitdumpRecordKind::close:
            ++close;
            break;
        case JitdumpRecordKind::unwindingInfo:
            ++unwinding;
            break;
        case JitdumpRecordKind::unknown:
            ++unknown;
            break;
        }
        previousWasDebug = r.kind == JitdumpRecordKind::debugInfo;
        previousDebugAddr = r.debugInfo.codeAddr;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    uint64_t reused = 0;
    for (const auto& at : loadsAt)
        reused += at.second > 1;
    const JitdumpHeader& h = reader->header();
    std::printf(
        "{\"file\":%s,\"format\":\"jitdump\",\"size\":%llu,\"pid\":%u,\"elfMachine\":%u,\"version\":%u,"
        "\"bigEndian\":%s,\"archTimestamp\":%s,\"unknownFlags\":%llu,"
        "\"loads\":%llu,\"moves\":%llu,\"debug\":%llu,\"close\":%llu,\"unwinding\":%llu,\"unknown\":%llu,"
        "\"debugEntries\":%llu,\"codeBytes\":%llu,\"codeSum\":%llu,\"addressesLoadedMoreThanOnce\":%llu,"
        "\"paired\":%llu,\"loadsWithoutDebug\":%llu,\"debugWaiting\":%zu,\"debugReplaced\":%llu,"
        "\"positionWouldMispair\":%llu,\"bias\":%llu,\"biasEvidence\":{\"none\":%llu,\"elf64\":%llu,"
        "\"elf32\":%llu,\"undecided\":%llu},\"completeEnd\":%llu,\"stop\":%s,\"walkSeconds\":%.6f}\n",
        quote(path).c_str(), (unsigned long long)reader->fileSize(), h.pid, h.elfMachine, h.version,
        h.bigEndian ? "true" : "false", h.archTimestamp() ? "true" : "false", (unsigned long long)h.unknownFlags(),
        (unsigned long long)loads, (unsigned long long)moves, (unsigned long long)debug, (unsigned long long)close,
        (unsigned long long)unwinding, (unsigned long long)unknown, (unsigned long long)debugEntries,
        (unsigned long long)codeBytes, (unsigned long long)codeSum, (unsigned long long)reused,
        (unsigned long long)pairing.paired(), (unsigned long long)loadsWithoutDebug, pairing.waiting(),
        (unsigned long long)pairing.replaced(), (unsigned long long)positionWouldMispair,
        (unsigned long long)bias.bias(), (unsigned long long)bias.unbiasedRecords(),
        (unsigned long long)bias.biased64Records(), (unsigned long long)bias.biased32Records(),
        (unsigned long long)bias.undecidedRecords(), (unsigned long long)reader->completeEnd(),
        reader->stopReason() ? reasonJson(*reader->stopReason(), reader->truncated()).c_str() : "null", seconds);
    return 0;
}

int walkPerfMap(const std::string& path) {
    const auto started = std::chrono::steady_clock::now();
    Expected<PerfMapReader> reader = PerfMapReader::open(path);
    if (!reader) {
        std::printf("{\"file\":%s,\"error\":%s}\n", quote(path).c_str(), quote(reader.reason().text()).c_str());
        return 1;
    }
    uint64_t entries = 0, nameBytes = 0;
    std::unordered_map<uint64_t, uint64_t> startsAt;
    PerfMapEntry e;
    while (reader->next(e)) {
        ++entries;
        nameBytes += e.name.size();
        ++startsAt[e.start];
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    uint64_t repeated = 0;
    for (const auto& at : startsAt)
        repeated += at.second > 1;
    std::string problems = "[";
    for (const PerfMapProblem& p : reader->problems())
        problems += (problems.size() > 1 ? "," : "") + quote(p.reason.text());
    problems += "]";
    std::printf("{\"file\":%s,\"format\":\"perf-map\",\"lines\":%llu,\"entries\":%llu,\"malformed\":%llu,"
                "\"nameBytes\":%llu,\"distinctStarts\":%zu,\"startsListedMoreThanOnce\":%llu,\"endedMidLine\":%s,"
                "\"problems\":%s,\"walkSeconds\":%.6f}\n",
                quote(path).c_str(), (unsigned long long)reader->linesRead(), (unsigned long long)entries,
                (unsigned long long)reader->malformedLines(), (unsigned long long)nameBytes, startsAt.size(),
                (unsigned long long)repeated, reader->endedMidLine() ? "true" : "false", problems.c_str(), seconds);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    int first = 1;
    if (argc > 2 && std::strcmp(argv[1], "--loads") == 0) {
        g_loads = std::fopen(argv[2], "w");
        if (!g_loads) {
            std::perror(argv[2]);
            return 2;
        }
        first = 3;
    }
    if (argc <= first) {
        std::fprintf(stderr, "usage: %s [--loads LIST] FILE...  (jitdump files and perf maps, told apart by content)\n",
                     argv[0]);
        return 2;
    }
    int status = 0;
    for (int i = first; i < argc; ++i) {
        const std::string path = argv[i];
        Expected<std::shared_ptr<const MappedFile>> file = MappedFile::open(path);
        if (!file) {
            std::printf("{\"file\":%s,\"error\":%s}\n", quote(path).c_str(), quote(file.reason().text()).c_str());
            status = 1;
            continue;
        }
        const MappedFile& f = **file;
        if (JitdumpReader::detect(f.data(), f.size()))
            status |= walkJitdump(path);
        else if (PerfMapReader::detect(f.data(), f.size()))
            status |= walkPerfMap(path);
        else {
            std::printf("{\"file\":%s,\"error\":\"neither a jitdump nor a perf map\"}\n", quote(path).c_str());
            status = 1;
        }
    }
    if (g_loads && std::fclose(g_loads) != 0)
        status = 1;
    return status;
}

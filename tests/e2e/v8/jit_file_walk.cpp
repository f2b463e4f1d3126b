// Walks jitdump files and perf maps with the library's readers and prints, per
// file, one JSON object of what it found: record counts, debug pairing, the
// debug-address bias and where a cut or damaged file stopped. The end-to-end
// test (check.py) sets these against an independent count and against perf's
// own tools.
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

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>

using namespace quarvel;
using Json = nlohmann::ordered_json;

namespace {

void print(const Json& doc) {
    std::printf("%s\n", doc.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}

Json error(const std::string& path, const std::string& text) {
    return Json{{"file", path}, {"error", text}};
}

FILE* g_loads = nullptr;

uint64_t fnv1a(const uint8_t* p, uint64_t n) {
    uint64_t h = 0xcbf29ce484222325ULL;
    for (uint64_t i = 0; i < n; ++i)
        h = (h ^ p[i]) * 0x100000001b3ULL;
    return h;
}

Json walkJitdump(const std::string& path) {
    Expected<JitdumpReader> reader = JitdumpReader::open(path);
    if (!reader)
        return error(path, reader.reason().text());
    uint64_t loads = 0, moves = 0, debug = 0, debugEntries = 0, close = 0, unwinding = 0, unknown = 0;
    uint64_t loadsWithoutDebug = 0, positionWouldMispair = 0;
    std::unordered_map<uint64_t, uint64_t> loadsAt;
    JitdumpDebugPairing pairing;
    JitdumpDebugBias bias(reader->header().elfMachine);
    bool previousWasDebug = false;
    uint64_t previousDebugAddr = 0;
    JitdumpRecord r;
    while (reader->next(r)) {
        switch (r.kind) {
        case JitdumpRecordKind::codeLoad:
            ++loads;
            ++loadsAt[r.load.codeAddr];
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
    uint64_t reused = 0;
    for (const auto& at : loadsAt)
        reused += at.second > 1;
    Json stop = nullptr;
    if (const Reason* why = reader->stopReason())
        stop = Json{{"offset", why->offset},
                    {"field", why->field},
                    {"message", why->message},
                    {"truncated", reader->truncated()}};
    return Json{{"file", path},
                {"pid", reader->header().pid},
                {"elfMachine", reader->header().elfMachine},
                {"loads", loads},
                {"moves", moves},
                {"debug", debug},
                {"close", close},
                {"unwinding", unwinding},
                {"unknown", unknown},
                {"debugEntries", debugEntries},
                {"addressesLoadedMoreThanOnce", reused},
                {"paired", pairing.paired()},
                {"loadsWithoutDebug", loadsWithoutDebug},
                {"debugWaiting", pairing.waiting()},
                {"positionWouldMispair", positionWouldMispair},
                {"bias", bias.bias()},
                {"biasEvidence",
                 {{"none", bias.unbiasedRecords()},
                  {"elf64", bias.biased64Records()},
                  {"elf32", bias.biased32Records()},
                  {"undecided", bias.undecidedRecords()}}},
                {"completeEnd", reader->completeEnd()},
                {"stop", stop}};
}

Json walkPerfMap(const std::string& path) {
    Expected<PerfMapReader> reader = PerfMapReader::open(path);
    if (!reader)
        return error(path, reader.reason().text());
    uint64_t entries = 0;
    std::unordered_map<uint64_t, uint64_t> startsAt;
    PerfMapEntry e;
    while (reader->next(e)) {
        ++entries;
        ++startsAt[e.start];
    }
    uint64_t repeated = 0;
    for (const auto& at : startsAt)
        repeated += at.second > 1;
    return Json{{"file", path},
                {"entries", entries},
                {"malformed", reader->malformedLines()},
                {"distinctStarts", startsAt.size()},
                {"startsListedMoreThanOnce", repeated}};
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
        Json walked;
        if (!file)
            walked = error(path, file.reason().text());
        else if (JitdumpReader::detect((*file)->data(), (*file)->size()))
            walked = walkJitdump(path);
        else if (PerfMapReader::detect((*file)->data(), (*file)->size()))
            walked = walkPerfMap(path);
        else
            walked = error(path, "neither a jitdump nor a perf map");
        status |= walked.contains("error") ? 1 : 0;
        print(walked);
    }
    if (g_loads && std::fclose(g_loads) != 0)
        status = 1;
    return status;
}

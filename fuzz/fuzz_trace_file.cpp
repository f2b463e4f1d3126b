// Whole trace files: the file set, the reading pass into a data manager,
// finalisation, then the queries the facades make and the method dumps.
// Each file is routed by its content, so jitdump files, perf maps and event
// traces reach their readers too: a file gets the name its format's writers
// give it.
//
// Input: architecture byte, flags, a u16 split point, the file's bytes.
//   flags bits 0-1: decoding mode; bit 2: read the process alone first (then
//   everything); bit 3: cut the bytes at the split point into two files;
//   bit 4: the second file belongs to another host and process.

#include "fuzz_support.h"

#include "index/jit_data_manager.h"
#include "ingest/jit_files_manager.h"
#include "ingest/trace_format.h"

#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

using namespace quarvel;

namespace {

std::optional<TraceFormat> formatOf(const uint8_t* bytes, size_t size) {
    return detectTraceFormat(bytes, std::min(size, kTraceFormatSniffBytes), size);
}

// Our traces name host and process; runtimes name only the process.
std::string nameFor(const std::optional<TraceFormat>& format, unsigned pid, const std::string& ours) {
    if (format == TraceFormat::jitdump)
        return "jit-" + std::to_string(pid) + ".dump";
    if (format == TraceFormat::perfMap)
        return "perf-" + std::to_string(pid) + ".map";
    if (format == TraceFormat::nettrace) // the runtime's name when asked for trace.{pid}.nettrace
        return "trace." + std::to_string(pid) + ".nettrace";
    return ours;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quarvel_fuzz::setUpLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    quarvel_fuzz::InputCursor in(data, size);
    const auto arch = static_cast<target_arch_t>(in.u8() % 4);
    const uint8_t flags = in.u8();
    const size_t split = in.u16();
    const auto mode = static_cast<decoding_mode_t>(flags & 3);
    const uint8_t* file = in.rest();
    const size_t fileSize = in.restSize();

    // The two files live in directories of their own: two runtime files may share a name.
    const std::string& dir = quarvel_fuzz::scratchDir();
    boost::system::error_code ec;
    boost::filesystem::create_directories(dir + "/a", ec);
    boost::filesystem::create_directories(dir + "/b", ec);
    const size_t cut = (flags & 8) ? std::min(split, fileSize) : fileSize;
    const unsigned secondPid = (flags & 0x10) ? 4243 : 4242;
    const std::optional<TraceFormat> formats[2] = {formatOf(file, cut), formatOf(file + cut, fileSize - cut)};
    const std::string first = dir + "/a/" + nameFor(formats[0], 4242, "fuzzhost.4242.a");
    const std::string second =
        dir + "/b/" + nameFor(formats[1], secondPid, (flags & 0x10) ? "otherhost-4243.b" : "fuzzhost.4242.b");
    std::vector<std::string> paths;
    if (!quarvel_fuzz::writeFile(first, file, cut))
        return 0;
    paths.push_back(first);
    if (flags & 8) {
        if (!quarvel_fuzz::writeFile(second, file + cut, fileSize - cut))
            return 0;
        paths.push_back(second);
    }
    std::vector<const char*> names;
    for (const std::string& p : paths)
        names.push_back(p.c_str());
    generic_iterator_t<const char*> list(names.begin(), names.end());
    JitFilesManager files;
    if (files.initialize(list, arch) != meSuccess)
        __builtin_trap(); // both names parse and both files exist

    JitDataManager dataManager;
    // The runtime files' host is this one.
    const bool ours = !formats[0] || formats[0] == TraceFormat::jitTrace;
    const unsigned host = files.getHostID(ours ? std::string("fuzzhost") : localHostName());
    if (flags & 4) {
        (void)files.readJitFiles(4242, host, mode, dataManager);
        dataManager.finalize();
    }
    (void)files.readJitFiles(mode, dataManager);
    dataManager.finalize();
    // Everything is read once: a second pass finds nothing to do.
    (void)files.readJitFiles(4242, host, mode, dataManager);

    for (auto it = files.getJitPidArray(); !it.atEnd(); it.advance())
        (void)files.processState(it.current(), host);
    u64 base = 0, limit = 0;
    (void)files.getJitFileRange(first.c_str(), base, limit);
    (void)files.getJitFileRange(second.c_str(), base, limit);

    quarvel_fuzz::queryDataManager(dataManager, size);
    return 0;
}

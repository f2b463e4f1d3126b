// Whole trace files: the file set, the reading pass into a data manager,
// finalisation, then the queries the facades make and the method dumps.
//
// Input: architecture byte, flags, a u16 split point, the file's bytes.
//   flags bits 0-1: decoding mode; bit 2: read the process alone first (then
//   everything); bit 3: cut the bytes at the split point into two files;
//   bit 4: the second file belongs to another host and process.

#include "fuzz_support.h"

#include "index/jit_data_manager.h"
#include "ingest/jit_files_manager.h"

#include <boost/filesystem/operations.hpp>

#include <string>
#include <vector>

using namespace quarvel_3_13;

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

    const std::string& dir = quarvel_fuzz::scratchDir();
    const std::string first = dir + "/fuzzhost.4242.a";
    const std::string second = dir + ((flags & 0x10) ? "/otherhost-4243.b" : "/fuzzhost.4242.b");
    std::vector<std::string> paths;
    const size_t cut = (flags & 8) ? std::min(split, fileSize) : fileSize;
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
    const unsigned host = files.getHostID("fuzzhost");
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
    (void)files.getJitFileRange("fuzzhost.4242.a", base, limit);
    (void)files.getJitFileRange("fuzzhost.4242.b", base, limit);

    quarvel_fuzz::queryDataManager(dataManager, size);
    return 0;
}

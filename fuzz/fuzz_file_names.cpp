// Jit file names: parsing, and the file set initialised over a directory of
// files with those names (and over the same files given one by one, and as
// descriptors).
//
// Input: flags, then names separated by '\n' (at most 8 are used).
//   flags bit 0: also give each file directly; bit 1: descriptors too;
//   bit 2: a second initialisation of the same set.

#include "fuzz_support.h"

#include "ingest/jit_files_manager.h"

#include <boost/filesystem/operations.hpp>

#include <string>
#include <vector>

using namespace quarvel;

namespace {

// A name the file system accepts as one entry: no '/', no NUL, not "." or "..", at most 255 bytes.
bool usableAsFileName(const std::string& name) {
    return !name.empty() && name.size() <= 255 && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quarvel_fuzz::setUpLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    quarvel_fuzz::InputCursor in(data, size);
    const uint8_t flags = in.u8();
    const std::string text(reinterpret_cast<const char*>(in.rest()), in.restSize());

    std::vector<std::string> names;
    for (size_t start = 0; start <= text.size() && names.size() < 8;) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        names.push_back(text.substr(start, end - start));
        start = end + 1;
    }

    JitFilesManager files;
    for (const std::string& name : names) {
        unsigned pid = 0;
        std::string host;
        if (files.parseJitFileName(name, pid, host) == meSuccess) {
            // A parsed name always yields a host that is a prefix of the name.
            if (host.empty() || name.compare(0, host.size(), host) != 0)
                __builtin_trap();
        }
    }

    // A fresh directory per input, holding one small file per usable name.
    const std::string dir = quarvel_fuzz::scratchDir() + "/names";
    boost::system::error_code ec;
    boost::filesystem::remove_all(dir, ec);
    boost::filesystem::create_directory(dir, ec);
    std::vector<std::string> paths;
    std::vector<size_t> nameOf;
    const uint8_t content[] = {0x00, 0x00, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00}; // a Magic record
    for (size_t i = 0; i < names.size(); ++i) {
        if (!usableAsFileName(names[i]))
            continue;
        const std::string path = dir + "/" + names[i];
        if (!quarvel_fuzz::writeFile(path, content, i % 2 ? sizeof content : 0))
            continue;
        paths.push_back(path);
        nameOf.push_back(i);
    }
    // Pointers into paths only once it stops growing.
    std::vector<JitFileDescriptor> descriptors;
    for (size_t k = 0; k < paths.size(); ++k)
        descriptors.push_back(
            JitFileDescriptor{paths[k].c_str(), static_cast<unsigned>(nameOf[k]), names[nameOf[k]].c_str()});

    std::vector<const char*> list{dir.c_str()};
    if (flags & 1)
        for (const std::string& p : paths)
            list.push_back(p.c_str());
    generic_iterator_t<const char*> it(list.begin(), list.end());
    (void)files.initialize(it, static_cast<target_arch_t>(flags >> 6));
    if (flags & 2) {
        generic_iterator_t<JitFileDescriptor> d(descriptors.begin(), descriptors.end());
        (void)files.initialize(d, taAny);
    }
    if (flags & 4) {
        generic_iterator_t<const char*> again(list.begin(), list.end());
        (void)files.initialize(again, taAny);
    }

    for (auto pids = files.getJitPidArray(); !pids.atEnd(); pids.advance())
        for (unsigned host = 0; host < 4; ++host)
            (void)files.processState(pids.current(), host);
    for (unsigned host = 0; host < 10; ++host)
        if (const char* name = files.getHostName(host))
            (void)files.getHostID(name);
    for (const std::string& name : names) {
        u64 base = 0, limit = 0;
        if (files.getJitFileRange(name.c_str(), base, limit) == meSuccess && limit < base)
            __builtin_trap();
    }
    (void)files.fileCount();
    return 0;
}

// Replays fuzz inputs through a target's LLVMFuzzerTestOneInput without
// libFuzzer: each file (or every file of each directory, in name order) is
// handed over in a heap buffer of exactly its size, so that a read past the
// end shows under the address sanitizer. Returns non-zero when nothing was
// replayed or a file cannot be read; a crash ends the process as it would
// end the fuzzer. As under the fuzzer, one allocation of more than 2 GiB is a
// failure: sizes claimed by a file must never size an allocation.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <dirent.h>
#include <sys/resource.h>
#include <sys/stat.h>

#if defined(__SANITIZE_ADDRESS__)
#define QUARVEL_REPLAY_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QUARVEL_REPLAY_ASAN 1
#endif
#endif

#ifdef QUARVEL_REPLAY_ASAN
// The sanitizer reports an allocation above this and stops.
extern "C" const char* __asan_default_options() {
    return "max_allocation_size_mb=2048";
}
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

bool isDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::vector<std::string> filesOf(const std::string& dir) {
    std::vector<std::string> files;
    if (DIR* d = opendir(dir.c_str())) {
        while (const dirent* entry = readdir(d)) {
            const std::string name = entry->d_name;
            if (name != "." && name != ".." && !isDirectory(dir + "/" + name))
                files.push_back(dir + "/" + name);
        }
        closedir(d);
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool replay(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<char> content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // Exactly the input's size; one byte for an empty input so the pointer is valid.
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[content.empty() ? 1 : content.size()]);
    std::copy(content.begin(), content.end(), buffer.get());
    LLVMFuzzerTestOneInput(buffer.get(), content.size());
    return true;
}

} // namespace

int main(int argc, char** argv) {
#ifndef QUARVEL_REPLAY_ASAN
    // Without the sanitizer an address space cap turns a huge allocation into
    // std::bad_alloc, which ends the replay.
    const rlimit cap{rlim_t(3) << 30, rlim_t(3) << 30};
    setrlimit(RLIMIT_AS, &cap);
#endif
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        struct stat st;
        if (stat(arg.c_str(), &st) != 0) {
            // A target without crash inputs has no regressions directory.
            std::printf("no inputs at %s\n", arg.c_str());
            continue;
        }
        const std::vector<std::string> inputs = isDirectory(arg) ? filesOf(arg) : std::vector<std::string>{arg};
        for (const std::string& input : inputs) {
            if (!replay(input))
                return 1;
            ++replayed;
        }
    }
    std::printf("replayed %zu inputs\n", replayed);
    return replayed ? 0 : 1;
}

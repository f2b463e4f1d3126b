#include "format/pid_file_name.h"

#include <cstring>

QUARVEL_NAMESPACE_BEGIN

bool parsePidFileName(const std::string& fileName, const char* prefix, const char* suffix, uint32_t& pid) {
    const size_t p = std::strlen(prefix), s = std::strlen(suffix);
    if (fileName.size() <= p + s || fileName.compare(0, p, prefix) != 0 ||
        fileName.compare(fileName.size() - s, s, suffix) != 0)
        return false;
    uint64_t value = 0;
    for (size_t i = p; i < fileName.size() - s; ++i) {
        const char c = fileName[i];
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + static_cast<uint64_t>(c - '0');
        if (value > UINT32_MAX)
            return false;
    }
    pid = static_cast<uint32_t>(value);
    return true;
}

QUARVEL_NAMESPACE_END

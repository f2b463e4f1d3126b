#include <quarvel/converters.h>

#include <algorithm>
#include <cstring>

QUARVEL_NAMESPACE_BEGIN

namespace {
char* copyBytes(const char* source, size_t sourceLength, char* destination, size_t& destinationLength) {
    const size_t n = std::min(destinationLength, sourceLength);
    if (n)
        std::memcpy(destination, source, n);
    destinationLength = n;
    return destination;
}
} // namespace

char* Utf8ToWchar::convert(const char* source, size_t sourceLength, char* destination, size_t& destinationLength) {
    return copyBytes(source, sourceLength, destination, destinationLength);
}

char* WcharToUtf8::convert(const char* source, size_t sourceLength, char* destination, size_t& destinationLength) {
    return copyBytes(source, sourceLength, destination, destinationLength);
}

QUARVEL_NAMESPACE_END

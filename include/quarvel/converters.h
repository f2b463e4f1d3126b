#ifndef QUARVEL_CONVERTERS_H
#define QUARVEL_CONVERTERS_H

#include <quarvel/export.h>

#include <cstddef>

QUARVEL_NAMESPACE_BEGIN

// Text crosses the boundary as UTF-8 in both directions, so both converters
// copy bytes unchanged: min(destinationLength, sourceLength) of them, no
// terminator added. destinationLength is an in/out byte count.
struct QUARVEL_API Utf8ToWchar {
    static char* convert(const char* source, size_t sourceLength, char* destination, size_t& destinationLength);
};

struct QUARVEL_API WcharToUtf8 {
    static char* convert(const char* source, size_t sourceLength, char* destination, size_t& destinationLength);
};

QUARVEL_NAMESPACE_END

#endif

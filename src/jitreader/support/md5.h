#ifndef QUARVEL_SUPPORT_MD5_H
#define QUARVEL_SUPPORT_MD5_H

// MD5 (RFC 1321) of a byte string. Method identities are digests of short
// texts; computing them here keeps a cryptographic library (and the cost of
// loading it into every process) out of the library's dependencies. Not for
// security: the identities only need to be spread and stable.

#include <quarvel/namespace.h>

#include <array>
#include <cstddef>
#include <cstdint>

QUARVEL_NAMESPACE_BEGIN

std::array<uint8_t, 16> md5(const void* data, size_t size);

QUARVEL_NAMESPACE_END

#endif

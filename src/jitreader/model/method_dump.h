#ifndef QUARVEL_MODEL_METHOD_DUMP_H
#define QUARVEL_MODEL_METHOD_DUMP_H

// Text dumps of jitted code for diagnostics. The method dump itself is
// operator<<(std::ostream&, JitMethod&), declared in jit_method.h.

#include <quarvel/types.h>

#include <cstdint>
#include <ostream>

QUARVEL_NAMESPACE_BEGIN

// One "  XDIS <address>: <bytes> <instruction>" line per instruction.
// Architecture 0 is 32-bit code, 1 and 2 are 64-bit code; anything else
// prints "  wrong architecture of code". No bytes print "  no bytes".
void dumpCodeDisassembly(std::ostream& os, const uint8_t* bytes, uint32_t length, uint64_t address, quarvel_arch arch);

// Two upper-case hex digits per byte, no separators, NUL-terminated. A length
// of 0 means 15 bytes (the longest instruction). Output is clipped to
// bufferLength characters including the NUL.
void krad_print_hex_line(char* buffer, const uint8_t* bytes, int32_t length, int32_t bufferLength);

QUARVEL_NAMESPACE_END

#endif

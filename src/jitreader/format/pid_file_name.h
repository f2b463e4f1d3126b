#ifndef QUARVEL_FORMAT_PID_FILE_NAME_H
#define QUARVEL_FORMAT_PID_FILE_NAME_H

// Runtimes name the files they write for profilers after the process:
// jit-<pid>.dump, perf-<pid>.map.

#include <quarvel/namespace.h>

#include <cstdint>
#include <string>

QUARVEL_NAMESPACE_BEGIN

// The pid of a file named "<prefix><decimal pid><suffix>" (a name without its
// directory); false for any other name or a pid past 32 bits.
bool parsePidFileName(const std::string& fileName, const char* prefix, const char* suffix, uint32_t& pid);

QUARVEL_NAMESPACE_END

#endif

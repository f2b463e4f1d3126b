#ifndef QUARVEL_INGEST_TRACE_FORMAT_H
#define QUARVEL_INGEST_TRACE_FORMAT_H

// The formats of trace files a file set reads, told apart by their content:
// a name says nothing reliable about what a file holds.

#include <quarvel/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

QUARVEL_NAMESPACE_BEGIN

enum class TraceFormat {
    jitTrace, // our own record stream (no header; the first word is a record type)
    jitdump,  // jit-<pid>.dump, as runtimes write for profilers
    perfMap,  // perf-<pid>.map, text: START SIZE name
    nettrace  // the .NET runtime's own event trace
};

const char* traceFormatName(TraceFormat format);

// How many leading bytes detection looks at.
constexpr size_t kTraceFormatSniffBytes = 64;

// The format of a file from its first bytes (`head`, of a file of fileSize
// bytes); nothing when no format read here starts that way. An empty file,
// or one shorter than a record, is an empty jit trace.
std::optional<TraceFormat> detectTraceFormat(const uint8_t* head, size_t headSize, uint64_t fileSize);

// The same for a file on disk (reads its first bytes).
std::optional<TraceFormat> detectTraceFormat(const std::string& path, uint64_t fileSize);

// Who wrote a file of a runtime's own format: the process id from the file's
// name or content, on the local host. False when the file does not say.
bool processOfRuntimeFile(TraceFormat format, const std::string& path, const std::string& fileName, u32& pid);

// The name of this machine, the host of files runtimes write for profilers.
std::string localHostName();

QUARVEL_NAMESPACE_END

#endif

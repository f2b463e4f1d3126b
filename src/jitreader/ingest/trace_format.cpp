#include "ingest/trace_format.h"

#include "format/jitdump_reader.h"
#include "format/nettrace_reader.h"
#include "format/perf_map_reader.h"
#include "format/pid_file_name.h"
#include "format/record_types.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

QUARVEL_NAMESPACE_BEGIN

const char* traceFormatName(TraceFormat format) {
    switch (format) {
    case TraceFormat::jitTrace:
        return "jit trace";
    case TraceFormat::jitdump:
        return "jitdump";
    case TraceFormat::perfMap:
        return "perf map";
    case TraceFormat::nettrace:
        return "event trace";
    }
    return "unknown";
}

std::optional<TraceFormat> detectTraceFormat(const uint8_t* head, size_t headSize, uint64_t fileSize) {
    // An empty file, or one shorter than a record, holds a trace with nothing in it yet.
    if (fileSize < 4)
        return TraceFormat::jitTrace;
    if (JitdumpReader::detect(head, headSize))
        return TraceFormat::jitdump;
    if (NettraceReader::looksLikeNettrace(head, headSize))
        return TraceFormat::nettrace;
    if (headSize >= 4) {
        const u32 type = static_cast<u32>(head[0]) | static_cast<u32>(head[1]) << 8 | static_cast<u32>(head[2]) << 16 |
                         static_cast<u32>(head[3]) << 24;
        if (recordTypeInfo(type))
            return TraceFormat::jitTrace;
    }
    if (PerfMapReader::detect(head, headSize))
        return TraceFormat::perfMap;
    return std::nullopt;
}

// A pread of the head alone: a file stream would set up its buffer and read
// a page of it, once per file, and a directory may hold a thousand traces.
std::optional<TraceFormat> detectTraceFormat(const std::string& path, uint64_t fileSize) {
    // Non-blocking: a fifo put in the file's place since it was listed must not hang the open.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return std::nullopt;
    uint8_t head[kTraceFormatSniffBytes] = {};
    ssize_t got;
    do
        got = ::pread(fd, head, sizeof head, 0);
    while (got < 0 && errno == EINTR);
    ::close(fd);
    if (got < 0)
        return std::nullopt;
    return detectTraceFormat(head, static_cast<size_t>(got), fileSize);
}

namespace {

// The decimal run right before the extension, after a '.', '-' or '_'.
bool pidBeforeExtension(const std::string& fileName, const std::string& extension, u32& pid) {
    if (fileName.size() <= extension.size() ||
        fileName.compare(fileName.size() - extension.size(), extension.size(), extension) != 0)
        return false;
    const size_t end = fileName.size() - extension.size();
    size_t start = end;
    while (start > 0 && fileName[start - 1] >= '0' && fileName[start - 1] <= '9')
        --start;
    if (start == end || start == 0 || end - start > 10)
        return false;
    const char separator = fileName[start - 1];
    if (separator != '.' && separator != '-' && separator != '_')
        return false;
    const unsigned long long value = std::stoull(fileName.substr(start, end - start));
    if (value == 0 || value > 0xFFFFFFFFull)
        return false;
    pid = static_cast<u32>(value);
    return true;
}

} // namespace

bool processOfRuntimeFile(TraceFormat format, const std::string& path, const std::string& fileName, u32& pid) {
    switch (format) {
    case TraceFormat::jitdump: {
        if (JitdumpReader::pidFromFileName(fileName, pid))
            return true;
        Expected<JitdumpReader> reader = JitdumpReader::open(path);
        if (!reader || reader->header().pid == 0)
            return false;
        pid = reader->header().pid;
        return true;
    }
    case TraceFormat::perfMap:
        return parsePidFileName(fileName, "perf-", ".map", pid);
    case TraceFormat::nettrace: {
        // The trace names its process; a name the runtime made from a
        // pattern with {pid} in it (app.{pid}.nettrace) is the fallback.
        Expected<std::unique_ptr<NettraceReader>> reader = NettraceReader::open(path);
        if (reader && (*reader)->readHeader() && (*reader)->info().processId != 0) {
            pid = (*reader)->info().processId;
            return true;
        }
        return pidBeforeExtension(fileName, ".nettrace", pid);
    }
    case TraceFormat::jitTrace:
        return false;
    }
    return false;
}

std::string localHostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || !name[0])
        return "localhost";
    return name;
}

QUARVEL_NAMESPACE_END

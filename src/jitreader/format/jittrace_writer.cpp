#include <quarvel/jittrace_writer.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

QUARVEL_NAMESPACE_BEGIN

namespace {

class Encoder {
public:
    void u8(uint8_t v) { m_bytes.push_back(v); }
    void u16(uint16_t v) { little(v, 2); }
    void u32(uint32_t v) { little(v, 4); }
    void u64(uint64_t v) { little(v, 8); }
    void bytes(const std::vector<uint8_t>& b) { m_bytes.insert(m_bytes.end(), b.begin(), b.end()); }
    // A u16 count then the text; texts longer than a count can say are cut.
    void counted(const std::string& s) {
        const size_t n = std::min<size_t>(s.size(), 0xFFFF);
        u16(static_cast<uint16_t>(n));
        m_bytes.insert(m_bytes.end(), s.begin(), s.begin() + static_cast<std::ptrdiff_t>(n));
    }
    void region(const TraceCodeRegion& r) {
        u64(r.startAddress);
        u32(r.codeSize);
        u32(static_cast<uint32_t>(r.bytes.size()));
        bytes(r.bytes);
    }
    void table(const std::vector<quarvel_line_number_entry>& t) {
        const size_t n = std::min<size_t>(t.size(), 0xFFFF);
        u16(static_cast<uint16_t>(n));
        for (size_t i = 0; i < n; ++i) {
            u32(t[i].startOffset);
            u32(t[i].endOffset);
            u32(t[i].value);
        }
    }
    void tail(const TraceMethodTail& t, bool withToken) {
        counted(t.moduleName);
        u16(t.moduleArch);
        counted(t.methodName);
        counted(t.className);
        counted(t.sourceFile);
        u16(t.checksumType);
        counted(t.checksum);
        u16(t.language);
        table(t.lines.managedToSource);
        table(t.lines.nativeToManaged);
        table(t.lines.nativeToSource);
        // An optional trailing field: readers take it when four bytes remain.
        if (withToken && t.metadataToken)
            u32(t.metadataToken);
    }
    std::vector<uint8_t> take() { return std::move(m_bytes); }

private:
    void little(uint64_t v, int n) {
        for (int i = 0; i < n; ++i)
            m_bytes.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
    std::vector<uint8_t> m_bytes;
};

} // namespace

namespace jittrace {

std::vector<uint8_t> encodeMethodLoad(const TraceMethodLoad& load, int version) {
    Encoder e;
    if (version >= 2)
        e.u32(load.hashKey);
    e.u32(load.methodId);
    if (version >= 3)
        e.u8(load.inlineFlag);
    e.u64(load.loadTime);
    e.u16(static_cast<uint16_t>(std::min<size_t>(load.regions.size(), 0xFFFF)));
    for (size_t i = 0; i < load.regions.size() && i < 0xFFFF; ++i)
        e.region(load.regions[i]);
    e.tail(load.tail, version >= 3);
    return e.take();
}

std::vector<uint8_t> encodeInlineLoad(const TraceInlineLoad& load) {
    Encoder e;
    e.u32(load.methodId);
    e.u32(load.parentId);
    e.u64(load.loadTime);
    e.u16(1);
    e.region(load.region);
    e.tail(load.tail, true);
    return e.take();
}

std::vector<uint8_t> encodeUpdateV2(const TraceUpdateV2& update) {
    Encoder e;
    e.u32(update.methodId);
    e.u64(update.loadTime);
    e.u64(update.startAddress);
    e.u32(update.length);
    e.u32(static_cast<uint32_t>(update.bytes.size()));
    e.bytes(update.bytes);
    return e.take();
}

std::vector<uint8_t> encodeRuntimeInfo(const TraceRuntimeInfo& info) {
    Encoder e;
    e.u32(info.runtimeType);
    e.counted(info.version);
    e.counted(info.name);
    return e.take();
}

std::vector<uint8_t> frameValue(uint32_t type, uint32_t value) {
    Encoder e;
    e.u32(type);
    e.u32(value);
    return e.take();
}

std::vector<uint8_t> frameSized(uint32_t type, const std::vector<uint8_t>& body) {
    Encoder e;
    e.u32(type);
    e.u32(static_cast<uint32_t>(body.size()));
    e.bytes(body);
    return e.take();
}

uint32_t methodLoadType(int version, bool is64) {
    switch (version) {
    case 0:
        return is64 ? quarvel_jt_FunctionLoad64 : quarvel_jt_FunctionLoad32;
    case 1:
        return is64 ? quarvel_jt_FunctionLoad64_v1 : quarvel_jt_FunctionLoad32_v1;
    case 2:
        return is64 ? quarvel_jt_FunctionLoad64_v2 : quarvel_jt_FunctionLoad32_v2;
    default:
        return is64 ? quarvel_jt_FunctionLoad64_v3 : quarvel_jt_FunctionLoad32_v3;
    }
}

} // namespace jittrace

JitTraceWriter::JitTraceWriter() = default;

JitTraceWriter::~JitTraceWriter() {
    close();
}

bool JitTraceWriter::open(const std::string& path, bool append) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd >= 0)
        ::close(m_fd);
    // Where the old file cannot be removed (a directory without write
    // permission), it is truncated as before.
    if (!append)
        ::unlink(path.c_str());
    m_fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC), 0644);
    m_bytesWritten = 0;
    if (m_fd < 0) {
        m_error = "cannot open " + path + ": " + std::strerror(errno);
        return false;
    }
    m_error.clear();
    return true;
}

bool JitTraceWriter::isOpen() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_fd >= 0;
}

void JitTraceWriter::close() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

uint64_t JitTraceWriter::bytesWritten() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bytesWritten;
}

bool JitTraceWriter::writeAll(const std::vector<uint8_t>& bytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd < 0) {
        m_error = "the trace file is not open";
        return false;
    }
    // One record, one write: the kernel keeps it whole unless the process dies inside it.
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(m_fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            m_error = std::string("write failed: ") + std::strerror(errno);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    m_bytesWritten += done;
    return true;
}

bool JitTraceWriter::writeMagic(uint32_t value) {
    return writeAll(jittrace::frameValue(quarvel_jt_Magic, value));
}

bool JitTraceWriter::writeCollectorType(uint32_t type) {
    return writeAll(jittrace::frameValue(quarvel_jt_CollectorType, type));
}

bool JitTraceWriter::writeMethodLoad(int version, bool is64, const TraceMethodLoad& load) {
    if (version < 0 || version > 3) {
        m_error = "unknown method load version " + std::to_string(version);
        return false;
    }
    return writeAll(
        jittrace::frameSized(jittrace::methodLoadType(version, is64), jittrace::encodeMethodLoad(load, version)));
}

bool JitTraceWriter::writeMethodUpdate(const TraceMethodLoad& update) {
    return writeAll(jittrace::frameSized(quarvel_jt_FunctionUpdate, jittrace::encodeMethodLoad(update, 3)));
}

bool JitTraceWriter::writeInlineLoad(bool is64, const TraceInlineLoad& load) {
    return writeAll(jittrace::frameSized(is64 ? quarvel_jt_FunctionInlineLoad64 : quarvel_jt_FunctionInlineLoad32,
                                         jittrace::encodeInlineLoad(load)));
}

bool JitTraceWriter::writeUpdateV2(const TraceUpdateV2& update) {
    return writeAll(jittrace::frameSized(quarvel_jt_FunctionUpdate_v2, jittrace::encodeUpdateV2(update)));
}

bool JitTraceWriter::writeRuntimeInfo(const TraceRuntimeInfo& info) {
    return writeAll(jittrace::frameSized(quarvel_jt_ManagedRuntimeInfo, jittrace::encodeRuntimeInfo(info)));
}

bool JitTraceWriter::writeRaw(const std::vector<uint8_t>& bytes) {
    return writeAll(bytes);
}

QUARVEL_NAMESPACE_END

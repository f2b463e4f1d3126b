#include "jit_file_decoder.h"

#include "log.h"

#include <boost/filesystem.hpp>

#include <limits>

namespace quarvel_3_13 {

namespace {

u32 littleEndian32(const uint8_t* p) {
    return static_cast<u32>(p[0]) | static_cast<u32>(p[1]) << 8 | static_cast<u32>(p[2]) << 16 |
           static_cast<u32>(p[3]) << 24;
}

// The log line of each sized record type, by type value (null: not sized).
const char* sizedRecordName(u32 type) {
    switch (type) {
    case 0: case 2: case 4: case 5: case 6: case 7: case 8: case 9:
        return "JIT TRACE: MethodLoad";
    case 10:
        return "JIT TRACE: MethodUpdate";
    case 11: case 12:
        return "JIT TRACE: MethodInlineLoad";
    case 14:
        return "JIT TRACE: MethodUpdate_v2";
    case 15:
        return "JIT TRACE: ManagedRuntimeInfo";
    default:
        return nullptr;
    }
}

} // namespace

JitFileDecoder::JitFileDecoder(const ustring& path, u32_t pid, u32_t hostId, jit_rva_t jitRvaBase,
                               decoding_mode_t mode)
    : m_path(path), m_mode(mode), m_hostId(hostId), m_pid(pid), m_nextJitRva(jitRvaBase) {
    QV_TRACE("jitPath: " << path << " pid: " << pid << " hostId: " << hostId);
    try {
        const boost::filesystem::path p(path);
        if (boost::filesystem::symlink_status(p).type() == boost::filesystem::symlink_file) {
            // Traces are never read through a link.
            QV_ERROR("jitPath: " << path << " is a symlink. Please, provide the file with actual path");
            return;
        }
        open(p, std::ios_base::in | std::ios_base::binary);
        if (!is_open())
            return;
        seekg(0, std::ios_base::end);
        const std::streamoff size = tellg();
        m_fileSize = size > 0 ? static_cast<u64>(size) : 0;
        seekg(0);
        m_streamAtPosition = bool(*this);
    } catch (const boost::filesystem::filesystem_error& e) {
        QV_ERROR("Exception occurred while checking for symlink " << path << ": " << e.what());
        if (is_open())
            close();
    }
}

JitFileDecoder::~JitFileDecoder() {
    if (is_open())
        close();
}

quarvel_error_t JitFileDecoder::getNextRecord(Record& record) {
    if (!is_open()) {
        QV_ERROR("Couldn't open the jit file");
        return meFileOpenError;
    }

    record.offset = m_position;
    // Every record starts at the decoder's own position; the stream is only
    // repositioned after a failed read moved it elsewhere.
    if (!m_streamAtPosition) {
        clear();
        seekg(static_cast<std::streamoff>(m_position));
        m_streamAtPosition = true;
    }
    struct Resync {
        JitFileDecoder& d;
        bool ok = false;
        ~Resync() {
            if (!ok)
                d.m_streamAtPosition = false;
        }
    } resync{*this};

    uint8_t word[4];
    if (!read(reinterpret_cast<char*>(word), 4))
        return meEndOfData;
    record.type = littleEndian32(word);
    m_position += 4;

    const u32 type = record.type;
    if (type == quarvel_jt_Magic || type == quarvel_jt_CollectorType) {
        const bool magic = type == quarvel_jt_Magic;
        QV_TRACE((magic ? "JIT TRACE: Magic" : "JIT TRACE: CollectorType"));
        record.data.resize(4);
        if (!read(reinterpret_cast<char*>(record.data.data()), 4)) {
            if (magic)
                QV_ERROR("Couldn't process the magic trace");
            else
                QV_ERROR("Couldn't process the collector type trace");
            return meBadRecord;
        }
        m_position += 4;
        if (!magic) {
            m_collectorType = littleEndian32(record.data.data());
            QV_TRACE("Value: " << m_collectorType);
        }
        resync.ok = true;
        return meSuccess;
    }

    const char* name = sizedRecordName(type);
    if (!name) {
        QV_ERROR("Couldn't recognize type of the jit trace");
        return meBadRecord;
    }
    QV_INFO(name);

    if (!read(reinterpret_cast<char*>(word), 4)) {
        QV_ERROR("Couldn't read size of the jit trace");
        return meBadRecord;
    }
    m_position += 4;
    const u32 size = littleEndian32(word);
    if (size == 0) {
        QV_ERROR("Couldn't read content of the jit trace");
        return meBadRecord;
    }

    // A size read from the file is not trusted with an allocation: the body
    // must fit in what is left of the file before any memory is reserved.
    if (m_fileSize < m_position || m_fileSize - m_position < size) {
        // The file may have grown since it was opened (a live agent): measure again.
        boost::system::error_code ec;
        const u64 now = boost::filesystem::file_size(m_path, ec);
        if (!ec)
            m_fileSize = now;
    }
    if (m_fileSize < m_position || m_fileSize - m_position < size) {
        QV_ERROR("Couldn't read content of the jit trace");
        return meBadRecord;
    }
    record.data.resize(size);
    if (!read(reinterpret_cast<char*>(record.data.data()), size)) {
        QV_ERROR("Couldn't read content of the jit trace");
        return meBadRecord;
    }
    m_position += size;
    resync.ok = true;
    return meSuccess;
}

} // namespace quarvel_3_13

#include "format/jit_file_decoder.h"

#include "format/record_types.h"
#include "support/log.h"

#include <boost/filesystem.hpp>

#include <atomic>

QUARVEL_NAMESPACE_BEGIN

namespace {

u32 littleEndian32(const uint8_t* p) {
    return static_cast<u32>(p[0]) | static_cast<u32>(p[1]) << 8 | static_cast<u32>(p[2]) << 16 |
           static_cast<u32>(p[3]) << 24;
}

} // namespace

JitFileDecoder::JitFileDecoder(const ustring& path, u32_t pid, u32_t hostId, jit_rva_t jitRvaBase, decoding_mode_t mode)
    : m_path(path), m_mode(mode), m_hostId(hostId), m_pid(pid), m_jitRvaBase(jitRvaBase) {
    QV_TRACE("jitPath: " << path << " pid: " << pid << " hostId: " << hostId);
    m_lastError = Reason::notFound("Couldn't open the jit file", meFileOpenError).inFile(path);
    try {
        if (boost::filesystem::symlink_status(boost::filesystem::path(path)).type() ==
            boost::filesystem::symlink_file) {
            // Traces are never read through a link.
            QV_ERROR("jitPath: " << path << " is a symlink. Please, provide the file with actual path");
            m_lastError.message = "is a symlink; give the file's actual path";
            return;
        }
    } catch (const boost::filesystem::filesystem_error& e) {
        QV_ERROR("Exception occurred while checking for symlink " << path << ": " << e.what());
        m_lastError.message = e.what();
        return;
    }
    Expected<std::unique_ptr<FileWindow>> window = FileWindow::open(path);
    if (!window) {
        m_lastError = window.reason();
        return;
    }
    m_window = std::move(window.value());
    m_size = m_window->size();
    m_open = true;
    // Code bytes are kept as views of the file rather than copies, which
    // would take fresh memory of the file's size.
    if (!(mode & dmCodeBytes))
        return;
    Expected<std::shared_ptr<const MappedFile>> mapping = m_window->map();
    if (!mapping) {
        QV_WARN("Code bytes of " << path << " are copied: " << mapping.reason().text());
    } else if (MappedFile::withinKeepLimit()) {
        m_mapping = std::move(mapping.value());
    } else {
        static std::atomic<bool> told{false};
        if (!told.exchange(true))
            QV_INFO("Kept file mappings reached their limit of " << MappedFile::keepLimit()
                                                                 << ": code bytes of files read meanwhile are copied");
    }
}

ByteSpan JitFileDecoder::lasting(const Record& record, ByteSpan part) const {
    const uint8_t* body = record.data.data();
    if (!m_mapping || part.empty() || part.data() < body || part.end() > record.data.end())
        return ByteSpan();
    const u64 offset = record.bodyOffset() + static_cast<u64>(part.data() - body);
    if (offset > m_mapping->size() || m_mapping->size() - offset < part.size())
        return ByteSpan();
    return ByteSpan(m_mapping->data() + offset, part.size());
}

JitFileDecoder::JitFileDecoder(const std::string& name, ByteSpan bytes, u32_t pid, u32_t hostId, jit_rva_t jitRvaBase,
                               decoding_mode_t mode)
    : m_path(name), m_bytes(bytes), m_size(bytes.size()), m_open(true), m_mode(mode), m_hostId(hostId), m_pid(pid),
      m_jitRvaBase(jitRvaBase) {}

void JitFileDecoder::logRefusal(const Reason& reason) const {
    QV_ERROR("Refused a record: " << reason.text());
}

quarvel_error_t JitFileDecoder::damaged(const char* message, const char* field, u64 offset) {
    QV_ERROR(message);
    m_lastError = Reason::badInput(message).inFile(m_path).at(offset).ofField(field);
    return meBadRecord;
}

const uint8_t* JitFileDecoder::bytesAt(u64 position, size_t length, const char* field) {
    if (!m_window)
        return m_bytes.data() + position;
    const uint8_t* bytes = m_window->at(position, length);
    if (!bytes) {
        QV_ERROR("Couldn't read the jit file " << m_path << ": " << m_window->error());
        m_lastError = Reason::badInput(m_window->error()).inFile(m_path).at(position).ofField(field);
    }
    return bytes;
}

quarvel_error_t JitFileDecoder::getNextRecord(Record& record) {
    if (!m_open) {
        QV_ERROR("Couldn't open the jit file");
        return meFileOpenError;
    }
    record.offset = m_position;
    record.data = ByteSpan();
    const u64 size = m_size;
    // The position only moves past parts that were read whole, so a failure
    // leaves it at the start of the part that failed.
    if (size - m_position < 4)
        return meEndOfData;
    // The frame's eight bytes at once (four at the file's end): type and size or value.
    const uint8_t* frame = bytesAt(m_position, size - m_position < 8 ? 4 : 8, "record type");
    if (!frame)
        return meBadRecord;
    const u32 type = littleEndian32(frame);
    record.type = type;
    m_position += 4;
    const RecordTypeInfo* info = recordTypeInfo(type);
    if (!info) {
        QV_ERROR("Couldn't recognize type of the jit trace");
        m_lastError = Reason::badInput("Couldn't recognize type of the jit trace: " + std::to_string(type))
                          .inFile(m_path)
                          .at(record.offset)
                          .ofField("record type");
        return meBadRecord;
    }

    if (info->framing == Framing::value) {
        const bool magic = info->body == BodyKind::magic;
        QV_TRACE(info->logLine);
        if (size - m_position < 4)
            return damaged(magic ? "Couldn't process the magic trace" : "Couldn't process the collector type trace",
                           magic ? "magic value" : "collector type", m_position);
        record.data = ByteSpan(frame + 4, 4);
        m_position += 4;
        if (!magic) {
            m_collectorType = littleEndian32(record.data.data());
            QV_TRACE("Value: " << m_collectorType);
        }
        return meSuccess;
    }

    QV_INFO(info->logLine);
    if (size - m_position < 4)
        return damaged("Couldn't read size of the jit trace", "record size", m_position);
    const u32 bodySize = littleEndian32(frame + 4);
    m_position += 4;
    if (bodySize == 0)
        return damaged("Couldn't read content of the jit trace", "record size", m_position - 4);
    if (size - m_position < bodySize) {
        damaged("Couldn't read content of the jit trace", "record body", m_position);
        m_lastError.message += ": " + std::to_string(bodySize) + " bytes announced, " +
                               std::to_string(size - m_position) + " left in the file";
        return meBadRecord;
    }
    const uint8_t* body = bytesAt(m_position, bodySize, "record body");
    if (!body)
        return meBadRecord;
    record.data = ByteSpan(body, bodySize);
    m_position += bodySize;
    return meSuccess;
}

QUARVEL_NAMESPACE_END

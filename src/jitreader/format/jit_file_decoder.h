#ifndef QUARVEL_FORMAT_JIT_FILE_DECODER_H
#define QUARVEL_FORMAT_JIT_FILE_DECODER_H

#include "format/record.h"
#include "support/file_window.h"
#include "support/result.h"

#include <quarvel/types.h>

#include <memory>
#include <string>

QUARVEL_NAMESPACE_BEGIN

typedef std::string ustring;

// The records of one trace file, one at a time, framed record by record.
// Opened once, read forward once. A file is read through one reused buffer:
// the body a record points to lives until the next getNextRecord. Records
// framed from bytes in memory point into those bytes.
//
// It also carries what the reading pass needs to know about the file: the
// process and host it belongs to, the start of its jit rva range and the
// decoding mode.
class JitFileDecoder {
public:
    // An unusable file (missing, a symbolic link, not a regular file) leaves
    // the decoder closed; the first getNextRecord reports it.
    JitFileDecoder(const ustring& path, u32_t pid, u32_t hostId, jit_rva_t jitRvaBase, decoding_mode_t mode);
    // Records framed from bytes in memory, named `name` in messages. The
    // bytes must outlive the decoder.
    JitFileDecoder(const std::string& name, ByteSpan bytes, u32_t pid = 0, u32_t hostId = 0, jit_rva_t jitRvaBase = 0,
                   decoding_mode_t mode = dmCodeBytes);

    JitFileDecoder(const JitFileDecoder&) = delete;
    JitFileDecoder& operator=(const JitFileDecoder&) = delete;

    // meSuccess, meEndOfData at a clean end (or within the first four bytes
    // of a type), meBadRecord for a damaged record, meFileOpenError when the
    // file is not open. Every failure leaves its reason in lastError().
    quarvel_error_t getNextRecord(Record& record);

    bool isOpen() const { return m_open; }
    const Reason& lastError() const { return m_lastError; }
    // The bytes `part` of the last record's body where they stay readable
    // after the next record: in the file's mapping, which mapping() keeps
    // alive. Only a file read in a mode that keeps code bytes is mapped,
    // within MappedFile::keepLimit(); otherwise (and for bytes in memory)
    // the span is empty and the caller copies the bytes.
    ByteSpan lasting(const Record& record, ByteSpan part) const;
    const std::shared_ptr<const MappedFile>& mapping() const { return m_mapping; }
    // Logs why a record was refused, once, as this file's decoder.
    void logRefusal(const Reason& reason) const;

    const std::string& path() const { return m_path; }
    u64 position() const { return m_position; }
    u64 size() const { return m_size; }
    decoding_mode_t mode() const { return m_mode; }
    u32 hostId() const { return m_hostId; }
    u32 pid() const { return m_pid; }
    jit_rva_t jitRvaBase() const { return m_jitRvaBase; }
    u32 collectorType() const { return m_collectorType; }

private:
    quarvel_error_t damaged(const char* message, const char* field, u64 offset);
    // The bytes [position, position + length) (within the size); null when
    // the file could not give them, the reason left in lastError().
    const uint8_t* bytesAt(u64 position, size_t length, const char* field);

    std::string m_path;
    std::unique_ptr<FileWindow> m_window; // a file's bytes; null for bytes in memory
    std::shared_ptr<const MappedFile> m_mapping;
    ByteSpan m_bytes; // bytes in memory
    u64 m_size = 0;
    bool m_open = false;
    u64 m_position = 0;
    decoding_mode_t m_mode;
    u32 m_hostId;
    u32 m_pid;
    jit_rva_t m_jitRvaBase;
    u32 m_collectorType = 0;
    Reason m_lastError;
};

QUARVEL_NAMESPACE_END

#endif

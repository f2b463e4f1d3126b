#ifndef QUARVEL_FORMAT_JITDUMP_READER_H
#define QUARVEL_FORMAT_JITDUMP_READER_H

// Reads a jitdump file one record at a time, forward, without copying it:
//
//     auto reader = JitdumpReader::open(path);
//     if (!reader) return reader.reason();        // not a jitdump, or a bad header
//     JitdumpRecord record;
//     while (reader->next(record)) { ... }
//     if (const Reason* why = reader->stopReason()) ...  // cut or damaged: why and where
//
// Every record handed out before next() returns false is complete. A file cut
// while it was written (the process was killed) ends in a partial record: the
// reader stops before it and says so. A record whose content disagrees with
// its own size (a count that does not fit, a name without its end) stops the
// reading too, since neither the size nor the content can be trusted past it.

#include "format/jitdump_records.h"
#include "support/mapped_file.h"
#include "support/result.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

QUARVEL_NAMESPACE_BEGIN

class ByteCursor;

class JitdumpReader {
public:
    static constexpr uint32_t kMagic = 0x4A695444; // "JiTD" as a number
    static constexpr uint32_t kSwappedMagic = 0x4454694A;
    static constexpr size_t kHeaderSize = 40;
    static constexpr size_t kPrefixSize = 16;

    // Whether bytes that start a file are a jitdump's (its magic, in either byte order).
    static bool detect(const uint8_t* data, size_t size);
    // The pid of a file named "jit-<pid>.dump" (a name without its directory).
    static bool pidFromFileName(const std::string& fileName, uint32_t& pid);

    // Maps the file; the reader keeps the mapping alive.
    static Expected<JitdumpReader> open(const std::string& path);
    // Over bytes the caller keeps alive as long as the reader and its records; `name`
    // stands for the file in reasons.
    static Expected<JitdumpReader> fromBytes(const uint8_t* data, size_t size, std::string name);

    const JitdumpHeader& header() const { return m_header; }
    const std::string& path() const { return m_path; }
    uint64_t fileSize() const { return m_size; }
    // The mapping the records' views lie in; null when reading the caller's bytes.
    const std::shared_ptr<const MappedFile>& mapping() const { return m_file; }

    // The next complete record; false at the end of the file or at the first
    // cut or damaged record (then stopReason() says which and where).
    bool next(JitdumpRecord& record);

    // Null at a clean end (or while records remain), else why reading stopped:
    // the offset is where the cut or damaged record starts for a cut, the bad
    // field's offset for damage.
    const Reason* stopReason() const { return m_stop ? &*m_stop : nullptr; }
    // The stop came from the end of the file falling inside a record.
    bool truncated() const { return m_truncated; }
    // Where the records read so far end: everything before is whole.
    uint64_t completeEnd() const { return m_offset; }

private:
    JitdumpReader(std::shared_ptr<const MappedFile> file, const uint8_t* data, size_t size, std::string path)
        : m_file(std::move(file)), m_data(data), m_size(size), m_path(std::move(path)) {}

    Status readHeader();
    bool readBody(ByteCursor& body, JitdumpRecord& record);
    bool readCodeLoad(ByteCursor& body, JitdumpCodeLoad& load);
    bool readCodeMove(ByteCursor& body, JitdumpCodeMove& move);
    bool readDebugInfo(ByteCursor& body, JitdumpDebugInfo& info);
    bool readUnwindingInfo(ByteCursor& body, JitdumpUnwindingInfo& unwinding);
    bool stop(Reason reason, bool truncated);
    // Damage in a complete record: the bad field's offset and what was wrong with it.
    bool damaged(JitdumpRecordKind kind, uint64_t offset, const std::string& field, const std::string& message);
    bool cursorFailed(const JitdumpRecord& record, const ByteCursor& body);

    std::shared_ptr<const MappedFile> m_file; // null when reading the caller's bytes
    const uint8_t* m_data;
    size_t m_size;
    std::string m_path;
    JitdumpHeader m_header;
    uint64_t m_offset = 0;
    std::optional<Reason> m_stop;
    bool m_truncated = false;
};

QUARVEL_NAMESPACE_END

#endif

#include "format/jitdump_reader.h"

#include "format/pid_file_name.h"
#include "support/byte_cursor.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

QUARVEL_NAMESPACE_BEGIN

namespace {

// Each debug entry takes at least its address, line, discriminator and the
// zero byte of an empty file name.
constexpr uint64_t kMinDebugEntrySize = 8 + 4 + 4 + 1;
// Offsets of fields named in reasons, from the record's start.
constexpr uint64_t kCodeLoadCodeSizeAt = 16 + 4 + 4 + 8 + 8;
constexpr uint64_t kDebugCountAt = 16 + 8;

std::string hex(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%" PRIx64, value);
    return text;
}

// Text up to a zero byte, as a view into the cursor's bytes.
bool cStringView(ByteCursor& c, std::string_view& value, const char* field) {
    if (!c)
        return false;
    const void* zero = c.remaining() ? std::memchr(c.data() + c.offset(), 0, c.remaining()) : nullptr;
    if (!zero) {
        c.fail("unterminated " + std::string(field) + " at offset " + std::to_string(c.fileOffset()) + " (" +
               std::to_string(c.remaining()) + " bytes left in the record, none of them zero)");
        return false;
    }
    const size_t n = static_cast<size_t>(static_cast<const uint8_t*>(zero) - (c.data() + c.offset()));
    const uint8_t* p = nullptr;
    if (!c.bytes(n + 1, p, field))
        return false;
    value = std::string_view(reinterpret_cast<const char*>(p), n);
    return true;
}

JitdumpRecordKind kindOf(uint32_t id) {
    switch (id) {
    case kJitdumpCodeLoad:
        return JitdumpRecordKind::codeLoad;
    case kJitdumpCodeMove:
        return JitdumpRecordKind::codeMove;
    case kJitdumpDebugInfo:
        return JitdumpRecordKind::debugInfo;
    case kJitdumpClose:
        return JitdumpRecordKind::close;
    case kJitdumpUnwindingInfo:
        return JitdumpRecordKind::unwindingInfo;
    default:
        return JitdumpRecordKind::unknown;
    }
}

} // namespace

const char* jitdumpRecordName(JitdumpRecordKind kind) {
    switch (kind) {
    case JitdumpRecordKind::codeLoad:
        return "CODE_LOAD";
    case JitdumpRecordKind::codeMove:
        return "CODE_MOVE";
    case JitdumpRecordKind::debugInfo:
        return "CODE_DEBUG_INFO";
    case JitdumpRecordKind::close:
        return "CODE_CLOSE";
    case JitdumpRecordKind::unwindingInfo:
        return "CODE_UNWINDING_INFO";
    case JitdumpRecordKind::unknown:
        break;
    }
    return "unknown record";
}

bool JitdumpReader::pidFromFileName(const std::string& fileName, uint32_t& pid) {
    return parsePidFileName(fileName, "jit-", ".dump", pid);
}

bool JitdumpReader::detect(const uint8_t* data, size_t size) {
    if (!data || size < 4)
        return false;
    uint32_t magic = 0;
    ByteCursor c(data, 4);
    c.u32(magic, "magic");
    return magic == kMagic || magic == kSwappedMagic;
}

Expected<JitdumpReader> JitdumpReader::open(const std::string& path) {
    // A dump is read whole, front to back, and its code stays viewed in the
    // mapping: nothing is released behind the reader.
    Expected<std::shared_ptr<const MappedFile>> file = MappedFile::open(path, MappedFile::Access::whole);
    if (!file)
        return file.reason();
    const std::shared_ptr<const MappedFile> mapped = *file;
    JitdumpReader reader(mapped, mapped->data(), mapped->size(), path);
    if (Status header = reader.readHeader(); !header)
        return header.reason();
    return reader;
}

Expected<JitdumpReader> JitdumpReader::fromBytes(const uint8_t* data, size_t size, std::string name) {
    JitdumpReader reader(nullptr, data, data ? size : 0, std::move(name));
    if (Status header = reader.readHeader(); !header)
        return header.reason();
    return reader;
}

Status JitdumpReader::readHeader() {
    ByteCursor c(m_data, m_size);
    auto refuse = [&](uint64_t offset, const char* field, std::string message) {
        return Reason::badInput(std::move(message)).inFile(m_path).at(offset).ofField(field);
    };
    uint32_t magic = 0;
    if (!c.u32(magic, "magic"))
        return refuse(0, "header", "not a jitdump: " + c.error());
    if (magic == kSwappedMagic) {
        c.setOrder(ByteCursor::Order::big);
        m_header.bigEndian = true;
    } else if (magic != kMagic) {
        return refuse(0, "magic",
                      "not a jitdump: magic " + hex(magic) + " is not " + hex(kMagic) + " in either byte order");
    }
    JitdumpHeader& h = m_header;
    c.u32(h.version, "version");
    c.u32(h.totalSize, "header total_size");
    c.u32(h.elfMachine, "elf_mach");
    c.u32(h.pad, "pad1");
    c.u32(h.pid, "pid");
    c.u64(h.timestamp, "timestamp");
    c.u64(h.flags, "flags");
    if (!c)
        return refuse(c.fileOffset(), "header", "the header is cut: " + c.error());
    // Version 2 was written by one runtime with the same layout; anything else may not be.
    if (h.version < 1 || h.version > 2)
        return refuse(4, "version", "unsupported version " + std::to_string(h.version) + " (1 and 2 are read)");
    if (h.totalSize < kHeaderSize)
        return refuse(8, "header total_size",
                      "header size " + std::to_string(h.totalSize) + " is smaller than its 40 bytes of fields");
    if (h.totalSize > m_size)
        return refuse(8, "header total_size",
                      "header size " + std::to_string(h.totalSize) + " passes the end of the file (" +
                          std::to_string(m_size) + " bytes)");
    m_offset = h.totalSize;
    return Status::success();
}

bool JitdumpReader::stop(Reason reason, bool truncated) {
    m_stop = std::move(reason);
    m_truncated = truncated;
    return false;
}

bool JitdumpReader::damaged(JitdumpRecordKind kind, uint64_t offset, const std::string& field,
                            const std::string& message) {
    return stop(Reason::badInput(std::string(jitdumpRecordName(kind)) + " record at offset " +
                                 std::to_string(m_offset) + ": " + message)
                    .inFile(m_path)
                    .at(offset)
                    .ofField(field),
                false);
}

bool JitdumpReader::cursorFailed(const JitdumpRecord& record, const ByteCursor& body) {
    return damaged(record.kind, body.fileOffset(), jitdumpRecordName(record.kind),
                   body.error() + " (record size " + std::to_string(record.totalSize) + ")");
}

bool JitdumpReader::next(JitdumpRecord& record) {
    if (m_stop || m_offset >= m_size)
        return false;
    const size_t left = m_size - static_cast<size_t>(m_offset);
    ByteCursor file(m_data + m_offset, left, m_header.bigEndian ? ByteCursor::Order::big : ByteCursor::Order::little,
                    m_offset);
    record.offset = m_offset;
    if (left < kPrefixSize)
        return stop(Reason::badInput("the file ends " + std::to_string(left) + " bytes into a record's 16-byte prefix")
                        .inFile(m_path)
                        .at(m_offset)
                        .ofField("record prefix"),
                    true);
    file.u32(record.id, "record id");
    file.u32(record.totalSize, "record total_size");
    file.u64(record.timestamp, "record timestamp");
    record.kind = kindOf(record.id);
    if (record.totalSize < kPrefixSize)
        return damaged(record.kind, m_offset + 4, "record total_size",
                       "size " + std::to_string(record.totalSize) + " is smaller than the 16-byte prefix");
    if (record.totalSize > left)
        return stop(Reason::badInput(std::string(jitdumpRecordName(record.kind)) + " record of " +
                                     std::to_string(record.totalSize) + " bytes is cut by the end of the file after " +
                                     std::to_string(left) + " bytes")
                        .inFile(m_path)
                        .at(m_offset)
                        .ofField("record total_size"),
                    true);
    ByteCursor body = file.sub(record.totalSize - kPrefixSize, "record body");
    if (!readBody(body, record))
        return false;
    m_offset += record.totalSize;
    return true;
}

bool JitdumpReader::readBody(ByteCursor& body, JitdumpRecord& record) {
    bool ok = true;
    switch (record.kind) {
    case JitdumpRecordKind::codeLoad:
        ok = readCodeLoad(body, record.load);
        break;
    case JitdumpRecordKind::codeMove:
        ok = readCodeMove(body, record.move);
        break;
    case JitdumpRecordKind::debugInfo:
        ok = readDebugInfo(body, record.debugInfo);
        break;
    case JitdumpRecordKind::unwindingInfo:
        ok = readUnwindingInfo(body, record.unwinding);
        break;
    case JitdumpRecordKind::close:
    case JitdumpRecordKind::unknown:
        return true; // no fields of ours; skipped by their size
    }
    if (m_stop)
        return false;
    if (!ok || !body)
        return cursorFailed(record, body);
    return true;
}

// Bytes after the code are padding some writers add: skipped with the record.
bool JitdumpReader::readCodeLoad(ByteCursor& body, JitdumpCodeLoad& load) {
    body.u32(load.pid, "CODE_LOAD pid");
    body.u32(load.tid, "CODE_LOAD tid");
    body.u64(load.vma, "CODE_LOAD vma");
    body.u64(load.codeAddr, "CODE_LOAD code_addr");
    body.u64(load.codeSize, "CODE_LOAD code_size");
    body.u64(load.codeIndex, "CODE_LOAD code_index");
    if (!cStringView(body, load.name, "CODE_LOAD name"))
        return false;
    if (load.codeSize > body.remaining())
        return damaged(JitdumpRecordKind::codeLoad, m_offset + kCodeLoadCodeSizeAt, "CODE_LOAD code_size",
                       "code_size " + std::to_string(load.codeSize) + " exceeds the " +
                           std::to_string(body.remaining()) + " bytes left after the name");
    load.codeOffset = body.fileOffset();
    return body.bytes(static_cast<size_t>(load.codeSize), load.code, "CODE_LOAD code");
}

bool JitdumpReader::readCodeMove(ByteCursor& body, JitdumpCodeMove& move) {
    body.u32(move.pid, "CODE_MOVE pid");
    body.u32(move.tid, "CODE_MOVE tid");
    body.u64(move.vma, "CODE_MOVE vma");
    body.u64(move.oldCodeAddr, "CODE_MOVE old_code_addr");
    body.u64(move.newCodeAddr, "CODE_MOVE new_code_addr");
    body.u64(move.codeSize, "CODE_MOVE code_size");
    body.u64(move.codeIndex, "CODE_MOVE code_index");
    return body.ok();
}

// Entries are walked in order (each is as long as its file name); bytes after
// the last one are padding.
bool JitdumpReader::readDebugInfo(ByteCursor& body, JitdumpDebugInfo& info) {
    info.entries.clear();
    uint64_t count = 0;
    body.u64(info.codeAddr, "CODE_DEBUG_INFO code_addr");
    if (!body.u64(count, "CODE_DEBUG_INFO nr_entry"))
        return false;
    if (count > body.remaining() / kMinDebugEntrySize)
        return damaged(JitdumpRecordKind::debugInfo, m_offset + kDebugCountAt, "CODE_DEBUG_INFO nr_entry",
                       "nr_entry " + std::to_string(count) + " needs at least " + std::to_string(kMinDebugEntrySize) +
                           " bytes each, the record has " + std::to_string(body.remaining()) + " left");
    info.entries.reserve(static_cast<size_t>(count));
    std::string_view previousFile;
    for (uint64_t i = 0; i < count; ++i) {
        JitdumpDebugEntry entry;
        body.u64(entry.address, "CODE_DEBUG_INFO entry address");
        body.i32(entry.line, "CODE_DEBUG_INFO entry line");
        body.i32(entry.discriminator, "CODE_DEBUG_INFO entry discriminator");
        if (!cStringView(body, entry.file, "CODE_DEBUG_INFO entry file name"))
            return false;
        if (entry.file.size() == 1 && static_cast<uint8_t>(entry.file[0]) == 0xFF) {
            entry.sameFileAsPrevious = true;
            entry.file = previousFile;
        }
        previousFile = entry.file;
        info.entries.push_back(entry);
    }
    return true;
}

bool JitdumpReader::readUnwindingInfo(ByteCursor& body, JitdumpUnwindingInfo& unwinding) {
    body.u64(unwinding.unwindDataSize, "CODE_UNWINDING_INFO unwinding_size");
    body.u64(unwinding.ehFrameHdrSize, "CODE_UNWINDING_INFO eh_frame_hdr_size");
    body.u64(unwinding.mappedSize, "CODE_UNWINDING_INFO mapped_size");
    if (!body)
        return false;
    const JitdumpRecordKind kind = JitdumpRecordKind::unwindingInfo;
    const uint64_t fieldsAt = m_offset + kPrefixSize;
    if (unwinding.unwindDataSize > body.remaining())
        return damaged(kind, fieldsAt, "CODE_UNWINDING_INFO unwinding_size",
                       "unwinding_size " + std::to_string(unwinding.unwindDataSize) + " exceeds the " +
                           std::to_string(body.remaining()) + " bytes left in the record");
    if (unwinding.ehFrameHdrSize > unwinding.unwindDataSize)
        return damaged(kind, fieldsAt + 8, "CODE_UNWINDING_INFO eh_frame_hdr_size",
                       "eh_frame_hdr_size " + std::to_string(unwinding.ehFrameHdrSize) + " exceeds unwinding_size " +
                           std::to_string(unwinding.unwindDataSize));
    unwinding.dataOffset = body.fileOffset();
    return body.bytes(static_cast<size_t>(unwinding.unwindDataSize), unwinding.data, "CODE_UNWINDING_INFO data");
}

QUARVEL_NAMESPACE_END

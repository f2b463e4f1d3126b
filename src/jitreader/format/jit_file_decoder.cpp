#include "format/jit_file_decoder.h"

#include "support/assertion.h"
#include "support/byte_cursor.h"
#include "model/java_signature_parser.h"
#include "support/log.h"
#include "model/md5_hash_generator.h"
#include "model/module.h"
#include "model/source_file.h"
#include "support/usage_statistics.h"

#include <boost/filesystem.hpp>
#include <boost/regex.hpp>

#include <algorithm>
#include <iomanip>
#include <limits>
#include <sstream>

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

// ---------------------------------------------------------------------------
// Record bodies. Every read goes through ByteCursor; a body that is shorter
// than its counts, or carries an invalid value, is refused with one ERROR line
// that names the file, the record offset, the field and its offset in the body.

namespace quarvel_3_13 {

namespace {

// Where a record sits, appended to every refusal.
struct RecordAt {
    const std::string& path;
    u64 recordOffset;
};

RecordAt recordAt(const std::string& path, const Record& record) { return RecordAt{path, record.offset}; }

std::ostream& operator<<(std::ostream& os, const RecordAt& at) {
    return os << " (jit file: " << at.path << ", record offset " << at.recordOffset << ")";
}

// A body that ended before the field the reader was after.
bool refuseShortBody(const std::string& path, const Record& record, const ByteCursor& reader, const char* what) {
    QV_ERROR("Couldn't decode the " << what << " record: " << reader.error() << recordAt(path, record));
    return false;
}

// "<message><value>, body offset <n> (jit file: ..., record offset ...)".
template <typename T>
bool refuseValue(const std::string& path, const Record& record, const char* message, T value, size_t bodyOffset) {
    QV_ERROR(message << value << ", body offset " << bodyOffset << recordAt(path, record));
    return false;
}

// The record's bytes as hex, for the log after a refusal; long bodies are cut.
std::string rawBytes(const Record& record) {
    const size_t kShown = 256;
    std::ostringstream os;
    os << std::hex << std::setfill('0');
    const size_t n = std::min(record.data.size(), kShown);
    for (size_t i = 0; i < n; ++i)
        os << (i ? " " : "") << std::setw(2) << static_cast<unsigned>(record.data[i]);
    if (record.data.size() > kShown)
        os << " ... (" << std::dec << record.data.size() << " bytes)";
    return os.str();
}

// The descriptive tail shared by load and inline records.
struct MethodTail {
    std::string moduleName;
    uint16_t arch = 0;
    std::string methodName;
    std::string className;
    std::string sourceFile;
    uint16_t checksumType = 0;
    std::string checksum;
    uint16_t language = 0;
    uint32_t metadataToken = 0;
    // In file order: managed-to-source, native-to-managed, native-to-source.
    JitMethod::LineTable tables[3];
};

const quarvel_line_info_type kTableTypes[3] = {quarvel_line_info_managed_to_source,
                                               quarvel_line_info_native_to_managed,
                                               quarvel_line_info_native_to_source};

bool readModule(ByteCursor& r, MethodTail& tail) {
    r.countedString(tail.moduleName, "module name");
    r.u16(tail.arch, "module architecture");
    return r.ok();
}

bool readSymbolic(ByteCursor& r, MethodTail& tail) {
    static const char* const kTableNames[3] = {"managed-to-source table", "native-to-managed table",
                                               "native-to-source table"};
    const size_t kEntrySize = 12;
    r.countedString(tail.methodName, "method name");
    r.countedString(tail.className, "class name");
    r.countedString(tail.sourceFile, "source file name");
    r.u16(tail.checksumType, "checksum type");
    r.countedString(tail.checksum, "checksum");
    r.u16(tail.language, "source language");
    for (int t = 0; t < 3 && r.ok(); ++t) {
        uint16_t count = 0;
        if (!r.u16(count, kTableNames[t]))
            break;
        // The whole table must be there before anything is allocated for it.
        if (static_cast<size_t>(count) * kEntrySize > r.remaining()) {
            r.skip(static_cast<size_t>(count) * kEntrySize, kTableNames[t]);
            break;
        }
        JitMethod::LineTable& table = tail.tables[t];
        table.resize(count);
        for (quarvel_line_number_entry& e : table) {
            r.u32(e.startOffset, kTableNames[t]);
            r.u32(e.endOffset, kTableNames[t]);
            r.u32(e.value, kTableNames[t]);
        }
    }
    return r.ok();
}

// Java agents report names in the virtual machine's descriptor form; only
// those go through the descriptor parser. Names of other runtimes are already
// readable, and the parser would corrupt some of them: a .NET class "Logger"
// starts with the descriptor letter L and would come out as "ogger".
bool isJavaMethod(const MethodTail& tail) {
    const std::string& cls = tail.className;
    return tail.language == quarvel_language_java || (cls.size() >= 2 && cls.front() == 'L' && cls.back() == ';');
}

void applyNames(BaseMethodInfo& info, const MethodTail& tail) {
    const bool java = isJavaMethod(tail);
    if (!tail.className.empty())
        info.setClassName(java ? JavaSignatureParser::parseClassName(tail.className) : tail.className);
    const std::string methodName = java ? JavaSignatureParser::parseMethodName(tail.methodName) : tail.methodName;
    if (!methodName.empty())
        info.setMethodName(methodName);
}

// Line tables are keyed by the offsets of the method's code: its regions are
// consecutive in jit rva space from the method's start, so one range covers
// them all. The data manager shifts the key to jit rvas later.
bool addLineTables(JitMethod& method, const MethodTail& tail, u64 codeLength) {
    if (codeLength == 0)
        return true; // no code, nothing the tables could describe
    const Range range(0, static_cast<u32>(std::min<u64>(codeLength, std::numeric_limits<u32>::max())));
    for (int t = 0; t < 3; ++t)
        if (!tail.tables[t].empty() && !method.addLineNumberInfo(kTableTypes[t], tail.tables[t], range))
            return false;
    return true;
}

void setSourceFile(BaseMethodInfo& info, const MethodTail& tail) {
    info.setSourceFile(SourceFile(tail.sourceFile, tail.checksum, tail.checksumType, tail.language));
}

// Newer records: the module comes after the source file; Java code without a
// module gets its own name; only named files are real modules.
void setModuleAfterSource(BaseMethodInfo& info, const MethodTail& tail) {
    std::string name = tail.moduleName;
    if (name.empty() && tail.language == quarvel_language_java)
        name = kCompiledJavaCodeModule;
    const bool pseudo = name.empty() || name == kDynamicCodeModule || name == kCompiledJavaCodeModule;
    info.setModule(IModule::Ptr(new Module(name, pseudo ? meSuccess : meNotFound, static_cast<quarvel_arch>(tail.arch))));
}

} // namespace

bool JitFileDecoder::decodeMethodLoadRecordV0(const Record& record, JitMethod::Ptr& method) const {
    QV_CHECK(record.type == QUARVEL3_TRACE_JITTRACE(FunctionLoad32) ||
                 record.type == QUARVEL3_TRACE_JITTRACE(FunctionLoad64),
             return false);
    return decodeMethodLoad(record, method, LoadVersion::V0, nullptr);
}

bool JitFileDecoder::decodeMethodLoadRecordV1(const Record& record, JitMethod::Ptr& method) const {
    QV_CHECK(record.type == QUARVEL3_TRACE_JITTRACE(FunctionLoad32_v1) ||
                 record.type == QUARVEL3_TRACE_JITTRACE(FunctionLoad64_v1),
             return false);
    return decodeMethodLoad(record, method, LoadVersion::V1, nullptr);
}

bool JitFileDecoder::decodeMethodLoadRecordV2(const Record& record, JitMethod::Ptr& method) const {
    QV_CHECK(record.type == QUARVEL3_TRACE_JITTRACE(FunctionLoad32_v2) ||
                 record.type == QUARVEL3_TRACE_JITTRACE(FunctionLoad64_v2),
             return false);
    return decodeMethodLoad(record, method, LoadVersion::V2, nullptr);
}

bool JitFileDecoder::decodeMethodLoadRecordV3(const Record& record, JitMethod::Ptr& method, uint8_t* inlineFlag) {
    // Method updates (type 10) share the version 3 layout.
    QV_CHECK(record.type == QUARVEL3_TRACE_JITTRACE(FunctionLoad32_v3) ||
                 record.type == QUARVEL3_TRACE_JITTRACE(FunctionLoad64_v3) ||
                 record.type == QUARVEL3_TRACE_JITTRACE(FunctionUpdate),
             return false);
    if (decodeMethodLoad(record, method, LoadVersion::V3, inlineFlag))
        return true;
    QV_INFO("Raw JIT file data: " << rawBytes(record));
    return false;
}

// A refused record changes nothing in the decoder: the next jit rva and the
// architecture flags are committed only when the whole body was accepted.
bool JitFileDecoder::decodeMethodLoad(const Record& record, JitMethod::Ptr& method, LoadVersion version,
                                      uint8_t* inlineFlag) const {
    QV_CHECK(method, return false);
    const bool old = version == LoadVersion::V0 || version == LoadVersion::V1;
    const char* const what = "method load";

    ByteCursor r(record.data);
    u32 hashKey = 0;
    u32 rawId = 0;
    uint8_t inlined = 0;
    u64 loadTime = 0;
    uint16_t regionCount = 0;
    if (!old)
        r.u32(hashKey, "hash key");
    r.u32(rawId, "method id");
    if (version == LoadVersion::V3)
        r.u8(inlined, "inline flag");
    r.u64(loadTime, "load time");
    r.u16(regionCount, "number of code regions");
    if (!r)
        return refuseShortBody(m_path, record, r, what);

    // An inline method takes its jit rvas from its parent when it is attached.
    const bool isInline = version == LoadVersion::V3 && inlined == 1;
    jit_rva_t nextJitRva = m_nextJitRva;
    method->setStartJitRva(isInline ? 0 : nextJitRva);
    method->setRawMethodId(rawId);
    method->setLoadTime(loadTime);

    unsigned created = 0;
    unsigned empty = 0;
    u64 codeLength = 0;
    for (unsigned i = 0; i < regionCount; ++i) {
        const size_t regionOffset = r.offset();
        u64 start = 0;
        u32 size = 0;
        u32 byteCount = 0;
        const uint8_t* bytes = nullptr;
        r.u64(start, "code start address");
        r.u32(size, "code size");
        r.u32(byteCount, "number of code bytes");
        r.bytes(byteCount, bytes, "code bytes");
        if (!r)
            return refuseShortBody(m_path, record, r, what);
        if (size == 0) {
            ++empty;
            continue;
        }
        // Ranges are compared by start + length: a range that wraps would break every map keyed by it.
        if (start > std::numeric_limits<u64>::max() - size)
            return refuseValue(m_path, record, "Invalid code range: start address = ", start, regionOffset);

        IByteBuffer::Ptr content;
        if ((m_mode & dmCodeBytes) && byteCount) {
            content = IByteBuffer::create();
            content->assign(bytes, byteCount);
        }
        method->addCodeRegion(
            Region::Ptr(new Region(m_hostId, m_pid, isInline ? 0 : nextJitRva, loadTime, 0, start, size, content)));
        if (!isInline)
            nextJitRva += size;
        ++created;
        codeLength += size;
    }
    if (regionCount != 0 && created == 0) {
        QV_ERROR("The bytes of the code are not supplied" << recordAt(m_path, record));
        return false;
    }
    if (version == LoadVersion::V3 && created != regionCount - empty) {
        QV_ERROR("An empty code range is supplied" << recordAt(m_path, record));
        return false;
    }

    MethodTail tail;
    if (!readModule(r, tail))
        return refuseShortBody(m_path, record, r, what);
    // Old records may leave names, source and line tables unread.
    const bool symbolic = !(old && (m_mode & dmSkipSymbolic));
    if (symbolic && !readSymbolic(r, tail))
        return refuseShortBody(m_path, record, r, what);
    if (version == LoadVersion::V3 && r.remaining() >= 4)
        r.u32(tail.metadataToken, "metadata token");

    BaseMethodInfo& info = *method->info();
    info.setMethodToken(tail.metadataToken);
    if (old)
        info.setModule(IModule::Ptr(new Module(tail.moduleName, meNotFound, static_cast<quarvel_arch>(tail.arch))));
    if (symbolic) {
        applyNames(info, tail);
        setSourceFile(info, tail);
        if (!old)
            setModuleAfterSource(info, tail);
        if (!addLineTables(*method, tail, codeLength))
            return false;
    }

    // Versions 0 and 1 carry no hash key: their ids come from the names.
    info.setMethodId(Md5HashGenerator::getHashValue(old ? 0 : hashKey, method));

    m_nextJitRva = nextJitRva;
    if (version == LoadVersion::V3) {
        if (tail.arch == quarvel_arch_vx32)
            m_archFlag0 = true;
        if (tail.arch == quarvel_arch_varda64)
            m_archFlag1 = true;
    }
    if (inlineFlag)
        *inlineFlag = inlined;
    return true;
}

bool JitFileDecoder::decodeMethodInlineLoadRecord(const Record& record, JitMethod::Ptr& method) const {
    QV_CHECK(record.type == QUARVEL3_TRACE_JITTRACE(FunctionInlineLoad32) ||
                 record.type == QUARVEL3_TRACE_JITTRACE(FunctionInlineLoad64),
             return false);
    QV_CHECK(method, return false);
    const char* const what = "inline method load";

    ByteCursor r(record.data);
    u32 rawId = 0;
    u32 rawParentId = 0;
    r.u32(rawId, "raw method id");
    r.u32(rawParentId, "raw parent id");
    if (!r)
        return refuseShortBody(m_path, record, r, what);
    method->setRawMethodId(rawId);
    method->setRawParentId(rawParentId);
    // An inline takes its jit rvas from its parent when it is attached.
    method->setStartJitRva(0);

    size_t at = r.offset();
    u64 loadTime = 0;
    if (!r.u64(loadTime, "load time"))
        return refuseShortBody(m_path, record, r, what);
    if (loadTime == 0)
        return refuseValue(m_path, record, "Invalid load time: ", loadTime, at);
    method->setLoadTime(loadTime);

    at = r.offset();
    uint16_t regionCount = 0;
    if (!r.u16(regionCount, "number of code regions"))
        return refuseShortBody(m_path, record, r, what);
    if (regionCount != 1)
        return refuseValue(m_path, record, "Invalid number of code regions: ", regionCount, at);

    at = r.offset();
    u64 start = 0;
    if (!r.u64(start, "start address of code range"))
        return refuseShortBody(m_path, record, r, what);
    if (start == 0)
        return refuseValue(m_path, record, "Invalid start address of code range: ", start, at);

    at = r.offset();
    u32 size = 0;
    if (!r.u32(size, "size of code range"))
        return refuseShortBody(m_path, record, r, what);
    if (size == 0 || start > std::numeric_limits<u64>::max() - size)
        return refuseValue(m_path, record, "Invalid size of code range: ", size, at);

    at = r.offset();
    u32 byteCount = 0;
    if (!r.u32(byteCount, "number of code range's bytes"))
        return refuseShortBody(m_path, record, r, what);
    // No bytes is fine: an inline's code is part of its parent's.
    if (byteCount > r.remaining())
        return refuseValue(m_path, record, "Invalid number of code range's bytes: ", byteCount, at);
    const uint8_t* bytes = nullptr;
    r.bytes(byteCount, bytes, "code bytes");

    MethodTail tail;
    if (!readModule(r, tail) || !readSymbolic(r, tail))
        return refuseShortBody(m_path, record, r, what);
    if (r.remaining() >= 4)
        r.u32(tail.metadataToken, "metadata token");

    IByteBuffer::Ptr content;
    if ((m_mode & dmCodeBytes) && byteCount) {
        content = IByteBuffer::create();
        content->assign(bytes, byteCount);
    }
    method->addCodeRegion(Region::Ptr(new Region(m_hostId, m_pid, 0, loadTime, 0, start, size, content)));

    BaseMethodInfo& info = *method->info();
    info.setMethodToken(tail.metadataToken);
    applyNames(info, tail);
    setSourceFile(info, tail);
    setModuleAfterSource(info, tail);
    if (!addLineTables(*method, tail, size))
        return false;

    // Host and process of the ids come from the region, so it is added first.
    info.setMethodId(Md5HashGenerator::getHashValue(rawId, method));
    info.setParentId(Md5HashGenerator::getHashValue(rawParentId, method));
    return true;
}

bool JitFileDecoder::decodeMethodUpdateRecordV2(const Record& record, JitMethod::Ptr& method) const {
    QV_CHECK(record.type == QUARVEL3_TRACE_JITTRACE(FunctionUpdate_v2), return false);
    QV_CHECK(method, return false);
    const char* const what = "method update";

    ByteCursor r(record.data);
    u32 rawId = 0;
    if (!r.u32(rawId, "raw method id"))
        return refuseShortBody(m_path, record, r, what);

    size_t at = r.offset();
    u64 loadTime = 0;
    if (!r.u64(loadTime, "load time"))
        return refuseShortBody(m_path, record, r, what);
    if (loadTime == 0)
        return refuseValue(m_path, record, "Invalid load time: ", loadTime, at);

    at = r.offset();
    u64 start = 0;
    if (!r.u64(start, "start address of code range"))
        return refuseShortBody(m_path, record, r, what);
    if (start == 0)
        return refuseValue(m_path, record, "Invalid start address of code range: ", start, at);

    at = r.offset();
    u32 length = 0;
    if (!r.u32(length, "length of code range"))
        return refuseShortBody(m_path, record, r, what);
    if (length == 0 || start > std::numeric_limits<u64>::max() - length)
        return refuseValue(m_path, record, "Invalid length of code range: ", length, at);

    at = r.offset();
    u32 byteCount = 0;
    if (!r.u32(byteCount, "number of code range's bytes"))
        return refuseShortBody(m_path, record, r, what);
    // An update without new bytes has nothing to say.
    if (byteCount == 0 || byteCount > r.remaining())
        return refuseValue(m_path, record, "Invalid number of code range's bytes: ", byteCount, at);
    const uint8_t* bytes = nullptr;
    r.bytes(byteCount, bytes, "code bytes");
    if (!r.atEnd()) {
        QV_ERROR("Couldn't decode the " << what << " record: " << r.remaining()
                                        << " unexpected bytes after the code bytes (bytesRead = " << r.offset()
                                        << ", traceLen = " << r.size() << ")" << recordAt(m_path, record));
        return false;
    }
    QV_INFO("Update range: " << start << "-" << start + length << ", loadTime = " << loadTime);

    Region::Ptr updRegion;
    JitMethod::Ptr updMethod;
    if (!m_searchRegion ||
        m_searchRegion->findRegion(start, loadTime, m_pid, m_hostId, updRegion, updMethod) != meSuccess ||
        !updRegion || !updMethod) {
        QV_ERROR("Couldn't find a range to be updated" << recordAt(m_path, record));
        return false;
    }
    QV_CHECK(updMethod->getRawMethodId(), return false);
    QV_CHECK(updRegion->length(), return false);

    // The whole update must lie inside the region found at its start.
    const u64 offset = start - updRegion->startAddress();
    if (start < updRegion->startAddress() || offset > updRegion->length() ||
        length > updRegion->length() - offset) {
        QV_ERROR("Couldn't update the detected range (" << updRegion->startAddress() << "-"
                                                         << updRegion->endAddress()
                                                         << ") because it's size is small"
                                                         << recordAt(m_path, record));
        return false;
    }

    // A patched copy of the found region, with its jit rva: registration
    // recognises it as new bytes for code it already holds. Without kept code
    // bytes (or a region that has none) there is nothing to patch.
    Region::Ptr patched(new Region(*updRegion));
    if ((m_mode & dmCodeBytes) && updRegion->content()) {
        IByteBuffer::Ptr content = IByteBuffer::create();
        content->assign(bytes, byteCount);
        if (patched->addBytesUpdate(start, length, content, quarvel_segment_code, std::string()) != meSuccess)
            return false;
    }

    method->setRawMethodId(rawId);
    method->setLoadTime(loadTime);
    method->setStartJitRva(patched->startJitRva());
    method->addCodeRegion(patched);
    BaseMethodInfo& info = *method->info();
    // The new method is the found one with new bytes: it takes over its names, module and source.
    info = *updMethod->info();
    info.setMethodId(Md5HashGenerator::getHashValue(rawId, method));
    if (QV_TRACE_ENABLED())
        QV_TRACE("Raw JIT file data: " << rawBytes(record));
    return true;
}

bool JitFileDecoder::decodeManagedRuntimeInfo(const Record& record, JitMethod::Ptr& method) const {
    QV_CHECK(record.type == QUARVEL3_TRACE_JITTRACE(ManagedRuntimeInfo), return false);
    QV_CHECK(method, return false);
    ByteCursor r(record.data);
    JitMethod::ManagedRuntimeInfo info;
    r.u32(info.runtimeType, "runtime type");
    r.countedString(info.version, "runtime version");
    r.countedString(info.name, "runtime name");
    if (!r)
        return refuseShortBody(m_path, record, r, "managed runtime info");
    method->runtimeInfo() = std::move(info);
    return true;
}

void JitFileDecoder::reportManagedRuntimeInfo(JitMethod::ManagedRuntimeInfo info) const {
    std::string category;
    if (info.runtimeType == quarvel_runtime_java) {
        QV_TRACE("Managed runtime type is Java");
        category = "mrte.java";
        // HotSpot first: an OpenJDK build names both.
        static const struct {
            const char* mark;
            const char* suffix;
        } kVendors[] = {{"HotSpot", ".hotspot"}, {"JRockit", ".jrockit"}, {"J9", ".j9"}, {"OpenJDK", ".openjdk"}};
        const char* vendor = ".unknown";
        for (const auto& v : kVendors)
            if (info.name.find(v.mark) != std::string::npos) {
                vendor = v.suffix;
                break;
            }
        category += vendor;
        std::string digits = "unknown";
        try {
            static const boost::regex kDigits("\\d+");
            boost::smatch match;
            if (boost::regex_search(info.version, match, kDigits))
                digits = match.str();
        } catch (const std::exception& e) {
            // The category is a statistic: a failed search must not stop the reading.
            QV_TRACE("Couldn't search the runtime version: " << e.what());
        }
        category += digits;
    } else if (info.runtimeType == quarvel_runtime_python) {
        QV_TRACE("Managed runtime type is Python");
    } else {
        QV_TRACE("Managed runtime type is unknown - unable to construct mrte category to report Google Analytics");
    }
    if (category.empty())
        return;
    QV_TRACE("Report category '" << category << "' to Google Analytics");
    UsageStatistics::instance()->reportCategory(category);
}

} // namespace quarvel_3_13

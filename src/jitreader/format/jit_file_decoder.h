#ifndef QUARVEL_FORMAT_JIT_FILE_DECODER_H
#define QUARVEL_FORMAT_JIT_FILE_DECODER_H

#include "model/jit_method.h"
#include "format/record.h"
#include "model/region.h"

#include <quarvel/types.h>

#include <boost/filesystem/fstream.hpp>

#include <string>

namespace quarvel_3_13 {

typedef std::string ustring;

// Reads one trace file record by record and decodes record bodies into
// methods. Opened once, read forward once.
class JitFileDecoder : public boost::filesystem::ifstream {
public:
    // How the update decoder finds the region it patches (the data manager).
    class SearchRegionCallback {
    public:
        virtual ~SearchRegionCallback() = default;
        virtual quarvel_error_t findRegion(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId,
                                           Region::Ptr& region, JitMethod::Ptr& method) const = 0;
    };

    // An unusable file (missing, a symbolic link) leaves the stream closed;
    // the first getNextRecord reports it.
    JitFileDecoder(const ustring& path, u32_t pid, u32_t hostId, jit_rva_t jitRvaBase, decoding_mode_t mode);
    ~JitFileDecoder() override;

    JitFileDecoder(const JitFileDecoder&) = delete;
    JitFileDecoder& operator=(const JitFileDecoder&) = delete;

    // meSuccess, meEndOfData at a clean end, meBadRecord, meFileOpenError.
    quarvel_error_t getNextRecord(Record& record);

    // Body decoders: fill the caller's fresh method; false (with an ERROR
    // line) for a body they refuse.
    bool decodeMethodLoadRecordV0(const Record& record, JitMethod::Ptr& method) const;
    bool decodeMethodLoadRecordV1(const Record& record, JitMethod::Ptr& method) const;
    bool decodeMethodLoadRecordV2(const Record& record, JitMethod::Ptr& method) const;
    // inlineFlag receives the record's inline flag.
    bool decodeMethodLoadRecordV3(const Record& record, JitMethod::Ptr& method, uint8_t* inlineFlag);
    bool decodeMethodInlineLoadRecord(const Record& record, JitMethod::Ptr& method) const;
    bool decodeMethodUpdateRecordV2(const Record& record, JitMethod::Ptr& method) const;
    bool decodeManagedRuntimeInfo(const Record& record, JitMethod::Ptr& method) const;
    void reportManagedRuntimeInfo(JitMethod::ManagedRuntimeInfo info) const;

    void setSearchRegionCallback(const SearchRegionCallback* callback) { m_searchRegion = callback; }

    const std::string& path() const { return m_path; }
    u64 position() const { return m_position; }
    decoding_mode_t mode() const { return m_mode; }
    u32 hostId() const { return m_hostId; }
    u32 pid() const { return m_pid; }
    jit_rva_t nextJitRva() const { return m_nextJitRva; }
    u32 collectorType() const { return m_collectorType; }
    bool sawArchitecture0() const { return m_archFlag0; }
    bool sawArchitecture1() const { return m_archFlag1; }

private:
    enum class LoadVersion { V0, V1, V2, V3 };
    bool decodeMethodLoad(const Record& record, JitMethod::Ptr& method, LoadVersion version, uint8_t* inlineFlag) const;

    std::string m_path;
    u64 m_position = 0;
    u64 m_fileSize = 0;
    // The stream stands at m_position unless a read failed since the last seek.
    bool m_streamAtPosition = false;
    decoding_mode_t m_mode;
    u32 m_hostId;
    u32 m_pid;
    mutable jit_rva_t m_nextJitRva;
    u32 m_collectorType = 0;
    mutable bool m_archFlag0 = false;
    mutable bool m_archFlag1 = false;
    const SearchRegionCallback* m_searchRegion = nullptr;
};

} // namespace quarvel_3_13

#endif

#include "ingest/jit_file_reader.h"

#include "support/assertion.h"
#include "index/jit_data_manager.h"
#include "format/jit_file_decoder.h"
#include "support/log.h"
#include "model/module.h"
#include "format/record.h"

namespace quarvel_3_13 {

u64 JitReadStats::totalRecords() const {
    u64 total = magicRecords;
    for (u64 n : records)
        total += n;
    return total;
}

JitReadStats& JitReadStats::operator+=(const JitReadStats& other) {
    files += other.files;
    failedFiles += other.failedFiles;
    bytes += other.bytes;
    for (size_t i = 0; i < kTypeSlots; ++i)
        records[i] += other.records[i];
    magicRecords += other.magicRecords;
    refusedBodies += other.refusedBodies;
    refusedByDataManager += other.refusedByDataManager;
    architectureFiltered += other.architectureFiltered;
    ignoredUpdates += other.ignoredUpdates;
    secondTraces += other.secondTraces;
    damagedRecords += other.damagedRecords;
    return *this;
}

namespace {

// The decoder finds the region an update record patches in the data manager.
class RegionSearch : public JitFileDecoder::SearchRegionCallback {
public:
    explicit RegionSearch(const JitDataManager& data) : m_data(data) {}
    quarvel_error_t findRegion(u64 virtualAddress, u64 timestamp, u32 pid, u32 hostId, Region::Ptr& region,
                               JitMethod::Ptr& method) const override {
        return m_data.findRegion(virtualAddress, timestamp, pid, hostId, region, method);
    }

private:
    const JitDataManager& m_data;
};

} // namespace

bool JitFileReader::filteredOut(u32 type, target_arch_t arch) {
    const bool firstVariant = type == 0 || type == 1 || type == 4 || type == 6 || type == 8;
    const bool secondVariant = type == 2 || type == 3 || type == 5 || type == 7 || type == 9;
    if (arch >= taX86_64 && firstVariant)
        return true;
    if (arch != taAny && arch != taX86_64 && secondVariant)
        return true;
    return false;
}

quarvel_error_t JitFileReader::readJitFile(JitFileDecoder& decoder, target_arch_t arch, JitDataManager& dataManager) {
    // Counted locally and added at the end, so a caller's totals stay consistent.
    JitReadStats stats;
    stats.files = 1;

    dataManager.setCollectorType(ctUnknown);
    const RegionSearch regionSearch(dataManager);
    decoder.setSearchRegionCallback(&regionSearch);
    JitMethodStorage methods;
    const u32 pid = decoder.pid();
    const u32 hostId = decoder.hostId();

    quarvel_error_t status = meSuccess;
    bool done = false;
    Record record;
    while (!done) {
        status = decoder.getNextRecord(record);
        if (status == meEndOfData) {
            status = meSuccess;
            break;
        }
        if (status != meSuccess) {
            if (status == meBadRecord) {
                ++stats.damagedRecords;
                QV_ERROR("Stopped reading jit file " << decoder.path() << " at offset " << record.offset
                                                     << " because of a damaged record; the records before it are kept");
            }
            break;
        }

        if (record.type < JitReadStats::kTypeSlots)
            ++stats.records[record.type];
        else if (record.type == quarvel_jt_Magic)
            ++stats.magicRecords;

        if (record.type >= quarvel_jt_FunctionLoad32 && record.type <= quarvel_jt_FunctionLoad64_v3 &&
            filteredOut(record.type, arch)) {
            // A file of the other variant is not read further; what came before stays.
            QV_TRACE("Jit file " << decoder.path() << ": record of type " << record.type << " at offset "
                                 << record.offset << " does not match target architecture " << arch
                                 << "; the rest of the file is skipped");
            ++stats.architectureFiltered;
            break;
        }

        switch (record.type) {
        case quarvel_jt_CollectorType: {
            dataManager.setCollectorType(decoder.collectorType());
            break;
        }
        case quarvel_jt_Magic: {
            if (record.offset != 0) {
                // A second trace appended to the file is never read.
                QV_TRACE("Jit file " << decoder.path() << ": a new trace starts at offset " << record.offset
                                     << "; the rest of the file is skipped");
                ++stats.secondTraces;
                done = true;
            }
            break;
        }
        case quarvel_jt_FunctionLoad32:
        case quarvel_jt_FunctionLoad64:
        case quarvel_jt_FunctionLoad32_v1:
        case quarvel_jt_FunctionLoad64_v1:
        case quarvel_jt_FunctionLoad32_v2:
        case quarvel_jt_FunctionLoad64_v2:
        case quarvel_jt_FunctionLoad32_v3:
        case quarvel_jt_FunctionLoad64_v3: {
            JitMethod::Ptr method(new JitMethod());
            uint8_t inlineFlag = 0;
            bool decoded = false;
            switch (record.type) {
            case quarvel_jt_FunctionLoad32:
            case quarvel_jt_FunctionLoad64:
                decoded = decoder.decodeMethodLoadRecordV0(record, method);
                break;
            case quarvel_jt_FunctionLoad32_v1:
            case quarvel_jt_FunctionLoad64_v1:
                decoded = decoder.decodeMethodLoadRecordV1(record, method);
                break;
            case quarvel_jt_FunctionLoad32_v2:
            case quarvel_jt_FunctionLoad64_v2:
                decoded = decoder.decodeMethodLoadRecordV2(record, method);
                break;
            default:
                decoded = decoder.decodeMethodLoadRecordV3(record, method, &inlineFlag);
                break;
            }
            if (!decoded) {
                ++stats.refusedBodies;
                break;
            }
            if (inlineFlag == 1) {
                status = dataManager.processMethodInlineLoadRecord(pid, hostId, method).code();
            } else {
                status = dataManager.processMethodLoadRecord(pid, hostId, method).code();
                methods.push_back(method);
            }
            if (status != meSuccess) {
                ++stats.refusedByDataManager;
                QV_ERROR("Stopped reading jit file " << decoder.path() << " at offset " << record.offset
                                                     << ": the method load record was refused (status " << status
                                                     << ")");
                done = true;
            }
            break;
        }
        case quarvel_jt_FunctionUpdate: {
            JitMethod::Ptr method(new JitMethod());
            uint8_t inlineFlag = 0;
            if (!decoder.decodeMethodLoadRecordV3(record, method, &inlineFlag)) {
                ++stats.refusedBodies;
                break;
            }
            // Updates patch code bytes, which only that mode keeps.
            if (decoder.mode() != dmCodeBytes) {
                ++stats.ignoredUpdates;
                break;
            }
            if (!dataManager.processMethodUpdateRecord(pid, hostId, method).ok())
                ++stats.refusedByDataManager;
            break;
        }
        case quarvel_jt_FunctionInlineLoad32:
        case quarvel_jt_FunctionInlineLoad64: {
            JitMethod::Ptr method(new JitMethod());
            if (!decoder.decodeMethodInlineLoadRecord(record, method)) {
                ++stats.refusedBodies;
                break;
            }
            status = dataManager.processMethodInlineLoadRecord(pid, hostId, method).code();
            if (status != meSuccess) {
                ++stats.refusedByDataManager;
                QV_ERROR("Stopped reading jit file " << decoder.path() << " at offset " << record.offset
                                                     << ": the inline load record was refused (status " << status
                                                     << ")");
                done = true;
            }
            break;
        }
        case quarvel_jt_FunctionUpdate_v2: {
            JitMethod::Ptr method(new JitMethod());
            if (!decoder.decodeMethodUpdateRecordV2(record, method)) {
                QV_ERROR("Failed to decode a UPDATE_V2 record");
                ++stats.refusedBodies;
                break;
            }
            // The patched copy is registered like a new load; a refusal never ends the pass.
            if (!dataManager.processMethodLoadRecord(pid, hostId, method).ok()) {
                QV_ERROR("Failed to process a UPDATE_V2 record");
                ++stats.refusedByDataManager;
            }
            break;
        }
        case quarvel_jt_ManagedRuntimeInfo: {
            JitMethod::Ptr method(new JitMethod());
            if (!decoder.decodeManagedRuntimeInfo(record, method)) {
                ++stats.refusedBodies;
                break;
            }
            decoder.reportManagedRuntimeInfo(method->runtimeInfo());
            break;
        }
        default:
            ++stats.damagedRecords;
            QV_ERROR("Stopped reading jit file " << decoder.path() << " at offset " << record.offset
                                                 << ": unexpected record type " << record.type);
            status = meBadRecord;
            done = true;
            break;
        }
    }

    // Runs after a damaged record too: the methods read before it are kept,
    // and they should carry the same module names as in an intact file.
    if (dataManager.getCollectorType() == ctJitProfiler && decoder.sawArchitecture0() &&
        decoder.sawArchitecture1() && !methods.empty())
        patchModuleName64(methods);

    stats.bytes = decoder.position();
    if (status != meSuccess)
        stats.failedFiles = 1;
    if (m_stats)
        *m_stats += stats;
    return status;
}

void JitFileReader::patchModuleName64(JitMethodStorage& methods) {
    for (const JitMethod::Ptr& method : methods) {
        QV_CHECK(method, continue);
        const IModule::Ptr module = method->getModule();
        QV_CHECK(module, continue);
        if (module->getArchitecture() != quarvel_arch_varda64)
            continue;
        IModule::Ptr renamed(new Module(std::string(module->getFilePath()) + " (64)", module->isBogus(),
                                        module->getArchitecture()));
        method->info()->setModule(renamed);
    }
}

} // namespace quarvel_3_13

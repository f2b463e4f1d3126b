#include "ingest/jitdump_file_reader.h"

#include "format/jitdump_debug_bias.h"
#include "format/jitdump_debug_pairing.h"
#include "format/jitdump_reader.h"
#include "index/jit_data_manager.h"
#include "ingest/jitdump_line_table.h"
#include "support/log.h"
#include "support/mapped_file.h"

QUARVEL_NAMESPACE_BEGIN

namespace {

// The bias is decided by this many debug records that vote: writers put it
// on all their records or on none, so the first ones tell.
constexpr u64 kBiasVotes = 256;

quarvel_arch archOfMachine(uint32_t elfMachine) {
    const uint32_t kI386 = 3, kX86_64 = 62;
    if (elfMachine == kX86_64)
        return quarvel_arch_vx64;
    if (elfMachine == kI386)
        return quarvel_arch_vx32;
    // Code of other machines keeps its bytes; dumps do not disassemble it.
    return quarvel_arch_mcx1;
}

// One file's pass.
class DumpPass {
public:
    DumpPass(const RuntimeFileContext& file, JitdumpReader& reader, JitDataManager& data, ModuleCache& modules,
             JitReadStats& stats, AddressRanges* code)
        : m_file(file), m_reader(reader), m_data(data), m_builder(file, modules), m_stats(stats), m_code(code),
          m_bytesKeeper(MappedFile::withinKeepLimit() ? reader.mapping() : nullptr) {}

    // The debug address bias, from the first debug records and their loads.
    void decideBias(JitdumpReader scan, uint32_t elfMachine);
    // False when a cut or damaged record ended the file.
    bool run();

private:
    void load(const JitdumpRecord& record);
    void move(const JitdumpRecord& record);

    void refuse(const JitdumpRecord& record, Reason reason) {
        ++m_stats.refusedBodies;
        reason.inFile(m_file.path).at(record.offset).ofField(jitdumpRecordName(record.kind));
        QV_TRACE("Refused a record: " << reason.text());
        m_stats.addRefusal(reason);
    }
    // The data manager's own reason, placed at the record.
    void refusedByDataManager(const JitdumpRecord& record, Status status) {
        ++m_stats.refusedByDataManager;
        m_stats.addRefusal(
            status.reason().inFile(m_file.path).at(record.offset).ofField(jitdumpRecordName(record.kind)));
    }

    const RuntimeFileContext& m_file;
    JitdumpReader& m_reader;
    JitDataManager& m_data;
    RuntimeCodeBuilder m_builder;
    JitReadStats& m_stats;
    AddressRanges* m_code;
    // The mapping the code bytes are views of; null past the process's
    // limit of kept mappings, where they are copied.
    std::shared_ptr<const void> m_bytesKeeper;
    JitdumpDebugPairing m_pairing;
    u64 m_bias = 0;
};

void DumpPass::decideBias(JitdumpReader scan, uint32_t elfMachine) {
    JitdumpDebugBias bias(elfMachine);
    JitdumpDebugPairing pairing;
    JitdumpRecord record;
    while (bias.unbiasedRecords() + bias.biased64Records() + bias.biased32Records() < kBiasVotes && scan.next(record)) {
        if (record.kind == JitdumpRecordKind::debugInfo) {
            pairing.addDebugInfo(record.debugInfo);
        } else if (record.kind == JitdumpRecordKind::codeLoad) {
            if (const JitdumpDebugInfo* info = pairing.takeFor(record.load.codeAddr))
                bias.observe(*info, record.load.codeAddr, record.load.codeSize);
        }
    }
    m_bias = bias.bias();
    if (m_bias)
        QV_INFO("Jitdump " << m_file.path << ": debug entry addresses carry a bias of " << m_bias
                           << ", removed (records voting: none " << bias.unbiasedRecords() << ", 0x40 "
                           << bias.biased64Records() << ", 0x34 " << bias.biased32Records() << ")");
}

void DumpPass::load(const JitdumpRecord& record) {
    const JitdumpCodeLoad& load = record.load;
    // The load's debug record is taken whatever becomes of the load, so that
    // it never waits for a later load at the same address.
    const JitdumpDebugInfo* debug = m_file.keepLines() ? m_pairing.takeFor(load.codeAddr) : nullptr;
    // Code of a size a region can hold takes its jit rvas first, whatever
    // becomes of the rest: every decoding mode hands out the same ones.
    const std::string unplaceable = RuntimeCodeBuilder::whyUnplaceable(load.codeAddr, load.codeSize);
    jit_rva_t jitRva = 0;
    Reason overrun;
    if (load.codeSize != 0 && load.codeSize <= 0xFFFFFFFFu && !m_builder.takeJitRvas(load.codeSize, jitRva, overrun))
        return refuse(record, overrun);
    if (!unplaceable.empty())
        return refuse(record, Reason::badInput(unplaceable));

    RuntimeCode code;
    code.address = load.codeAddr;
    code.size = load.codeSize;
    code.loadTime = record.timestamp;
    code.name = load.name;
    code.bytes = load.code;
    code.bytesKeeper = m_bytesKeeper;
    if (debug) {
        JitdumpLines lines = jitdumpLines(*debug, load.codeAddr, load.codeSize, m_bias);
        code.sourceFile = lines.sourceFile;
        code.lines = std::move(lines.rows);
    }
    const JitMethod::Ptr method = m_builder.build(code, jitRva);
    Status status = m_data.processMethodLoadRecord(m_file.pid, m_file.hostId, method);
    if (!status)
        return refusedByDataManager(record, std::move(status));
    if (m_code)
        m_code->add(load.codeAddr, load.codeSize);
}

// The moved code is found where it was at the move's time. The old range
// stays live until other code is loaded there, as perf's own view of the
// process keeps it (docs/runtime-files.md says why).
void DumpPass::move(const JitdumpRecord& record) {
    const JitdumpCodeMove& move = record.move;
    const std::string unplaceable = RuntimeCodeBuilder::whyUnplaceable(move.newCodeAddr, move.codeSize);
    jit_rva_t jitRva = 0;
    Reason overrun;
    if (move.codeSize != 0 && move.codeSize <= 0xFFFFFFFFu && !m_builder.takeJitRvas(move.codeSize, jitRva, overrun))
        return refuse(record, overrun);
    if (!unplaceable.empty())
        return refuse(record, Reason::badInput(unplaceable));

    Region::Ptr region;
    JitMethod::Ptr owner;
    if (m_data.findRegion(move.oldCodeAddr, record.timestamp, m_file.pid, m_file.hostId, region, owner) != meSuccess ||
        !region || !owner || region->startAddress() != move.oldCodeAddr) {
        return refuse(record, Reason::notFound("no code starts at old_code_addr " + std::to_string(move.oldCodeAddr) +
                                               " at the move's time " + std::to_string(record.timestamp)));
    }
    if (region->length() != move.codeSize) {
        return refuse(record,
                      Reason::badInput("code_size " + std::to_string(move.codeSize) + " differs from the " +
                                       std::to_string(region->length()) + " bytes of the code at old_code_addr"));
    }
    const JitMethod::Ptr method = m_builder.moved(*owner, *region, move.newCodeAddr, record.timestamp, jitRva);
    Status status = m_data.processMethodLoadRecord(m_file.pid, m_file.hostId, method);
    if (!status)
        return refusedByDataManager(record, std::move(status));
    if (m_code)
        m_code->add(move.newCodeAddr, move.codeSize);
}

bool DumpPass::run() {
    JitdumpRecord record;
    while (m_reader.next(record)) {
        switch (record.kind) {
        case JitdumpRecordKind::codeLoad:
            ++m_stats.jitdumpCodeLoads;
            load(record);
            break;
        case JitdumpRecordKind::codeMove:
            ++m_stats.jitdumpCodeMoves;
            move(record);
            break;
        case JitdumpRecordKind::debugInfo:
            ++m_stats.jitdumpDebugInfo;
            if (m_file.keepLines())
                m_pairing.addDebugInfo(record.debugInfo);
            break;
        case JitdumpRecordKind::close:
        case JitdumpRecordKind::unwindingInfo:
        case JitdumpRecordKind::unknown:
            ++m_stats.jitdumpOtherRecords;
            break;
        }
    }
    return m_reader.stopReason() == nullptr;
}

} // namespace

quarvel_error_t JitdumpFileReader::readFile(const RuntimeFileContext& file, JitDataManager& dataManager,
                                            AddressRanges* code) {
    // Counted locally and added at the end, so a caller's totals stay consistent.
    JitReadStats stats;
    stats.files = 1;
    dataManager.setCollectorType(ctUnknown);
    quarvel_error_t status = meSuccess;

    Expected<JitdumpReader> opened = JitdumpReader::open(file.path);
    if (!opened) {
        status = refuseUnopenedFile(file, "jitdump", opened.reason(), stats);
    } else {
        JitdumpReader& reader = *opened;
        const JitdumpHeader& header = reader.header();
        if (header.archTimestamp())
            QV_INFO("Jitdump " << file.path << " times its records in raw cycle counts; they are kept as written");
        if (header.unknownFlags())
            QV_INFO("Jitdump " << file.path << " sets header flags " << header.unknownFlags() << " read as nothing");
        RuntimeFileContext context = file;
        context.arch = archOfMachine(header.elfMachine);
        DumpPass pass(context, reader, dataManager, m_modules, stats, code);
        if (context.keepLines())
            pass.decideBias(reader, header.elfMachine);
        if (!pass.run()) {
            const Reason& why = *reader.stopReason();
            ++stats.damagedRecords;
            stats.failedFiles = 1;
            stats.addRefusal(why);
            QV_ERROR("Stopped reading jitdump " << file.path << " at offset " << why.offset << ": " << why.message
                                                << "; the records before it are kept");
            status = meBadRecord;
        }
        stats.bytes = reader.completeEnd();
    }
    if (m_stats)
        *m_stats += stats;
    return status;
}

QUARVEL_NAMESPACE_END

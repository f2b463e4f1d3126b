#include "ingest/perf_map_file_reader.h"

#include "format/perf_map_reader.h"
#include "index/jit_data_manager.h"
#include "support/log.h"

QUARVEL_NAMESPACE_BEGIN

namespace {

class MapPass {
public:
    MapPass(const RuntimeFileContext& file, PerfMapReader& reader, JitDataManager& data, ModuleCache& modules,
            JitReadStats& stats, const AddressRanges* jitdumpCode)
        : m_file(file), m_reader(reader), m_data(data), m_builder(file, modules), m_stats(stats),
          m_jitdumpCode(jitdumpCode) {}

    // False when the last line was cut.
    bool run();
    // Where the lines read whole end.
    u64 completeEnd() const { return m_completeEnd; }

private:
    void entry(const PerfMapEntry& entry);

    Reason located(Reason reason, const PerfMapEntry& entry) const {
        reason.inFile(m_file.path).at(entry.offset).ofField("line " + std::to_string(entry.line));
        return reason;
    }
    void refuse(const PerfMapEntry& entry, Reason reason) {
        ++m_stats.refusedBodies;
        m_stats.addRefusal(located(std::move(reason), entry));
    }

    const RuntimeFileContext& m_file;
    PerfMapReader& m_reader;
    JitDataManager& m_data;
    RuntimeCodeBuilder m_builder;
    JitReadStats& m_stats;
    const AddressRanges* m_jitdumpCode;
    u64 m_completeEnd = 0;
};

void MapPass::entry(const PerfMapEntry& entry) {
    const std::string unplaceable = RuntimeCodeBuilder::whyUnplaceable(entry.start, entry.size);
    jit_rva_t jitRva = 0;
    Reason overrun;
    // Every line of a size a region can hold takes its jit rvas, left to a jitdump or not.
    if (entry.size != 0 && entry.size <= 0xFFFFFFFFu && !m_builder.takeJitRvas(entry.size, jitRva, overrun))
        return refuse(entry, overrun);
    if (!unplaceable.empty())
        return refuse(entry, Reason::badInput(unplaceable));
    if (m_jitdumpCode && m_jitdumpCode->overlaps(entry.start, entry.size)) {
        ++m_stats.perfMapEntriesLeftToJitdump;
        return;
    }
    RuntimeCode code;
    code.address = entry.start;
    code.size = entry.size;
    code.loadTime = entry.line;
    code.name = entry.name;
    const JitMethod::Ptr method = m_builder.build(code, jitRva);
    Status status = m_data.processMethodLoadRecord(m_file.pid, m_file.hostId, method);
    if (!status) {
        // The data manager's own reason, placed at the line.
        ++m_stats.refusedByDataManager;
        m_stats.addRefusal(located(std::move(status.reason()), entry));
    }
}

bool MapPass::run() {
    PerfMapEntry entry;
    while (m_reader.next(entry)) {
        if (m_reader.endedMidLine()) {
            const Reason cut = located(Reason::badInput("the file ends inside this line (no line end): it is left out, "
                                                        "since its size or name may be cut"),
                                       entry);
            ++m_stats.damagedRecords;
            m_stats.addRefusal(cut);
            QV_ERROR("Stopped reading perf map " << m_file.path << " at " << cut.field << " (offset " << entry.offset
                                                 << "): " << cut.message);
            m_completeEnd = entry.offset;
            return false;
        }
        ++m_stats.perfMapEntries;
        this->entry(entry);
    }
    m_completeEnd = m_reader.position();
    return true;
}

} // namespace

quarvel_error_t PerfMapFileReader::readFile(const RuntimeFileContext& file, JitDataManager& dataManager,
                                            const AddressRanges* jitdumpCode) {
    JitReadStats stats;
    stats.files = 1;
    dataManager.setCollectorType(ctUnknown);
    quarvel_error_t status = meSuccess;

    Expected<PerfMapReader> opened = PerfMapReader::open(file.path);
    if (!opened) {
        status = refuseUnopenedFile(file, "perf map", opened.reason(), stats);
    } else {
        PerfMapReader& reader = *opened;
        MapPass pass(file, reader, dataManager, m_modules, stats, jitdumpCode);
        const bool whole = pass.run();
        // Malformed lines are refused one by one: a decoder refused them.
        stats.refusedBodies += reader.malformedLines();
        for (const PerfMapProblem& problem : reader.problems())
            stats.addRefusal(problem.reason);
        stats.refusalsNotKept += reader.malformedLines() - reader.problems().size();
        if (!whole) {
            stats.failedFiles = 1;
            status = meBadRecord;
        }
        stats.bytes = pass.completeEnd();
    }
    if (m_stats)
        *m_stats += stats;
    return status;
}

QUARVEL_NAMESPACE_END

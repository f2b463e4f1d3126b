#include "ingest/jit_file_reader.h"

#include "format/jit_file_decoder.h"
#include "format/record_bodies.h"
#include "format/record_types.h"
#include "index/jit_data_manager.h"
#include "ingest/managed_runtime_info.h"
#include "model/md5_hash_generator.h"
#include "model/module.h"
#include "support/assertion.h"
#include "support/code_bytes.h"
#include "support/log.h"

#include <limits>
#include <map>
#include <sstream>

QUARVEL_NAMESPACE_BEGIN

void JitReadStats::addRefusal(const Reason& reason) {
    if (refusals.size() < kKeptRefusals)
        refusals.push_back(reason);
    else
        ++refusalsNotKept;
}

u64 JitReadStats::totalRecords() const {
    u64 total = magicRecords + jitdumpCodeLoads + jitdumpCodeMoves + jitdumpDebugInfo + jitdumpOtherRecords +
                perfMapEntries + nettraceEvents;
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
    jitdumpCodeLoads += other.jitdumpCodeLoads;
    jitdumpCodeMoves += other.jitdumpCodeMoves;
    jitdumpDebugInfo += other.jitdumpDebugInfo;
    jitdumpOtherRecords += other.jitdumpOtherRecords;
    perfMapEntries += other.perfMapEntries;
    perfMapEntriesLeftToJitdump += other.perfMapEntriesLeftToJitdump;
    nettraceEvents += other.nettraceEvents;
    nettraceCodeLoads += other.nettraceCodeLoads;
    nettraceRundownCode += other.nettraceRundownCode;
    nettraceILMaps += other.nettraceILMaps;
    nettraceUnloads += other.nettraceUnloads;
    nettraceDroppedEvents += other.nettraceDroppedEvents;
    for (const Reason& reason : other.refusals)
        addRefusal(reason);
    refusalsNotKept += other.refusalsNotKept;
    return *this;
}

namespace {

// The end of a file's jit rva range, kept below the top of the 64-bit space.
jit_rva_t rangeLimit(jit_rva_t base) {
    const jit_rva_t top = std::numeric_limits<jit_rva_t>::max();
    return base > top - JitFileReader::kJitRvaStride ? top : base + JitFileReader::kJitRvaStride;
}

// One file's pass: the record loop's state and one handler per body kind.
class FilePass {
public:
    FilePass(JitFileDecoder& decoder, JitDataManager& dataManager, ModuleCache& modules, JitReadStats& stats)
        : m_decoder(decoder), m_data(dataManager), m_builder(modules), m_stats(stats),
          m_nextJitRva(decoder.jitRvaBase()), m_jitRvaLimit(rangeLimit(decoder.jitRvaBase())) {
        m_context.hostId = decoder.hostId();
        m_context.pid = decoder.pid();
        m_context.data = &dataManager;
    }

    quarvel_error_t run(target_arch_t arch);
    JitMethodStorage& methods() { return m_methods; }
    bool sawBothArchitectures() const { return m_sawArch0 && m_sawArch1; }

private:
    void methodLoad(const Record& record, const RecordTypeInfo& info);
    void methodUpdate(const Record& record);
    void inlineLoad(const Record& record);
    void updateV2(const Record& record);
    void runtimeInfo(const Record& record);

    // The jit rvas of a load's regions, taken from the file's range in file
    // order; 0 for an empty region. False when the range is exhausted.
    bool takeJitRvas(const TraceMethodLoad& load, std::vector<jit_rva_t>& jitRvas, Reason& overrun);
    // Hands an inline method to the model once what its content decides is
    // checked: one code region, and no ids outside profiler files (there the
    // parent is found by address).
    void attachInline(const Record& record, const JitMethod::Ptr& method);
    // Code bytes as views of the file's mapping when it has one: options
    // that leave them in the record, and the buffers made from there for
    // the builder's context.
    void viewCodeBytes(BodyOptions& options);
    void takeCodeBytes(const Record& record, BuildContext& context);

    void refuseBody(const Record& record, Reason reason) {
        ++m_stats.refusedBodies;
        reason.inFile(m_decoder.path()).at(record.offset);
        m_decoder.logRefusal(reason);
        m_stats.addRefusal(reason);
    }
    // The data manager's own reason, placed at the record.
    void refusedByDataManager(const Record& record, Status status) {
        ++m_stats.refusedByDataManager;
        m_stats.addRefusal(status.reason().inFile(m_decoder.path()).at(record.offset));
    }

    JitFileDecoder& m_decoder;
    JitDataManager& m_data;
    MethodBuilder m_builder;
    JitReadStats& m_stats;
    BuildContext m_context;
    jit_rva_t m_nextJitRva;
    const jit_rva_t m_jitRvaLimit;
    JitMethodStorage m_methods; // of 64-bit modules: renamed at the end when both kinds came
    // Reused from record to record, with the storage of their strings and tables.
    TraceMethodLoad m_load;
    TraceInlineLoad m_inline;
    std::vector<jit_rva_t> m_jitRvas;
    std::vector<ByteSpan> m_codeSpans;
    std::vector<CodeView> m_codeContents;
    bool m_sawArch0 = false;
    bool m_sawArch1 = false;
};

bool FilePass::takeJitRvas(const TraceMethodLoad& load, std::vector<jit_rva_t>& jitRvas, Reason& overrun) {
    jitRvas.assign(load.regions.size(), 0);
    for (size_t i = 0; i < load.regions.size(); ++i) {
        const u32 size = load.regions[i].codeSize;
        if (size == 0)
            continue;
        if (m_jitRvaLimit - m_nextJitRva < size) {
            std::ostringstream message;
            message << "the file's jit rva range [" << m_decoder.jitRvaBase() << ", " << m_jitRvaLimit
                    << ") cannot hold a region of " << size << " bytes at " << m_nextJitRva;
            overrun = Reason::badInput(message.str());
            QV_ERROR("Jit file " << m_decoder.path() << " overruns its jit rva range: " << message.str());
            return false;
        }
        jitRvas[i] = m_nextJitRva;
        m_nextJitRva += size;
    }
    return true;
}

void FilePass::viewCodeBytes(BodyOptions& options) {
    if (options.keepCodeBytes && m_decoder.mapping())
        options.codeSpans = &m_codeSpans;
}

void FilePass::takeCodeBytes(const Record& record, BuildContext& context) {
    if (!m_decoder.mapping())
        return;
    m_codeContents.clear();
    for (const ByteSpan& span : m_codeSpans) {
        if (span.empty()) {
            m_codeContents.emplace_back();
            continue;
        }
        const ByteSpan view = m_decoder.lasting(record, span);
        const unsigned size = static_cast<unsigned>(span.size());
        if (!view.empty())
            m_codeContents.push_back(CodeView{m_decoder.mapping(), view.data(), size});
        else
            m_codeContents.push_back(CodeView::copyOf(span.data(), size));
    }
    context.codeContents = &m_codeContents;
}

void FilePass::methodLoad(const Record& record, const RecordTypeInfo& info) {
    const int version = info.loadVersion;
    const bool legacy = version <= 1;
    BodyOptions options;
    options.keepCodeBytes = (m_decoder.mode() & dmCodeBytes) != 0;
    options.keepLineTables = !(legacy && (m_decoder.mode() & dmSkipSymbolic));
    viewCodeBytes(options);
    Status decoded = decodeMethodLoadInto(record, version, m_decoder.path(), options, m_load);
    const TraceMethodLoad& load = m_load;
    const bool inlined = version >= 3 && load.inlineFlag == 1;

    // The regions read take their jit rvas before anything else is decided.
    Reason overrun;
    m_jitRvas.clear();
    const bool placed = inlined || takeJitRvas(load, m_jitRvas, overrun);
    if (!decoded)
        return refuseBody(record, decoded.reason());
    if (!placed)
        return refuseBody(record, overrun);

    BuildContext context = m_context;
    context.keepSymbolic = options.keepLineTables;
    takeCodeBytes(record, context);
    JitMethod::Ptr method = m_builder.methodLoad(load, version, m_jitRvas, context);
    if (version == 3) {
        m_sawArch0 |= load.tail.moduleArch == quarvel_arch_vx32;
        m_sawArch1 |= load.tail.moduleArch == quarvel_arch_varda64;
    }
    if (inlined)
        return attachInline(record, method);
    // A load without code regions is registered all the same: its names and
    // line tables are still the method's, it just owns no address.
    Status status = m_data.processMethodLoadRecord(m_context.pid, m_context.hostId, method);
    if (!status)
        return refusedByDataManager(record, std::move(status));
    // Only these may be renamed at the end; holding every method would cost
    // a reference count each, and releasing them a cache miss each.
    const IModule::Ptr& module = method->module();
    if (module && module->getArchitecture() == quarvel_arch_varda64)
        m_methods.push_back(method);
}

void FilePass::methodUpdate(const Record& record) {
    DecodedMethodLoad decoded = decodeMethodLoad(record, 3, m_decoder.path());
    if (!decoded.status)
        return refuseBody(record, decoded.status.reason());
    // Updates patch code bytes, which only that mode keeps.
    if (m_decoder.mode() != dmCodeBytes) {
        ++m_stats.ignoredUpdates;
        return;
    }
    // An update takes no jit rvas of its own: it patches code that has them.
    std::vector<jit_rva_t> none(decoded.load.regions.size(), 0);
    JitMethod::Ptr update = m_builder.methodLoad(decoded.load, 3, none, m_context);
    if (update->regionCount() == 0)
        return refuseBody(record, Reason::badInput("a method update carries no code range to patch"));
    Status status = m_data.processMethodUpdateRecord(m_context.pid, m_context.hostId, update);
    if (!status)
        refusedByDataManager(record, std::move(status));
}

void FilePass::inlineLoad(const Record& record) {
    BodyOptions options;
    options.keepCodeBytes = (m_decoder.mode() & dmCodeBytes) != 0;
    viewCodeBytes(options);
    Status decoded = decodeInlineLoadInto(record, m_decoder.path(), options, m_inline);
    if (!decoded)
        return refuseBody(record, decoded.reason());
    BuildContext context = m_context;
    takeCodeBytes(record, context);
    attachInline(record, m_builder.inlineLoad(m_inline, context));
}

void FilePass::attachInline(const Record& record, const JitMethod::Ptr& method) {
    if (method->regionCount() != 1)
        return refuseBody(record, Reason::badInput("an inline method has exactly one code region; this one has " +
                                                   std::to_string(method->regionCount())));
    // The inline record's decoder refuses it too; a load flagged as inline
    // comes here with whatever time its record holds.
    if (method->getLoadTime() == 0)
        return refuseBody(record, Reason::badInput("Invalid load time: 0").ofField("load time"));
    if (m_context.pid == 0)
        return refuseBody(record,
                          Reason::badInput("an inline needs the process it ran in; the file names process id 0"));
    if (m_data.getCollectorType() != ctJitProfiler && (method->getRawMethodId() || method->getRawParentId())) {
        std::ostringstream message;
        message << "in a file of collector type " << m_data.getCollectorType()
                << " an inline names its parent by address, so its ids must be 0 (method id "
                << method->getRawMethodId() << ", parent id " << method->getRawParentId() << ")";
        return refuseBody(record, Reason::badInput(message.str()));
    }
    Status status = m_data.processMethodInlineLoadRecord(m_context.pid, m_context.hostId, method);
    if (!status)
        refusedByDataManager(record, std::move(status));
}

// New bytes for a range of live code: the region live at the range's start
// at the update's time gets a patched copy, which registration recognises as
// new bytes for code it already holds (same jit rva, same addresses).
void FilePass::updateV2(const Record& record) {
    Expected<TraceUpdateV2> decoded = decodeUpdateV2(record, m_decoder.path());
    if (!decoded) {
        QV_ERROR("Failed to decode a UPDATE_V2 record");
        return refuseBody(record, decoded.reason());
    }
    const TraceUpdateV2& update = *decoded;
    QV_INFO("Update range: " << update.startAddress << "-" << update.startAddress + update.length
                             << ", loadTime = " << update.loadTime);

    Region::Ptr found;
    JitMethod::Ptr owner;
    if (m_data.findRegion(update.startAddress, update.loadTime, m_context.pid, m_context.hostId, found, owner) !=
            meSuccess ||
        !found || !owner) {
        QV_ERROR("Couldn't find a range to be updated (jit file: " << m_decoder.path() << ", record offset "
                                                                   << record.offset << ")");
        QV_ERROR("Failed to decode a UPDATE_V2 record");
        return refuseBody(record, Reason::notFound("Couldn't find a range to be updated at " +
                                                   std::to_string(update.startAddress) + ", load time " +
                                                   std::to_string(update.loadTime)));
    }
    // A load may carry raw id 0, but an update names the method it patches
    // by its raw id: code of a method without one cannot be patched.
    if (!owner->getRawMethodId()) {
        QV_ERROR("updMethod->getRawMethodId()");
        QV_ERROR("Failed to decode a UPDATE_V2 record");
        return refuseBody(record, Reason::badInput("the code at " + std::to_string(update.startAddress) +
                                                   " belongs to a method without a raw id, which an update cannot "
                                                   "patch (updMethod->getRawMethodId())"));
    }
    // Empty regions are never made.
    QV_CHECK(found->length(), return refuseBody(record, Reason::internal("the patched region is empty")));

    // The whole update must lie inside the region found at its start.
    const u64 offset = update.startAddress - found->startAddress();
    if (update.startAddress < found->startAddress() || offset > found->length() ||
        update.length > found->length() - offset) {
        std::ostringstream message;
        message << "Couldn't update the detected range (" << found->startAddress() << "-" << found->endAddress()
                << ") because it's size is small";
        QV_ERROR(message.str());
        QV_ERROR("Failed to decode a UPDATE_V2 record");
        return refuseBody(record, Reason::badInput(message.str()));
    }

    Region::Ptr patched(new Region(*found));
    // Without kept code bytes (or a region that has none) there is nothing to patch.
    if ((m_decoder.mode() & dmCodeBytes) && found->hasContent()) {
        IByteBuffer::Ptr content = IByteBuffer::create();
        content->assign(update.bytes.data(), static_cast<unsigned>(update.bytes.size()));
        if (patched->addBytesUpdate(update.startAddress, update.length, content, quarvel_segment_code, std::string()) !=
            meSuccess) {
            QV_ERROR("Failed to decode a UPDATE_V2 record");
            return refuseBody(record, Reason::badInput("the update does not fit the region's code bytes"));
        }
    }
    JitMethod::Ptr method = adoptNew(new JitMethod());
    method->setRawMethodId(update.methodId);
    method->setLoadTime(update.loadTime);
    method->setStartJitRva(patched->startJitRva());
    method->addCodeRegion(patched);
    // The new method is the found one with new bytes: names, module and source are the same.
    *method->info() = *owner->info();
    method->info()->setMethodId(Md5HashGenerator::getHashValue(update.methodId, method));
    Status status = m_data.processMethodLoadRecord(m_context.pid, m_context.hostId, method);
    if (!status) {
        QV_ERROR("Failed to process a UPDATE_V2 record");
        refusedByDataManager(record, std::move(status));
    }
}

void FilePass::runtimeInfo(const Record& record) {
    Expected<TraceRuntimeInfo> decoded = decodeRuntimeInfo(record, m_decoder.path());
    if (!decoded)
        return refuseBody(record, decoded.reason());
    reportManagedRuntimeInfo(*decoded);
}

quarvel_error_t FilePass::run(target_arch_t arch) {
    Record record;
    for (;;) {
        const quarvel_error_t status = m_decoder.getNextRecord(record);
        if (status == meEndOfData)
            return meSuccess;
        if (status != meSuccess) {
            // Broken framing: where the next record starts is unknown.
            if (status == meBadRecord)
                ++m_stats.damagedRecords;
            m_stats.addRefusal(m_decoder.lastError());
            if (status == meBadRecord)
                QV_ERROR("Stopped reading jit file " << m_decoder.path() << " at offset " << record.offset
                                                     << " because of a damaged record; the records before it are kept");
            return status;
        }
        if (record.type < JitReadStats::kTypeSlots)
            ++m_stats.records[record.type];
        else if (record.type == quarvel_jt_Magic)
            ++m_stats.magicRecords;

        const RecordTypeInfo* info = recordTypeInfo(record.type);
        QV_CHECK(info, return meBadRecord); // the decoder hands out known types only
        if (excludedByArchitecture(*info, arch)) {
            // A file of the other variant is not read further; what came before stays.
            QV_TRACE("Jit file " << m_decoder.path() << ": record of type " << record.type << " at offset "
                                 << record.offset << " does not match target architecture " << arch
                                 << "; the rest of the file is skipped");
            ++m_stats.architectureFiltered;
            return meSuccess;
        }
        switch (info->body) {
        case BodyKind::collectorType:
            m_data.setCollectorType(m_decoder.collectorType());
            break;
        case BodyKind::magic:
            if (record.offset != 0) {
                // A second trace appended to the file is never read.
                QV_TRACE("Jit file " << m_decoder.path() << ": a new trace starts at offset " << record.offset
                                     << "; the rest of the file is skipped");
                ++m_stats.secondTraces;
                return meSuccess;
            }
            break;
        case BodyKind::methodLoad:
            methodLoad(record, *info);
            break;
        case BodyKind::methodUpdate:
            methodUpdate(record);
            break;
        case BodyKind::inlineLoad:
            inlineLoad(record);
            break;
        case BodyKind::updateV2:
            updateV2(record);
            break;
        case BodyKind::runtimeInfo:
            runtimeInfo(record);
            break;
        }
    }
}

} // namespace

quarvel_error_t JitFileReader::readJitFile(JitFileDecoder& decoder, target_arch_t arch, JitDataManager& dataManager) {
    // Counted locally and added at the end, so a caller's totals stay consistent.
    JitReadStats stats;
    stats.files = 1;
    dataManager.setCollectorType(ctUnknown);

    FilePass pass(decoder, dataManager, m_modules, stats);
    const quarvel_error_t status = pass.run(arch);

    // Runs after a damaged record too: the methods read before it are kept,
    // and they carry the same module names as in an intact file.
    if (dataManager.getCollectorType() == ctJitProfiler && pass.sawBothArchitectures() && !pass.methods().empty())
        patchModuleName64(pass.methods());

    stats.bytes = decoder.position();
    if (status != meSuccess)
        stats.failedFiles = 1;
    if (m_stats)
        *m_stats += stats;
    return status;
}

void JitFileReader::patchModuleName64(JitMethodStorage& methods) {
    // Methods share module objects: each is renamed once.
    std::map<const IModule*, IModule::Ptr> renamed;
    for (const JitMethod::Ptr& method : methods) {
        QV_CHECK(method, continue);
        const IModule::Ptr module = method->getModule();
        QV_CHECK(module, continue);
        if (module->getArchitecture() != quarvel_arch_varda64)
            continue;
        IModule::Ptr& slot = renamed[module.get()];
        if (!slot)
            slot = IModule::Ptr(
                new Module(std::string(module->getFilePath()) + " (64)", module->isBogus(), module->getArchitecture()));
        method->info()->setModule(slot);
    }
}

QUARVEL_NAMESPACE_END

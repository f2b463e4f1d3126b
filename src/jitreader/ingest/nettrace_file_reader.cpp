#include "ingest/nettrace_file_reader.h"

#include "format/dotnet_runtime_event_decoder.h"
#include "format/nettrace_reader.h"
#include "index/jit_data_manager.h"
#include "ingest/dotnet_il_map_rows.h"
#include "support/log.h"

#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <map>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

namespace {

// --- the end of code's life --------------------------------------------------

// Ends the life of the code at [start, start + size) at `time`; a refusal
// (no live code there) leaves nothing to end.
void endCodeLife(JitDataManager& data, const RuntimeFileContext& file, u64 start, u32 size, u64 time) {
    (void)data.processCodeUnload(file.pid, file.hostId, start, size, time);
}

// --- events as the pass keeps them until their turn --------------------------

// What a method event says about one native code version.
struct CodeEvent {
    DotnetEventPhase phase = DotnetEventPhase::load;
    u64 methodId = 0;
    u64 moduleId = 0;
    u64 start = 0;
    u64 rejitId = 0;
    u32 size = 0;
    u32 token = 0;
    u32 flags = 0;
    std::string className; // the runtime's names; the method's with its argument list
    std::string name;
};

struct MapEvent {
    u64 methodId = 0;
    u64 rejitId = 0;
    std::vector<uint32_t> ilOffsets;
    std::vector<uint32_t> nativeOffsets;
};

struct ModuleEvent {
    DotnetEventPhase phase = DotnetEventPhase::load;
    u64 moduleId = 0;
    u64 assemblyId = 0;
    std::string path;
};

struct AssemblyEvent {
    u64 assemblyId = 0;
    u32 flags = 0;
};

struct Item {
    u64 time = 0;
    u64 order = 0; // in the file, to keep events of one time in file order
    u64 thread = 0;
    u64 offset = 0;
    std::variant<CodeEvent, MapEvent, ModuleEvent, AssemblyEvent> what;
};

// Code whose IL map may still come: the map follows its code on the same thread.
struct PendingCode {
    CodeEvent code;
    u64 time = 0;
    u64 offset = 0;
    jit_rva_t jitRva = 0;
};

struct ModuleInfo {
    IModule::Ptr module;
    bool namesFromMetadata = false; // the assembly is a file here: the resolver names its methods
    u64 assemblyId = 0;
    u64 loadTime = 0;
};

struct CodeKey {
    u64 methodId;
    u64 start;
    bool operator==(const CodeKey& other) const { return methodId == other.methodId && start == other.start; }
};
struct CodeKeyHash {
    size_t operator()(const CodeKey& k) const { return std::hash<u64>()(k.methodId * 0x9E3779B97F4A7C15ULL ^ k.start); }
};

// The text inside the last top-level parentheses of a signature
// ("instance int32  (value class X`1<wchar>,int32)").
std::string argumentsOf(const std::string& signature) {
    const size_t close = signature.rfind(')');
    if (close == std::string::npos)
        return std::string();
    int depth = 0;
    for (size_t i = close + 1; i-- > 0;) {
        if (signature[i] == ')')
            ++depth;
        else if (signature[i] == '(' && --depth == 0)
            return signature.substr(i + 1, close - i - 1);
    }
    return std::string();
}

quarvel_arch archOfPointerSize(uint32_t pointerSize) {
    return pointerSize == 4 ? quarvel_arch_vx32 : quarvel_arch_vx64;
}

// --- one file's pass ---------------------------------------------------------

class EventPass {
public:
    EventPass(const RuntimeFileContext& file, NettraceReader& reader, JitDataManager& data, ModuleCache& modules,
              JitReadStats& stats, AddressRanges* code)
        : m_file(file), m_reader(reader), m_data(data), m_modules(modules), m_builder(file, modules), m_stats(stats),
          m_code(code) {}

    // False when damage ended the file.
    bool run();

private:
    void take(const NettraceEvent& event);
    void refuse(const NettraceEvent& event, const Status& status);
    void handleWindow();
    void handle(Item& item);
    void code(const Item& item, CodeEvent& code);
    void map(const Item& item, MapEvent& map);
    void module(const Item& item, ModuleEvent& module);
    void unload(const Item& item, const CodeEvent& code);
    // Takes the jit rvas of the code (in event order, whatever the decoding
    // mode) or refuses it; false when refused.
    bool reserve(PendingCode& pending);
    void refuse(const PendingCode& pending, Reason reason);
    void place(const PendingCode& pending, const MapEvent* map);
    // Places the code still waiting for a map (loads only, or rundown code too).
    void placePending(bool loadsOnly);
    u64 rundownLoadTime(const CodeEvent& code) const;
    void touch(u64 start, u64 size, u64 time);
    u64 lastTouchOver(u64 start, u64 size) const;

    const RuntimeFileContext& m_file;
    NettraceReader& m_reader;
    JitDataManager& m_data;
    ModuleCache& m_modules;
    RuntimeCodeBuilder m_builder;
    JitReadStats& m_stats;
    AddressRanges* m_code;

    // Events between two sequence points, handled in time order.
    std::vector<Item> m_window;
    u64 m_order = 0;
    DotnetMethodEvent m_method;
    DotnetILToNativeMap m_map;
    DotnetModuleEvent m_module;
    DotnetAssemblyEvent m_assembly;

    std::unordered_map<u64, PendingCode> m_pending; // by thread
    std::unordered_map<u64, ModuleInfo> m_moduleInfo;
    std::unordered_map<u64, u32> m_assemblyFlags;
    std::unordered_set<CodeKey, CodeKeyHash> m_seen; // code whose load was placed
    // Over each start address: where code that started there ended, and
    // when code last came or went there.
    std::map<u64, std::pair<u64, u64>> m_touched;
    u64 m_largestCode = 0;
    bool m_exiting = false;
};

bool EventPass::run() {
    NettraceEvent event;
    u64 sequencePoints = 0;
    while (m_reader.next(event)) {
        // Every event before a sequence point was written before every event after it.
        if (m_reader.stats().sequencePoints != sequencePoints) {
            sequencePoints = m_reader.stats().sequencePoints;
            handleWindow();
        }
        take(event);
    }
    handleWindow();
    placePending(false);
    m_stats.nettraceEvents = m_reader.stats().events;
    m_stats.nettraceDroppedEvents = m_reader.stats().droppedEvents;
    return m_reader.damage() == nullptr;
}

void EventPass::refuse(const NettraceEvent& event, const Status& status) {
    ++m_stats.refusedBodies;
    Reason reason = status.reason();
    reason.inFile(m_file.path).at(event.payloadOffset);
    QV_TRACE("Refused an event: " << reason.text());
    m_stats.addRefusal(reason);
}

// Decodes the runtime's events of code and modules (the metadata is valid
// only until the next event) into what their turn will need.
void EventPass::take(const NettraceEvent& event) {
    if (!event.metadata)
        return;
    const DotnetEventType type = DotnetRuntimeEventDecoder::classify(*event.metadata);
    Item item;
    item.time = event.timeNs;
    item.order = m_order++;
    item.thread = event.threadId;
    item.offset = event.offset;
    switch (type.kind) {
    case DotnetEventKind::method: {
        const Status status = DotnetRuntimeEventDecoder::decodeMethod(event, type, m_method);
        if (!status)
            return refuse(event, status);
        CodeEvent code;
        code.phase = m_method.phase;
        code.methodId = m_method.methodId;
        code.moduleId = m_method.moduleId;
        code.start = m_method.startAddress;
        code.rejitId = m_method.rejitId;
        code.size = m_method.size;
        code.token = m_method.token;
        code.flags = m_method.flags;
        if (code.phase != DotnetEventPhase::unload) {
            code.className = m_method.methodNamespace;
            code.name = m_method.methodName;
            if (!m_method.methodSignature.empty())
                code.name += "(" + argumentsOf(m_method.methodSignature) + ")";
        }
        item.what = std::move(code);
        break;
    }
    case DotnetEventKind::methodILToNativeMap: {
        const Status status = DotnetRuntimeEventDecoder::decodeILToNativeMap(event, type, m_map);
        if (!status)
            return refuse(event, status);
        if (!m_file.keepLines())
            return;
        MapEvent map;
        map.methodId = m_map.methodId;
        map.rejitId = m_map.rejitId;
        map.ilOffsets.swap(m_map.ilOffsets);
        map.nativeOffsets.swap(m_map.nativeOffsets);
        item.what = std::move(map);
        break;
    }
    case DotnetEventKind::module: {
        const Status status = DotnetRuntimeEventDecoder::decodeModule(event, type, m_module);
        if (!status)
            return refuse(event, status);
        if (m_module.phase == DotnetEventPhase::unload)
            return;
        ModuleEvent module;
        module.phase = m_module.phase;
        module.moduleId = m_module.moduleId;
        module.assemblyId = m_module.assemblyId;
        module.path = m_module.ilPath;
        item.what = std::move(module);
        break;
    }
    case DotnetEventKind::assembly: {
        const Status status = DotnetRuntimeEventDecoder::decodeAssembly(event, type, m_assembly);
        if (!status)
            return refuse(event, status);
        if (m_assembly.phase == DotnetEventPhase::unload)
            return;
        item.what = AssemblyEvent{m_assembly.assemblyId, m_assembly.flags};
        break;
    }
    case DotnetEventKind::rundownComplete:
    case DotnetEventKind::other:
        return;
    }
    m_window.push_back(std::move(item));
}

void EventPass::handleWindow() {
    std::sort(m_window.begin(), m_window.end(),
              [](const Item& a, const Item& b) { return a.time != b.time ? a.time < b.time : a.order < b.order; });
    for (Item& item : m_window)
        handle(item);
    m_window.clear();
}

void EventPass::handle(Item& item) {
    if (CodeEvent* code = std::get_if<CodeEvent>(&item.what))
        return this->code(item, *code);
    if (MapEvent* map = std::get_if<MapEvent>(&item.what))
        return this->map(item, *map);
    if (ModuleEvent* module = std::get_if<ModuleEvent>(&item.what))
        return this->module(item, *module);
    const AssemblyEvent& assembly = std::get<AssemblyEvent>(item.what);
    m_assemblyFlags[assembly.assemblyId] = assembly.flags;
}

void EventPass::module(const Item& item, ModuleEvent& event) {
    const auto known = m_moduleInfo.find(event.moduleId);
    // A rundown lists modules loaded before; one seen loaded keeps its time.
    if (event.phase != DotnetEventPhase::load && known != m_moduleInfo.end() &&
        known->second.assemblyId == event.assemblyId)
        return;
    // Module ids are reused once a collectible assembly is gone: the newest load counts.
    ModuleInfo& info = m_moduleInfo[event.moduleId];
    info = ModuleInfo();
    info.assemblyId = event.assemblyId;
    info.loadTime = event.phase == DotnetEventPhase::load ? item.time : 0;
    if (!event.path.empty()) {
        info.module = m_modules.get(event.path, meNotFound, m_file.arch);
        boost::system::error_code ec;
        info.namesFromMetadata = boost::filesystem::is_regular_file(event.path, ec) && !ec;
    }
}

void EventPass::code(const Item& item, CodeEvent& code) {
    if (code.phase == DotnetEventPhase::unload)
        return unload(item, code);
    if (code.phase == DotnetEventPhase::load) {
        ++m_stats.nettraceCodeLoads;
    } else {
        placePending(true); // their maps came long before the rundown
        if (m_seen.count(CodeKey{code.methodId, code.start}))
            return; // the rundown lists code whose load was read
    }
    // The previous code of this thread has had its chance of a map.
    const auto previous = m_pending.find(item.thread);
    if (previous != m_pending.end()) {
        place(previous->second, nullptr);
        m_pending.erase(previous);
    }
    PendingCode pending;
    pending.time = code.phase == DotnetEventPhase::load ? item.time : rundownLoadTime(code);
    pending.offset = item.offset;
    pending.code = std::move(code);
    if (reserve(pending))
        m_pending.emplace(item.thread, std::move(pending));
}

void EventPass::map(const Item& item, MapEvent& map) {
    const auto matches = [&map](const PendingCode& p) {
        return p.code.methodId == map.methodId &&
               (p.code.rejitId == 0 || map.rejitId == 0 || p.code.rejitId == map.rejitId);
    };
    auto found = m_pending.find(item.thread);
    if (found == m_pending.end() || !matches(found->second))
        found = std::find_if(m_pending.begin(), m_pending.end(),
                             [&matches](const std::pair<const u64, PendingCode>& p) { return matches(p.second); });
    if (found == m_pending.end())
        return; // the map of code placed already, or of code the rundown repeats
    place(found->second, &map);
    m_pending.erase(found);
}

// Code of collectible assemblies and dynamic methods is freed while the
// process runs; other code only goes with the process, whose exit the
// runtime reports as an unload of all code.
void EventPass::unload(const Item& item, const CodeEvent& code) {
    placePending(false);
    if (m_exiting)
        return;
    bool collectible = false;
    const auto module = m_moduleInfo.find(code.moduleId);
    if (module != m_moduleInfo.end()) {
        const auto assembly = m_assemblyFlags.find(module->second.assemblyId);
        collectible = assembly != m_assemblyFlags.end() && (assembly->second & DotnetAssemblyEvent::collectible);
    }
    if (!(code.flags & DotnetMethodEvent::dynamic) && !collectible) {
        m_exiting = true;
        QV_INFO("Event trace " << m_file.path << ": the process began to exit at " << item.time
                               << " (an unload of code that is never freed); later unloads are passed over");
        return;
    }
    if (RuntimeCodeBuilder::whyUnplaceable(code.start, code.size).empty()) {
        endCodeLife(m_data, m_file, code.start, code.size, item.time);
        touch(code.start, code.size, item.time);
        ++m_stats.nettraceUnloads;
    }
}

// In time order, so that the model is filled alike whatever the hash order.
void EventPass::placePending(bool loadsOnly) {
    std::vector<const PendingCode*> waiting;
    for (const auto& entry : m_pending)
        if (!loadsOnly || entry.second.code.phase == DotnetEventPhase::load)
            waiting.push_back(&entry.second);
    if (waiting.empty())
        return;
    std::sort(waiting.begin(), waiting.end(), [](const PendingCode* a, const PendingCode* b) {
        return a->time != b->time ? a->time < b->time : a->offset < b->offset;
    });
    for (const PendingCode* pending : waiting)
        place(*pending, nullptr);
    for (auto it = m_pending.begin(); it != m_pending.end();)
        it = !loadsOnly || it->second.code.phase == DotnetEventPhase::load ? m_pending.erase(it) : std::next(it);
}

void EventPass::refuse(const PendingCode& pending, Reason reason) {
    ++m_stats.refusedBodies;
    reason.inFile(m_file.path).at(pending.offset).ofField("method event");
    QV_TRACE("Refused an event: " << reason.text());
    m_stats.addRefusal(reason);
}

bool EventPass::reserve(PendingCode& pending) {
    const CodeEvent& event = pending.code;
    Reason overrun;
    if (event.size != 0 && !m_builder.takeJitRvas(event.size, pending.jitRva, overrun)) {
        refuse(pending, overrun);
        return false;
    }
    const std::string unplaceable = RuntimeCodeBuilder::whyUnplaceable(event.start, event.size);
    if (!unplaceable.empty()) {
        refuse(pending, Reason::badInput(unplaceable));
        return false;
    }
    return true;
}

void EventPass::place(const PendingCode& pending, const MapEvent* map) {
    const CodeEvent& event = pending.code;
    RuntimeCode code;
    code.address = event.start;
    code.size = event.size;
    code.loadTime = pending.time;
    code.metadataToken = event.token;
    const auto module = m_moduleInfo.find(event.moduleId);
    if (module != m_moduleInfo.end())
        code.module = module->second.module;
    // Names from the assembly's metadata when the resolver can read it,
    // else as the runtime gave them.
    if (event.token == 0 || module == m_moduleInfo.end() || !module->second.namesFromMetadata) {
        code.className = event.className;
        code.name = event.name;
    }
    if (map) {
        code.nativeToManaged = dotnetNativeToILRows(map->ilOffsets, map->nativeOffsets, event.size);
        ++m_stats.nettraceILMaps;
    }
    const JitMethod::Ptr method = m_builder.build(code, pending.jitRva);
    Status status = m_data.processMethodLoadRecord(m_file.pid, m_file.hostId, method);
    if (!status) {
        ++m_stats.refusedByDataManager;
        return m_stats.addRefusal(status.reason().inFile(m_file.path).at(pending.offset).ofField("method event"));
    }
    if (event.phase != DotnetEventPhase::load)
        ++m_stats.nettraceRundownCode;
    m_seen.insert(CodeKey{event.methodId, event.start});
    if (m_code)
        m_code->add(event.start, event.size);
    touch(event.start, event.size, pending.time);
}

// Code the rundown lists without a load read: precompiled code lives from
// its assembly's load; code compiled unseen, from the last time other code
// came or went where it lies (from the start when none did).
u64 EventPass::rundownLoadTime(const CodeEvent& code) const {
    if (!(code.flags & DotnetMethodEvent::jitted)) {
        const auto module = m_moduleInfo.find(code.moduleId);
        return module == m_moduleInfo.end() ? 0 : module->second.loadTime;
    }
    const u64 last = lastTouchOver(code.start, code.size);
    return last == 0 ? 0 : last + 1;
}

void EventPass::touch(u64 start, u64 size, u64 time) {
    std::pair<u64, u64>& t = m_touched[start];
    t.first = std::max(t.first, start + size);
    t.second = std::max(t.second, time);
    m_largestCode = std::max(m_largestCode, size);
}

u64 EventPass::lastTouchOver(u64 start, u64 size) const {
    u64 last = 0;
    const u64 end = start + size;
    for (auto it = m_touched.lower_bound(start - std::min(start, m_largestCode));
         it != m_touched.end() && it->first < end; ++it)
        if (it->second.first > start)
            last = std::max(last, it->second.second);
    return last;
}

} // namespace

quarvel_error_t NettraceFileReader::readFile(const RuntimeFileContext& file, JitDataManager& dataManager,
                                             AddressRanges* code) {
    // Counted locally and added at the end, so a caller's totals stay consistent.
    JitReadStats stats;
    stats.files = 1;
    dataManager.setCollectorType(ctUnknown);
    quarvel_error_t status = meSuccess;

    Expected<std::unique_ptr<NettraceReader>> opened = NettraceReader::open(file.path);
    if (!opened) {
        status = refuseUnopenedFile(file, "event trace", opened.reason(), stats);
    } else {
        NettraceReader& reader = **opened;
        RuntimeFileContext context = file;
        if (reader.readHeader())
            context.arch = archOfPointerSize(reader.info().pointerSize);
        EventPass pass(context, reader, dataManager, m_modules, stats, code);
        if (!pass.run()) {
            const Reason& why = *reader.damage();
            ++stats.damagedRecords;
            stats.failedFiles = 1;
            stats.addRefusal(why);
            QV_ERROR("Stopped reading event trace " << file.path << ": " << why.text()
                                                    << "; the events before it are kept");
            status = meBadRecord;
            stats.bytes = why.offset == Reason::kNoOffset ? 0 : std::min<u64>(why.offset, reader.size());
        } else {
            stats.bytes = reader.size();
        }
        if (stats.nettraceDroppedEvents)
            QV_INFO("Event trace " << file.path << ": the runtime dropped " << stats.nettraceDroppedEvents
                                   << " events (its buffers were full); code they described is missing");
    }
    if (m_stats)
        *m_stats += stats;
    return status;
}

QUARVEL_NAMESPACE_END

// A HotSpot JVMTI agent that writes the JIT trace of one JVM process:
//   java -agentpath:/path/libquarvel_jvmti.so=dir=<dir> ...
// Every compiled method, inlined instance and code blob becomes a record of
// <dir>/<hostname>.<pid>.jit.

#include "agent_options.h"
#include "code_history.h"
#include "code_map.h"

#include <quarvel/jittrace_writer.h>

#include <jvmti.h>
#include <jvmticmlr.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>
#include <x86intrin.h>

namespace qv = quarvel;

namespace quarvel_jvmti {
namespace {

constexpr const char* kPrefix = "quarvel-jvmti: ";

// Memory that JVMTI allocated for us, given back when the holder goes.
template <typename T>
class JvmtiBuffer {
public:
    explicit JvmtiBuffer(jvmtiEnv* jvmti) : m_jvmti(jvmti) {}
    ~JvmtiBuffer() {
        if (m_ptr)
            m_jvmti->Deallocate(reinterpret_cast<unsigned char*>(m_ptr));
    }
    JvmtiBuffer(const JvmtiBuffer&) = delete;
    JvmtiBuffer& operator=(const JvmtiBuffer&) = delete;
    T** out() { return &m_ptr; }
    T* get() const { return m_ptr; }

private:
    jvmtiEnv* m_jvmti;
    T* m_ptr = nullptr;
};

std::string text(const char* s) {
    return s ? std::string(s) : std::string();
}

struct MethodInfo {
    std::string name;       // name and signature: sumRange(II)J
    std::string className;  // class signature: LHot;
    std::string sourceFile; // Hot.java
    std::vector<quarvel_line_number_entry> bciToLine;
};

MethodInfo describe(jvmtiEnv* jvmti, jmethodID method) {
    MethodInfo info;
    if (!method)
        return info;
    {
        JvmtiBuffer<char> name(jvmti), signature(jvmti);
        if (jvmti->GetMethodName(method, name.out(), signature.out(), nullptr) == JVMTI_ERROR_NONE)
            info.name = text(name.get()) + text(signature.get());
    }
    jclass owner = nullptr;
    if (jvmti->GetMethodDeclaringClass(method, &owner) == JVMTI_ERROR_NONE && owner) {
        JvmtiBuffer<char> signature(jvmti);
        if (jvmti->GetClassSignature(owner, signature.out(), nullptr) == JVMTI_ERROR_NONE)
            info.className = text(signature.get());
        // ABSENT_INFORMATION for classes built without it and for lambda proxies.
        JvmtiBuffer<char> source(jvmti);
        if (jvmti->GetSourceFileName(owner, source.out()) == JVMTI_ERROR_NONE)
            info.sourceFile = text(source.get());
    }
    MethodLines lines;
    jint count = 0;
    JvmtiBuffer<jvmtiLineNumberEntry> table(jvmti);
    if (jvmti->GetLineNumberTable(method, &count, table.out()) == JVMTI_ERROR_NONE && table.get()) {
        for (jint i = 0; i < count; ++i) {
            const jvmtiLineNumberEntry& e = table.get()[i];
            if (e.start_location >= 0 && e.start_location <= INT32_MAX)
                lines.entries.emplace_back(static_cast<int32_t>(e.start_location), e.line_number);
        }
    }
    jlocation first = 0, last = 0;
    if (jvmti->GetMethodLocation(method, &first, &last) == JVMTI_ERROR_NONE && last >= 0 && last < INT32_MAX)
        lines.bytecodeLength = static_cast<uint32_t>(last + 1);
    info.bciToLine = managedToSource(lines);
    return info;
}

struct PendingBlob {
    std::string name;
    uint64_t address;
    uint32_t size;
};

class Agent {
public:
    explicit Agent(AgentOptions o) : options(std::move(o)), startTime(now()), history(startTime) {}

    uint64_t now() const {
        if (options.clock == ClockKind::tsc)
            return __rdtsc();
        timespec ts{};
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
    }

    // The stamp of code loaded at [start, start + size) whose event arrives now.
    uint64_t stampLoad(uint64_t start, uint64_t size) {
        const uint64_t arrived = now();
        const uint64_t stamp = history.load(start, size, arrived);
        return options.stamps == StampKind::event ? arrived : stamp;
    }

    uint32_t takeId() {
        if (nextId == 0)
            nextId = 1;
        return nextId++;
    }

    void writeFailed() {
        if (!writeErrorReported)
            std::fprintf(stderr, "%s%s: %s\n", kPrefix, path.c_str(), writer.errorText().c_str());
        writeErrorReported = true;
    }

    const AgentOptions options;
    const uint64_t startTime;
    jvmtiEnv* jvmti = nullptr;
    std::mutex mutex;
    // Set once the file is open, cleared at VMDeath; callbacks check it under the mutex.
    bool active = false;
    bool runtimeInfoWritten = false;
    bool writeErrorReported = false;
    std::vector<PendingBlob> pendingBlobs;
    qv::JitTraceWriter writer;
    std::string path;
    CodeHistory history;
    uint32_t nextId = 1;

    unsigned long methods = 0, methodsWithInlines = 0, inlines = 0, blobs = 0, replays = 0, unloads = 0;
};

// Never freed: a callback can still be running after VMDeath returned.
Agent* g_agent = nullptr;

qv::TraceCodeRegion codeRegion(uint64_t address, uint32_t size) {
    qv::TraceCodeRegion region;
    region.startAddress = address;
    region.codeSize = size;
    const auto* bytes = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(address));
    region.bytes.assign(bytes, bytes + size);
    return region;
}

qv::TraceMethodTail javaTail(const MethodInfo& info, const std::vector<quarvel_line_number_entry>& nativeToManaged) {
    qv::TraceMethodTail tail;
    tail.moduleArch = quarvel_arch_vx64;
    tail.methodName = info.name;
    tail.className = info.className;
    tail.sourceFile = info.sourceFile;
    tail.language = quarvel_language_java;
    tail.lines.managedToSource = info.bciToLine;
    tail.lines.nativeToManaged = nativeToManaged;
    tail.lines.nativeToSource = nativeToSource(nativeToManaged, info.bciToLine);
    return tail;
}

std::vector<PcInfo> pcRecords(const void* compileInfo) {
    std::vector<PcInfo> pcs;
    for (auto* header = static_cast<const jvmtiCompiledMethodLoadRecordHeader*>(compileInfo); header;
         header = header->next) {
        if (header->kind != JVMTI_CMLR_INLINE_INFO)
            continue;
        const auto* record = reinterpret_cast<const jvmtiCompiledMethodLoadInlineRecord*>(header);
        if (!record->pcinfo || record->numpcs <= 0)
            continue;
        pcs.reserve(pcs.size() + static_cast<size_t>(record->numpcs));
        for (jint i = 0; i < record->numpcs; ++i) {
            const PCStackInfo& p = record->pcinfo[i];
            PcInfo info;
            info.pc = reinterpret_cast<uintptr_t>(p.pc);
            if (p.numstackframes > 0 && p.methods && p.bcis)
                for (jint f = p.numstackframes - 1; f >= 0; --f)
                    info.frames.push_back({reinterpret_cast<MethodKey>(p.methods[f]), p.bcis[f]});
            pcs.push_back(std::move(info));
        }
    }
    return pcs;
}

void writeCompiledMethod(Agent& a, jmethodID method, uint64_t start, uint32_t size, const jvmtiAddrLocationMap* map,
                         jint mapLength, const void* compileInfo) {
    if (a.history.isLive(start, size)) {
        ++a.replays; // GenerateEvents sends every live nmethod again
        return;
    }
    const uint64_t stamp = a.stampLoad(start, size);

    std::vector<PcInfo> pcs = pcRecords(compileInfo);
    CodeMap codeMap;
    if (!pcs.empty()) {
        codeMap = buildCodeMap(start, size, std::move(pcs));
    } else if (map && mapLength > 0) {
        std::vector<std::pair<uint64_t, int32_t>> locations;
        for (jint i = 0; i < mapLength; ++i)
            if (map[i].location >= 0 && map[i].location <= INT32_MAX)
                locations.emplace_back(reinterpret_cast<uintptr_t>(map[i].start_address),
                                       static_cast<int32_t>(map[i].location));
        codeMap = buildCodeMapFromLocations(start, size, reinterpret_cast<MethodKey>(method), locations);
    }

    std::unordered_map<MethodKey, MethodInfo> infos;
    auto infoOf = [&](MethodKey key) -> const MethodInfo& {
        auto it = infos.find(key);
        if (it == infos.end())
            it = infos.emplace(key, describe(a.jvmti, reinterpret_cast<jmethodID>(key))).first;
        return it->second;
    };

    qv::TraceMethodLoad load;
    load.methodId = a.takeId();
    load.hashKey = load.methodId; // the reader finds inline parents by this id
    load.loadTime = stamp;
    load.regions.push_back(codeRegion(start, size));
    load.tail = javaTail(infoOf(reinterpret_cast<MethodKey>(method)), codeMap.nativeToManaged);
    if (!a.writer.writeMethodLoad(3, true, load)) {
        a.writeFailed();
        return;
    }
    ++a.methods;
    if (!a.options.inlines || codeMap.inlines.empty())
        return;
    ++a.methodsWithInlines;
    std::vector<uint32_t> ids(codeMap.inlines.size());
    for (size_t i = 0; i < codeMap.inlines.size(); ++i) {
        const InlineInstance& inst = codeMap.inlines[i];
        qv::TraceInlineLoad record;
        record.methodId = ids[i] = a.takeId();
        record.parentId = inst.parent == InlineInstance::kTopLevel ? load.methodId : ids[inst.parent];
        record.loadTime = stamp;
        record.region.startAddress = start + inst.start;
        record.region.codeSize = inst.end - inst.start;
        record.tail = javaTail(infoOf(inst.method), inst.nativeToManaged);
        if (!a.writer.writeInlineLoad(true, record)) {
            a.writeFailed();
            return;
        }
        ++a.inlines;
    }
}

void writeBlob(Agent& a, const std::string& name, uint64_t address, uint32_t size) {
    if (a.history.isLive(address, size)) {
        ++a.replays;
        return;
    }
    qv::TraceMethodLoad load;
    load.methodId = a.takeId();
    load.hashKey = load.methodId;
    load.loadTime = a.stampLoad(address, size);
    load.regions.push_back(codeRegion(address, size));
    load.tail.moduleArch = quarvel_arch_vx64;
    load.tail.methodName = name;
    load.tail.language = quarvel_language_unknown; // lands in "[Dynamic code]"
    if (!a.writer.writeMethodLoad(3, true, load)) {
        a.writeFailed();
        return;
    }
    ++a.blobs;
}

std::string property(jvmtiEnv* jvmti, const char* name) {
    JvmtiBuffer<char> value(jvmti);
    if (jvmti->GetSystemProperty(name, value.out()) != JVMTI_ERROR_NONE)
        return std::string();
    return text(value.get());
}

// The runtime record comes third, after the magic and the collector type; blobs
// generated before the VM could tell its version wait for it.
void writeRuntimeInfo(Agent& a) {
    if (a.runtimeInfoWritten)
        return;
    qv::TraceRuntimeInfo info;
    info.runtimeType = quarvel_runtime_java;
    info.version = property(a.jvmti, "java.version");
    if (info.version.empty())
        info.version = property(a.jvmti, "java.vm.version");
    info.name = property(a.jvmti, "java.vm.name");
    if (!a.writer.writeRuntimeInfo(info))
        a.writeFailed();
    a.runtimeInfoWritten = true;
    for (const PendingBlob& blob : a.pendingBlobs)
        writeBlob(a, blob.name, blob.address, blob.size);
    a.pendingBlobs.clear();
    a.pendingBlobs.shrink_to_fit();
}

void JNICALL onCompiledMethodLoad(jvmtiEnv*, jmethodID method, jint codeSize, const void* codeAddr, jint mapLength,
                                  const jvmtiAddrLocationMap* map, const void* compileInfo) {
    Agent* a = g_agent;
    if (!a || !codeAddr || codeSize <= 0)
        return;
    try {
        std::lock_guard<std::mutex> lock(a->mutex);
        if (!a->active)
            return;
        writeCompiledMethod(*a, method, reinterpret_cast<uintptr_t>(codeAddr), static_cast<uint32_t>(codeSize), map,
                            mapLength, compileInfo);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%scompiled method load dropped: %s\n", kPrefix, e.what());
    }
}

void JNICALL onCompiledMethodUnload(jvmtiEnv*, jmethodID, const void* codeAddr) {
    Agent* a = g_agent;
    if (!a || !codeAddr)
        return;
    try {
        std::lock_guard<std::mutex> lock(a->mutex);
        if (!a->active)
            return;
        // Keyed by address: the method id is usually dead by now.
        if (a->history.unload(reinterpret_cast<uintptr_t>(codeAddr), a->now()))
            ++a->unloads;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%scompiled method unload dropped: %s\n", kPrefix, e.what());
    }
}

void JNICALL onDynamicCodeGenerated(jvmtiEnv*, const char* name, const void* address, jint length) {
    Agent* a = g_agent;
    if (!a || !address || length <= 0 || !a->options.stubs)
        return;
    try {
        std::lock_guard<std::mutex> lock(a->mutex);
        if (!a->active)
            return;
        const auto start = reinterpret_cast<uintptr_t>(address);
        if (!a->runtimeInfoWritten)
            a->pendingBlobs.push_back({text(name), start, static_cast<uint32_t>(length)});
        else
            writeBlob(*a, text(name), start, static_cast<uint32_t>(length));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%scode blob dropped: %s\n", kPrefix, e.what());
    }
}

// Code generated before the events were live comes again from GenerateEvents.
// Runs without the mutex held: the replayed events arrive on this thread.
void replayExistingCode(Agent& a) {
    {
        std::lock_guard<std::mutex> lock(a.mutex);
        if (!a.active)
            return;
        writeRuntimeInfo(a);
    }
    jvmtiError err = a.jvmti->GenerateEvents(JVMTI_EVENT_DYNAMIC_CODE_GENERATED);
    if (err != JVMTI_ERROR_NONE)
        std::fprintf(stderr, "%sGenerateEvents(DynamicCodeGenerated) failed: %d\n", kPrefix, err);
    err = a.jvmti->GenerateEvents(JVMTI_EVENT_COMPILED_METHOD_LOAD);
    if (err != JVMTI_ERROR_NONE)
        std::fprintf(stderr, "%sGenerateEvents(CompiledMethodLoad) failed: %d\n", kPrefix, err);
}

void JNICALL onVMInit(jvmtiEnv*, JNIEnv*, jthread) {
    if (Agent* a = g_agent) {
        try {
            replayExistingCode(*a);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "%s%s\n", kPrefix, e.what());
        }
    }
}

void JNICALL onVMDeath(jvmtiEnv*, JNIEnv*) {
    Agent* a = g_agent;
    if (!a)
        return;
    // Load events wait in a queue of the VM's service thread, and the ones still
    // there now are never delivered. The VM is still live during this callback:
    // replaying what is loaded writes the code compiled in the last moments.
    try {
        const jvmtiError err = a->jvmti->GenerateEvents(JVMTI_EVENT_COMPILED_METHOD_LOAD);
        if (err != JVMTI_ERROR_NONE && a->options.verbose)
            std::fprintf(stderr, "%sGenerateEvents(CompiledMethodLoad) at exit failed: %d\n", kPrefix, err);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s%s\n", kPrefix, e.what());
    }
    std::lock_guard<std::mutex> lock(a->mutex);
    if (!a->active)
        return;
    a->active = false;
    a->writer.close();
    if (a->options.verbose)
        std::fprintf(stderr,
                     "%s%s: %lu compiled methods (%lu with inlined code, %lu inlined instances), %lu code blobs, "
                     "%lu unloads, %lu replayed events skipped\n",
                     kPrefix, a->path.c_str(), a->methods, a->methodsWithInlines, a->inlines, a->blobs, a->unloads,
                     a->replays);
}

bool makeDirectories(const std::string& dir) {
    std::string partial;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = dir.find('/', pos + 1);
        partial = dir.substr(0, pos);
        if (partial.empty())
            continue;
        if (::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    }
    struct stat st {};
    return ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string hostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof(name) - 1) != 0 || name[0] == '\0')
        return "localhost";
    return name;
}

jint start(JavaVM* vm, const char* optionText, bool attached) {
    if (g_agent) {
        std::fprintf(stderr, "%salready loaded; ignoring the second load\n", kPrefix);
        return JNI_OK;
    }
    AgentOptions options = parseAgentOptions(optionText);
    for (const std::string& problem : options.problems)
        std::fprintf(stderr, "%s%s\n", kPrefix, problem.c_str());

    jvmtiEnv* jvmti = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&jvmti), JVMTI_VERSION_1_2) != JNI_OK || !jvmti) {
        std::fprintf(stderr, "%sno JVMTI environment; not profiling\n", kPrefix);
        return JNI_OK;
    }
    jvmtiCapabilities potential{};
    jvmti->GetPotentialCapabilities(&potential);
    if (!potential.can_generate_compiled_method_load_events) {
        std::fprintf(stderr, "%sthis VM sends no compiled method events; not profiling\n", kPrefix);
        return JNI_OK;
    }
    jvmtiCapabilities wanted{};
    wanted.can_generate_compiled_method_load_events = 1;
    wanted.can_get_line_numbers = potential.can_get_line_numbers;
    wanted.can_get_source_file_name = potential.can_get_source_file_name;
    if (jvmti->AddCapabilities(&wanted) != JVMTI_ERROR_NONE) {
        std::fprintf(stderr, "%scannot add the capabilities; not profiling\n", kPrefix);
        return JNI_OK;
    }

    auto* a = new Agent(std::move(options));
    a->jvmti = jvmti;
    if (!makeDirectories(a->options.dir)) {
        std::fprintf(stderr, "%scannot create directory %s: %s; not profiling\n", kPrefix, a->options.dir.c_str(),
                     std::strerror(errno));
        delete a;
        return JNI_OK;
    }
    a->path = a->options.dir + "/" + hostName() + "." + std::to_string(::getpid()) + ".jit";
    if (!a->writer.open(a->path) || !a->writer.writeMagic() || !a->writer.writeCollectorType(qv::ctJitProfiler)) {
        std::fprintf(stderr, "%s%s; not profiling\n", kPrefix, a->writer.errorText().c_str());
        delete a;
        return JNI_OK;
    }
    a->active = true;
    g_agent = a;

    jvmtiEventCallbacks callbacks{};
    callbacks.VMInit = onVMInit;
    callbacks.VMDeath = onVMDeath;
    callbacks.CompiledMethodLoad = onCompiledMethodLoad;
    callbacks.CompiledMethodUnload = onCompiledMethodUnload;
    callbacks.DynamicCodeGenerated = onDynamicCodeGenerated;
    if (jvmti->SetEventCallbacks(&callbacks, sizeof(callbacks)) != JVMTI_ERROR_NONE) {
        std::fprintf(stderr, "%scannot set the event callbacks; not profiling\n", kPrefix);
        return JNI_OK;
    }
    const jvmtiEvent events[] = {JVMTI_EVENT_VM_INIT, JVMTI_EVENT_VM_DEATH, JVMTI_EVENT_COMPILED_METHOD_LOAD,
                                 JVMTI_EVENT_COMPILED_METHOD_UNLOAD, JVMTI_EVENT_DYNAMIC_CODE_GENERATED};
    for (jvmtiEvent event : events)
        if (jvmti->SetEventNotificationMode(JVMTI_ENABLE, event, nullptr) != JVMTI_ERROR_NONE)
            std::fprintf(stderr, "%scannot enable event %d\n", kPrefix, static_cast<int>(event));
    if (attached)
        replayExistingCode(*a); // no VMInit comes for an agent attached to a running VM
    return JNI_OK;
}

} // namespace
} // namespace quarvel_jvmti

extern "C" {

JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void*) {
    try {
        return quarvel_jvmti::start(vm, options, false);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s%s; not profiling\n", quarvel_jvmti::kPrefix, e.what());
        return JNI_OK;
    }
}

JNIEXPORT jint JNICALL Agent_OnAttach(JavaVM* vm, char* options, void*) {
    try {
        return quarvel_jvmti::start(vm, options, true);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s%s; not profiling\n", quarvel_jvmti::kPrefix, e.what());
        return JNI_OK;
    }
}

JNIEXPORT void JNICALL Agent_OnUnload(JavaVM*) {}

} // extern "C"

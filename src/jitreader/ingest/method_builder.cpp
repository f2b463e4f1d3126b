#include "ingest/method_builder.h"

#include "index/jit_data_manager.h"

#include "model/java_signature_parser.h"
#include "model/module.h"
#include "model/source_file.h"

#include <algorithm>
#include <limits>

QUARVEL_NAMESPACE_BEGIN

namespace {

// Java agents report names in the virtual machine's descriptor form; only
// those go through the descriptor parser. Names of other runtimes are already
// readable, and the parser would corrupt some of them: a .NET class "Logger"
// starts with the descriptor letter L and would come out as "ogger".
bool isJavaMethod(const TraceMethodTail& tail) {
    const std::string& cls = tail.className;
    return tail.language == quarvel_language_java || (cls.size() >= 2 && cls.front() == 'L' && cls.back() == ';');
}

// Line tables are keyed by offsets from the method's first byte: its regions
// are consecutive in jit rva space, so one range covers them all. The data
// manager shifts the key to jit rvas when it registers the method.
void addLineTables(JitMethod& method, const TraceMethodTail& tail, u64 codeLength) {
    if (codeLength == 0)
        return; // no code the tables could describe
    const Range range(0, static_cast<u32>(std::min<u64>(codeLength, std::numeric_limits<u32>::max())));
    LineTables::Span tables[LineTables::kTypes];
    tables[quarvel_line_info_managed_to_source] = {tail.lines.managedToSource.data(),
                                                   tail.lines.managedToSource.size()};
    tables[quarvel_line_info_native_to_managed] = {tail.lines.nativeToManaged.data(),
                                                   tail.lines.nativeToManaged.size()};
    tables[quarvel_line_info_native_to_source] = {tail.lines.nativeToSource.data(), tail.lines.nativeToSource.size()};
    if (!tables[0].empty() || !tables[1].empty() || !tables[2].empty())
        method.addLineNumberInfo(range, tables);
}

} // namespace

const IModule::Ptr& ModuleCache::get(std::string_view path, quarvel_error_t status, quarvel_arch arch) {
    if (m_lastModule && m_lastStatus == status && m_lastArch == arch && m_lastPath == path)
        return m_lastModule;
    IModule::Ptr& slot = m_modules[std::make_tuple(std::string(path), status, static_cast<int>(arch))];
    if (!slot)
        slot = adoptNew(new Module(std::string(path), status, arch));
    m_lastModule = slot;
    m_lastPath.assign(path.data(), path.size());
    m_lastStatus = status;
    m_lastArch = arch;
    return m_lastModule;
}

namespace {

bool sameSourceFile(const SourceFile& file, std::string_view name, std::string_view checksum, unsigned checksumType,
                    unsigned language) {
    return file.getChecksumType() == checksumType && file.getLanguageType() == language && file.name() == name &&
           checksum == file.getChecksum();
}

} // namespace

size_t ModuleCache::sourceFileHash(std::string_view name, std::string_view checksum, unsigned checksumType,
                                   unsigned language) {
    return std::hash<std::string_view>()(name) ^ (std::hash<std::string_view>()(checksum) << 1) ^
           (size_t(checksumType) << 8) ^ (size_t(language) << 16);
}

void ModuleCache::prefetchSourceFileSlot(size_t hash) const {
    if (!m_sourceFileSlots.empty())
        __builtin_prefetch(&m_sourceFileSlots[hash & (m_sourceFileSlots.size() - 1)]);
}

const ModuleCache::SourceFileSlot* ModuleCache::slotAtHome(size_t hash) const {
    if (m_sourceFileSlots.empty())
        return nullptr;
    const SourceFileSlot& slot = m_sourceFileSlots[hash & (m_sourceFileSlots.size() - 1)];
    return slot.file && slot.hash == hash ? &slot : nullptr;
}

void ModuleCache::prefetchSourceFileObject(size_t hash) const {
    if (const SourceFileSlot* slot = slotAtHome(hash)) {
        const char* object = reinterpret_cast<const char*>(slot->file);
        __builtin_prefetch(object);
        __builtin_prefetch(object + sizeof(SourceFile) - 1);
        __builtin_prefetch(slot->name);
        __builtin_prefetch(slot->checksum);
    }
}

const SourceFile::Ptr& ModuleCache::sourceFile(std::string_view name, std::string_view checksum, unsigned checksumType,
                                               unsigned language, size_t hash) {
    if (m_lastSourceFile && sameSourceFile(*m_lastSourceFile, name, checksum, checksumType, language))
        return m_lastSourceFile;
    if ((m_sourceFileObjects.size() + 1) * 4 > m_sourceFileSlots.size() * 3)
        growSourceFiles();
    const size_t mask = m_sourceFileSlots.size() - 1;
    size_t i = hash & mask;
    for (; m_sourceFileSlots[i].file; i = (i + 1) & mask) {
        const SourceFileSlot& slot = m_sourceFileSlots[i];
        if (slot.hash == hash && sameSourceFile(*slot.file, name, checksum, checksumType, language)) {
            m_lastSourceFile = SourceFile::Ptr(slot.file);
            return m_lastSourceFile;
        }
    }
    m_lastSourceFile = adoptNew(new SourceFile(std::string(name), std::string(checksum), checksumType, language));
    m_sourceFileObjects.push_back(m_lastSourceFile);
    m_sourceFileSlots[i] = SourceFileSlot{hash, m_lastSourceFile.get(), m_lastSourceFile->getSourceFileName(),
                                          m_lastSourceFile->getChecksum()};
    return m_lastSourceFile;
}

void ModuleCache::growSourceFiles() {
    std::vector<SourceFileSlot> slots(std::max<size_t>(64, m_sourceFileSlots.size() * 2));
    const size_t mask = slots.size() - 1;
    for (const SourceFileSlot& slot : m_sourceFileSlots) {
        if (!slot.file)
            continue;
        size_t i = slot.hash & mask;
        while (slots[i].file)
            i = (i + 1) & mask;
        slots[i] = slot;
    }
    m_sourceFileSlots.swap(slots);
}

// The class name comes converted (ClassNameCache). A method name that is not
// mangled is written after it into the reused buffer, Java's common names
// without the parser's temporaries; the method's own block is the one copy.
void MethodBuilder::applyNames(BaseMethodInfo& info, const TraceMethodTail& tail) {
    const bool java = isJavaMethod(tail);
    const std::string& className = m_classNames.stored(tail.className, java);
    const std::string& written = tail.methodName;
    if (written.empty() || BaseMethodInfo::mayBeMangled(written)) {
        info.setClassAndMethodName(className, java ? JavaSignatureParser::parseMethodName(written) : written);
        return;
    }
    // A new method has no class name to keep: the qualified name starts with this one.
    std::string& qualified = m_qualifiedName;
    qualified = className;
    if (!className.empty())
        qualified += "::";
    if (!java)
        BaseMethodInfo::appendJoined(written, qualified);
    else if (!JavaSignatureParser::appendJoinedMethodName(written, qualified))
        BaseMethodInfo::appendJoined(JavaSignatureParser::parseMethodName(written), qualified);
    info.setQualifiedNames(className, qualified);
}

size_t MethodBuilder::startSourceFile(const TraceMethodTail& tail, const BuildContext& context) const {
    if (!context.keepSymbolic)
        return 0;
    const size_t hash = ModuleCache::sourceFileHash(tail.sourceFile, tail.checksum, tail.checksumType, tail.language);
    m_modules.prefetchSourceFileSlot(hash);
    return hash;
}

void MethodBuilder::applyIdentity(JitMethod& method, const TraceMethodTail& tail, bool legacy, size_t fileHash,
                                  const BuildContext& context) {
    BaseMethodInfo& info = *method.info();
    const quarvel_arch arch = static_cast<quarvel_arch>(tail.moduleArch);
    info.setMethodToken(tail.metadataToken);
    if (context.keepSymbolic) // the slot came meanwhile; the file object comes while the names are built
        m_modules.prefetchSourceFileObject(fileHash);
    // The module first: taking its reference is an atomic operation, which
    // would wait for the stores that write the names to fresh memory.
    if (legacy) {
        // The old layouts name modules that are never real files.
        info.setModule(m_modules.get(tail.moduleName, meNotFound, arch));
    } else {
        // Newer layouts: Java code without a module gets its own name; only
        // named files are real modules.
        std::string_view name = tail.moduleName;
        if (name.empty() && tail.language == quarvel_language_java)
            name = kCompiledJavaCodeModule;
        const bool pseudo = name.empty() || name == kDynamicCodeModule || name == kCompiledJavaCodeModule;
        info.setModule(m_modules.get(name, pseudo ? meSuccess : meNotFound, arch));
    }
    applyNames(info, tail);
}

void MethodBuilder::applySymbolic(JitMethod& method, const TraceMethodTail& tail, size_t fileHash,
                                  const BuildContext& context, u64 codeLength) {
    if (!context.keepSymbolic)
        return;
    method.info()->shareSourceFile(
        m_modules.sourceFile(tail.sourceFile, tail.checksum, tail.checksumType, tail.language, fileHash));
    addLineTables(method, tail, codeLength);
}

JitMethod::Ptr MethodBuilder::methodLoad(const TraceMethodLoad& load, int version,
                                         const std::vector<jit_rva_t>& regionJitRvas, const BuildContext& context) {
    const size_t fileHash = startSourceFile(load.tail, context);
    JitMethod::Ptr method = adoptNew(new JitMethod());
    const bool inlined = version >= 3 && load.inlineFlag == 1;
    method->setRawMethodId(load.methodId);
    method->setLoadTime(load.loadTime);
    u64 codeLength = 0;
    jit_rva_t start = 0;
    method->reserveRegions(load.regions.size());
    for (size_t i = 0; i < load.regions.size(); ++i) {
        const TraceCodeRegion& r = load.regions[i];
        if (r.codeSize == 0)
            continue;
        IByteBuffer::Ptr content;
        if (!r.bytes.empty()) {
            content = IByteBuffer::create();
            content->assign(r.bytes.data(), static_cast<unsigned>(r.bytes.size()));
        }
        const jit_rva_t jitRva = inlined || i >= regionJitRvas.size() ? 0 : regionJitRvas[i];
        if (!start)
            start = jitRva;
        method->addCodeRegion(adoptNew(
            new Region(context.hostId, context.pid, jitRva, load.loadTime, 0, r.startAddress, r.codeSize, content)));
        codeLength += r.codeSize;
    }
    method->setStartJitRva(start);
    applyIdentity(*method, load.tail, version <= 1, fileHash, context);
    // Versions 0 and 1 carry no hash key: their ids come from the names.
    const BaseMethodId id = m_ids.get(version <= 1 ? 0 : load.hashKey, method);
    method->info()->setMethodId(id);
    // The registry looks the id up first thing; its table misses the cache.
    if (context.data)
        context.data->prefetchMethod(id);
    applySymbolic(*method, load.tail, fileHash, context, codeLength);
    return method;
}

JitMethod::Ptr MethodBuilder::inlineLoad(const TraceInlineLoad& load, const BuildContext& context) {
    BuildContext full = context;
    full.keepSymbolic = true; // inline records have no old layout to skip
    const size_t fileHash = startSourceFile(load.tail, full);
    JitMethod::Ptr method = adoptNew(new JitMethod());
    method->setRawMethodId(load.methodId);
    method->setRawParentId(load.parentId);
    method->setLoadTime(load.loadTime);
    // An inline takes its jit rvas from its parent when it is attached.
    method->setStartJitRva(0);
    IByteBuffer::Ptr content;
    if (!load.region.bytes.empty()) {
        content = IByteBuffer::create();
        content->assign(load.region.bytes.data(), static_cast<unsigned>(load.region.bytes.size()));
    }
    method->addCodeRegion(adoptNew(new Region(context.hostId, context.pid, 0, load.loadTime, 0,
                                              load.region.startAddress, load.region.codeSize, content)));
    applyIdentity(*method, load.tail, false, fileHash, full);
    // Host and process of the ids come from the region, so it is added first.
    // The parent's id first: it was most likely hashed for the load just
    // read, and the inline's own id may take its place in the cache.
    const BaseMethodId parentId = m_ids.get(load.parentId, method);
    method->info()->setParentId(parentId);
    const BaseMethodId ownId = m_ids.get(load.methodId, method);
    method->info()->setMethodId(ownId);
    if (context.data)
        context.data->prefetchInline(parentId, ownId); // attaching looks both ids up
    applySymbolic(*method, load.tail, fileHash, full, load.region.codeSize);
    return method;
}

QUARVEL_NAMESPACE_END

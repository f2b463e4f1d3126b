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

// The texts of the files a reading pass meets, in blocks of this size (a
// longer pair gets a block of its own).
constexpr size_t kTextBlock = size_t(64) << 10;
// References an object hands out before the cache takes more, at most. The
// batches start at one and double: an object named by one method costs the one
// increment it always did, one named by thousands a touch of its object per
// this many.
constexpr u32 kLargestBatch = 64;

// Region i's code bytes: what the reader made for it (a view of the file, or
// a copy) when it made them, else a copy of the record's.
CodeView takeContent(const BuildContext& context, size_t i, const std::vector<uint8_t>& bytes) {
    if (context.codeContents)
        return i < context.codeContents->size() ? std::move((*context.codeContents)[i]) : CodeView();
    if (bytes.empty())
        return CodeView();
    return CodeView::copyOf(bytes.data(), static_cast<unsigned>(bytes.size()));
}

} // namespace

void ModuleCache::LentReferences::take(const BaseObject& object) {
    if (unlent == 0) {
        for (u32 i = 0; i < nextBatch; ++i)
            object.addRef();
        unlent = nextBatch;
        nextBatch = std::min(nextBatch * 2, kLargestBatch);
    }
    --unlent;
}

void ModuleCache::LentReferences::giveBack(const BaseObject& object) noexcept {
    for (; unlent > 0; --unlent)
        object.release();
}

ModuleCache::~ModuleCache() {
    if (m_lentModule)
        m_moduleReferences.giveBack(*m_lentModule);
    for (SourceFileSlot& slot : m_sourceFileSlots)
        if (slot.file)
            slot.references.giveBack(*slot.file);
}

size_t ModuleCache::sourceFileHash(std::string_view name, std::string_view checksum, unsigned checksumType,
                                   unsigned language) {
    // Most files have no checksum: its hash is not worth a call.
    const size_t checksumHash = checksum.empty() ? 0 : std::hash<std::string_view>()(checksum);
    return std::hash<std::string_view>()(name) ^ (checksumHash << 1) ^ (size_t(checksumType) << 8) ^
           (size_t(language) << 16);
}

bool ModuleCache::holds(const SourceFileSlot& slot, size_t hash, std::string_view name, std::string_view checksum,
                        unsigned checksumType, unsigned language) {
    if (slot.hash != hash || slot.checksumType != checksumType || slot.language != language ||
        slot.nameLength != name.size() || slot.checksumLength != checksum.size())
        return false;
    // The head first: all of the texts when they are short.
    const size_t headName = std::min(name.size(), kHeadBytes);
    const size_t headChecksum = std::min(checksum.size(), kHeadBytes - headName);
    if (name.compare(0, headName, slot.head, headName) != 0 ||
        checksum.compare(0, headChecksum, slot.head + headName, headChecksum) != 0)
        return false;
    return name.size() + checksum.size() <= kHeadBytes ||
           (name.substr(headName) == std::string_view(slot.texts + headName, name.size() - headName) &&
            checksum.substr(headChecksum) ==
                std::string_view(slot.texts + name.size() + headChecksum, checksum.size() - headChecksum));
}

void ModuleCache::prefetchSourceFileSlot(size_t hash) const {
    if (!m_sourceFileSlots.empty())
        __builtin_prefetch(&m_sourceFileSlots[hash & (m_sourceFileSlots.size() - 1)]);
}

const ModuleCache::SourceFileSlot* ModuleCache::slotAtHome(size_t hash) const {
    if (m_sourceFileSlots.empty())
        return nullptr;
    const SourceFileSlot& slot = m_sourceFileSlots[hash & (m_sourceFileSlots.size() - 1)];
    return slot.texts && slot.hash == hash ? &slot : nullptr;
}

void ModuleCache::prefetchSourceFileTexts(size_t hash) const {
    const SourceFileSlot* const slot = slotAtHome(hash);
    if (slot && slot->nameLength + slot->checksumLength > kHeadBytes) { // shorter ones compare in the slot
        __builtin_prefetch(slot->texts);
        __builtin_prefetch(slot->texts + slot->nameLength + slot->checksumLength);
    }
}

IModule::Ptr ModuleCache::lendModule(std::string_view path, quarvel_error_t status, quarvel_arch arch) {
    const IModule::Ptr& module = get(path, status, arch);
    if (module.get() != m_lentModule) {
        if (m_lentModule)
            m_moduleReferences.giveBack(*m_lentModule);
        m_lentModule = module.get();
        m_moduleReferences = LentReferences();
    }
    m_moduleReferences.take(*m_lentModule);
    return IModule::Ptr(m_lentModule, false); // a reference taken in the batch
}

SourceFile::Ptr ModuleCache::lend(SourceFileSlot& slot) {
    slot.references.take(*slot.file);
    return SourceFile::Ptr(slot.file, false); // a reference taken in the batch
}

const char* ModuleCache::keepTexts(std::string_view name, std::string_view checksum) {
    const size_t bytes = name.size() + checksum.size() + 1; // never empty: an empty slot's texts are null
    if (bytes > m_textLeft) {
        const size_t size = std::max(bytes, kTextBlock);
        m_textBlocks.emplace_back(new char[size]);
        m_textNext = m_textBlocks.back().get();
        m_textLeft = size;
    }
    char* const texts = m_textNext;
    std::copy(checksum.begin(), checksum.end(), std::copy(name.begin(), name.end(), texts));
    m_textNext += bytes;
    m_textLeft -= bytes;
    return texts;
}

SourceFile::Ptr ModuleCache::sourceFile(std::string_view name, std::string_view checksum, unsigned checksumType,
                                        unsigned language, size_t hash) {
    if (m_lastSlot != kNoSlot && holds(m_sourceFileSlots[m_lastSlot], hash, name, checksum, checksumType, language))
        return lend(m_sourceFileSlots[m_lastSlot]);
    if (name.size() > UINT32_MAX || checksum.size() > UINT32_MAX) // no slot can describe it: not shared
        return adoptNew(new SourceFile(std::string(name), std::string(checksum), checksumType, language));
    if ((m_sourceFiles.size() + 1) * 4 > m_sourceFileSlots.size() * 3)
        growSourceFiles();
    const size_t mask = m_sourceFileSlots.size() - 1;
    size_t i = hash & mask;
    for (; m_sourceFileSlots[i].texts; i = (i + 1) & mask) {
        if (holds(m_sourceFileSlots[i], hash, name, checksum, checksumType, language)) {
            m_lastSlot = i;
            return lend(m_sourceFileSlots[i]);
        }
    }
    m_sourceFiles.push_back(adoptNew(new SourceFile(std::string(name), std::string(checksum), checksumType, language)));
    SourceFileSlot& slot = m_sourceFileSlots[i];
    slot.texts = keepTexts(name, checksum);
    std::copy_n(slot.texts, std::min(name.size() + checksum.size(), kHeadBytes), slot.head);
    slot.hash = hash;
    slot.file = m_sourceFiles.back().get();
    slot.nameLength = static_cast<u32>(name.size());
    slot.checksumLength = static_cast<u32>(checksum.size());
    slot.checksumType = checksumType;
    slot.language = language;
    m_lastSlot = i;
    return lend(slot);
}

void ModuleCache::growSourceFiles() {
    std::vector<SourceFileSlot> slots(std::max<size_t>(64, m_sourceFileSlots.size() * 2));
    const size_t mask = slots.size() - 1;
    for (const SourceFileSlot& slot : m_sourceFileSlots) {
        if (!slot.texts)
            continue;
        size_t i = slot.hash & mask;
        while (slots[i].texts)
            i = (i + 1) & mask;
        if (m_lastSlot == static_cast<size_t>(&slot - m_sourceFileSlots.data()))
            m_lastSlot = i;
        slots[i] = slot;
    }
    m_sourceFileSlots.swap(slots);
}

// The class name comes converted (ClassNameCache). A method name that is not
// mangled is written after it into the reused buffer, Java's common names
// without the parser's temporaries; the method's own block is the one copy.
void MethodBuilder::applyNames(BaseMethodInfo& info, const TraceMethodTail& tail) {
    const bool java = isJavaMethod(tail);
    const std::string& written = tail.methodName;
    const bool mangled = written.empty() || BaseMethodInfo::mayBeMangled(written);
    if (java && !mangled && applyJoinedJavaNames(info, tail.className, written))
        return;
    const std::string& className = m_classNames.stored(tail.className, java);
    if (mangled) {
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

// The common Java names, class and method joined in one pass into a reused
// buffer that the method's block copies: no string is made on the way.
bool MethodBuilder::applyJoinedJavaNames(BaseMethodInfo& info, std::string_view className,
                                         std::string_view methodName) {
    const size_t room = JavaSignatureParser::joinedClassNameRoom(className.size()) + 2 +
                        JavaSignatureParser::joinedMethodNameRoom(methodName.size());
    if (m_joinedNames.size() < room)
        m_joinedNames.resize(room);
    char* const first = m_joinedNames.data();
    char* at = JavaSignatureParser::putJoinedClassName(className, first);
    if (!at)
        return false;
    const size_t classLength = static_cast<size_t>(at - first);
    if (classLength) {
        *at++ = ':';
        *at++ = ':';
    }
    const char* const end = JavaSignatureParser::putJoinedMethodName(methodName, at);
    if (!end)
        return false;
    info.setQualifiedNames(std::string_view(first, classLength),
                           std::string_view(first, static_cast<size_t>(end - first)));
    return true;
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
    if (context.keepSymbolic) // the slot came meanwhile; the texts come while the names are built
        m_modules.prefetchSourceFileTexts(fileHash);
    // The module first: when the cache takes a batch of references, the
    // atomic operations would otherwise wait for the stores that write the
    // names to fresh memory.
    if (legacy) {
        // The old layouts name modules that are never real files.
        info.setModule(m_modules.lendModule(tail.moduleName, meNotFound, arch));
    } else {
        // Newer layouts: Java code without a module gets its own name; only
        // named files are real modules.
        std::string_view name = tail.moduleName;
        if (name.empty() && tail.language == quarvel_language_java)
            name = kCompiledJavaCodeModule;
        const bool pseudo = name.empty() || name == kDynamicCodeModule || name == kCompiledJavaCodeModule;
        info.setModule(m_modules.lendModule(name, pseudo ? meSuccess : meNotFound, arch));
    }
    applyNames(info, tail);
}

void MethodBuilder::applySymbolic(JitMethod& method, const TraceMethodTail& tail, size_t fileHash,
                                  const BuildContext& context, u64 codeLength) {
    if (!context.keepSymbolic)
        return;
    SourceFile::Ptr file =
        m_modules.sourceFile(tail.sourceFile, tail.checksum, tail.checksumType, tail.language, fileHash);
    if (context.data) // registering the method looks the file up among the shared ones
        context.data->prefetchSourceFile(file.get());
    method.info()->shareSourceFile(std::move(file));
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
        CodeView content = takeContent(context, i, r.bytes);
        const jit_rva_t jitRva = inlined || i >= regionJitRvas.size() ? 0 : regionJitRvas[i];
        if (!start)
            start = jitRva;
        method->addCodeRegion(adoptNew(new Region(context.hostId, context.pid, jitRva, load.loadTime, 0, r.startAddress,
                                                  r.codeSize, std::move(content))));
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
    method->addCodeRegion(
        adoptNew(new Region(context.hostId, context.pid, 0, load.loadTime, 0, load.region.startAddress,
                            load.region.codeSize, takeContent(context, 0, load.region.bytes))));
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

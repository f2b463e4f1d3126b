#include "index/method_registry.h"

#include "model/module.h"

#include <atomic>
#include <cstring>
#include <string_view>

QUARVEL_NAMESPACE_BEGIN

namespace {

// An id's 64-bit first half folded to 32 bits: what a slot keeps of it to
// tell ids apart without reading their methods, and what places it.
u32 tagOf(u64 part0) {
    return static_cast<u32>(part0 ^ (part0 >> 32));
}

size_t slotOf(u32 tag, size_t mask) {
    // Ids are digests or mixed already; the multiply spreads ids made in tests.
    return static_cast<size_t>((tag ^ (tag >> 15)) * 0x2C1B3C6Du) & mask;
}

bool sameModule(const IModule& a, const IModule& b) {
    const char* pa = a.getFilePath();
    const char* pb = b.getFilePath();
    return a.isBogus() == b.isBogus() && a.getArchitecture() == b.getArchitecture() &&
           std::strcmp(pa ? pa : "", pb ? pb : "") == 0;
}

bool sameSourceFile(const SourceFile& a, const SourceFile& b) {
    return a.getChecksumType() == b.getChecksumType() && a.getLanguageType() == b.getLanguageType() &&
           a.name() == b.name() && std::strcmp(a.getChecksum(), b.getChecksum()) == 0;
}

} // namespace

u32 MethodRegistry::find(const BaseMethodId& id) const {
    if (m_ids.empty())
        return kNone;
    const size_t mask = m_ids.size() - 1;
    const u32 tag = tagOf(id.part0);
    for (size_t i = slotOf(tag, mask);; i = (i + 1) & mask) {
        const IdSlot& slot = m_ids[i];
        if (slot.index == kNone)
            return kNone;
        if (slot.tag == tag && m_methods[slot.index]->getMethodId() == id)
            return slot.index;
    }
}

void MethodRegistry::grow() {
    BulkVector<IdSlot> old;
    old.swap(m_ids);
    m_ids.assign(old.empty() ? 64 : old.size() * 2, IdSlot{0, kNone});
    const size_t mask = m_ids.size() - 1;
    for (const IdSlot& slot : old) {
        if (slot.index == kNone)
            continue;
        size_t i = slotOf(slot.tag, mask);
        while (m_ids[i].index != kNone)
            i = (i + 1) & mask;
        m_ids[i] = slot;
    }
}

void MethodRegistry::add(const JitMethod::Ptr& method, u32 pid, u32 hostId) {
    if ((m_methods.size() + 1) * 4 > m_ids.size() * 3)
        grow();
    const u32 index = static_cast<u32>(m_methods.size());
    m_methods.push_back(method);
    m_spaces.push_back(static_cast<u64>(hostId) << 32 | pid);
    const u32 tag = tagOf(method->getMethodId().part0);
    const size_t mask = m_ids.size() - 1;
    size_t i = slotOf(tag, mask);
    while (m_ids[i].index != kNone)
        i = (i + 1) & mask;
    m_ids[i] = IdSlot{tag, index};
}

size_t MethodRegistry::ModuleHash::operator()(const IModule::Ptr& m) const {
    const char* path = m->getFilePath();
    return std::hash<std::string_view>()(path ? path : "") ^ (static_cast<size_t>(m->getArchitecture()) << 1);
}

bool MethodRegistry::SameModule::operator()(const IModule::Ptr& a, const IModule::Ptr& b) const {
    return sameModule(*a, *b);
}

size_t MethodRegistry::SourceFileHash::operator()(const SourceFile::Ptr& f) const {
    return std::hash<std::string_view>()(f->name()) ^ (std::hash<std::string_view>()(f->getChecksum()) << 1);
}

bool MethodRegistry::SameSourceFile::operator()(const SourceFile::Ptr& a, const SourceFile::Ptr& b) const {
    return sameSourceFile(*a, *b);
}

void MethodRegistry::internModule(JitMethod& method) {
    const IModule::Ptr& module = method.info()->module();
    if (!module)
        return;
    if (m_lastModule && (module == m_lastModule || sameModule(*module, *m_lastModule))) {
        if (module != m_lastModule)
            method.info()->setModule(m_lastModule);
        return;
    }
    const IModule::Ptr shared = *m_modules.insert(module).first;
    if (shared != module)
        method.info()->setModule(shared);
    m_lastModule = shared;
}

void MethodRegistry::internShared(JitMethod& method) {
    internModule(method);
    internSourceFile(method);
}

u64 MethodRegistry::nextOwner() {
    static std::atomic<u64> last{0};
    return ++last;
}

void MethodRegistry::internSourceFile(JitMethod& method) {
    const SourceFile::Ptr& file = method.info()->sharedSourceFile();
    if (!file || file->sharedBy(m_owner))
        return; // the reading pass shares the files it made: most are kept here already
    if (m_lastSourceFile && (file == m_lastSourceFile || sameSourceFile(*file, *m_lastSourceFile))) {
        if (file != m_lastSourceFile)
            method.info()->shareSourceFile(m_lastSourceFile);
        return;
    }
    const SourceFile::Ptr shared = *m_sourceFiles.insert(file).first;
    shared->markSharedBy(m_owner);
    if (shared != file)
        method.info()->shareSourceFile(shared);
    m_lastSourceFile = shared;
}

void MethodRegistry::internNewModules() {
    for (; m_modulesInterned < m_methods.size(); ++m_modulesInterned)
        internModule(*m_methods[m_modulesInterned]);
}

JitMethod* MethodRegistry::findByModule(const std::string& modulePath, u32 rawId) {
    for (; m_symbolsIndexed < m_methods.size(); ++m_symbolsIndexed) {
        const u32 index = static_cast<u32>(m_symbolsIndexed);
        const JitMethod& method = *m_methods[index];
        const IModule::Ptr module = method.getModule();
        const std::string path = module && module->getFilePath() ? module->getFilePath() : "";
        const u32 pathId = m_paths.emplace(path, static_cast<u32>(m_paths.size())).first->second;
        const u64 key = static_cast<u64>(pathId) << 32 | method.getRawMethodId();
        const auto inserted = m_symbols.emplace(key, index);
        // The lowest address space wins; in one space the first registered.
        if (!inserted.second && m_spaces[index] < m_spaces[inserted.first->second])
            inserted.first->second = index;
    }
    const auto path = m_paths.find(modulePath);
    if (path == m_paths.end())
        return nullptr;
    const auto found = m_symbols.find(static_cast<u64>(path->second) << 32 | rawId);
    return found == m_symbols.end() ? nullptr : m_methods[found->second].get();
}

QUARVEL_NAMESPACE_END

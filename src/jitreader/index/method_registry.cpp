#include "index/method_registry.h"

#include "model/module.h"

#include <cstring>

namespace quarvel_3_13 {

namespace {

size_t slotOf(u64 part0, size_t mask) {
    // Ids are MD5 digests: their bits are spread already.
    return static_cast<size_t>(part0 ^ (part0 >> 29)) & mask;
}

std::string moduleKey(const IModule& module) {
    std::string key(module.getFilePath() ? module.getFilePath() : "");
    key += '\0';
    key += std::to_string(module.isBogus());
    key += '/';
    key += std::to_string(static_cast<int>(module.getArchitecture()));
    return key;
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
    for (size_t i = slotOf(id.part0, mask);; i = (i + 1) & mask) {
        const IdSlot& slot = m_ids[i];
        if (slot.index == kNone)
            return kNone;
        if (slot.part0 == id.part0 && m_methods[slot.index]->getMethodId() == id)
            return slot.index;
    }
}

void MethodRegistry::grow() {
    std::vector<IdSlot> old;
    old.swap(m_ids);
    m_ids.assign(old.empty() ? 64 : old.size() * 2, IdSlot{0, kNone});
    const size_t mask = m_ids.size() - 1;
    for (const IdSlot& slot : old) {
        if (slot.index == kNone)
            continue;
        size_t i = slotOf(slot.part0, mask);
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
    const u64 part0 = method->getMethodId().part0;
    const size_t mask = m_ids.size() - 1;
    size_t i = slotOf(part0, mask);
    while (m_ids[i].index != kNone)
        i = (i + 1) & mask;
    m_ids[i] = IdSlot{part0, index};
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
    std::string key = moduleKey(*module);
    const auto found = m_modules.find(key);
    if (found != m_modules.end()) {
        method.info()->setModule(found->second);
        m_lastModule = found->second;
        return;
    }
    m_modules.emplace(std::move(key), module);
    m_lastModule = module;
}

void MethodRegistry::internShared(JitMethod& method) {
    internModule(method);
    internSourceFile(method);
}

void MethodRegistry::internSourceFile(JitMethod& method) {
    const SourceFile::Ptr& file = method.info()->sharedSourceFile();
    if (!file)
        return;
    if (m_lastSourceFile && (file == m_lastSourceFile || sameSourceFile(*file, *m_lastSourceFile))) {
        if (file != m_lastSourceFile)
            method.info()->shareSourceFile(m_lastSourceFile);
        return;
    }
    std::string key = file->name();
    key += '\0';
    key += file->getChecksum();
    key += '\0';
    key += std::to_string(file->getChecksumType()) + '/' + std::to_string(file->getLanguageType());
    const auto found = m_sourceFiles.find(key);
    if (found != m_sourceFiles.end()) {
        method.info()->shareSourceFile(found->second);
        m_lastSourceFile = found->second;
        return;
    }
    m_sourceFiles.emplace(std::move(key), file);
    m_lastSourceFile = file;
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

} // namespace quarvel_3_13

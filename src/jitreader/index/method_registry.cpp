#include "index/method_registry.h"

#include "model/module.h"
#include "support/mix.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

QUARVEL_NAMESPACE_BEGIN

namespace {

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

size_t addressHash(const void* p) {
    return static_cast<size_t>(mix64(reinterpret_cast<uintptr_t>(p)));
}

// Where file is in an open hash of addresses, or the empty slot where it would go.
size_t slotOf(const std::vector<const SourceFile*>& table, const SourceFile* file) {
    const size_t mask = table.size() - 1;
    size_t i = addressHash(file) & mask;
    while (table[i] && table[i] != file)
        i = (i + 1) & mask;
    return i;
}

} // namespace

void MethodRegistry::prefetchKept(const SourceFile* file) const {
    if (!m_keptFiles.empty())
        __builtin_prefetch(&m_keptFiles[addressHash(file) & (m_keptFiles.size() - 1)]);
}

bool MethodRegistry::keeps(const SourceFile* file) const {
    return !m_keptFiles.empty() && m_keptFiles[slotOf(m_keptFiles, file)] == file;
}

void MethodRegistry::keep(const SourceFile* file) {
    if ((m_keptCount + 1) * 2 > m_keptFiles.size()) {
        std::vector<const SourceFile*> grown(std::max<size_t>(64, m_keptFiles.size() * 2), nullptr);
        for (const SourceFile* kept : m_keptFiles)
            if (kept)
                grown[slotOf(grown, kept)] = kept;
        m_keptFiles.swap(grown);
    }
    const SourceFile*& slot = m_keptFiles[slotOf(m_keptFiles, file)];
    if (!slot) {
        slot = file;
        ++m_keptCount;
    }
}

void MethodRegistry::add(const JitMethod::Ptr& method, u32 pid, u32 hostId) {
    m_methods.add(method);
    m_spaces.push_back(static_cast<u64>(hostId) << 32 | pid);
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

void MethodRegistry::internSourceFile(JitMethod& method) {
    const SourceFile::Ptr& file = method.info()->sharedSourceFile();
    if (!file || keeps(file.get()))
        return; // the reading pass shares the files it made: most are kept here already
    if (m_lastSourceFile && (file == m_lastSourceFile || sameSourceFile(*file, *m_lastSourceFile))) {
        if (file != m_lastSourceFile)
            method.info()->shareSourceFile(m_lastSourceFile);
        return;
    }
    const SourceFile::Ptr shared = *m_sourceFiles.insert(file).first;
    keep(shared.get());
    if (shared != file)
        method.info()->shareSourceFile(shared);
    m_lastSourceFile = shared;
}

void MethodRegistry::internNewModules() {
    for (; m_modulesInterned < m_methods.size(); ++m_modulesInterned)
        internModule(*m_methods.at(static_cast<u32>(m_modulesInterned)));
}

JitMethod* MethodRegistry::findByModule(const std::string& modulePath, u32 rawId) {
    for (; m_symbolsIndexed < m_methods.size(); ++m_symbolsIndexed) {
        const u32 index = static_cast<u32>(m_symbolsIndexed);
        const JitMethod& method = *m_methods.at(index);
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
    return found == m_symbols.end() ? nullptr : m_methods.at(found->second).get();
}

QUARVEL_NAMESPACE_END

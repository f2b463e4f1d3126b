#ifndef QUARVEL_INDEX_METHOD_REGISTRY_H
#define QUARVEL_INDEX_METHOD_REGISTRY_H

#include "index/method_id_table.h"
#include "model/base_method_id.h"
#include "model/jit_method.h"
#include "model/source_file.h"

#include <quarvel/symbol.h>
#include <quarvel/types.h>

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// The registered methods: in registration order, by 128-bit id (a
// MethodIdTable), and by (module path, raw id) for symbol searches. Methods of one module share one module object.
class MethodRegistry {
public:
    static const u32 kNone = MethodIdTable::kNone;

    // Index of the method registered under id, or kNone.
    u32 find(const BaseMethodId& id) const { return m_methods.find(id); }
    void prefetch(const BaseMethodId& id) const { m_methods.prefetch(id); }
    // Start loading what interning file will read.
    void prefetchKept(const SourceFile* file) const;
    // Registers a method whose id is new, read from the address space (hostId, pid).
    void add(const JitMethod::Ptr& method, u32 pid, u32 hostId);

    const JitMethodStorage& all() const { return m_methods.all(); }
    const JitMethod::Ptr& at(u32 index) const { return m_methods.at(index); }
    size_t size() const { return m_methods.size(); }

    // Gives the method the shared module and source file objects equal to its own.
    void internShared(JitMethod& method);
    // Interns again the modules of methods registered since the last call
    // (the reading pass may rename them after registration).
    void internNewModules();

    // The method that module path (as the method reports it now) and raw id
    // name. When several address spaces hold the pair, the one of the lowest
    // (host id, process id); within one space, the first registered.
    JitMethod* findByModule(const std::string& modulePath, u32 rawId);

private:
    MethodIdTable m_methods;
    LargeVector<u64> m_spaces; // (host id << 32 | pid) per method

    void internModule(JitMethod& method);
    void internSourceFile(JitMethod& method);

    // Looked up by content, with the object itself as the key: no key is built per record.
    struct ModuleHash {
        size_t operator()(const IModule::Ptr& m) const;
    };
    struct SameModule {
        bool operator()(const IModule::Ptr& a, const IModule::Ptr& b) const;
    };
    struct SourceFileHash {
        size_t operator()(const SourceFile::Ptr& f) const;
    };
    struct SameSourceFile {
        bool operator()(const SourceFile::Ptr& a, const SourceFile::Ptr& b) const;
    };
    std::unordered_set<IModule::Ptr, ModuleHash, SameModule> m_modules;
    IModule::Ptr m_lastModule; // most records name the module of the record before
    std::unordered_set<SourceFile::Ptr, SourceFileHash, SameSourceFile> m_sourceFiles;
    SourceFile::Ptr m_lastSourceFile;
    // The files in m_sourceFiles by address, so that a method's file, most
    // often one of them already, is found without reading the file object
    // (a cache miss per method in a trace that names its files in any
    // order). An open hash, power-of-two size, at most half full.
    bool keeps(const SourceFile* file) const;
    void keep(const SourceFile* file);
    std::vector<const SourceFile*> m_keptFiles;
    size_t m_keptCount = 0;
    size_t m_modulesInterned = 0;

    // (module path, raw id) -> method index, filled up to m_symbolsIndexed.
    std::unordered_map<std::string, u32> m_paths;
    std::unordered_map<u64, u32> m_symbols;
    size_t m_symbolsIndexed = 0;
};

QUARVEL_NAMESPACE_END

#endif

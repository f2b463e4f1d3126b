#ifndef QUARVEL_INGEST_METHOD_BUILDER_H
#define QUARVEL_INGEST_METHOD_BUILDER_H

// Model objects from decoded record bodies: the methods, regions, modules,
// names, source files, line tables and identities the data manager keys on.

#include "ingest/class_name_cache.h"
#include "ingest/method_id_cache.h"
#include "model/jit_method.h"
#include "support/result.h"

#include <quarvel/jittrace_writer.h>

#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

class JitDataManager;

// One Module object per distinct (path, status, architecture) of a reading
// pass, instead of one per record; likewise one SourceFile per distinct
// source file, so that methods share it from the start.
class ModuleCache {
public:
    // Valid until the next call.
    const IModule::Ptr& get(std::string_view path, quarvel_error_t status, quarvel_arch arch);
    const SourceFile::Ptr& sourceFile(std::string_view name, std::string_view checksum, unsigned checksumType,
                                      unsigned language) {
        return sourceFile(name, checksum, checksumType, language,
                          sourceFileHash(name, checksum, checksumType, language));
    }
    // hash: sourceFileHash of the same content.
    const SourceFile::Ptr& sourceFile(std::string_view name, std::string_view checksum, unsigned checksumType,
                                      unsigned language, size_t hash);
    static size_t sourceFileHash(std::string_view name, std::string_view checksum, unsigned checksumType,
                                 unsigned language);
    // Start loading what sourceFile() will read, which misses the cache: the
    // table slot first; once it is in, the file object it names and the
    // name and checksum the comparison reads. A method asks for its file
    // only after its regions, names and id are built: time enough for both.
    void prefetchSourceFileSlot(size_t hash) const;
    void prefetchSourceFileObject(size_t hash) const;

private:
    std::map<std::tuple<std::string, quarvel_error_t, int>, IModule::Ptr> m_modules;
    // Records of one module come together.
    IModule::Ptr m_lastModule;
    std::string m_lastPath;
    quarvel_error_t m_lastStatus = meSuccess;
    quarvel_arch m_lastArch = quarvel_arch_vx64;
    // An open hash of the content's hash and the file: a lookup builds no
    // key and touches one file object. The slot also points at the file's
    // texts, so that they are fetched with the object rather than after it.
    struct SourceFileSlot {
        size_t hash = 0;
        SourceFile* file = nullptr;     // kept by m_sourceFileObjects
        const char* name = nullptr;     // the file's texts: only ever fetched ahead,
        const char* checksum = nullptr; // never read through
    };
    // The slot at hash's home when it holds that hash, else null.
    const SourceFileSlot* slotAtHome(size_t hash) const;
    void growSourceFiles();
    std::vector<SourceFileSlot> m_sourceFileSlots; // power-of-two size, at most 3/4 full
    std::vector<SourceFile::Ptr> m_sourceFileObjects;
    SourceFile::Ptr m_lastSourceFile; // records of one class come together
};

// Where the method's code comes from.
struct BuildContext {
    u32 hostId = 0;
    u32 pid = 0;
    bool keepSymbolic = true;             // false: names only; no source file, no line tables
    const JitDataManager* data = nullptr; // where the methods go: told each id early, to fetch what it will read
};

class MethodBuilder {
public:
    explicit MethodBuilder(ModuleCache& modules) : m_modules(modules) {}

    // A method load of a version (0..3). regionJitRvas gives the jit rva of
    // each region of the record (0 for an empty one, and for every region of
    // an inline record); empty regions make nothing.
    JitMethod::Ptr methodLoad(const TraceMethodLoad& load, int version, const std::vector<jit_rva_t>& regionJitRvas,
                              const BuildContext& context);
    JitMethod::Ptr inlineLoad(const TraceInlineLoad& load, const BuildContext& context);

private:
    // The tail's source file hash, its table slot fetched ahead; 0 when the
    // context keeps no source file.
    size_t startSourceFile(const TraceMethodTail& tail, const BuildContext& context) const;
    // What the method's id is made of: token, names, module.
    void applyIdentity(JitMethod& method, const TraceMethodTail& tail, bool legacy, size_t fileHash,
                       const BuildContext& context);
    // Source file and line tables, when the context keeps them.
    void applySymbolic(JitMethod& method, const TraceMethodTail& tail, size_t fileHash, const BuildContext& context,
                       u64 codeLength);
    void applyNames(BaseMethodInfo& info, const TraceMethodTail& tail);

    ModuleCache& m_modules;
    ClassNameCache m_classNames;
    MethodIdCache m_ids;
    std::string m_qualifiedName; // reused: the names are copied into the method's own block
};

QUARVEL_NAMESPACE_END

#endif

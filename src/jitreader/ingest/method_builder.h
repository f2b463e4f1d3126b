#ifndef QUARVEL_INGEST_METHOD_BUILDER_H
#define QUARVEL_INGEST_METHOD_BUILDER_H

// Model objects from decoded record bodies: the methods, regions, modules,
// names, source files, line tables and identities the data manager keys on.

#include "ingest/class_name_cache.h"
#include "ingest/method_id_cache.h"
#include "model/jit_method.h"
#include "support/code_bytes.h"
#include "support/result.h"

#include <quarvel/jittrace_writer.h>

#include <map>
#include <memory>
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
    ModuleCache() = default;
    ModuleCache(const ModuleCache&) = delete;
    ModuleCache& operator=(const ModuleCache&) = delete;
    ~ModuleCache();

    // Valid until the next call.
    const IModule::Ptr& get(std::string_view path, quarvel_error_t status, quarvel_arch arch);
    // As get, with a reference of the caller's own that the cache took
    // ahead: a method's module costs no atomic operation on the module, which
    // would wait for the stores that wrote the method's names.
    IModule::Ptr lendModule(std::string_view path, quarvel_error_t status, quarvel_arch arch);
    // The file of that content, one object for every method that names it.
    SourceFile::Ptr sourceFile(std::string_view name, std::string_view checksum, unsigned checksumType,
                               unsigned language) {
        return sourceFile(name, checksum, checksumType, language,
                          sourceFileHash(name, checksum, checksumType, language));
    }
    // hash: sourceFileHash of the same content.
    SourceFile::Ptr sourceFile(std::string_view name, std::string_view checksum, unsigned checksumType,
                               unsigned language, size_t hash);
    static size_t sourceFileHash(std::string_view name, std::string_view checksum, unsigned checksumType,
                                 unsigned language);
    // Start loading what sourceFile() will read, which misses the cache: the
    // table slot first; once it is in, the texts the comparison reads. A
    // method asks for its file only after its regions, names and id are
    // built: time enough for both.
    void prefetchSourceFileSlot(size_t hash) const;
    void prefetchSourceFileTexts(size_t hash) const;

private:
    std::map<std::tuple<std::string, quarvel_error_t, int>, IModule::Ptr> m_modules;
    // Records of one module come together.
    IModule::Ptr m_lastModule;
    std::string m_lastPath;
    quarvel_error_t m_lastStatus = meSuccess;
    quarvel_arch m_lastArch = quarvel_arch_vx64;
    // References taken on an object that nobody holds yet: the cache takes
    // them a batch at a time, twice as many each time (up to 64), and hands
    // them out one by one, so that handing one out touches no object.
    struct LentReferences {
        u32 unlent = 0;
        u32 nextBatch = 1;
        // Counts out one of object's references, taking a batch when none is left.
        void take(const BaseObject& object);
        // Gives back those not handed out (never the object's last: the cache holds one).
        void giveBack(const BaseObject& object) noexcept;
    };
    // References on the last module lent; given back when another module is
    // lent or the cache goes.
    IModule* m_lentModule = nullptr; // kept by m_modules
    LentReferences m_moduleReferences;
    // An open hash of the files by content. A lookup touches no file
    // object: the slot holds what the comparison reads, with the texts in
    // the cache's own blocks. A trace's methods name their files in any
    // order, and a file object read once per method was a cache miss each
    // time, which fetching it ahead did not hide.
    //
    // The slot also holds the references lent on its file, so that handing
    // a method its reference touches no file object either.
    //
    // A slot is one cache line and starts with the texts' first bytes: a
    // file of a short name is compared without reading its texts, which
    // were a miss of their own once the slot was in.
    static constexpr size_t kHeadBytes = 16;
    struct alignas(64) SourceFileSlot {
        size_t hash = 0;
        const char* texts = nullptr; // the name, then the checksum; null: an empty slot
        SourceFile* file = nullptr;  // kept by m_sourceFiles
        u32 nameLength = 0;
        u32 checksumLength = 0;
        u32 checksumType = 0;
        u32 language = 0;
        LentReferences references;
        char head[kHeadBytes] = {}; // the texts' first bytes
    };
    // Whether a filled slot is that content's.
    static bool holds(const SourceFileSlot& slot, size_t hash, std::string_view name, std::string_view checksum,
                      unsigned checksumType, unsigned language);
    static SourceFile::Ptr lend(SourceFileSlot& slot);
    const char* keepTexts(std::string_view name, std::string_view checksum);
    // The slot at hash's home when it holds that hash, else null.
    const SourceFileSlot* slotAtHome(size_t hash) const;
    void growSourceFiles();
    static constexpr size_t kNoSlot = ~size_t(0);
    std::vector<SourceFileSlot> m_sourceFileSlots; // power-of-two size, at most 3/4 full
    std::vector<SourceFile::Ptr> m_sourceFiles;
    std::vector<std::unique_ptr<char[]>> m_textBlocks;
    char* m_textNext = nullptr;
    size_t m_textLeft = 0;
    size_t m_lastSlot = kNoSlot; // records of one class come together
};

// Where the method's code comes from.
struct BuildContext {
    u32 hostId = 0;
    u32 pid = 0;
    bool keepSymbolic = true;             // false: names only; no source file, no line tables
    const JitDataManager* data = nullptr; // where the methods go: told each id early, to fetch what it will read
    // The code bytes of the record's regions, one per region (empty for none),
    // made by the reader and taken by the builder; null: the regions' copies.
    std::vector<CodeView>* codeContents = nullptr;
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
    // False, info untouched, for names the general path takes.
    bool applyJoinedJavaNames(BaseMethodInfo& info, std::string_view className, std::string_view methodName);

    ModuleCache& m_modules;
    ClassNameCache m_classNames;
    MethodIdCache m_ids;
    std::string m_qualifiedName;     // reused: the names are copied into the method's own block
    std::vector<char> m_joinedNames; // likewise, for the common Java names
};

QUARVEL_NAMESPACE_END

#endif

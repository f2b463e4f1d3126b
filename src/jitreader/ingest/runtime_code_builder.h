#ifndef QUARVEL_INGEST_RUNTIME_CODE_BUILDER_H
#define QUARVEL_INGEST_RUNTIME_CODE_BUILDER_H

// Model objects from the code that runtimes describe to profilers in files
// of their own (jitdump loads, perf map lines): each piece of code is a
// method of one region, named as the runtime wrote it, in a pseudo module.

#include "ingest/method_builder.h"
#include "model/jit_method.h"
#include "support/result.h"

#include <quarvel/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// The file a runtime file reader works on, and where its code goes.
struct RuntimeFileContext {
    std::string path;
    u32 pid = 0;
    u32 hostId = 0;
    jit_rva_t jitRvaBase = 0;
    decoding_mode_t mode = dmCodeBytes;
    quarvel_arch arch = quarvel_arch_vx64; // of the code: decides how dumps disassemble it

    bool keepCodeBytes() const { return (mode & dmCodeBytes) != 0; }
    // The loader's mode reads addresses and names only: no line tables.
    bool keepLines() const { return (mode & dmSkipSymbolic) == 0; }
};

struct JitReadStats;

// A runtime file that could not be opened (`kind` names its format in the
// log line): logged, counted as a failed file with its reason. Returns the
// reason's code.
quarvel_error_t refuseUnopenedFile(const RuntimeFileContext& file, const char* kind, Reason reason,
                                   JitReadStats& stats);

// One piece of code as a runtime file describes it.
struct RuntimeCode {
    u64 address = 0;
    u64 size = 0;
    u64 loadTime = 0;
    // With a class name: the class and the method (joined and qualified as
    // every method name is); without one: a name kept as written. Both may
    // be empty, for a resolver to fill in from metadata.
    std::string_view className;
    std::string_view name;
    const uint8_t* bytes = nullptr; // size bytes when kept, else null
    // What keeps `bytes` valid (the file's mapping): the method then views
    // them there. Null: the method gets a copy.
    std::shared_ptr<const void> bytesKeeper;
    std::string_view sourceFile;
    std::vector<quarvel_line_number_entry> lines; // native to source, offsets from the code's first byte
    // .NET code: its assembly (null: the pseudo module of dynamic code), its
    // MethodDef token (0: none) and its native-to-IL rows.
    IModule::Ptr module;
    u32 metadataToken = 0;
    std::vector<quarvel_line_number_entry> nativeToManaged;
};

class RuntimeCodeBuilder {
public:
    RuntimeCodeBuilder(const RuntimeFileContext& file, ModuleCache& modules);

    // Why the model cannot hold code of that size at that address (empty,
    // larger than a region can be, at address 0, past the end of the address
    // space); empty when it can.
    static std::string whyUnplaceable(u64 address, u64 size);

    // The jit rvas of `size` bytes of code, taken from the file's range in
    // file order. False, with the reason, when the range cannot hold them.
    bool takeJitRvas(u64 size, jit_rva_t& jitRva, Reason& why);

    // A method of one region for code the model can hold. Each gets the next
    // raw method id of the file (1, 2, ...: never 0), and an identity no other
    // file of the set shares, so that loads never merge into one method.
    // Source files are shared through the pass's ModuleCache, as for traces.
    JitMethod::Ptr build(const RuntimeCode& code, jit_rva_t jitRva);

    // The code of `region` (owned by `owner`) at a new address from `time`
    // on: the same method (identity, names, line tables), a new region.
    JitMethod::Ptr moved(const JitMethod& owner, const Region& region, u64 newAddress, u64 time,
                         jit_rva_t jitRva) const;

private:
    const RuntimeFileContext& m_file;
    ModuleCache& m_modules;
    IModule::Ptr m_module;
    jit_rva_t m_nextJitRva;
    jit_rva_t m_jitRvaLimit;
    u64 m_nextRawId = 1;
};

QUARVEL_NAMESPACE_END

#endif

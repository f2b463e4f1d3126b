#ifndef QUARVEL_API_SYMBOL_RESOLVER_H
#define QUARVEL_API_SYMBOL_RESOLVER_H

#include "index/jit_data_manager.h"
#include "ingest/jit_files_manager.h"

#include <quarvel/dotnet.h>
#include <quarvel/facades.h>

#include <tbb/concurrent_hash_map.h>

#include <mutex>
#include <string>

QUARVEL_NAMESPACE_BEGIN

// The full symbol view: every file is read (decoding mode dmCodeBytes) when
// the resolver is created; queries never read afterwards. .NET methods are
// completed from their assembly metadata the first time getSymbol returns them.
class SymbolResolver : public ISymbolResolver {
public:
    typedef boost::intrusive_ptr<SymbolResolver> Ptr;

    explicit SymbolResolver(const ISymbolFileLocator::Ptr& locator);
    ~SymbolResolver() override;

    // The initialisation's error, else the reading pass's result.
    quarvel_error_t initializeJitFiles(generic_iterator_t<const char*>& jitFiles, target_arch_t arch);
    // Always meSuccess: a descriptor list is trusted; reads only when initialisation succeeded.
    quarvel_error_t initializeJitFiles(generic_iterator_t<JitFileDescriptor>& jitFiles, target_arch_t arch);

    quarvel_error_t getHostNameById(unsigned hostId, const char** hostName) const override;
    ISymbol::Ptr getSymbol(u64 jitRva) override;
    quarvel_error_t getCalleeRegion(u64 callerJitRva, u64 targetAddress, u64* calleeJitRva) override;
    generic_iterator_t<ISymbol::Ptr> getSymbols() override;
    quarvel_error_t translateToJitRva(unsigned methodId, u64 address, const char* jitFileName,
                                      u64* jitRva) const override;

    // The cached reader of a module's assembly, or an empty pointer.
    IAssemblyReader::Ptr getAssemblyReader(const std::string& modulePath);

    // The jit rva of the code at an address at a time, as the loader answers.
    quarvel_error_t resolveJitPoint(u64 timestamp, u64 virtualAddress, unsigned pid, unsigned hostId,
                                    u64& jitRva) const;

    bool isLoaded() const { return m_loaded; }
    const JitFilesManager& files() const { return m_files; }
    JitReadStats readStats() const { return m_files.readStats(); }

    // Fills what the trace left out of a .NET method from its metadata and
    // PDB: line tables (once), source file, names. Public for tests.
    void completeDotNetMethod(const JitMethod::Ptr& method, const DotNetMethod& dotNetMethod);

private:
    typedef tbb::concurrent_hash_map<std::string, IAssemblyReader::Ptr> AssemblyReaderCache;

    AssemblyReaderCache m_assemblyReaders;
    JitDataManager m_data;
    JitFilesManager m_files;
    ISymbolFileLocator::Ptr m_locator;
    bool m_loaded = false;
    // getSymbol writes tables and names into shared methods the first time.
    std::mutex m_completionMutex;
};

QUARVEL_NAMESPACE_END

#endif

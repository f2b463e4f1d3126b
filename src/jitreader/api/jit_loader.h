#ifndef QUARVEL_API_JIT_LOADER_H
#define QUARVEL_API_JIT_LOADER_H

#include "index/jit_data_manager.h"
#include "ingest/jit_files_manager.h"

#include <quarvel/facades.h>

#include <shared_mutex>

QUARVEL_NAMESPACE_BEGIN

// Per-sample resolution: a process's files are read (decoding mode
// dmSkipSymbolic) on the first address query that names it, every file
// (mode dmCodeBytes) on the first findSymbol.
//
// Queries may come from many threads: a reading pass writes the model under
// the exclusive side of m_modelMutex, queries read it under the shared side
// until every process is read. From then on nothing writes the model, and
// queries take no lock: the shared side's count is one cache line that every
// querying thread would otherwise bounce between the cores.
class JitLoader : public IJitLoader {
public:
    typedef boost::intrusive_ptr<JitLoader> Ptr;

    JitLoader();
    ~JitLoader() override;

    quarvel_error_t initializeJitFiles(generic_iterator_t<const char*>& jitFiles);
    quarvel_error_t initializeJitFiles(generic_iterator_t<JitFileDescriptor>& jitFiles);

    quarvel_error_t getHostIdByName(const char* hostName, unsigned* hostId) const override;
    quarvel_error_t resolveJitPoint(u64 timestamp, u64 virtualAddress, unsigned pid, unsigned hostId, u64* jitRva,
                                    IModule::Ptr& module) override;
    quarvel_error_t findOverlappedRegion(u64 timestamp, u64 startAddress, u64 endAddress, unsigned pid, unsigned hostId,
                                         ICodeRegion::Ptr& region) override;
    IModuleEvaluator::Ptr getModuleEvaluator(const char* modulePath) const override;
    quarvel_error_t findSymbol(const char* moduleName, unsigned methodId, ISymbol::Ptr& symbol) override;

    // For tests and the command-line tool.
    const JitFilesManager& files() const { return m_files; }
    JitReadStats readStats() const { return m_files.readStats(); }

private:
    // Reads the process's files unless that was done; the model stays unlocked on return.
    quarvel_error_t readProcess(unsigned pid, unsigned hostId);
    quarvel_error_t readAll();
    // The shared side of m_modelMutex, or nothing once every process is read.
    std::shared_lock<std::shared_mutex> queryLock() const;

    // Declared first so that the file set is torn down before the registry.
    JitDataManager m_data;
    JitFilesManager m_files;
    mutable std::shared_mutex m_modelMutex;
};

QUARVEL_NAMESPACE_END

#endif

#ifndef QUARVEL_API_JIT_PROCESSES_H
#define QUARVEL_API_JIT_PROCESSES_H

#include "ingest/jit_files_manager.h"

#include <quarvel/facades.h>

QUARVEL_NAMESPACE_BEGIN

// Which processes left trace files in the given locations; reads no record.
class JitProcesses : public IJitProcesses {
public:
    typedef boost::intrusive_ptr<JitProcesses> Ptr;

    JitProcesses();
    ~JitProcesses() override;

    quarvel_error_t initializeJitFiles(generic_iterator_t<const char*>& jitFiles);

    // The array is built on the first call that finds a process and kept.
    generic_iterator_t<unsigned> getJitProcessId() const override;

private:
    JitFilesManager m_files;
};

QUARVEL_NAMESPACE_END

#endif

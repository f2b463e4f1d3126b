#include "api/jit_processes.h"

#include "support/log.h"

QUARVEL_NAMESPACE_BEGIN

JitProcesses::JitProcesses() = default;

JitProcesses::~JitProcesses() = default;

quarvel_error_t JitProcesses::initializeJitFiles(generic_iterator_t<const char*>& jitFiles) {
    return m_files.initialize(jitFiles, taAny);
}

generic_iterator_t<unsigned> JitProcesses::getJitProcessId() const {
    try {
        return m_files.getJitPidArray();
    } catch (const std::exception& e) {
        QV_ERROR("getJitProcessId failed: " << e.what());
        return generic_iterator_t<unsigned>();
    }
}

IJitProcesses::Ptr IJitProcesses::create(generic_iterator_t<const char*>& jitFiles) {
    try {
        JitProcesses::Ptr processes(new JitProcesses());
        if (processes->initializeJitFiles(jitFiles) != meSuccess)
            return IJitProcesses::Ptr();
        return processes;
    } catch (const std::exception& e) {
        QV_ERROR("Couldn't create the jit process list: " << e.what());
    } catch (...) {
        QV_ERROR("Couldn't create the jit process list");
    }
    return IJitProcesses::Ptr();
}

QUARVEL_NAMESPACE_END

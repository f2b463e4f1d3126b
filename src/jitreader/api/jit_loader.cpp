#include "api/jit_loader.h"

#include "model/module_evaluator.h"
#include "support/log.h"

#include <mutex>
#include <new>
#include <string>

QUARVEL_NAMESPACE_BEGIN

JitLoader::JitLoader() = default;

JitLoader::~JitLoader() = default;

quarvel_error_t JitLoader::initializeJitFiles(generic_iterator_t<const char*>& jitFiles) {
    std::unique_lock<std::shared_mutex> lock(m_modelMutex);
    return m_files.initialize(jitFiles, taAny);
}

quarvel_error_t JitLoader::initializeJitFiles(generic_iterator_t<JitFileDescriptor>& jitFiles) {
    std::unique_lock<std::shared_mutex> lock(m_modelMutex);
    return m_files.initialize(jitFiles, taAny);
}

quarvel_error_t JitLoader::readProcess(unsigned pid, unsigned hostId) {
    const quarvel_error_t state = m_files.processState(pid, hostId);
    if (state != meEndOfData)
        return state; // read already, or unknown
    std::unique_lock<std::shared_mutex> lock(m_modelMutex);
    return m_files.readJitFiles(pid, hostId, dmSkipSymbolic, m_data);
}

quarvel_error_t JitLoader::readAll() {
    if (m_files.isWholeSetRead())
        return meSuccess;
    std::unique_lock<std::shared_mutex> lock(m_modelMutex);
    return m_files.readJitFiles(dmCodeBytes, m_data);
}

std::shared_lock<std::shared_mutex> JitLoader::queryLock() const {
    if (m_files.isEveryProcessRead())
        return std::shared_lock<std::shared_mutex>();
    return std::shared_lock<std::shared_mutex>(m_modelMutex);
}

quarvel_error_t JitLoader::getHostIdByName(const char* hostName, unsigned* hostId) const {
    if (!hostId || !hostName)
        return meInvalidPointer;
    try {
        *hostId = m_files.getHostID(std::string(hostName));
        return meSuccess;
    } catch (const std::exception& e) {
        QV_ERROR("getHostIdByName failed: " << e.what());
        return meNotFound;
    }
}

quarvel_error_t JitLoader::resolveJitPoint(u64 timestamp, u64 virtualAddress, unsigned pid, unsigned hostId,
                                           u64* jitRva, IModule::Ptr& module) {
    if (!jitRva)
        return meInvalidPointer;
    try {
        quarvel_error_t ret = readProcess(pid, hostId);
        if (ret != meSuccess)
            return ret;
        const std::shared_lock<std::shared_mutex> lock = queryLock();
        IModule* found = nullptr;
        u64 rva = 0;
        ret = m_data.resolveJitPoint(virtualAddress, timestamp, pid, hostId, found, rva);
        if (ret != meSuccess)
            return ret;
        // A jit rva of 0 is never a valid answer.
        if (rva == 0)
            return meNotFound;
        // Samples mostly hit the module the caller holds already: keeping it
        // spares two atomic updates of a count every querying thread shares.
        if (module.get() != found)
            module = IModule::Ptr(found);
        *jitRva = rva;
        return meSuccess;
    } catch (const std::exception& e) {
        QV_ERROR("resolveJitPoint failed: " << e.what());
        return meNotFound;
    }
}

quarvel_error_t JitLoader::findOverlappedRegion(u64 timestamp, u64 startAddress, u64 endAddress, unsigned pid,
                                                unsigned hostId, ICodeRegion::Ptr& region) {
    try {
        const quarvel_error_t ret = readProcess(pid, hostId);
        if (ret != meSuccess)
            return ret;
        const std::shared_lock<std::shared_mutex> lock = queryLock();
        return m_data.findOverlappedRegion(startAddress, endAddress, timestamp, pid, hostId, region);
    } catch (const std::exception& e) {
        QV_ERROR("findOverlappedRegion failed: " << e.what());
        return meNotFound;
    }
}

IModuleEvaluator::Ptr JitLoader::getModuleEvaluator(const char* modulePath) const {
    if (!modulePath)
        return IModuleEvaluator::Ptr();
    try {
        return IModuleEvaluator::Ptr(new ModuleEvaluator(modulePath));
    } catch (const std::exception& e) {
        QV_ERROR("getModuleEvaluator failed: " << e.what());
        return IModuleEvaluator::Ptr();
    }
}

quarvel_error_t JitLoader::findSymbol(const char* moduleName, unsigned methodId, ISymbol::Ptr& symbol) {
    if (!moduleName)
        return meInvalidPointer;
    try {
        const quarvel_error_t ret = readAll();
        if (ret != meSuccess)
            return ret;
        // The symbol table lookup is not const: keep it exclusive.
        std::unique_lock<std::shared_mutex> lock(m_modelMutex);
        return m_data.findMethod(moduleName, methodId, symbol);
    } catch (const std::exception& e) {
        QV_ERROR("findSymbol failed: " << e.what());
        return meNotFound;
    }
}

namespace {

template <typename Sequence>
IJitLoader::Ptr createLoader(Sequence& jitFiles) {
    try {
        JitLoader::Ptr loader(new JitLoader());
        if (loader->initializeJitFiles(jitFiles) != meSuccess)
            return IJitLoader::Ptr();
        return loader;
    } catch (const std::exception& e) {
        QV_ERROR("Couldn't create the jit loader: " << e.what());
    } catch (...) {
        QV_ERROR("Couldn't create the jit loader");
    }
    return IJitLoader::Ptr();
}

} // namespace

IJitLoader::Ptr IJitLoader::create(generic_iterator_t<const char*>& jitFiles) {
    return createLoader(jitFiles);
}

IJitLoader::Ptr IJitLoader::create(generic_iterator_t<JitFileDescriptor>& jitFiles) {
    return createLoader(jitFiles);
}

QUARVEL_NAMESPACE_END

#include "api/symbol_resolver.h"

#include "model/dotnet_method.h"
#include "support/log.h"

#include <memory>
#include <new>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

SymbolResolver::SymbolResolver(const ISymbolFileLocator::Ptr& locator) : m_locator(locator) {}

SymbolResolver::~SymbolResolver() = default;

quarvel_error_t SymbolResolver::initializeJitFiles(generic_iterator_t<const char*>& jitFiles, target_arch_t arch) {
    const quarvel_error_t ret = m_files.initialize(jitFiles, arch);
    if (ret != meSuccess)
        return ret;
    const quarvel_error_t read = m_files.readJitFiles(dmCodeBytes, m_data);
    m_loaded = true;
    return read;
}

quarvel_error_t SymbolResolver::initializeJitFiles(generic_iterator_t<JitFileDescriptor>& jitFiles,
                                                   target_arch_t arch) {
    if (m_files.initialize(jitFiles, arch) != meSuccess)
        return meSuccess;
    m_files.readJitFiles(dmCodeBytes, m_data);
    m_loaded = true;
    return meSuccess;
}

quarvel_error_t SymbolResolver::getHostNameById(unsigned hostId, const char** hostName) const {
    if (!hostName)
        return meInvalidPointer;
    *hostName = m_files.getHostName(hostId);
    return meSuccess;
}

IAssemblyReader::Ptr SymbolResolver::getAssemblyReader(const std::string& modulePath) {
    {
        AssemblyReaderCache::const_accessor found;
        if (m_assemblyReaders.find(found, modulePath))
            return found->second;
    }
    IAssemblyReader::Ptr reader;
    if (m_locator) {
        ILocatedFile::Ptr assembly;
        ILocatedFile::Ptr debugFile;
        m_locator->locate(modulePath.c_str(), assembly, debugFile);
        if (!assembly || !assembly->getPath())
            return IAssemblyReader::Ptr();
        const char* debugPath = debugFile ? debugFile->getPath() : nullptr;
        if (IAssemblyReader::create(assembly->getPath(), debugPath, reader) != meSuccess || !reader)
            return IAssemblyReader::Ptr();
    } else if (IAssemblyReader::create(modulePath.c_str(), nullptr, reader) != meSuccess || !reader) {
        // Without a locator the module path itself names the assembly, and
        // the reader looks for its PDB beside it or inside it.
        return IAssemblyReader::Ptr();
    }
    // A failed creation is not cached (the file may appear later; the reader
    // logs a file's failure once). Two threads may both have made a reader:
    // the first insert wins.
    AssemblyReaderCache::accessor slot;
    if (m_assemblyReaders.insert(slot, modulePath))
        slot->second = reader;
    return slot->second;
}

void SymbolResolver::completeDotNetMethod(const JitMethod::Ptr& method, const DotNetMethod& dotNetMethod) {
    std::lock_guard<std::mutex> lock(m_completionMutex);

    // Tables built by an earlier call (or given by the trace) are kept.
    unsigned count = 0;
    const quarvel_error_t sizeQuery =
        method->getLineNumberInfo(quarvel_line_info_managed_to_source, nullptr, &count, 0);
    // A method without any line table answers meNotFound: it still gets tables built.
    const bool haveTables = (sizeQuery != meSuccess && sizeQuery != meNotFound) || count != 0;
    if (!haveTables) {
        JitMethod::LineTable managedToSource;
        JitMethod::LineTable nativeToSource;
        if (dotNetMethod.symbolReader()) {
            unsigned n = 0;
            if (method->getLineNumberInfo(quarvel_line_info_native_to_managed, nullptr, &n, 0) == meSuccess && n) {
                std::vector<quarvel_line_number_entry> nativeToManaged(n);
                if (method->getLineNumberInfo(quarvel_line_info_native_to_managed, nativeToManaged.data(), &n, 0) ==
                    meSuccess) {
                    nativeToManaged.resize(n);
                    for (const quarvel_line_number_entry& e : nativeToManaged) {
                        const u32 line = dotNetMethod.getSourceLineByILOffset(e.value);
                        managedToSource.push_back(quarvel_line_number_entry{e.value, e.value, line});
                        nativeToSource.push_back(quarvel_line_number_entry{e.startOffset, e.endOffset, line});
                    }
                }
            }
        } else {
            unsigned n = 0;
            if (dotNetMethod.getILToSourceMapping(nullptr, &n) == meSuccess && n) {
                managedToSource.resize(n);
                if (dotNetMethod.getILToSourceMapping(managedToSource.data(), &n) == meSuccess)
                    managedToSource.resize(n);
                else
                    managedToSource.clear();
            }
        }
        for (const Region::Ptr& region : method->regions()) {
            const Range range(region->startJitRva(), region->length());
            if (!managedToSource.empty())
                method->addLineNumberInfo(quarvel_line_info_managed_to_source, managedToSource, range);
            if (!nativeToSource.empty())
                method->addLineNumberInfo(quarvel_line_info_native_to_source, nativeToSource, range);
        }
    }

    const std::string sourceFileName = method->info()->sourceFile().name();
    if (sourceFileName.empty() || (sourceFileName == "Dynamic Code" && dotNetMethod.symbolReader())) {
        SourceFile sourceFile;
        if (dotNetMethod.getSourceFileInfo(sourceFile) == meSuccess)
            method->info()->setSourceFile(sourceFile);
    }

    // Names the trace gave are kept.
    if (method->info()->className().empty()) {
        const std::string className = dotNetMethod.getClassName();
        if (!className.empty())
            method->info()->setClassName(className);
    }
    if (method->info()->methodName().empty()) {
        const std::string name = dotNetMethod.getMethodName() + dotNetMethod.getMethodSignature();
        if (!name.empty())
            method->info()->setMethodName(name);
    }
}

ISymbol::Ptr SymbolResolver::getSymbol(u64 jitRva) {
    try {
        const RegionInfo* found = m_data.symbolAt(jitRva);
        if (!found || !found->method)
            return ISymbol::Ptr();
        // Made as the type handed out: a converted copy would cost another
        // pair of updates of the method's count.
        ISymbol::Ptr symbol(found->method);
        const unsigned token = found->methodToken;
        if (token == 0)
            return symbol; // not a .NET method
        const JitMethod::Ptr method(found->method);
        const IModule::Ptr module = method->getModule();
        if (!module || !module->getFilePath())
            return symbol;
        const IAssemblyReader::Ptr reader = getAssemblyReader(module->getFilePath());
        if (!reader)
            return symbol;
        const DotNetMethod::Ptr dotNetMethod = reader->getMethod(token);
        if (!dotNetMethod)
            return symbol;
        completeDotNetMethod(method, *dotNetMethod);
        return symbol;
    } catch (const std::exception& e) {
        QV_ERROR("getSymbol failed for jit rva " << jitRva << ": " << e.what());
        return ISymbol::Ptr();
    }
}

quarvel_error_t SymbolResolver::getCalleeRegion(u64 callerJitRva, u64 targetAddress, u64* calleeJitRva) {
    if (!calleeJitRva)
        return meInvalidPointer;
    u64 callee = 0;
    const quarvel_error_t ret = m_data.getCalleeTarget(callerJitRva, targetAddress, callee);
    if (ret == meSuccess)
        *calleeJitRva = callee;
    return ret;
}

generic_iterator_t<ISymbol::Ptr> SymbolResolver::getSymbols() {
    // The iterator holds a reference to the resolver, so the methods it walks outlive the caller's pointer.
    const JitMethodStorage& methods = m_data.getJitMethods();
    return generic_iterator_t<ISymbol::Ptr>(methods.begin(), methods.end(), Ptr(this));
}

quarvel_error_t SymbolResolver::translateToJitRva(unsigned methodId, u64 address, const char* jitFileName,
                                                  u64* jitRva) const {
    if (!jitRva)
        return meInvalidPointer;
    if (methodId == 0) {
        // Plain native code passes through unchanged.
        *jitRva = address;
        return meSuccess;
    }
    if (!jitFileName)
        return meNotFound;
    try {
        u64 base = 0;
        u64 limit = 0;
        quarvel_error_t ret = m_files.getJitFileRange(jitFileName, base, limit);
        if (ret != meSuccess)
            return ret;
        u64 out = 0;
        ret = m_data.translateToJitRva(methodId, address, base, limit, out);
        if (ret == meSuccess)
            *jitRva = out;
        return ret;
    } catch (const std::exception& e) {
        QV_ERROR("translateToJitRva failed: " << e.what());
        return meNotFound;
    }
}

namespace {

template <typename Sequence>
ISymbolResolver::Ptr createResolver(Sequence& jitFiles, const ISymbolFileLocator::Ptr& locator, target_arch_t arch,
                                    bool trusted) {
    try {
        SymbolResolver::Ptr resolver(new SymbolResolver(locator));
        if (resolver->initializeJitFiles(jitFiles, arch) != meSuccess && !trusted)
            return ISymbolResolver::Ptr();
        return resolver;
    } catch (const std::exception& e) {
        QV_ERROR("Couldn't create the symbol resolver: " << e.what());
    } catch (...) {
        QV_ERROR("Couldn't create the symbol resolver");
    }
    return ISymbolResolver::Ptr();
}

} // namespace

ISymbolResolver::Ptr ISymbolResolver::create(generic_iterator_t<const char*>& jitFiles,
                                             ISymbolFileLocator::Ptr& locator) {
    return createResolver(jitFiles, locator, taAny, false);
}

ISymbolResolver::Ptr ISymbolResolver::create(generic_iterator_t<const char*>& jitFiles,
                                             ISymbolFileLocator::Ptr& locator, quarvel_arch arch) {
    return createResolver(jitFiles, locator, arch == quarvel_arch_vx32 ? taX86 : taX86_64, false);
}

ISymbolResolver::Ptr ISymbolResolver::create(generic_iterator_t<JitFileDescriptor>& jitFiles,
                                             ISymbolFileLocator::Ptr& locator) {
    return createResolver(jitFiles, locator, taAny, true);
}

quarvel_error_t SymbolResolver::resolveJitPoint(u64 timestamp, u64 virtualAddress, unsigned pid, unsigned hostId,
                                                u64& jitRva) const {
    try {
        IModule* module = nullptr;
        u64 rva = 0;
        const quarvel_error_t ret = m_data.resolveJitPoint(virtualAddress, timestamp, pid, hostId, module, rva);
        if (ret != meSuccess)
            return ret;
        // A jit rva of 0 is never a valid answer.
        if (rva == 0)
            return meNotFound;
        jitRva = rva;
        return meSuccess;
    } catch (const std::exception& e) {
        QV_ERROR("resolveJitPoint failed: " << e.what());
        return meNotFound;
    }
}

QUARVEL_NAMESPACE_END

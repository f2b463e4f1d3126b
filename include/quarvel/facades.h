#ifndef QUARVEL_FACADES_H
#define QUARVEL_FACADES_H

// The library's front doors. Every factory returns an empty pointer when it
// fails and never throws for a bad input file.

#include <quarvel/base_object.h>
#include <quarvel/dotnet.h>
#include <quarvel/export.h>
#include <quarvel/generic_iterator.h>
#include <quarvel/symbol.h>
#include <quarvel/types.h>

#include <boost/intrusive_ptr.hpp>

QUARVEL_NAMESPACE_BEGIN

// Per-sample resolution for profilers: reads a process's trace files the
// first time a query names that process.
class QUARVEL_API IJitLoader : public BaseObject {
public:
    typedef boost::intrusive_ptr<IJitLoader> Ptr;

    // Unknown names yield host id 0 and meSuccess; a null hostId yields meInvalidPointer.
    virtual quarvel_error_t getHostIdByName(const char* hostName, unsigned* hostId) const = 0;
    // Note the order: the time stamp comes first.
    virtual quarvel_error_t resolveJitPoint(u64 timestamp, u64 virtualAddress, unsigned pid, unsigned hostId,
                                            u64* jitRva, IModule::Ptr& module) = 0;
    // The first region loaded over [startAddress, endAddress) after timestamp.
    virtual quarvel_error_t findOverlappedRegion(u64 timestamp, u64 startAddress, u64 endAddress, unsigned pid,
                                                 unsigned hostId, ICodeRegion::Ptr& region) = 0;
    virtual IModuleEvaluator::Ptr getModuleEvaluator(const char* modulePath) const = 0;
    virtual quarvel_error_t findSymbol(const char* moduleName, unsigned methodId, ISymbol::Ptr& symbol) = 0;

    // Paths of trace files or of directories that hold them.
    static Ptr create(generic_iterator_t<const char*>& jitFiles);
    static Ptr create(generic_iterator_t<JitFileDescriptor>& jitFiles);
};

// A file the caller's locator found.
class QUARVEL_API ILocatedFile : public BaseObject {
public:
    typedef boost::intrusive_ptr<ILocatedFile> Ptr;
    virtual const char* getPath() const = 0;
};

// Implemented by the caller: finds a module's assembly and debug file. The
// symbol resolver asks it once per .NET module path of the trace.
class QUARVEL_API ISymbolFileLocator : public BaseObject {
public:
    typedef boost::intrusive_ptr<ISymbolFileLocator> Ptr;
    // Leaves an output empty when that file was not found.
    virtual void locate(const char* modulePath, ILocatedFile::Ptr& assembly, ILocatedFile::Ptr& debugFile) = 0;

    // The library's own locator, for assemblies that are still where the
    // trace says they were loaded from: the assembly is the module path when
    // that is a readable file; the debug file is the .pdb of the same name
    // beside it when one exists. Without a debug file the assembly reader
    // looks for the PDB its CodeView record names, then for one embedded in
    // the assembly; a PDB whose id does not match the assembly is refused.
    // A resolver created without a locator behaves the same way. A caller's
    // own locator may delegate to this one for the modules it does not know.
    static Ptr createDefault();
};

// The full symbol view for post-processing: reads every file at creation.
// Queries may come from any number of threads. getSymbol completes a .NET
// method the first time it hands it out (names from its assembly, lines from
// its PDB); getSymbols lists methods as the traces gave them. A method taken
// from getSymbols is therefore not to be read on one thread while another
// thread's getSymbol may be completing it: ask getSymbol for it instead.
class QUARVEL_API ISymbolResolver : public BaseObject {
public:
    typedef boost::intrusive_ptr<ISymbolResolver> Ptr;

    virtual quarvel_error_t getHostNameById(unsigned hostId, const char** hostName) const = 0;
    virtual ISymbol::Ptr getSymbol(u64 jitRva) = 0;
    virtual quarvel_error_t getCalleeRegion(u64 callerJitRva, u64 targetAddress, u64* calleeJitRva) = 0;
    virtual generic_iterator_t<ISymbol::Ptr> getSymbols() = 0;
    virtual quarvel_error_t translateToJitRva(unsigned methodId, u64 address, const char* jitFileName,
                                              u64* jitRva) const = 0;

    static Ptr create(generic_iterator_t<const char*>& jitFiles, ISymbolFileLocator::Ptr& locator);
    static Ptr create(generic_iterator_t<const char*>& jitFiles, ISymbolFileLocator::Ptr& locator, quarvel_arch arch);
    // Never fails: a descriptor list is trusted.
    static Ptr create(generic_iterator_t<JitFileDescriptor>& jitFiles, ISymbolFileLocator::Ptr& locator);
};

// Which processes left trace files; reads no records.
class QUARVEL_API IJitProcesses : public BaseObject {
public:
    typedef boost::intrusive_ptr<IJitProcesses> Ptr;
    // For each host in ascending host id, its process ids in ascending order.
    // The ids come without their hosts: a pid that ran on two hosts (traces
    // gathered from several machines) is listed twice, and nothing here says
    // which host each entry belongs to. Callers that need the host ask the
    // loader or the resolver (getHostIdByName / getHostNameById) with the
    // host names they know, or list files with listTraceFiles
    // (quarvel/diagnostics.h), which pairs each pid with its host.
    virtual generic_iterator_t<unsigned> getJitProcessId() const = 0;

    static Ptr create(generic_iterator_t<const char*>& jitFiles);
};

QUARVEL_NAMESPACE_END

#endif

#ifndef QUARVEL_SYMBOL_H
#define QUARVEL_SYMBOL_H

// The read-only view of the model that queries hand out: a jitted method
// (ISymbol), one of its code regions (ICodeRegion), its module, source file
// and a resolved source location.

#include <quarvel/base_object.h>
#include <quarvel/byte_buffer.h>
#include <quarvel/export.h>
#include <quarvel/generic_iterator.h>
#include <quarvel/types.h>

#include <boost/intrusive_ptr.hpp>

QUARVEL_NAMESPACE_BEGIN

class ISymbol;

// A module that jitted methods belong to.
class QUARVEL_API IModule : public BaseObject {
public:
    typedef boost::intrusive_ptr<IModule> Ptr;
    // Never empty: code without a module reports "[Dynamic code]".
    virtual const char* getFilePath() const = 0;
    // The status the module was made with (0 for dynamic and compiled-Java code).
    virtual quarvel_error_t isBogus() const = 0;
    virtual quarvel_arch getArchitecture() const = 0;
};

class QUARVEL_API ISourceFile : public BaseObject {
public:
    typedef boost::intrusive_ptr<ISourceFile> Ptr;
    virtual const char* getSourceFileName() const = 0;
    virtual const char* getChecksum() const = 0;
    virtual unsigned getChecksumType() const = 0;
    // Time stamps and sizes of source files are not tracked: always 0.
    virtual u64 getTime() const = 0;
    virtual u64 getSize() const = 0;
    virtual unsigned getLanguageType() const = 0;
};

class QUARVEL_API ISourceLocation : public BaseObject {
public:
    typedef boost::intrusive_ptr<ISourceLocation> Ptr;
    virtual unsigned getLine() const = 0;
    virtual ISourceFile::Ptr getSourceFile() const = 0;
};

// One contiguous piece of jitted code of one method in one process.
class QUARVEL_API ICodeRegion : public BaseObject {
public:
    typedef boost::intrusive_ptr<ICodeRegion> Ptr;
    virtual u64 getStartJitRva() const = 0;
    virtual u64 getLoadTime() const = 0;
    // 0 while the region is live.
    virtual u64 getUnloadTime() const = 0;
    virtual u64 getStartVirtualAddress() const = 0;
    virtual unsigned getLength() const = 0;
    virtual unsigned getProcessId() const = 0;
    virtual unsigned getHostID() const = 0;
    // Empty when the trace carried no code bytes or they were not kept.
    // Otherwise a buffer of the caller's own that views the region's bytes
    // and keeps them alive: assigning to it changes only that buffer.
    virtual IByteBuffer::Ptr getBytes() const = 0;
    // The method inlined at jitRva (the first inline child containing it), or null.
    virtual boost::intrusive_ptr<ISymbol> getInlinedSymbol(u64 jitRva) const = 0;
    virtual Ptr getInlinedCodeRegion(u64 jitRva) const = 0;
};

// A jitted method: names, module, source file, code regions and line tables.
class QUARVEL_API ISymbol : public BaseObject {
public:
    typedef boost::intrusive_ptr<ISymbol> Ptr;
    // .NET metadata token, 0 for other runtimes.
    virtual unsigned getMethodToken() const = 0;
    virtual const char* getMethodName() const = 0;
    virtual const char* getQualifiedMethodName() const = 0;
    virtual const char* getClassName() const = 0;
    virtual IModule::Ptr getModule() const = 0;
    // Null when the method has no source file.
    virtual ISourceFile::Ptr getSourceFile() const = 0;
    virtual generic_iterator_t<ICodeRegion::Ptr> getRegions() const = 0;
    // Virtual address of a jit rva inside one of the method's regions.
    virtual quarvel_error_t getVirtualAddress(u64 jitRva, u64* virtualAddress) const = 0;
    virtual quarvel_error_t getPid(u64 jitRva, unsigned& pid) const = 0;
    virtual u64 getLoadTime() const = 0;
    virtual u64 getUnloadTime() const = 0;
    // With entries null, writes the count only. jitRva 0 asks for the first
    // code range; a non-zero jitRva selects the range that contains it.
    // Not safe to call concurrently on one method (see the README).
    virtual quarvel_error_t getLineNumberInfo(quarvel_line_info_type type, quarvel_line_number_entry* entries,
                                              unsigned* count, u64 jitRva) const = 0;
    // The lowest and highest source line of the method (in the value fields).
    virtual quarvel_error_t getSourceRange(quarvel_line_number_entry* first, quarvel_line_number_entry* last,
                                           u64 jitRva) const = 0;
    virtual ISourceLocation::Ptr getSourceLocation(u64 jitRva) const = 0;
    virtual u64 getStartJitRva() const = 0;
    // The method id as written in the trace.
    virtual unsigned getMethodID() const = 0;
};

QUARVEL_NAMESPACE_END

#endif

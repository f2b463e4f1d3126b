#ifndef QUARVEL_DOTNET_H
#define QUARVEL_DOTNET_H

#include <quarvel/base_object.h>
#include <quarvel/export.h>
#include <quarvel/types.h>

#include <boost/intrusive_ptr.hpp>

QUARVEL_NAMESPACE_BEGIN

class DotNetMethod; // opaque to callers

// Tells whether a module path names precompiled or non-file code.
class QUARVEL_API IModuleEvaluator : public BaseObject {
public:
    typedef boost::intrusive_ptr<IModuleEvaluator> Ptr;
    // meSuccess when the module is such an image, meNotFound otherwise.
    virtual quarvel_error_t isNativeImage() const = 0;
};

// Reads .NET assembly metadata for the symbol resolver.
class QUARVEL_API IAssemblyReader : public BaseObject {
public:
    typedef boost::intrusive_ptr<IAssemblyReader> Ptr;
    virtual boost::intrusive_ptr<DotNetMethod> getMethod(unsigned token) const = 0;

    // debugFilePath may be null. Writes reader only on success.
    static quarvel_error_t create(const char* assemblyPath, const char* debugFilePath, Ptr& reader);
};

QUARVEL_NAMESPACE_END

#endif

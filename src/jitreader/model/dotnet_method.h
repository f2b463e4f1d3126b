#ifndef QUARVEL_MODEL_DOTNET_METHOD_H
#define QUARVEL_MODEL_DOTNET_METHOD_H

#include "model/clr_symreader.h"
#include "model/source_file.h"

#include <quarvel/base_object.h>
#include <quarvel/dotnet.h>
#include <quarvel/types.h>

#include <ostream>
#include <string>
#include <utility>

QUARVEL_NAMESPACE_BEGIN

// Joins a .NET metadata token to the names the assembly reader read for it
// and to the portable PDB reader of its assembly. The record does not read
// metadata itself: a DotNetMethod made from a token alone answers empty
// names; IAssemblyReader::getMethod fills them (setNames) from the
// assembly's metadata, along with the PDB reader.
class DotNetMethod : public BaseObject {
public:
    typedef boost::intrusive_ptr<DotNetMethod> Ptr;

    explicit DotNetMethod(u32 token) : m_token(token) {}

    u32 token() const { return m_token; }
    // The MethodDef row: the token without its table byte.
    u32 rowId() const { return m_token & 0xFFFFFFu; }

    const CoreCLRSymbolReader::Ptr& symbolReader() const { return m_symbolReader; }
    void setSymbolReader(const CoreCLRSymbolReader::Ptr& reader) { m_symbolReader = reader; }

    // meNotFound without a PDB reader or when the reader knows no file.
    quarvel_error_t getSourceFileInfo(SourceFile& out) const;
    // 0 without a PDB reader or when the reader knows no line.
    u32 getSourceLineByILOffset(u32 ilOffset) const;
    // The managed-to-source table is never delivered through this record: always meNotFound.
    quarvel_error_t getILToSourceMapping(quarvel_line_number_entry* entries, unsigned* count) const;

    // className: the declaring type's full name, nesting joined with "."
    // ("Ns.Outer`1.Inner"); methodName as in metadata (".ctor", "Add");
    // signature: method type parameters and parameter types, "<T>(int, T[])".
    void setNames(std::string className, std::string methodName, std::string signature) {
        m_className = std::move(className);
        m_methodName = std::move(methodName);
        m_signature = std::move(signature);
    }
    const std::string& getClassName() const { return m_className; }
    const std::string& getMethodName() const { return m_methodName; }
    const std::string& getMethodSignature() const { return m_signature; }
    // Other tokens would need the assembly: these stay empty.
    std::string getClassNameByToken(u32 /*token*/) const { return std::string(); }
    std::string getOriginalMethodNameByToken(u32 /*token*/) const { return std::string(); }
    std::string getOriginalClassNameByToken(u32 /*token*/) const { return std::string(); }

private:
    u32 m_token;
    CoreCLRSymbolReader::Ptr m_symbolReader;
    std::string m_className;
    std::string m_methodName;
    std::string m_signature;
};

std::ostream& operator<<(std::ostream& os, const DotNetMethod& method);

QUARVEL_NAMESPACE_END

#endif

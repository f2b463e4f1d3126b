#ifndef QUARVEL_MODEL_BASE_METHOD_INFO_H
#define QUARVEL_MODEL_BASE_METHOD_INFO_H

#include "model/base_method_id.h"
#include "model/source_file.h"

#include <quarvel/symbol.h>

#include <string>

namespace quarvel_3_13 {

// Names, identity, module and source file of a method; shared by a method and its clones.
class BaseMethodInfo : public BaseObject {
public:
    typedef boost::intrusive_ptr<BaseMethodInfo> Ptr;

    const BaseMethodId& getMethodId() const { return m_methodId; }
    const BaseMethodId& getParentId() const { return m_parentId; }
    void setMethodId(const BaseMethodId& id) { m_methodId = id; }
    void setParentId(const BaseMethodId& id) { m_parentId = id; }

    unsigned methodToken() const { return m_methodToken; }
    void setMethodToken(unsigned token) { m_methodToken = token; }

    const std::string& methodName() const { return m_methodName; }
    const std::string& qualifiedMethodName() const { return m_qualifiedMethodName; }
    const std::string& className() const { return m_className; }

    // "a.b.C" is stored as "a::b::C"; empty input or dots only keep the old name.
    void setClassName(const std::string& name);
    // Demangles Itanium names; otherwise qualifies the name with the class
    // name and "::" (see the .cpp). Call setClassName first.
    void setMethodName(const std::string& name);
    // A name kept exactly as written, as both the method name and the
    // qualified name: runtimes that write names for profilers (jitdump files,
    // perf maps) already made them readable, and dots or parentheses in them
    // are not a class path or a parameter list.
    void setVerbatimName(const std::string& name) { m_methodName = m_qualifiedMethodName = name; }

    const IModule::Ptr& module() const { return m_module; }
    void setModule(const IModule::Ptr& module) { m_module = module; }

    const SourceFile& sourceFile() const { return m_sourceFile; }
    void setSourceFile(const SourceFile& file) { m_sourceFile = file; }
    // Null when the source file name is empty; a new object on every call.
    ISourceFile::Ptr getSourceFile() const;

private:
    BaseMethodId m_methodId;
    BaseMethodId m_parentId;
    unsigned m_methodToken = 0;
    std::string m_methodName;
    std::string m_qualifiedMethodName;
    std::string m_className;
    IModule::Ptr m_module;
    SourceFile m_sourceFile;
};

} // namespace quarvel_3_13

#endif

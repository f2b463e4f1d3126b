#ifndef QUARVEL_MODEL_BASE_METHOD_INFO_H
#define QUARVEL_MODEL_BASE_METHOD_INFO_H

#include "model/base_method_id.h"
#include "model/source_file.h"

#include "support/block_heap.h"
#include "support/object_pool.h"

#include <quarvel/symbol.h>

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

QUARVEL_NAMESPACE_BEGIN

// Names, identity, module and source file of a method; shared by a method and its clones.
class BaseMethodInfo : public BaseObject, public Pooled<BaseMethodInfo> {
public:
    typedef boost::intrusive_ptr<BaseMethodInfo> Ptr;

    const BaseMethodId& getMethodId() const { return m_methodId; }
    const BaseMethodId& getParentId() const { return m_parentId; }
    void setMethodId(const BaseMethodId& id) { m_methodId = id; }
    void setParentId(const BaseMethodId& id) { m_parentId = id; }

    unsigned methodToken() const { return m_methodToken; }
    void setMethodToken(unsigned token) { m_methodToken = token; }

    // Names. Only the qualified name's data() is a C string: the method and
    // class names are most often its prefixes and are views into it.
    std::string_view methodName() const;
    std::string_view qualifiedMethodName() const;
    std::string_view className() const;
    // The method and class names as C strings, valid while the names stay.
    // A name that is a prefix gets its own copy the first time one is asked
    // for (thread-safe): most methods are never named to anyone.
    const char* methodNameCString() const;
    const char* classNameCString() const;

    // "a.b.C" is stored as "a::b::C"; empty input or dots only keep the old name.
    void setClassName(const std::string& name) { setClassAndMethodName(name, std::string()); }
    // Demangles Itanium names; otherwise qualifies the name with the class
    // name and "::" (see the .cpp). Call setClassName first.
    void setMethodName(const std::string& name) { setClassAndMethodName(std::string(), name); }
    // Both at once, as setClassName and then setMethodName would set them,
    // with one allocation for the names rather than two.
    void setClassAndMethodName(const std::string& className, const std::string& methodName);
    // The names from a class name and a qualified method name already in
    // stored form (joined with "::", not mangled); the method name is the
    // qualified name up to its parameter list. For a new method this is what
    // setClassAndMethodName gives when the class name and the method name
    // are such (see appendJoined and mayBeMangled).
    void setQualifiedNames(std::string_view className, std::string_view qualified);
    // Appends text with its "."-separated tokens joined by "::", empty tokens
    // dropped: the stored form of class names and of names that are not mangled.
    static void appendJoined(std::string_view text, std::string& out);
    // Whether setMethodName tries to demangle the name (an Itanium prefix).
    static bool mayBeMangled(std::string_view name) { return name.size() >= 3 && name.compare(0, 2, "_Z") == 0; }
    // A name kept exactly as written, as both the method name and the
    // qualified name: runtimes that write names for profilers (jitdump files,
    // perf maps) already made them readable, and dots or parentheses in them
    // are not a class path or a parameter list.
    void setVerbatimName(const std::string& name) { setNames(className(), name, name); }

    const IModule::Ptr& module() const { return m_module; }
    void setModule(const IModule::Ptr& module) { m_module = module; }
    void setModule(IModule::Ptr&& module) { m_module = std::move(module); }

    // The source file, shared (it never changes once set): methods of one
    // file may hold one object.
    const SourceFile& sourceFile() const;
    void setSourceFile(const SourceFile& file) { m_sourceFile = SourceFile::Ptr(new SourceFile(file)); }
    const SourceFile::Ptr& sharedSourceFile() const { return m_sourceFile; }
    void shareSourceFile(const SourceFile::Ptr& file) { m_sourceFile = file; }
    // Takes over file's reference: the file object is not touched.
    void shareSourceFile(SourceFile::Ptr&& file) { m_sourceFile = std::move(file); }
    // Null when the source file name is empty; a new object on every call.
    ISourceFile::Ptr getSourceFile() const;

    BaseMethodInfo() = default;
    ~BaseMethodInfo() override;
    BaseMethodInfo(const BaseMethodInfo& other);
    BaseMethodInfo& operator=(const BaseMethodInfo& other);

private:
    // The head of the names block. The qualified name follows it. When the
    // class name is a prefix of the method name and that of the qualified
    // name ("a::B" < "a::B::m" < "a::B::m(int)", and names written verbatim)
    // they are not stored again; copies with their own NULs are made on
    // demand. Otherwise the copies are made at once.
    struct NamesHead {
        u32 classLength;
        u32 methodLength;                  // kSeparate: the names are not prefixes
        mutable std::atomic<char*> copies; // "class\0method\0"
    };
    static constexpr u32 kSeparate = 0x80000000u;
    static constexpr size_t kMaxNameLength = kSeparate - 1; // longer names are cut (only a hostile trace has them)

    const NamesHead* head() const { return reinterpret_cast<const NamesHead*>(m_names); }
    const char* qualified() const { return m_names + sizeof(NamesHead); }
    u32 methodLength() const { return head()->methodLength & ~kSeparate; }
    bool separate() const { return (head()->methodLength & kSeparate) != 0; }
    const char* copies() const; // makes them when missing
    size_t copiesBytes() const { return head()->classLength + methodLength() + 2; }
    size_t namesBytes() const; // of m_names
    void freeNames() noexcept;
    void setNames(std::string_view className, std::string_view methodName, std::string_view qualified);

    unsigned m_methodToken = 0; // first: it fills the base's tail padding
    BaseMethodId m_methodId;
    BaseMethodId m_parentId;
    char* m_names = nullptr; // one block_heap block: NamesHead, then the qualified name; null: all three empty
    IModule::Ptr m_module;
    SourceFile::Ptr m_sourceFile;
};

QUARVEL_NAMESPACE_END

#endif

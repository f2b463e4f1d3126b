#include "model/base_method_info.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

QUARVEL_NAMESPACE_BEGIN

namespace {

// The demangled name without its trailing parameter list (and qualifiers).
std::string stripParameters(const std::string& full) {
    size_t end = full.size();
    // Trailing cv/ref qualifiers of member functions.
    for (const char* suffix : {" const", " volatile", " &&", " &"}) {
        const size_t n = std::char_traits<char>::length(suffix);
        while (end >= n && full.compare(end - n, n, suffix) == 0)
            end -= n;
    }
    if (end == 0 || full[end - 1] != ')')
        return full.substr(0, end);
    int depth = 0;
    for (size_t i = end; i-- > 0;) {
        if (full[i] == ')')
            ++depth;
        else if (full[i] == '(' && --depth == 0)
            return full.substr(0, i);
    }
    return full.substr(0, end);
}

// Itanium-mangled names only; false for anything else.
bool demangle(const std::string& name, std::string& shortName, std::string& fullName) {
    if (!BaseMethodInfo::mayBeMangled(name))
        return false;
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> text(abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status),
                                                std::free);
    if (status != 0 || !text)
        return false;
    fullName = text.get();
    shortName = stripParameters(fullName);
    return true;
}

} // namespace

BaseMethodInfo::~BaseMethodInfo() {
    if (m_names)
        block_heap::free(m_names, namesBytes());
}

BaseMethodInfo::BaseMethodInfo(const BaseMethodInfo& other)
    : BaseObject(), m_methodToken(other.m_methodToken), m_methodId(other.m_methodId), m_parentId(other.m_parentId),
      m_module(other.m_module), m_sourceFile(other.m_sourceFile) {
    setNames(other.className(), other.methodName(), other.qualifiedMethodName());
}

BaseMethodInfo& BaseMethodInfo::operator=(const BaseMethodInfo& other) {
    if (this != &other) {
        m_methodId = other.m_methodId;
        m_parentId = other.m_parentId;
        m_methodToken = other.m_methodToken;
        m_module = other.m_module;
        m_sourceFile = other.m_sourceFile;
        setNames(other.className(), other.methodName(), other.qualifiedMethodName());
    }
    return *this;
}

std::string_view BaseMethodInfo::name(int which) const {
    if (!m_names)
        return std::string_view("", 0);
    const char* at = m_names;
    for (int i = 0; i < which; ++i)
        at += std::strlen(at) + 1;
    return std::string_view(at);
}

size_t BaseMethodInfo::namesBytes() const {
    const std::string_view qualified = name(2);
    return static_cast<size_t>(qualified.data() + qualified.size() + 1 - m_names);
}

void BaseMethodInfo::setNames(std::string_view className, std::string_view methodName, std::string_view qualified) {
    // A name ends at its first NUL, as the C strings handed out do: the
    // block needs no lengths then.
    std::string_view parts[3] = {className, methodName, qualified};
    for (std::string_view& part : parts)
        part = part.substr(0, part.find('\0'));
    // The new names may be views into the old block: it goes only at the end.
    char* const old = m_names;
    const size_t oldBytes = old ? namesBytes() : 0;
    char* names = nullptr;
    if (!parts[0].empty() || !parts[1].empty() || !parts[2].empty()) {
        names = static_cast<char*>(block_heap::allocate(parts[0].size() + parts[1].size() + parts[2].size() + 3));
        char* at = names;
        for (const std::string_view& part : parts) {
            at = std::copy(part.begin(), part.end(), at);
            *at++ = '\0';
        }
    }
    m_names = names;
    if (old)
        block_heap::free(old, oldBytes);
}

void BaseMethodInfo::appendJoined(std::string_view text, std::string& out) {
    const size_t start = out.size();
    size_t pos = 0;
    while (pos < text.size()) {
        const size_t dot = text.find('.', pos);
        const size_t end = dot == std::string_view::npos ? text.size() : dot;
        if (end > pos) {
            if (out.size() > start)
                out += "::";
            out.append(text.data() + pos, end - pos);
        }
        if (dot == std::string_view::npos)
            break;
        pos = dot + 1;
    }
}

void BaseMethodInfo::setQualifiedNames(std::string_view className, std::string_view qualified) {
    setNames(className, qualified.substr(0, qualified.find('(')), qualified);
}

void BaseMethodInfo::setClassAndMethodName(const std::string& cls, const std::string& name) {
    std::string joinedClass;
    appendJoined(cls, joinedClass);
    // Empty input or dots only keep the old class name.
    const std::string keptClass = joinedClass.empty() ? std::string(className()) : joinedClass;
    const auto keepClassOnly = [&] {
        if (!joinedClass.empty())
            setNames(joinedClass, methodName(), qualifiedMethodName());
    };
    if (name.empty())
        return keepClassOnly();

    std::string shortName;
    std::string fullName;
    if (demangle(name, shortName, fullName) && !shortName.empty() && shortName != name) {
        setNames(keptClass, shortName, fullName);
        return;
    }

    // Not mangled: qualify with the class. The parameter list is split at
    // dots too, so run(java.lang.String) in pkg::Foo is pkg::Foo::run(java::lang::String).
    std::string qualified = keptClass.empty() ? std::string() : keptClass + "::";
    appendJoined(name, qualified);
    if (qualified.empty())
        return keepClassOnly();
    setQualifiedNames(keptClass, qualified);
}

const SourceFile& BaseMethodInfo::sourceFile() const {
    static const SourceFile none;
    return m_sourceFile ? *m_sourceFile : none;
}

ISourceFile::Ptr BaseMethodInfo::getSourceFile() const {
    if (!m_sourceFile || m_sourceFile->name().empty())
        return ISourceFile::Ptr();
    return ISourceFile::Ptr(new SourceFile(*m_sourceFile));
}

QUARVEL_NAMESPACE_END

#include "model/base_method_info.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <utility>

namespace quarvel_3_13 {

namespace {

// Joins the "."-separated tokens of text with "::", dropping empty tokens.
// Every method name goes through here, so it works in place, without a tokenizer.
std::string joinDotted(const std::string& text) {
    std::string joined;
    joined.reserve(text.size() + 16);
    size_t pos = 0;
    while (pos < text.size()) {
        const size_t dot = text.find('.', pos);
        const size_t end = dot == std::string::npos ? text.size() : dot;
        if (end > pos) {
            if (!joined.empty())
                joined += "::";
            joined.append(text, pos, end - pos);
        }
        if (dot == std::string::npos)
            break;
        pos = dot + 1;
    }
    return joined;
}

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
    if (name.size() < 3 || name.compare(0, 2, "_Z") != 0)
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

void BaseMethodInfo::setClassName(const std::string& name) {
    if (name.empty())
        return;
    std::string joined = joinDotted(name);
    if (!joined.empty())
        m_className = std::move(joined);
}

void BaseMethodInfo::setMethodName(const std::string& name) {
    if (name.empty())
        return;

    std::string shortName;
    std::string fullName;
    if (demangle(name, shortName, fullName) && !shortName.empty() && shortName != name) {
        m_methodName = shortName;
        m_qualifiedMethodName = fullName;
        return;
    }

    // Not mangled: qualify with the class. The parameter list is split at
    // dots too, so run(java.lang.String) in pkg::Foo is pkg::Foo::run(java::lang::String).
    std::string qualified = m_className.empty() ? std::string() : m_className + "::";
    qualified += joinDotted(name);

    const size_t paren = qualified.find('(');
    if (paren != std::string::npos)
        m_methodName = qualified.substr(0, paren);
    else if (!qualified.empty())
        m_methodName = qualified;
    if (!qualified.empty())
        m_qualifiedMethodName = std::move(qualified);
}

ISourceFile::Ptr BaseMethodInfo::getSourceFile() const {
    if (m_sourceFile.name().empty())
        return ISourceFile::Ptr();
    return ISourceFile::Ptr(new SourceFile(m_sourceFile));
}

} // namespace quarvel_3_13

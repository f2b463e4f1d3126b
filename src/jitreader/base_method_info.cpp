#include "base_method_info.h"

#include <boost/tokenizer.hpp>

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace quarvel_3_13 {

namespace {

typedef boost::tokenizer<boost::char_separator<char>> Tokenizer;

// Joins the "."-separated tokens of text with "::", dropping empty tokens.
std::string joinDotted(const std::string& text) {
    const boost::char_separator<char> dot(".");
    const Tokenizer tokens(text, dot);
    std::string joined;
    for (const std::string& token : tokens) {
        if (!joined.empty())
            joined += "::";
        joined += token;
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
    const std::string joined = joinDotted(name);
    if (!joined.empty())
        m_className = joined;
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
        m_qualifiedMethodName = qualified;
}

ISourceFile::Ptr BaseMethodInfo::getSourceFile() const {
    if (m_sourceFile.name().empty())
        return ISourceFile::Ptr();
    return ISourceFile::Ptr(new SourceFile(m_sourceFile));
}

} // namespace quarvel_3_13

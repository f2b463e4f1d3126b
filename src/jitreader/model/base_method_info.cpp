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
    freeNames();
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

std::string_view BaseMethodInfo::qualifiedMethodName() const {
    return m_names ? std::string_view(qualified()) : std::string_view("", 0);
}

std::string_view BaseMethodInfo::methodName() const {
    if (!m_names)
        return std::string_view("", 0);
    return std::string_view(separate() ? copies() + head()->classLength + 1 : qualified(), methodLength());
}

std::string_view BaseMethodInfo::className() const {
    if (!m_names)
        return std::string_view("", 0);
    return std::string_view(separate() ? copies() : qualified(), head()->classLength);
}

const char* BaseMethodInfo::methodNameCString() const {
    if (!m_names)
        return "";
    // The whole qualified name, as for names written verbatim, has its NUL already.
    if (!separate() && qualified()[methodLength()] == '\0')
        return qualified();
    return copies() + head()->classLength + 1;
}

const char* BaseMethodInfo::classNameCString() const {
    if (!m_names || head()->classLength == 0)
        return "";
    if (!separate() && qualified()[head()->classLength] == '\0')
        return qualified();
    return copies();
}

const char* BaseMethodInfo::copies() const {
    const NamesHead& h = *head();
    char* made = h.copies.load(std::memory_order_acquire);
    if (made)
        return made;
    const size_t bytes = copiesBytes();
    char* const fresh = static_cast<char*>(block_heap::allocate(bytes));
    char* at = std::copy_n(qualified(), h.classLength, fresh);
    *at++ = '\0';
    at = std::copy_n(qualified(), methodLength(), at);
    *at = '\0';
    // Another thread may have made them meanwhile: the first one stays.
    if (h.copies.compare_exchange_strong(made, fresh, std::memory_order_acq_rel, std::memory_order_acquire))
        return fresh;
    block_heap::free(fresh, bytes);
    return made;
}

size_t BaseMethodInfo::namesBytes() const {
    return sizeof(NamesHead) + std::strlen(qualified()) + 1;
}

void BaseMethodInfo::freeNames() noexcept {
    if (!m_names)
        return;
    if (char* const made = head()->copies.load(std::memory_order_acquire))
        block_heap::free(made, copiesBytes());
    head()->~NamesHead();
    block_heap::free(m_names, namesBytes());
    m_names = nullptr;
}

void BaseMethodInfo::setNames(std::string_view className, std::string_view methodName, std::string_view qualified) {
    // A name ends at its first NUL, as the C strings handed out do.
    std::string_view parts[3] = {className, methodName, qualified};
    bool prefixes = false;
    if (className.data() == qualified.data() && methodName.data() == qualified.data() &&
        className.size() <= qualified.size() && methodName.size() <= qualified.size()) {
        // Views of the qualified name's start (the usual case): its first
        // NUL is theirs, and they are its prefixes when their lengths say so.
        const size_t cut = std::min(qualified.find('\0'), kMaxNameLength);
        for (std::string_view& part : parts)
            part = part.substr(0, std::min(part.size(), cut));
        prefixes = parts[0].size() <= parts[1].size();
    } else {
        for (std::string_view& part : parts)
            part = part.substr(0, std::min(part.find('\0'), kMaxNameLength));
        prefixes = parts[1].substr(0, parts[0].size()) == parts[0] && parts[2].substr(0, parts[1].size()) == parts[1];
    }
    char* names = nullptr;
    if (!parts[0].empty() || !parts[1].empty() || !parts[2].empty()) {
        char* separateNames = nullptr;
        const size_t separateBytes = parts[0].size() + parts[1].size() + 2;
        if (!prefixes) {
            separateNames = static_cast<char*>(block_heap::allocate(separateBytes));
            char* at = std::copy(parts[0].begin(), parts[0].end(), separateNames);
            *at++ = '\0';
            *std::copy(parts[1].begin(), parts[1].end(), at) = '\0';
        }
        try {
            names = static_cast<char*>(block_heap::allocate(sizeof(NamesHead) + parts[2].size() + 1));
        } catch (...) {
            if (separateNames)
                block_heap::free(separateNames, separateBytes);
            throw;
        }
        new (names) NamesHead{static_cast<u32>(parts[0].size()),
                              static_cast<u32>(parts[1].size()) | (prefixes ? 0 : kSeparate),
                              {separateNames}};
        *std::copy(parts[2].begin(), parts[2].end(), names + sizeof(NamesHead)) = '\0';
    }
    // The new names may have been views into the old blocks: they go only now.
    freeNames();
    m_names = names;
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

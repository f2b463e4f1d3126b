#include "model/java_signature_parser.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>

QUARVEL_NAMESPACE_BEGIN

namespace {

// Nesting of arrays and type arguments is limited so that a hostile name
// ("[[[[..." or "La<La<La<...") cannot exhaust the stack. The class file
// format allows at most 255 array dimensions; real generics nest far less.
const unsigned kMaxDepth = 256;

void unmangleType(const std::string& sig, uint32_t& pos, std::string& out, unsigned depth);

void unmangleClassName(const std::string& sig, uint32_t& pos, std::string& out, unsigned depth) {
    // at() throws std::out_of_range past the end: the caller keeps what was read.
    while (sig.at(pos) != ';') {
        const char c = sig.at(pos);
        if (c == '/') {
            out += '.';
        } else if (c == '<') {
            out += '<';
            const uint32_t open = pos;
            for (;;) {
                ++pos;
                if (sig.at(pos) == '>')
                    break;
                if (pos - 1 != open)
                    out += ',';
                unmangleType(sig, pos, out, depth + 1);
            }
            // pos is on '>', which the next round appends.
            continue;
        } else {
            out += c;
        }
        ++pos;
    }
}

// Appends the type after a one-character prefix (+, -, [, L, ...).
void unmangleNested(const std::string& sig, uint32_t& pos, std::string& out, unsigned depth) {
    ++pos;
    unmangleType(sig, pos, out, depth + 1);
}

void unmangleType(const std::string& sig, uint32_t& pos, std::string& out, unsigned depth) {
    if (pos >= sig.size() || depth > kMaxDepth)
        return;
    switch (sig[pos]) {
    case 'B':
        out += "byte";
        break;
    case 'C':
        out += "char";
        break;
    case 'D':
        out += "double";
        break;
    case 'F':
        out += "float";
        break;
    case 'I':
        out += "int";
        break;
    case 'J':
        out += "long";
        break;
    case 'S':
        out += "short";
        break;
    case 'V':
        out += "void";
        break;
    case 'Z':
        out += "boolean";
        break;
    case 'L':
    case 'T':
        ++pos;
        try {
            unmangleClassName(sig, pos, out, depth);
        } catch (const std::out_of_range&) {
            // A truncated descriptor: keep the text read so far.
        }
        break;
    case '[':
        unmangleNested(sig, pos, out, depth);
        out += "[]";
        break;
    case '*':
        out += '?';
        break;
    case '+':
        out += "? extends ";
        unmangleNested(sig, pos, out, depth);
        break;
    case '-':
        out += "? super ";
        unmangleNested(sig, pos, out, depth);
        break;
    case ':': {
        // A bound of a type parameter: "T::Ljava/lang/Runnable;" or ";:Lx;" (an extra interface bound).
        const uint32_t colon = pos;
        ++pos;
        if (pos < sig.size() && sig[pos] == ':') {
            out += " extends ";
            unmangleNested(sig, pos, out, depth);
        } else {
            if (colon > 0 && sig[colon - 1] == ';')
                out += " & ";
            unmangleType(sig, pos, out, depth + 1);
        }
        break;
    }
    default:
        // Unknown letters contribute nothing.
        break;
    }
}

// The readable name of a primitive type's letter; empty for other letters.
std::string_view primitiveName(char letter) {
    switch (letter) {
    case 'B':
        return "byte";
    case 'C':
        return "char";
    case 'D':
        return "double";
    case 'F':
        return "float";
    case 'I':
        return "int";
    case 'J':
        return "long";
    case 'S':
        return "short";
    case 'V':
        return "void";
    case 'Z':
        return "boolean";
    default:
        return std::string_view();
    }
}

// The joined forms below are written through a pointer into room made
// beforehand: they are written for every method read, and appending piece by
// piece costs more than the conversion. Each returns the end of what it
// wrote, or null for a form it does not take (the general path does).

char* put(char* at, std::string_view text) {
    return std::copy(text.begin(), text.end(), at);
}

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
constexpr uint64_t kEachByte = 0x0101010101010101ull;
// The high bit of the first zero byte of v is set (of later ones, maybe too).
constexpr uint64_t firstZeroByte(uint64_t v) {
    return (v - kEachByte) & ~v & (kEachByte << 7);
}
#endif

// "a/b/C" as "a::b::C" (room: twice the body, which the eight-byte stores
// below stay within). Null for an empty name, an empty package ("/a", "a//b",
// "a/") or type arguments.
char* putJoinedClassBody(std::string_view body, char* at) {
    if (body.empty() || body.front() == '/' || body.back() == '/')
        return nullptr;
    const char* p = body.data();
    const char* const end = p + body.size();
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    // Eight bytes at a time, stored whole: the output then moves up to the
    // first '/' or '<' among them, which the loop takes on its own.
    while (end - p >= 8) {
        uint64_t word;
        std::memcpy(&word, p, sizeof word);
        std::memcpy(at, &word, sizeof word);
        const uint64_t marks = firstZeroByte(word ^ (kEachByte * '/')) | firstZeroByte(word ^ (kEachByte * '<'));
        if (!marks) {
            p += 8;
            at += 8;
            continue;
        }
        const size_t plain = static_cast<size_t>(__builtin_ctzll(marks)) / 8;
        p += plain;
        at += plain;
        if (*p == '<' || p[1] == '/') // a '/' is never the last byte
            return nullptr;
        *at++ = ':';
        *at++ = ':';
        ++p;
    }
#endif
    for (; p < end; ++p) {
        const char c = *p;
        if (c == '<' || (c == '/' && p[1] == '/'))
            return nullptr;
        if (c == '/') {
            *at++ = ':';
            *at++ = ':';
        } else {
            *at++ = c;
        }
    }
    return at;
}

// The parameter that starts at pos and ends before close; leaves pos on its
// last character. Null for anything but a primitive type, an array or a class
// name putJoinedClassBody takes.
char* putJoinedParameter(std::string_view name, size_t close, size_t& pos, char* at) {
    size_t dimensions = 0;
    for (; pos < close && name[pos] == '['; ++pos)
        ++dimensions;
    if (pos >= close || dimensions > 255) // the general path's nesting limit stays out of reach
        return nullptr;
    if (name[pos] == 'L') {
        const size_t end = name.find(';', pos + 1);
        if (end >= close || !(at = putJoinedClassBody(name.substr(pos + 1, end - pos - 1), at)))
            return nullptr;
        pos = end;
    } else {
        const std::string_view primitive = primitiveName(name[pos]);
        if (primitive.empty())
            return nullptr;
        at = put(at, primitive);
    }
    for (; dimensions > 0; --dimensions)
        at = put(at, "[]");
    return at;
}

} // namespace

char* JavaSignatureParser::putJoinedMethodName(std::string_view name, char* out) {
    if (name.empty() || name.size() > UINT32_MAX)
        return nullptr;
    // Dots, commas and "[]" mark readable names, which parseMethodName keeps
    // and joining splits at their dots; so do the words after a second "(".
    for (const char mark : {',', '.', ']'})
        if (name.find(mark) != std::string_view::npos)
            return nullptr;
    const size_t open = name.find('(');
    if (open != std::string_view::npos && name.find('(', open + 1) != std::string_view::npos)
        return nullptr;
    const size_t close = open == std::string_view::npos ? open : name.find(')', open);
    if (close == std::string_view::npos)
        return put(out, name); // no parameter list: kept, and it holds no dots
    char* at = put(out, name.substr(0, open + 1));
    for (size_t pos = open + 1; at && pos < close; ++pos) {
        if (pos != open + 1)
            at = put(at, ", ");
        at = putJoinedParameter(name, close, pos, at);
    }
    if (at)
        *at++ = ')';
    return at;
}

char* JavaSignatureParser::putJoinedClassName(std::string_view name, char* out) {
    // "0x" may end a hidden class's name, which parseHiddenClassName reads.
    if (name.size() < 3 || name.front() != 'L' || name.find(';') != name.size() - 1 ||
        name.find('.') != std::string_view::npos || name.find("0x") != std::string_view::npos)
        return nullptr;
    return putJoinedClassBody(name.substr(1, name.size() - 2), out);
}

bool JavaSignatureParser::appendJoinedMethodName(std::string_view name, std::string& out) {
    if (name.size() > UINT32_MAX)
        return false;
    const size_t start = out.size();
    out.resize(start + joinedMethodNameRoom(name.size()));
    char* const first = &out[start];
    char* const end = putJoinedMethodName(name, first);
    out.resize(end ? start + static_cast<size_t>(end - first) : start);
    return end != nullptr;
}

bool JavaSignatureParser::appendJoinedClassName(std::string_view name, std::string& out) {
    const size_t start = out.size();
    out.resize(start + joinedClassNameRoom(name.size()));
    char* const first = &out[start];
    char* const end = putJoinedClassName(name, first);
    out.resize(end ? start + static_cast<size_t>(end - first) : start);
    return end != nullptr;
}

bool JavaSignatureParser::isParsedName(const std::string& name) {
    static const char* const kReadableMarks[] = {",",      ".",    "[]",    "(byte",  "(char",    "(double",
                                                 "(float", "(int", "(long", "(short", "(boolean", "(void"};
    for (const char* mark : kReadableMarks)
        if (name.find(mark) != std::string::npos)
            return true;
    return false;
}

void JavaSignatureParser::unmangle(const std::string& signature, uint32_t& pos, std::string& out) {
    unmangleType(signature, pos, out, 0);
}

void JavaSignatureParser::unmangleName(const std::string& signature, uint32_t& pos, std::string& out) {
    unmangleClassName(signature, pos, out, 0);
}

std::string JavaSignatureParser::parseClassName(const std::string& name) {
    if (name.empty())
        return std::string();
    if (name.find('.') != std::string::npos)
        return name;
    // Both tests must fail to keep the name: "Lfoo" and "foo;" are unmangled too.
    if (name.front() != 'L' && name.back() != ';')
        return name;
    std::string out;
    uint32_t pos = 0;
    unmangle(name, pos, out);
    return out;
}

std::string JavaSignatureParser::parseMethodName(const std::string& name) {
    if (name.empty() || isParsedName(name))
        return name;
    const size_t open = name.find('(');
    if (open == std::string::npos)
        return name;
    const size_t close = name.find(')', open);
    if (close == std::string::npos || close > UINT32_MAX)
        return name;

    std::string out = name.substr(0, open + 1);
    bool first = true;
    for (uint32_t pos = static_cast<uint32_t>(open + 1); pos < close; ++pos) {
        std::string parameter;
        unmangle(name, pos, parameter);
        if (parameter.empty())
            continue;
        if (!first)
            out += ", ";
        out += parameter;
        first = false;
    }
    out += ')';
    return out;
}

bool JavaSignatureParser::parseHiddenClassName(const std::string& name, std::string& out) {
    if (name.size() < 6 || name.front() != 'L' || name.back() != ';')
        return false;
    const std::string body = name.substr(1, name.size() - 2);
    const size_t mark = body.rfind("0x");
    if (mark == std::string::npos || mark < 2 || (body[mark - 1] != '.' && body[mark - 1] != '/'))
        return false;
    const std::string address = body.substr(mark);
    if (address.size() <= 2 || address.find_first_not_of("0123456789abcdefABCDEF", 2) != std::string::npos)
        return false;
    std::string className = body.substr(0, mark - 1);
    if (className.empty())
        return false;
    for (char& c : className)
        if (c == '/')
            c = '.';
    out = className + "/" + address;
    return true;
}

QUARVEL_NAMESPACE_END

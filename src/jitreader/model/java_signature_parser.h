#ifndef QUARVEL_MODEL_JAVA_SIGNATURE_PARSER_H
#define QUARVEL_MODEL_JAVA_SIGNATURE_PARSER_H

#include <quarvel/namespace.h>

#include <cstdint>
#include <string>
#include <string_view>

QUARVEL_NAMESPACE_BEGIN

// Turns the virtual machine's internal names into readable Java:
// "Ljava/lang/String;" -> "java.lang.String",
// "run(Ljava/lang/String;I)V" -> "run(java.lang.String, int)".
// Stateless; malformed input gives a partial or unchanged string, never an error.
class JavaSignatureParser {
public:
    JavaSignatureParser() = delete;

    // Readable class name; names with a "." (already readable) pass unchanged.
    static std::string parseClassName(const std::string& name);
    // Readable method name with its parameter list; the return type is dropped.
    static std::string parseMethodName(const std::string& name);
    // parseMethodName's result in the form names are stored in, every "."
    // written "::" ("run(Ljava/lang/String;I)V" appends
    // "run(java::lang::String, int)"), in one pass without temporaries. Only
    // for the common names: parameters of primitive types, arrays and class
    // names without type arguments or empty packages. False, out unchanged,
    // for any other name (the caller takes the general path).
    static bool appendJoinedMethodName(std::string_view name, std::string& out);
    // The same for class names: what parseClassName gives (or, for a hidden
    // class, parseHiddenClassName), "." written "::". Only for plain
    // descriptors ("Lpkg/Foo;"); false, out unchanged, for others.
    static bool appendJoinedClassName(std::string_view name, std::string& out);
    // The same two, written at out, which has room for joined*Room(name's
    // size) characters: the end of what they wrote, or null (what lies at out
    // is then of no use) for a name the general path takes.
    static char* putJoinedMethodName(std::string_view name, char* out);
    static char* putJoinedClassName(std::string_view name, char* out);
    // The most a character becomes: "Z" -> "boolean, ", "/" -> "::".
    static constexpr size_t joinedMethodNameRoom(size_t length) { return 9 * length; }
    static constexpr size_t joinedClassNameRoom(size_t length) { return 2 * length; }
    // True when the name is already in readable form.
    static bool isParsedName(const std::string& name);
    // A hidden class (a lambda's, a method handle form's) has a descriptor
    // whose last part carries the address the VM gave it, after a "." or "/":
    // "Lpkg/Shop$$Lambda$1.0x00007f1700000a08;". It reads as the class's name
    // with the address kept behind a "/", the way the VM prints it:
    // "pkg.Shop$$Lambda$1/0x00007f1700000a08". False (out untouched) for any
    // other name.
    static bool parseHiddenClassName(const std::string& name, std::string& out);

    // Appends the readable form of the one type that starts at pos and leaves
    // pos on the type's last character. A truncated type appends what was read.
    static void unmangle(const std::string& signature, uint32_t& pos, std::string& out);
    // Appends the class name that starts at pos (after its L or T) up to its
    // closing ";" and leaves pos on that ";". Throws std::out_of_range when the
    // name runs past the end of the signature (unmangle catches it).
    static void unmangleName(const std::string& signature, uint32_t& pos, std::string& out);
};

QUARVEL_NAMESPACE_END

#endif

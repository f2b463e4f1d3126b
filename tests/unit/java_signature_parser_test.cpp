#include "model/java_signature_parser.h"

#include <gtest/gtest.h>

#include <string>

namespace java_signature_parser_test {

using quarvel::JavaSignatureParser;

struct NameCase {
    const char* input;
    const char* expected;
};

TEST(JavaSignatureParser, ParsesClassNames) {
    const NameCase cases[] = {
        {"", ""},
        {"Ljava/lang/String;", "java.lang.String"},
        {"Ljava/util/Map<Ljava/lang/String;Ljava/lang/Integer;>;", "java.util.Map<java.lang.String,java.lang.Integer>"},
        {"Ljava/util/List<*>;", "java.util.List<?>"},
        {"Ljava/util/List<+Ljava/lang/Number;>;", "java.util.List<? extends java.lang.Number>"},
        {"Ljava/util/List<-Ljava/lang/Integer;>;", "java.util.List<? super java.lang.Integer>"},
        {"La/Outer<La/Inner<I>;>;", "a.Outer<a.Inner<int>>"},
        // Already readable, or neither starting with L nor ending with ';': unchanged.
        {"java.lang.String", "java.lang.String"},
        // Only one of the two marks is enough to be unmangled.
        {"Lpkg/Foo", "pkg.Foo"},
        {"I;", "int"},
        // A truncated descriptor gives what was read (the parser's end-of-text exception stays inside).
        {"Ljava/util/Map<Ljava/lang/Str", "java.util.Map<java.lang.Str"},
    };
    for (const NameCase& c : cases)
        EXPECT_EQ(c.expected, JavaSignatureParser::parseClassName(c.input)) << c.input;
}

TEST(JavaSignatureParser, ParsesMethodNames) {
    const NameCase cases[] = {
        {"", ""},
        {"run(Ljava/lang/String;I)V", "run(java.lang.String, int)"},
        {"main([Ljava/lang/String;)V", "main(java.lang.String[])"},
        {"sum([[JZ)J", "sum(long[][], boolean)"},
        {"all(BCDFIJSZ)V", "all(byte, char, double, float, int, long, short, boolean)"},
        {"none()V", "none()"},
        // Unknown letters contribute nothing, not even a separator.
        {"odd(QI)V", "odd(int)"},
        {"cut(Ljava/lang/Str", "cut(Ljava/lang/Str"},     // no ")": unchanged
        {"cut(Ljava/lang/Str)V", "cut(java.lang.Str)V)"}, // the class runs past ")" to the end
        // Already readable names pass unchanged.
        {"run(int)", "run(int)"},
        {"run(java.lang.String)", "run(java.lang.String)"},
        {"<init>", "<init>"},
    };
    for (const NameCase& c : cases)
        EXPECT_EQ(c.expected, JavaSignatureParser::parseMethodName(c.input)) << c.input;
}

// The one-pass form takes the common names and must give what the parser
// and joining give; every other name it declines (null here), leaving the
// output as it was, for the general path.
TEST(JavaSignatureParser, AppendsCommonMethodNamesJoinedAndDeclinesTheRest) {
    const NameCase cases[] = {
        {"run(Ljava/lang/String;I)V", "run(java::lang::String, int)"},
        {"main([Ljava/lang/String;)V", "main(java::lang::String[])"},
        {"sum([[JZ)J", "sum(long[][], boolean)"},
        {"all(BCDFIJSZV)V", "all(byte, char, double, float, int, long, short, boolean, void)"},
        {"none()V", "none()"},
        {"<init>(Lpkg/Outer$Inner;)V", "<init>(pkg::Outer$Inner)"},
        {"get()Ljava/util/List;", "get()"},           // the return type is dropped
        {"a)b(I)V", "a)b(int)"},                      // a ")" before the list is part of the name
        {"<clinit>", "<clinit>"},                     // no parameter list: kept
        {"cut(Ljava/lang/Str", "cut(Ljava/lang/Str"}, // nor without its ")"
        // Declined:
        {"", nullptr},
        {"run(int)", nullptr},                // already readable
        {"run(java.lang.String)", nullptr},   // dots
        {"f(I,J)", nullptr},                  // commas
        {"f([]I)V", nullptr},                 // "[]"
        {"g(I)V(int", nullptr},               // a second "("
        {"odd(QI)V", nullptr},                // an unknown letter
        {"f(TT;)V", nullptr},                 // a type variable
        {"f([)V", nullptr},                   // an array of nothing
        {"f(Ljava/util/List<*>;)V", nullptr}, // type arguments
        {"f(L;)V", nullptr},                  // an empty class name
        {"f(L/a;)V", nullptr},                // empty packages
        {"f(La//b;)V", nullptr},
        {"f(La/;)V", nullptr},
        {"cut(Ljava/lang/Str)V", nullptr}, // the class runs past ")"
    };
    for (const NameCase& c : cases) {
        std::string out = "Cls::";
        const bool taken = JavaSignatureParser::appendJoinedMethodName(c.input, out);
        EXPECT_EQ(c.expected != nullptr, taken) << c.input;
        EXPECT_EQ(std::string("Cls::") + (c.expected ? c.expected : ""), out) << c.input;
    }
    // The general path stops nesting arrays at 256; the one-pass form leaves
    // deeper ones to it.
    std::string out;
    EXPECT_TRUE(JavaSignatureParser::appendJoinedMethodName("f(" + std::string(255, '[') + "I)V", out));
    EXPECT_EQ(2 + 3 + 2 * 255 + 1, static_cast<int>(out.size()));
    out.clear();
    EXPECT_FALSE(JavaSignatureParser::appendJoinedMethodName("f(" + std::string(256, '[') + "I)V", out));
    EXPECT_EQ("", out);
}

TEST(JavaSignatureParser, AppendsCommonClassNamesJoinedAndDeclinesTheRest) {
    const NameCase cases[] = {
        {"Ljava/lang/String;", "java::lang::String"},
        {"LMain;", "Main"},
        {"Lpkg/Outer$Inner;", "pkg::Outer$Inner"},
        // Declined:
        {"", nullptr},
        {"L;", nullptr},
        {"Lpkg/Foo", nullptr},            // no ";"
        {"I;", nullptr},                  // not a class descriptor
        {"La;b;", nullptr},               // the parser stops at the first ";"
        {"java.lang.String", nullptr},    // readable already
        {"Ljava/util/List<*>;", nullptr}, // type arguments
        {"L/a;", nullptr},                // empty packages
        {"La//b;", nullptr},
        {"La/;", nullptr},
        {"Lpkg/Shop$$Lambda$1.0x00007f1700000a08;", nullptr}, // hidden classes
        {"Lpkg/Shop$$Lambda$1/0x00007f1700000a08;", nullptr},
    };
    for (const NameCase& c : cases) {
        std::string out = "x";
        const bool taken = JavaSignatureParser::appendJoinedClassName(c.input, out);
        EXPECT_EQ(c.expected != nullptr, taken) << c.input;
        EXPECT_EQ(std::string("x") + (c.expected ? c.expected : ""), out) << c.input;
    }
}

// The class conversion takes eight bytes at a step: names of every length up
// to a few steps, with each kind of mark at every place, against the names
// they are made of.
TEST(JavaSignatureParser, JoinsClassNamesOfAnyLengthWithMarksAnywhere) {
    for (size_t length = 1; length <= 40; ++length) {
        for (size_t at = 0; at <= length; ++at) {
            for (const char* mark : {"", "/", "//", "<"}) {
                std::string body(length, 'a');
                for (size_t i = 0; i < length; ++i)
                    body[i] = static_cast<char>('a' + i % 26);
                body.insert(at, mark);
                // What the name is made of: the segments between single slashes.
                const bool taken = body.front() != '/' && body.back() != '/' && body.find("//") == std::string::npos &&
                                   body.find('<') == std::string::npos;
                std::string joined;
                for (const char c : body)
                    joined += c == '/' ? std::string("::") : std::string(1, c);
                std::string out = "x";
                EXPECT_EQ(taken, JavaSignatureParser::appendJoinedClassName("L" + body + ";", out)) << body;
                EXPECT_EQ(taken ? "x" + joined : "x", out) << body;
            }
        }
    }
}

TEST(JavaSignatureParser, RecognisesReadableNames) {
    for (const char* readable : {"a.b", "f(int)", "f(void)", "a,b", "int[]", "f(boolean"})
        EXPECT_TRUE(JavaSignatureParser::isParsedName(readable)) << readable;
    for (const char* mangled : {"run(I)V", "Ljava/lang/String;", "run", "f(Integer)"})
        EXPECT_FALSE(JavaSignatureParser::isParsedName(mangled)) << mangled;
}

TEST(JavaSignatureParser, UnmangleLeavesPositionOnLastCharacterOfType) {
    struct Case {
        const char* signature;
        uint32_t start;
        const char* expected;
        uint32_t end;
    } cases[] = {
        {"IJ", 0, "int", 0},
        {"IJ", 1, "long", 1},
        {"xLa/B;y", 1, "a.B", 5},
        {"[[I", 0, "int[][]", 2},
        {"Q", 0, "", 0},
        {"I", 1, "", 1}, // at the end: nothing
        {"I", 7, "", 7}, // past the end: nothing
        {"T:Ljava/lang/Object;", 1, "java.lang.Object", 19},
        {"T::Ljava/lang/Runnable;", 1, " extends java.lang.Runnable", 22},
        {"TA;:Lb/C;", 3, " & b.C", 8},
    };
    for (const Case& c : cases) {
        uint32_t pos = c.start;
        std::string out;
        JavaSignatureParser::unmangle(c.signature, pos, out);
        EXPECT_EQ(c.expected, out) << c.signature;
        EXPECT_EQ(c.end, pos) << c.signature;
    }
}

TEST(JavaSignatureParser, DeepNestingStaysBounded) {
    // Hostile names must not exhaust the stack.
    const std::string arrays(100000, '[');
    EXPECT_NO_THROW(JavaSignatureParser::parseMethodName("f(" + arrays + "I)V"));
    std::string generics;
    for (int i = 0; i < 50000; ++i)
        generics += "La<";
    EXPECT_NO_THROW(JavaSignatureParser::parseClassName(generics));
}

} // namespace

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

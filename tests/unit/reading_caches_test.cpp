// What the reading pass remembers between records: class names in stored
// form. A remembered answer must be the one the question would get afresh,
// whatever was asked before it.

#include "ingest/class_name_cache.h"

#include <gtest/gtest.h>

#include <string>

using namespace quarvel;

namespace reading_caches_test {

TEST(ClassNameCache, AnswersEachNameAndFormOnItsOwn) {
    const struct {
        const char* written;
        bool java;
        const char* stored;
    } asked[] = {
        {"Lpkg/Foo;", true, "pkg::Foo"},
        {"Lpkg/Fo;", true, "pkg::Fo"},
        {"Lpkg/Foo;", false, "Lpkg/Foo;"}, // the same text, not a descriptor
        {"Lpkg/Foo;", true, "pkg::Foo"},
        // Truncated: the parser keeps what it read.
        {"Lpkg/Foo", true, "pkg::Foo"},
        {"Lpkg/Foo", false, "Lpkg/Foo"},
        {"java.lang.String", true, "java::lang::String"},
        {"java.lang.String", false, "java::lang::String"},
        {"Ljava/util/Map<Ljava/lang/String;*>;", true, "java::util::Map<java::lang::String,?>"},
        {"Lpkg/Shop$$Lambda$1.0x00007f1700000a08;", true, "pkg::Shop$$Lambda$1/0x00007f1700000a08"},
        {"La//b;", true, "a::b"},
        {"", true, ""},
        {"...", false, ""},
        {"Lpkg/Fo;", true, "pkg::Fo"},
    };
    ClassNameCache cache;
    for (const auto& a : asked)
        EXPECT_EQ(a.stored, cache.stored(a.written, a.java)) << a.written << " java " << a.java;
}

TEST(ClassNameCache, StartingOverAfterManyNamesKeepsTheAnswersRight) {
    ClassNameCache cache;
    for (int i = 0; i < 70000; ++i) {
        const std::string n = std::to_string(i);
        ASSERT_EQ("p::C" + n, cache.stored("Lp/C" + n + ";", true)) << i;
    }
    EXPECT_EQ("p::C0", cache.stored("Lp/C0;", true));
    EXPECT_EQ("p::C69999", cache.stored("Lp/C69999;", true));
}

} // namespace reading_caches_test

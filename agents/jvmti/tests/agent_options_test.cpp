#include "agent_options.h"

#include <gtest/gtest.h>

using namespace quarvel_jvmti;

TEST(JvmtiAgentOptions, ParsesEveryOption) {
    const AgentOptions o = parseAgentOptions("dir=/tmp/x y,clock=tsc,stubs=0,inlines=no,verbose=1,stamps=event");
    EXPECT_EQ(o.dir, "/tmp/x y");
    EXPECT_EQ(o.clock, ClockKind::tsc);
    EXPECT_FALSE(o.stubs);
    EXPECT_FALSE(o.inlines);
    EXPECT_TRUE(o.verbose);
    EXPECT_EQ(o.stamps, StampKind::event);
    EXPECT_TRUE(o.problems.empty());
}

TEST(JvmtiAgentOptions, DefaultsWithoutText) {
    for (const char* text : {static_cast<const char*>(nullptr), "", ",,"}) {
        const AgentOptions o = parseAgentOptions(text);
        EXPECT_EQ(o.dir, ".");
        EXPECT_EQ(o.clock, ClockKind::monotonic);
        EXPECT_TRUE(o.stubs);
        EXPECT_TRUE(o.inlines);
        EXPECT_FALSE(o.verbose);
        EXPECT_EQ(o.stamps, StampKind::history);
        EXPECT_TRUE(o.problems.empty());
    }
}

TEST(JvmtiAgentOptions, ProblemsAreReportedAndDefaultsKept) {
    struct Case {
        const char* text;
        const char* problem;
    };
    const Case cases[] = {
        {"clock=wall", "bad value 'wall' for option clock (expected monotonic or tsc)"},
        {"stamps=now", "bad value 'now' for option stamps (expected history or event)"},
        {"stubs=maybe", "bad value 'maybe' for option stubs (expected 0 or 1)"},
        {"stubs", "bad value '' for option stubs (expected 0 or 1)"},
        {"dir=", "empty value for option dir"},
        {"colour=red", "unknown option 'colour'"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const AgentOptions o = parseAgentOptions(c.text);
        ASSERT_EQ(o.problems.size(), 1u);
        EXPECT_EQ(o.problems[0], c.problem);
        EXPECT_EQ(o.dir, ".");
        EXPECT_EQ(o.clock, ClockKind::monotonic);
        EXPECT_TRUE(o.stubs);
        EXPECT_EQ(o.stamps, StampKind::history);
    }
}

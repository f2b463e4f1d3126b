#include "code_history.h"

#include <gtest/gtest.h>

using namespace quarvel_jvmti;

TEST(JvmtiCodeHistory, FreshRangeTakesTheAgentStart) {
    CodeHistory h(1000);
    EXPECT_EQ(h.load(0x1000, 0x100, 5000), 1000u);
    EXPECT_EQ(h.load(0x1100, 0x100, 6000), 1000u); // adjacent, not overlapping
    EXPECT_TRUE(h.isLive(0x1000, 0x100));
    EXPECT_FALSE(h.isLive(0x1000, 0x80));
    EXPECT_FALSE(h.isLive(0x1080, 0x80));
}

TEST(JvmtiCodeHistory, ReuseTakesTheLatestUnloadOfWhatItReplaces) {
    CodeHistory h(1000);
    h.load(0x1000, 0x100, 2000);
    h.load(0x1100, 0x100, 2100);
    EXPECT_TRUE(h.unload(0x1100, 3000));
    EXPECT_TRUE(h.unload(0x1000, 3500));
    EXPECT_FALSE(h.isLive(0x1000, 0x100));
    // Covers the tail of the first and the head of the second.
    EXPECT_EQ(h.load(0x10c0, 0x80, 9000), 3500u);
    // Only the untouched head of the first is left of it.
    EXPECT_EQ(h.load(0x1000, 0x40, 9100), 3500u);
    // The untouched tail of the second.
    EXPECT_EQ(h.load(0x1180, 0x80, 9200), 3000u);
}

TEST(JvmtiCodeHistory, OverwrittenLiveCodeFallsBackToTheEventTime) {
    CodeHistory h(1000);
    EXPECT_EQ(h.load(0x1000, 0x100, 2000), 1000u);
    EXPECT_EQ(h.load(0x1000, 0x80, 4000), 4000u);
    EXPECT_FALSE(h.isLive(0x1000, 0x100)); // the old one was dropped
    EXPECT_FALSE(h.unload(0x1000 + 0x80, 5000));
    EXPECT_EQ(h.liveCount(), 1u);
}

TEST(JvmtiCodeHistory, StampsOfOverlappingCodeStrictlyIncrease) {
    CodeHistory h(1000);
    EXPECT_EQ(h.load(0x1000, 0x100, 1000), 1000u);
    EXPECT_TRUE(h.unload(0x1000, 1000)); // unload stamped at the same time as the load
    EXPECT_EQ(h.load(0x1000, 0x100, 1000), 1001u);
    EXPECT_TRUE(h.unload(0x1000, 900)); // a clock that went back still leaves the stamp above
    EXPECT_EQ(h.load(0x1000, 0x100, 1000), 1002u);
}

TEST(JvmtiCodeHistory, UnloadOfUnknownCodeIsRefused) {
    CodeHistory h(1000);
    EXPECT_FALSE(h.unload(0x1000, 2000));
    h.load(0x1000, 0x100, 1500);
    EXPECT_FALSE(h.unload(0x1010, 2000));
    EXPECT_TRUE(h.unload(0x1000, 2000));
    EXPECT_FALSE(h.unload(0x1000, 2100));
}

#include "code_map.h"

#include <gtest/gtest.h>

#include <random>

using namespace quarvel_jvmti;

namespace {

constexpr uint64_t kBase = 0x7f0000001000;
constexpr MethodKey M = 1, A = 2, B = 3;

PcInfo pc(uint64_t offset, std::vector<Frame> frames) {
    return PcInfo{kBase + offset, std::move(frames)};
}

using Table = std::vector<quarvel_line_number_entry>;

std::string show(const Table& t) {
    std::string s;
    for (const auto& e : t)
        s += "[" + std::to_string(e.startOffset) + "," + std::to_string(e.endOffset) + ")->" +
             (e.value == kNoBci ? std::string("?") : std::to_string(e.value)) + " ";
    return s;
}

} // namespace

TEST(JvmtiCodeMap, UnsortedDuplicateAndOutOfRangePcsAreTamed) {
    const CodeMap map = buildCodeMap(kBase, 0x30,
                                     {pc(0x20, {{M, 2}}), pc(0, {{M, 9}}), pc(0x10, {{M, 1}}), pc(0x10, {{M, 7}}),
                                      pc(0x50, {{M, 3}}), pc(0x60, {{M, 4}})});
    EXPECT_EQ(show(map.nativeToManaged), "[0,16)->1 [16,32)->2 [32,48)->3 ");
}

TEST(JvmtiCodeMap, NegativeBciHasNoManagedOffset) {
    const CodeMap map = buildCodeMap(kBase, 0x20, {pc(0x10, {{M, -1}}), pc(0x20, {{M, 4}, {A, -1}})});
    EXPECT_EQ(show(map.nativeToManaged), "[0,16)->? [16,32)->4 ");
    ASSERT_EQ(map.inlines.size(), 1u);
    EXPECT_EQ(show(map.inlines[0].nativeToManaged), "[0,16)->? ");
}

TEST(JvmtiCodeMap, InstancesNestAndSplitAtCallSites) {
    const CodeMap map = buildCodeMap(kBase, 0x100,
                                     {
                                         pc(10, {{M, 3}}),
                                         pc(20, {{M, 5}, {A, 0}}),
                                         pc(30, {{M, 5}, {A, 2}, {B, 1}}),
                                         pc(40, {{M, 5}, {A, 4}}),
                                         pc(50, {{M, 7}, {A, 0}}), // A again, from another call site
                                         pc(60, {{M, 7}, {A, 1}}),
                                         pc(70, {{M, 8}}),
                                         pc(80, {{M, 8}, {B, 0}}), // B again after a gap: a new instance
                                         pc(90, {}),               // a record without frames ends everything
                                         pc(100, {{M, 8}, {B, 1}}),
                                     });
    EXPECT_EQ(show(map.nativeToManaged), "[0,10)->3 [10,40)->5 [40,60)->7 [60,80)->8 [90,100)->8 ");
    ASSERT_EQ(map.inlines.size(), 5u);
    struct Expect {
        size_t parent;
        MethodKey method;
        uint32_t start, end;
        const char* table;
    };
    const Expect expected[] = {
        {InlineInstance::kTopLevel, A, 10, 40, "[0,10)->0 [10,20)->2 [20,30)->4 "},
        {0, B, 20, 30, "[0,10)->1 "},
        {InlineInstance::kTopLevel, A, 40, 60, "[0,10)->0 [10,20)->1 "},
        {InlineInstance::kTopLevel, B, 70, 80, "[0,10)->0 "},
        {InlineInstance::kTopLevel, B, 90, 100, "[0,10)->1 "},
    };
    for (size_t i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(map.inlines[i].parent, expected[i].parent);
        EXPECT_EQ(map.inlines[i].method, expected[i].method);
        EXPECT_EQ(map.inlines[i].start, expected[i].start);
        EXPECT_EQ(map.inlines[i].end, expected[i].end);
        EXPECT_EQ(show(map.inlines[i].nativeToManaged), expected[i].table);
    }
}

TEST(JvmtiCodeMap, SameCalleeAtAnotherDepthIsAnotherInstance) {
    // M calls A at bci 5, A calls A (recursion inlined) at bci 2.
    const CodeMap map = buildCodeMap(
        kBase, 0x100, {pc(10, {{M, 5}, {A, 1}}), pc(20, {{M, 5}, {A, 2}, {A, 0}}), pc(30, {{M, 5}, {A, 3}})});
    ASSERT_EQ(map.inlines.size(), 2u);
    EXPECT_EQ(map.inlines[0].start, 0u);
    EXPECT_EQ(map.inlines[0].end, 30u);
    EXPECT_EQ(map.inlines[1].parent, 0u);
    EXPECT_EQ(map.inlines[1].start, 10u);
    EXPECT_EQ(map.inlines[1].end, 20u);
}

// Whatever the records say, instances lie inside their parents, siblings do not
// overlap, parents come first and each table covers exactly its instance.
TEST(JvmtiCodeMap, RandomRecordsKeepTheTreeWellFormed) {
    std::mt19937 rng(7);
    for (int round = 0; round < 200; ++round) {
        std::vector<PcInfo> pcs;
        uint64_t off = 0;
        const int n = 1 + static_cast<int>(rng() % 40);
        std::vector<Frame> frames{{M, 0}};
        for (int i = 0; i < n; ++i) {
            off += 1 + rng() % 8;
            // Walk the stack: pop, push or change the innermost bci.
            const unsigned op = rng() % 4;
            if (op == 0 && frames.size() > 1)
                frames.pop_back();
            else if (op == 1 && frames.size() < 5)
                frames.push_back({static_cast<MethodKey>(1 + rng() % 3), static_cast<int32_t>(rng() % 3) - 1});
            else
                frames.back().bci = static_cast<int32_t>(rng() % 4);
            pcs.push_back(pc(off, frames));
        }
        const uint32_t size = static_cast<uint32_t>(off - rng() % 4);
        const CodeMap map = buildCodeMap(kBase, size, pcs);
        for (size_t i = 0; i < map.inlines.size(); ++i) {
            const InlineInstance& inst = map.inlines[i];
            ASSERT_LT(inst.start, inst.end);
            ASSERT_LE(inst.end, size);
            uint32_t covered = 0;
            for (const auto& e : inst.nativeToManaged) {
                ASSERT_EQ(e.startOffset, covered);
                covered = e.endOffset;
            }
            ASSERT_EQ(covered, inst.end - inst.start);
            if (inst.parent != InlineInstance::kTopLevel) {
                ASSERT_LT(inst.parent, i);
                ASSERT_GE(inst.start, map.inlines[inst.parent].start);
                ASSERT_LE(inst.end, map.inlines[inst.parent].end);
            }
            for (size_t j = 0; j < i; ++j) {
                if (map.inlines[j].parent == inst.parent) {
                    ASSERT_TRUE(map.inlines[j].end <= inst.start || inst.end <= map.inlines[j].start);
                }
            }
        }
    }
}

TEST(JvmtiCodeMap, LocationMapDropsNegativeBcis) {
    const CodeMap map =
        buildCodeMapFromLocations(kBase, 0x30, M, {{kBase + 0x10, 4}, {kBase + 0x18, -1}, {kBase + 0x20, 6}});
    EXPECT_EQ(show(map.nativeToManaged), "[0,16)->4 [16,32)->6 ");
    EXPECT_TRUE(map.inlines.empty());
}

TEST(JvmtiLineTables, BciToLineIsSortedAndLaterDuplicatesWin) {
    MethodLines lines;
    lines.entries = {{8, 12}, {0, 10}, {4, 11}, {4, 99}, {-1, 5}};
    lines.bytecodeLength = 20;
    EXPECT_EQ(show(managedToSource(lines)), "[0,4)->10 [4,8)->99 [8,20)->12 ");
    lines.bytecodeLength = 0; // unknown length: the last entry covers its own bci
    EXPECT_EQ(show(managedToSource(lines)), "[0,4)->10 [4,8)->99 [8,9)->12 ");
    EXPECT_TRUE(managedToSource(MethodLines{}).empty());
}

TEST(JvmtiLineTables, NativeToSourceTakesTheGreatestStartAtOrBelowTheBci) {
    const Table bciToLine = {{2, 4, 10}, {4, 9, 11}, {9, 10, 12}};
    const Table nativeToManaged = {{0, 5, 0}, {5, 7, 2}, {7, 9, 3}, {9, 12, kNoBci}, {12, 15, 6}, {15, 20, 40}};
    // bci 0 lies below the first entry; bci 40 past the end takes the last line.
    EXPECT_EQ(show(nativeToSource(nativeToManaged, bciToLine)), "[5,9)->10 [12,15)->11 [15,20)->12 ");
    EXPECT_TRUE(nativeToSource(nativeToManaged, {}).empty());
}

// Address lookups after finalize() go through flat copies of the region
// domains; they must answer exactly as the maps do, and a registration after
// finalize() must not be answered from stale copies.

#include "jit_data_manager_test_helpers.h"

#include <limits>
#include <tuple>

namespace jit_data_manager_index_test {

using namespace dmtest;

struct Probe {
    u64 address;
    u64 timestamp;
    u32 pid;
    u32 host;
};

// status, region and method of one lookup
std::tuple<quarvel_error_t, const Region*, const JitMethod*> lookup(const JitDataManager& manager, const Probe& p) {
    Region::Ptr region;
    JitMethod::Ptr method;
    const quarvel_error_t status = manager.findRegion(p.address, p.timestamp, p.pid, p.host, region, method);
    return std::make_tuple(status, region.get(), method.get());
}

// Two address spaces; in the first, overlaps that split stored ranges: B over
// the upper half of A, C exactly over B's piece, D across a gap and E's start.
void fill(JitDataManager& manager) {
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(1, 100, {{0x1000, 0x100, 0x10000}})));
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(2, 200, {{0x1080, 0x100, 0x10100}})));
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(3, 300, {{0x1080, 0x80, 0x10200}})));
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(4, 400, {{0x3000, 0x40, 0x10300}})));
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(5, 500, {{0x2FF0, 0x20, 0x10400}})));
    ASSERT_EQ(meSuccess,
              manager.processMethodLoadRecord(kPid + 1, kHost, makeMethod(6, 100, {{0x1000, 0x10, 0x10500}}, "", kPid + 1)));
    manager.createSingleRegionDomain(kPid + 2, kHost); // known, but empty
}

const Probe kProbes[] = {
    {0x1000, 150, kPid, kHost},      {0x1000, 250, kPid, kHost},      {0x107F, 99, kPid, kHost},
    {0x1080, 150, kPid, kHost},      {0x1080, 250, kPid, kHost},      {0x1080, 350, kPid, kHost},
    {0x10FF, 350, kPid, kHost},      {0x1100, 350, kPid, kHost},      {0x117F, 350, kPid, kHost},
    {0x1180, 350, kPid, kHost},      {0x0FFF, 350, kPid, kHost},      {0x2FF0, 450, kPid, kHost},
    {0x2FF0, 550, kPid, kHost},      {0x3005, 450, kPid, kHost},      {0x3005, 550, kPid, kHost},
    {0x3020, 550, kPid, kHost},      {0x3040, 550, kPid, kHost},      {0x1005, 150, kPid + 1, kHost},
    {0x1005, 150, kPid + 2, kHost},  {0x1005, 150, kPid + 3, kHost},  {0x1005, 150, kPid, kHost + 1},
    {std::numeric_limits<u64>::max(), 550, kPid, kHost},
};

TEST(JitDataManagerIndex, AnswersAsTheMapsBeforeFinalize) {
    JitDataManager manager;
    fill(manager);
    std::vector<std::tuple<quarvel_error_t, const Region*, const JitMethod*>> before;
    for (const Probe& p : kProbes)
        before.push_back(lookup(manager, p));
    manager.finalize();
    for (size_t i = 0; i < sizeof kProbes / sizeof kProbes[0]; ++i)
        EXPECT_EQ(before[i], lookup(manager, kProbes[i])) << "probe " << i;
    // A sanity check that the probes mean something: hits and misses both occur.
    EXPECT_EQ(meSuccess, std::get<0>(before[5]));
    EXPECT_EQ(meNotFound, std::get<0>(before[7]));
}

TEST(JitDataManagerIndex, JitRvaLookupsAnswerAsTheMap) {
    JitDataManager manager;
    fill(manager);
    const u64 rvas[] = {0, 0xFFFF, 0x10000, 0x100FF, 0x10100, 0x1027F, 0x10280, 0x102FF, 0x10300, 0x1050F,
                        0x10510, std::numeric_limits<u64>::max()};
    std::vector<const RegionInfo*> before;
    for (u64 rva : rvas)
        before.push_back(manager.findJitRvaRegion(rva));
    manager.finalize();
    for (size_t i = 0; i < sizeof rvas / sizeof rvas[0]; ++i)
        EXPECT_EQ(before[i], manager.findJitRvaRegion(rvas[i])) << "jit rva " << rvas[i];
    EXPECT_NE(nullptr, before[2]);
    EXPECT_EQ(nullptr, before[6]);

    // Registered after finalize: found before the next one.
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(9, 900, {{0x9000, 0x10, 0x20000}})));
    JitMethod::Ptr method;
    ASSERT_EQ(meSuccess, manager.resolveJitPoint(0x20008, method));
    EXPECT_EQ(9u, method->getRawMethodId());
}

TEST(JitDataManagerIndex, RegistrationAfterFinalizeIsSeen) {
    JitDataManager manager;
    fill(manager);
    manager.finalize();
    // Over a range that was split before, and in a gap that had no range.
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(7, 600, {{0x1000, 0x200, 0x10600}})));
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(8, 700, {{0x5000, 0x10, 0x10800}})));
    for (bool finalized : {false, true}) {
        if (finalized)
            manager.finalize();
        Region::Ptr region;
        JitMethod::Ptr method;
        ASSERT_EQ(meSuccess, manager.findRegion(0x1190, 650, kPid, kHost, region, method)) << finalized;
        EXPECT_EQ(7u, method->getRawMethodId());
        ASSERT_EQ(meSuccess, manager.findRegion(0x5008, 700, kPid, kHost, region, method)) << finalized;
        EXPECT_EQ(8u, method->getRawMethodId());
        // The old history stays behind the new region.
        ASSERT_EQ(meSuccess, manager.findRegion(0x1090, 350, kPid, kHost, region, method)) << finalized;
        EXPECT_EQ(3u, method->getRawMethodId());
    }
}

} // namespace

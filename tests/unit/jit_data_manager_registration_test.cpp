// Registration of method loads into region domains and the queries over them.

#include "jit_data_manager_test_helpers.h"
#include "check_listener.h"
#include "log_capture.h"

#include <gtest/gtest.h>

#include <limits>

using namespace dmtest;
using quarvel_test::LogCapture;

namespace jit_data_manager_registration_test {

struct Load {
    u32 id;
    u64 time;
    u64 address;
    u32 length;
    u64 jitRva;
    quarvel_error_t expected;
};

struct Sample {
    u64 address;
    u64 timestamp;
    u32 expectedId; // 0: not found
    u64 expectedJitRva;
};

struct Scenario {
    const char* name;
    std::vector<Load> loads;
    std::vector<Sample> samples;
    const char* expectedError; // text of an ERROR line, or null for none
};

const std::vector<Scenario>& registrationScenarios() {
    static const std::vector<Scenario> scenarios = {
        {"reuse at the same address",
         {{1, 100, 1000, 100, 0x10000, meSuccess}, {2, 200, 1000, 100, 0x20000, meSuccess}},
         {{1050, 99, 0, 0},
          {1050, 100, 1, 0x10032},
          {1050, 150, 1, 0x10032},
          {1050, 200, 2, 0x20032},
          {1099, 5000, 2, 0x20063},
          {1100, 5000, 0, 0}},
         nullptr},
        {"partial overwrite ends the whole older region",
         {{1, 100, 1000, 100, 0x10000, meSuccess}, {2, 200, 1050, 100, 0x20000, meSuccess}},
         {{1020, 150, 1, 0x10014},
          {1020, 200, 0, 0}, // the piece 1000-1050 keeps only the old region, now dead
          {1020, 250, 0, 0},
          {1060, 150, 1, 0x1003C},
          {1060, 250, 2, 0x2000A},
          {1120, 150, 0, 0}, // only the new region there, loaded later
          {1120, 200, 2, 0x20046}},
         nullptr},
        {"one region over several stored ranges",
         {{1, 100, 1000, 100, 0x10000, meSuccess},
          {2, 150, 1200, 100, 0x20000, meSuccess},
          {3, 300, 1050, 200, 0x30000, meSuccess}},
         {{1020, 120, 1, 0x10014},
          {1020, 350, 0, 0},
          {1150, 200, 0, 0}, // between the stored ranges: the new region only
          {1150, 350, 3, 0x30064},
          {1220, 200, 2, 0x20014},
          {1220, 300, 3, 0x300AA},
          {1280, 200, 2, 0x20050},
          {1280, 350, 0, 0}},
         nullptr},
        {"a region loaded earlier than a stored one",
         {{1, 300, 1000, 100, 0x10000, meSuccess}, {2, 100, 1000, 100, 0x20000, meSuccess}},
         {{1050, 50, 0, 0}, {1050, 150, 2, 0x20032}, {1050, 300, 1, 0x10032}, {1050, 900, 1, 0x10032}},
         nullptr},
        {"equal load times in one range",
         {{1, 100, 1000, 100, 0x10000, meSuccess}, {2, 100, 1000, 100, 0x20000, meNotFound}},
         {{1050, 150, 1, 0x10032}},
         "in the single time domain"},
        {"overlapping jit rva ranges",
         {{1, 100, 1000, 100, 0x10000, meSuccess}, {2, 200, 3000, 100, 0x10040, meBadRecord}},
         {{1050, 300, 1, 0x10032}, {3050, 300, 0, 0}},
         "because jit rva ranges are overlapped."},
    };
    return scenarios;
}

TEST(JitDataManagerRegistration, Scenarios) {
    for (const Scenario& scenario : registrationScenarios()) {
        SCOPED_TRACE(scenario.name);
        LogCapture capture;
        JitDataManager manager;
        for (const Load& load : scenario.loads) {
            EXPECT_EQ(load.expected, manager.processMethodLoadRecord(
                                         kPid, kHost, makeMethod(load.id, load.time, {{load.address, load.length, load.jitRva}})));
            EXPECT_TRUE(domainIsDisjoint(manager.getSingleRegionDomain(kPid, kHost)));
        }
        manager.finalize();
        for (const Sample& sample : scenario.samples) {
            SCOPED_TRACE("sample at " + std::to_string(sample.address) + ", tsc " + std::to_string(sample.timestamp));
            JitMethod::Ptr method;
            u64 jitRva = 0;
            const quarvel_error_t ret =
                manager.resolveJitPoint(sample.address, sample.timestamp, kPid, kHost, method, jitRva);
            if (sample.expectedId == 0) {
                EXPECT_EQ(meNotFound, ret);
                EXPECT_FALSE(method);
            } else {
                ASSERT_EQ(meSuccess, ret);
                EXPECT_EQ(sample.expectedId, method->getRawMethodId());
                EXPECT_EQ(sample.expectedJitRva, jitRva);
            }
        }
        if (scenario.expectedError) {
            EXPECT_TRUE(capture.contains(scenario.expectedError, log4cplus::ERROR_LOG_LEVEL)) << capture.dump();
        } else {
            EXPECT_TRUE(capture.errors().empty()) << capture.dump();
        }
    }
}

TEST(JitDataManagerRegistration, ReuseEndsTheOlderRegionAndSplitsHistories) {
    LogCapture capture;
    JitDataManager manager;
    const JitMethod::Ptr a = makeMethod(1, 100, {{1000, 100, 0x10000}});
    const JitMethod::Ptr b = makeMethod(2, 200, {{1050, 100, 0x20000}});
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, a));
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, b));

    EXPECT_EQ(200u, a->regions()[0]->unloadTime());
    EXPECT_EQ(0u, b->regions()[0]->unloadTime());
    EXPECT_TRUE(capture.contains("Set unload time = 200 for region (1000-1100)", log4cplus::INFO_LOG_LEVEL));

    // Lower half: old history only; upper half: both; the rest: the new region.
    const SingleRegionDomain* domain = manager.getSingleRegionDomain(kPid, kHost);
    ASSERT_TRUE(domain);
    std::vector<std::pair<u64, std::vector<u64>>> pieces;
    for (const auto& entry : *domain) {
        std::vector<u64> times;
        for (const auto& t : entry.second->timeDomain)
            times.push_back(t.first);
        pieces.emplace_back(entry.first.start, times);
        EXPECT_EQ(entry.second->timeDomain.size(), entry.second->regionIdDomain.size());
    }
    const std::vector<std::pair<u64, std::vector<u64>>> expected = {
        {1000, {100}}, {1050, {100, 200}}, {1100, {200}}};
    EXPECT_EQ(expected, pieces);
    EXPECT_TRUE(capture.contains("Unloaded code region (ip range = 1050-1100) from method 2"));
    EXPECT_TRUE(capture.assertions().empty());
}

TEST(JitDataManagerRegistration, ReloadOfAKnownMethodKeepsBothLinesAndLowersItsJitRva) {
    LogCapture capture;
    JitDataManager manager;
    const JitMethod::Ptr first = makeMethod(7, 100, {{0x1000, 0x20, 0x10000}});
    addNativeToSource(first, 0x20, {{0, 4, 10}, {4, 0x20, 11}});
    const JitMethod::Ptr reload = makeMethod(7, 200, {{0x5000, 0x10, 0x8000}});
    addNativeToSource(reload, 0x10, {{0, 0x10, 20}});
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, first));
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, reload));
    manager.finalize();

    ASSERT_EQ(1u, manager.getJitMethods().size());
    EXPECT_EQ(first, manager.getJitMethods()[0]);
    EXPECT_EQ(2u, first->regionCount());
    EXPECT_EQ(0x8000u, first->getStartJitRva());
    EXPECT_TRUE(capture.contains("Added a new code region (ip range = 20480-20496) in method 7"));

    JitMethod::Ptr method;
    u64 jitRva = 0;
    ASSERT_EQ(meSuccess, manager.resolveJitPoint(0x5002, 250, kPid, kHost, method, jitRva));
    EXPECT_EQ(first, method);
    EXPECT_EQ(0x8002u, jitRva);
    EXPECT_EQ(20u, lineAt(method, 0x8002));
    EXPECT_EQ(10u, lineAt(method, 0x10002));
    EXPECT_EQ(11u, lineAt(method, 0x10005));
    ASSERT_EQ(meSuccess, manager.resolveJitPoint(0x1006, 150, kPid, kHost, method, jitRva));
    EXPECT_EQ(11u, lineAt(method, jitRva));
    EXPECT_TRUE(capture.errors().empty()) << capture.dump();
}

TEST(JitDataManagerRegistration, SameLoadOfAKnownMethodAtTheSameAddressIsRefused) {
    LogCapture capture;
    JitDataManager manager;
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(7, 100, {{0x1000, 0x20, 0x10000}})));
    EXPECT_EQ(meBadRecord,
              manager.processMethodLoadRecord(kPid, kHost, makeMethod(7, 100, {{0x1000, 0x10, 0x20000}})));
    EXPECT_TRUE(capture.contains("Couldn't add a region (methodID=7) because there are two pre-jitted code ranges "
                                 "                        located on the same address space for the same method",
                                 log4cplus::ERROR_LOG_LEVEL));
    // Another address of the same load is more code of the same method.
    EXPECT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(7, 100, {{0x3000, 0x10, 0x30000}})));
    JitMethod::Ptr method;
    u64 jitRva = 0;
    ASSERT_EQ(meSuccess, manager.resolveJitPoint(0x3004, 100, kPid, kHost, method, jitRva));
    EXPECT_EQ(manager.getJitMethods()[0], method);
    EXPECT_EQ(2u, method->regionCount());
}

TEST(JitDataManagerRegistration, MalformedRegionsAreRefusedWithoutAborting) {
    quarvel_test::ExpectInternalChecks expectedChecks; // these precondition checks are the point
    LogCapture capture;
    JitDataManager manager;
    JitMethod::Ptr noRegions = makeMethod(1, 100, {});
    EXPECT_NE(meSuccess, manager.processMethodLoadRecord(kPid, kHost, noRegions));
    EXPECT_NE(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(2, 100, {{0x1000, 0, 0x100}})));
    EXPECT_NE(meSuccess, manager.processMethodLoadRecord(
                             kPid, kHost, makeMethod(3, 100, {{std::numeric_limits<u64>::max() - 4, 0x10, 0x100}})));
    const std::vector<std::string> expected = {"rawMethod->regionCount()", "region->length()",
                                               "fitsIn64(region->startAddress(), region->length())"};
    EXPECT_EQ(expected, capture.assertions());
    EXPECT_TRUE(manager.getJitMethods().empty());
}

TEST(JitDataManagerRegistration, DomainsAreLookedUpByHostThenProcess) {
    LogCapture capture;
    JitDataManager manager;
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(1, 100, {{1000, 100, 0x10000}})));
    EXPECT_TRUE(manager.getSingleRegionDomain(kPid, kHost));
    EXPECT_FALSE(manager.getSingleRegionDomain(kPid, kHost + 1));
    EXPECT_FALSE(manager.getSingleRegionDomain(kPid + 1, kHost));
    EXPECT_FALSE(manager.getSingleRegionDomain(kPid + 1, kHost + 1)); // lookups never create

    JitMethod::Ptr method;
    u64 jitRva = 0;
    EXPECT_EQ(meNotFound, manager.resolveJitPoint(1050, 150, kPid + 1, kHost, method, jitRva));
    EXPECT_TRUE(capture.contains("Couldn't find a region domain for pid = 101", log4cplus::TRACE_LOG_LEVEL));
    EXPECT_EQ(meNotFound, manager.resolveJitPoint(1050, 50, kPid, kHost, method, jitRva));
    EXPECT_TRUE(capture.contains("Couldn't find a region domain by tsc = 50", log4cplus::TRACE_LOG_LEVEL));
    EXPECT_EQ(meNotFound, manager.resolveJitPoint(999, 150, kPid, kHost, method, jitRva));
    EXPECT_TRUE(capture.contains("Couldn't find a region for addr = 999", log4cplus::TRACE_LOG_LEVEL));
}

// ---------------------------------------------------------------------------
// Queries over a small fixed model.

class JitDataManagerQueries : public ::testing::Test {
protected:
    void SetUp() override {
        // The same range reused at 100, 200 and 300; a callee elsewhere.
        ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(1, 100, {{1000, 100, 0x10000}})));
        ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(2, 200, {{1000, 100, 0x20000}})));
        ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(3, 300, {{1000, 100, 0x30000}})));
        ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeMethod(4, 50, {{5000, 64, 0x40000}})));
        manager.finalize();
    }
    LogCapture capture;
    JitDataManager manager;
};

TEST_F(JitDataManagerQueries, OverlappedRegionIsTheFirstLoadedStrictlyAfterTheTimestamp) {
    struct Case {
        u64 start, end, timestamp;
        u64 expectedLoadTime; // 0: not found
    };
    const Case cases[] = {
        {1000, 1100, 50, 100}, {1000, 1100, 100, 200}, {1010, 1020, 150, 200},
        {1050, 1200, 200, 300}, {900, 1001, 250, 300}, {1000, 1100, 300, 0},
        {1100, 1200, 0, 0},    {1050, 1050, 0, 100},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.start) + "-" + std::to_string(c.end) + " at " + std::to_string(c.timestamp));
        ICodeRegion::Ptr region;
        const quarvel_error_t ret = manager.findOverlappedRegion(c.start, c.end, c.timestamp, kPid, kHost, region);
        if (c.expectedLoadTime) {
            ASSERT_EQ(meSuccess, ret);
            EXPECT_EQ(c.expectedLoadTime, region->getLoadTime());
        } else {
            EXPECT_EQ(meNotFound, ret);
            EXPECT_FALSE(region);
        }
    }
    EXPECT_TRUE(capture.contains("Couldn't find overlapped region domain by tsc = 300", log4cplus::TRACE_LOG_LEVEL));
    EXPECT_TRUE(capture.contains("Couldn't find a region for addr = 1100", log4cplus::TRACE_LOG_LEVEL));
}

TEST_F(JitDataManagerQueries, JitRvaForm) {
    struct Case {
        u64 jitRva;
        u32 expectedId;
        const char* trace;
    };
    const Case cases[] = {
        {0x10000, 1, nullptr},
        {0x20063, 2, nullptr},
        {0x20064, 0, "because it is out of the jit rva domain."},
        {0x40000 + 63, 4, nullptr},
        {0xFFFF, 0, "because it is out of the jit rva domain."},
        {std::numeric_limits<u64>::max(), 0, "because it is invalid."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.jitRva);
        capture.clear();
        JitMethod::Ptr method;
        const quarvel_error_t ret = manager.resolveJitPoint(c.jitRva, method);
        if (c.expectedId) {
            ASSERT_EQ(meSuccess, ret);
            EXPECT_EQ(c.expectedId, method->getRawMethodId());
        } else {
            EXPECT_EQ(meNotFound, ret);
            EXPECT_TRUE(capture.contains(c.trace, log4cplus::TRACE_LOG_LEVEL)) << capture.dump();
        }
    }
}

TEST_F(JitDataManagerQueries, CalleeTargetResolvesAtTheCallersLoadTime) {
    u64 callee = 0;
    // Caller loaded at 200: the target in the reused range is method 2's code.
    ASSERT_EQ(meSuccess, manager.getCalleeTarget(0x20010, 1040, callee));
    EXPECT_EQ(0x20028u, callee);
    ASSERT_EQ(meSuccess, manager.getCalleeTarget(0x30010, 5010, callee));
    EXPECT_EQ(0x4000Au, callee);
    // Caller loaded at 100: the method at 5000 was loaded at 50, still live.
    ASSERT_EQ(meSuccess, manager.getCalleeTarget(0x10000, 1000, callee));
    EXPECT_EQ(0x10000u, callee);
    EXPECT_EQ(meNotFound, manager.getCalleeTarget(0x50000, 1000, callee));
    EXPECT_EQ(meNotFound, manager.getCalleeTarget(0x10000, 9000, callee));
}

TEST_F(JitDataManagerQueries, FindMethodByModuleAndRawId) {
    quarvel_test::ExpectInternalChecks expectedChecks; // these precondition checks are the point
    ISymbol::Ptr symbol;
    ASSERT_EQ(meSuccess, manager.findMethod(kModulePath, 2, symbol));
    EXPECT_EQ(2u, symbol->getMethodID());
    EXPECT_EQ(meNotFound, manager.findMethod("/other", 2, symbol));
    EXPECT_FALSE(symbol);
    EXPECT_TRUE(capture.contains("Cannot find symbol for pair: moduleName = /other methodId = 2",
                                 log4cplus::ERROR_LOG_LEVEL));
    EXPECT_EQ(meNotFound, manager.findMethod(nullptr, 2, symbol));
}

TEST_F(JitDataManagerQueries, TranslationUsesTheMethodPositionOnlyOnTheBuildingCall) {
    // Jit rva domain order: 0x10000 (1), 0x20000 (2), 0x30000 (3), 0x40000 (4).
    u64 jitRva = 0;
    // Building call: method 3 sits at position 2, so base 0x10000 lands on index 2.
    ASSERT_EQ(meSuccess, manager.translateToJitRva(3, 1010, 0x10000, 0x100000, jitRva));
    EXPECT_EQ(0x3000Au, jitRva);
    // Later calls convert plainly, whatever the method id.
    ASSERT_EQ(meSuccess, manager.translateToJitRva(3, 1010, 0x10000, 0x100000, jitRva));
    EXPECT_EQ(0x1000Au, jitRva);
    ASSERT_EQ(meSuccess, manager.translateToJitRva(99, 5001, 0x40000, 0x100000, jitRva));
    EXPECT_EQ(0x40001u, jitRva);
    EXPECT_EQ(meNotFound, manager.translateToJitRva(1, 5001, 0x40000, 0x40000, jitRva)); // at the limit
    EXPECT_EQ(meNotFound, manager.translateToJitRva(1, 4999, 0x40000, 0x100000, jitRva));
}

} // namespace

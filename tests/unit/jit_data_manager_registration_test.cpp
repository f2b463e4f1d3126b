// Registration of method loads and unloads, refusals, and the queries over a
// small fixed model.

#include "check_listener.h"
#include "jit_data_manager_test_helpers.h"
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

TEST(JitDataManagerRegistration, Scenarios) {
    const std::vector<Scenario> scenarios = {
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
         {{1, 100, 1000, 100, 0x10000, meSuccess}, {2, 100, 1050, 100, 0x20000, meNotFound}},
         {{1050, 150, 1, 0x10032}, {1120, 150, 0, 0}},
         "Couldn't add a splitted region (ip range = 1050-1150, loadTime=100) in the single time domain"},
        {"overlapping jit rva ranges",
         {{1, 100, 1000, 100, 0x10000, meSuccess}, {2, 200, 3000, 100, 0x10040, meBadRecord}},
         {{1050, 300, 1, 0x10032}, {3050, 300, 0, 0}},
         "Couldn't add a region (addr=3000, size=100, methodID=2, jitRva=65600) because jit rva ranges are "
         "overlapped."},
    };

    for (const Scenario& scenario : scenarios) {
        SCOPED_TRACE(scenario.name);
        LogCapture capture;
        JitDataManager manager;
        for (const Load& load : scenario.loads)
            EXPECT_EQ(load.expected,
                      manager
                          .processMethodLoadRecord(
                              kPid, kHost, makeMethod(load.id, load.time, {{load.address, load.length, load.jitRva}}))
                          .code());
        for (bool finalized : {false, true}) {
            if (finalized)
                manager.finalize();
            for (const Sample& sample : scenario.samples) {
                SCOPED_TRACE("sample at " + std::to_string(sample.address) + ", tsc " +
                             std::to_string(sample.timestamp) + (finalized ? ", finalized" : ""));
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
        }
        if (scenario.expectedError)
            EXPECT_TRUE(capture.contains(scenario.expectedError, log4cplus::ERROR_LOG_LEVEL)) << capture.dump();
        else
            EXPECT_TRUE(capture.errors().empty()) << capture.dump();
    }
}

// A refused record leaves nothing behind: not listed, no address answers for
// it, and the regions it would have overwritten keep their lives.
TEST(JitDataManagerRegistration, RefusedRecordsLeaveNoTrace) {
    struct Case {
        const char* name;
        JitMethod::Ptr method; // loaded over method 1 (1000-1100, loaded at 100)
        quarvel_error_t code;
        const char* message;
    };
    const std::vector<Case> cases = {
        {"second region's jit rvas taken", makeMethod(2, 200, {{1000, 50, 0x20000}, {5000, 16, 0x10008}}), meBadRecord,
         "because jit rva ranges are overlapped."},
        {"regions of one record cross each other", makeMethod(3, 200, {{1050, 100, 0x30000}, {1080, 16, 0x40000}}),
         meNotFound, "in the single time domain"},
        {"second region meets a region of the same moment",
         makeMethod(4, 200, {{1050, 10, 0x50000}, {2000, 16, 0x60000}}), meNotFound,
         "Couldn't add a splitted region (ip range = 2000-2016, loadTime=200) in the single time domain"},
        {"reload of a known method at the same time and address", makeMethod(1, 100, {{1000, 16, 0x70000}}),
         meBadRecord,
         "there are two pre-jitted code ranges                         located on the same address space for the "
         "same method"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture capture;
        JitDataManager manager;
        const JitMethod::Ptr first = makeMethod(1, 100, {{1000, 100, 0x10000}});
        ASSERT_TRUE(manager.processMethodLoadRecord(kPid, kHost, first).ok());
        ASSERT_TRUE(manager.processMethodLoadRecord(kPid, kHost, makeMethod(9, 200, {{2000, 16, 0x90000}})).ok());
        const Status status = manager.processMethodLoadRecord(kPid, kHost, c.method);
        ASSERT_FALSE(status.ok());
        EXPECT_EQ(c.code, status.code());
        EXPECT_EQ(ErrorKind::badInput, status.reason().kind);
        EXPECT_NE(std::string::npos, status.reason().message.find(c.message)) << status.reason().message;
        EXPECT_TRUE(capture.contains(status.reason().message, log4cplus::ERROR_LOG_LEVEL)) << capture.dump();

        manager.finalize();
        ASSERT_EQ(2u, manager.getJitMethods().size());
        EXPECT_EQ(1u, first->regionCount());
        EXPECT_EQ(0u, first->regions()[0]->unloadTime());
        EXPECT_EQ(1u, ownerAt(manager, 1060, 300));
        EXPECT_EQ(0u, ownerAt(manager, 5000, 300));
        for (const Region::Ptr& region : c.method->regions()) {
            JitMethod::Ptr found;
            const quarvel_error_t byRva = manager.resolveJitPoint(region->startJitRva(), found);
            EXPECT_TRUE(byRva != meSuccess || found == first || found->getRawMethodId() == 9);
        }
    }
}

TEST(JitDataManagerRegistration, MethodWithoutCodeIsListedAndOwnsNoAddress) {
    LogCapture capture;
    JitDataManager manager;
    const JitMethod::Ptr noCode = makeMethod(5, 100, {});
    addNativeToSource(noCode, 0x10, {{0, 0x10, 42}});
    ASSERT_TRUE(manager.processMethodLoadRecord(kPid, kHost, noCode).ok());
    ASSERT_TRUE(manager.processMethodLoadRecord(kPid, kHost, makeMethod(6, 100, {{1000, 16, 0x10000}})).ok());
    manager.finalize();
    ASSERT_EQ(2u, manager.getJitMethods().size());
    EXPECT_EQ(noCode, manager.getJitMethods()[0]);
    ISymbol::Ptr symbol;
    ASSERT_EQ(meSuccess, manager.findMethod(kModulePath, 5, symbol));
    EXPECT_EQ(noCode.get(), symbol.get());
    EXPECT_EQ(6u, ownerAt(manager, 1008, 100));
    EXPECT_TRUE(capture.errors().empty()) << capture.dump();
}

TEST(JitDataManagerRegistration, ReloadOfAKnownMethodKeepsBothLinesAndLowersItsJitRva) {
    LogCapture capture;
    JitDataManager manager;
    const JitMethod::Ptr first = makeMethod(7, 100, {{0x1000, 0x20, 0x10000}});
    addNativeToSource(first, 0x20, {{0, 4, 10}, {4, 0x20, 11}});
    const JitMethod::Ptr reload = makeMethod(7, 200, {{0x5000, 0x10, 0x8000}});
    addNativeToSource(reload, 0x10, {{0, 0x10, 20}});
    ASSERT_TRUE(manager.processMethodLoadRecord(kPid, kHost, first).ok());
    ASSERT_TRUE(manager.processMethodLoadRecord(kPid, kHost, reload).ok());
    // Another address of the same load is more code of the same method.
    ASSERT_TRUE(manager.processMethodLoadRecord(kPid, kHost, makeMethod(7, 200, {{0x3000, 0x10, 0x30000}})).ok());
    manager.finalize();

    ASSERT_EQ(1u, manager.getJitMethods().size());
    EXPECT_EQ(first, manager.getJitMethods()[0]);
    EXPECT_EQ(3u, first->regionCount());
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
    EXPECT_EQ(7u, ownerAt(manager, 0x3004, 200));
    EXPECT_TRUE(capture.errors().empty()) << capture.dump();
}

TEST(JitDataManagerRegistration, MalformedRegionsAreRefusedWithoutAborting) {
    quarvel_test::ExpectInternalChecks expectedChecks; // these precondition checks are the point
    LogCapture capture;
    JitDataManager manager;
    EXPECT_EQ(meBadRecord,
              manager.processMethodLoadRecord(kPid, kHost, makeMethod(2, 100, {{0x1000, 0, 0x100}})).code());
    EXPECT_EQ(meBadRecord,
              manager
                  .processMethodLoadRecord(kPid, kHost,
                                           makeMethod(3, 100, {{std::numeric_limits<u64>::max() - 4, 0x10, 0x100}}))
                  .code());
    const std::vector<std::string> expected = {"region->length()",
                                               "fitsIn64(region->startAddress(), region->length())"};
    EXPECT_EQ(expected, capture.assertions());
    EXPECT_TRUE(manager.getJitMethods().empty());
}

// Unloads end the life of what lives in their range, once.
TEST(JitDataManagerRegistration, UnloadsEndLivesOnce) {
    struct Step {
        bool unload;
        u32 id; // load
        u64 time;
        u64 address;
        u32 length;
    };
    const std::vector<Step> steps = {
        {false, 1, 100, 1000, 100}, {false, 2, 150, 2000, 100},
        {false, 3, 300, 3000, 100}, {true, 0, 200, 1050, 1}, // ends 1 (at 200), not 3 (loaded later)
        {true, 0, 250, 900, 3000},                           // ends 2; 1 keeps 200
        {false, 4, 400, 1000, 100},                          // a later load over the unloaded range
        {true, 0, 99, 2000, 10},                             // ends nothing: what is there was loaded later
        {true, 0, 500, 7000, 10},                            // nothing there
    };
    JitDataManager manager;
    u64 jitRva = 0x10000;
    for (const Step& s : steps) {
        if (s.unload) {
            EXPECT_TRUE(manager.processCodeUnload(kPid, kHost, s.address, s.length, s.time).ok());
        } else {
            ASSERT_TRUE(
                manager.processMethodLoadRecord(kPid, kHost, makeMethod(s.id, s.time, {{s.address, s.length, jitRva}}))
                    .ok());
            jitRva += 0x1000;
        }
    }
    EXPECT_TRUE(manager.processCodeUnload(kPid + 1, kHost, 1000, 10, 600).ok()); // unknown process
    manager.finalize();
    const u64 expectedUnload[] = {200, 250, 0, 0};
    for (u32 id = 1; id <= 4; ++id)
        EXPECT_EQ(expectedUnload[id - 1], manager.getJitMethods()[id - 1]->regions()[0]->unloadTime()) << id;
    EXPECT_EQ(1u, ownerAt(manager, 1010, 199));
    EXPECT_EQ(0u, ownerAt(manager, 1010, 200));
    EXPECT_EQ(0u, ownerAt(manager, 2010, 260));
    EXPECT_EQ(3u, ownerAt(manager, 3010, 900));
    EXPECT_EQ(4u, ownerAt(manager, 1010, 900));
}

// ---------------------------------------------------------------------------
// Queries over a small fixed model.

class JitDataManagerQueries : public ::testing::Test {
protected:
    void SetUp() override {
        // The same range reused at 100, 200 and 300; a callee elsewhere.
        ASSERT_TRUE(manager.processMethodLoadRecord(kPid, kHost, makeMethod(1, 100, {{1000, 100, 0x10000}})).ok());
        ASSERT_TRUE(manager.processMethodLoadRecord(kPid, kHost, makeMethod(2, 200, {{1000, 100, 0x20000}})).ok());
        ASSERT_TRUE(manager.processMethodLoadRecord(kPid, kHost, makeMethod(3, 300, {{1000, 100, 0x30000}})).ok());
        ASSERT_TRUE(manager.processMethodLoadRecord(kPid, kHost, makeMethod(4, 50, {{5000, 64, 0x40000}})).ok());
        manager.finalize();
    }
    LogCapture capture;
    JitDataManager manager;
};

TEST_F(JitDataManagerQueries, MissesSayWhy) {
    const struct {
        u64 address, timestamp;
        u32 pid, host;
        const char* trace;
    } cases[] = {
        {1050, 150, kPid + 1, kHost, "Couldn't find a region domain for pid = 101"},
        {1050, 150, kPid, kHost + 1, "Couldn't find a region domain for pid = 100"},
        {1050, 50, kPid, kHost, "Couldn't find a region domain by tsc = 50"},
        {999, 150, kPid, kHost, "Couldn't find a region for addr = 999"},
        {1050, 250, kPid, kHost, nullptr}, // found
    };
    for (const auto& c : cases) {
        capture.clear();
        Region::Ptr region;
        JitMethod::Ptr method;
        const quarvel_error_t ret = manager.findRegion(c.address, c.timestamp, c.pid, c.host, region, method);
        if (!c.trace) {
            EXPECT_EQ(meSuccess, ret);
            EXPECT_EQ(2u, method->getRawMethodId());
            EXPECT_EQ(200u, region->loadTime());
            continue;
        }
        EXPECT_EQ(meNotFound, ret);
        EXPECT_FALSE(region || method);
        EXPECT_TRUE(capture.contains(c.trace, log4cplus::TRACE_LOG_LEVEL)) << capture.dump();
    }
}

TEST_F(JitDataManagerQueries, OverlappedRegionIsTheFirstLoadedStrictlyAfterTheTimestamp) {
    struct Case {
        u64 start, end, timestamp;
        u64 expectedLoadTime; // 0: not found
    };
    const Case cases[] = {
        {1000, 1100, 50, 100}, {1000, 1100, 100, 200}, {1010, 1020, 150, 200}, {1050, 1200, 200, 300},
        {900, 1001, 250, 300}, {1000, 1100, 300, 0},   {1100, 1200, 0, 0},     {1050, 1050, 0, 100},
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

// ---------------------------------------------------------------------------
// findMethod gives one answer whatever the order of registration or queries.

TEST(JitDataManagerFindMethod, LowestAddressSpaceWinsAndRenamesCount) {
    for (bool reversed : {false, true}) {
        SCOPED_TRACE(reversed ? "reversed" : "in order");
        quarvel_test::ExpectInternalChecks expectedChecks; // the null module name is checked
        LogCapture capture;
        JitDataManager manager;
        // Raw id 7 in the same module in three processes of two hosts.
        const JitMethod::Ptr methods[] = {makeMethod(7, 100, {{1000, 16, 0x10000}}, "a", 300, 1),
                                          makeMethod(7, 100, {{1000, 16, 0x20000}}, "b", 200, 2),
                                          makeMethod(7, 100, {{1000, 16, 0x30000}}, "c", 400, 1)};
        for (size_t i = 0; i < 3; ++i) {
            const JitMethod::Ptr& m = methods[reversed ? 2 - i : i];
            ASSERT_TRUE(
                manager.processMethodLoadRecord(m->regions()[0]->processId(), m->regions()[0]->hostId(), m).ok());
        }
        // The reading pass renames a module after registration.
        const JitMethod::Ptr renamed = makeMethod(8, 100, {{2000, 16, 0x40000}}, "d", 300, 1);
        ASSERT_TRUE(manager.processMethodLoadRecord(300, 1, renamed).ok());
        renamed->info()->setModule(IModule::Ptr(new Module("/app/code.jit (64)", meSuccess, quarvel_arch_vx64)));
        manager.finalize();

        ISymbol::Ptr symbol;
        ASSERT_EQ(meSuccess, manager.findMethod(kModulePath, 7, symbol));
        EXPECT_STREQ("a", symbol->getMethodName()); // host 1, pid 300
        EXPECT_EQ(meNotFound, manager.findMethod(kModulePath, 8, symbol));
        ASSERT_EQ(meSuccess, manager.findMethod("/app/code.jit (64)", 8, symbol));
        EXPECT_EQ(renamed.get(), symbol.get());
        EXPECT_EQ(meNotFound, manager.findMethod("/other", 7, symbol));
        EXPECT_FALSE(symbol);
        EXPECT_TRUE(capture.contains("Cannot find symbol for pair: moduleName = /other methodId = 7",
                                     log4cplus::ERROR_LOG_LEVEL));
        EXPECT_EQ(meNotFound, manager.findMethod(nullptr, 7, symbol));
    }
}

} // namespace

// Registration: refusals, loads without code, reloads, and the queries over a
// small fixed model. Lives, overwrites, unloads and the address and jit rva
// answers over random histories are checked against a model by
// jit_data_manager_property_test.

#include "check_listener.h"
#include "jit_data_manager_test_helpers.h"
#include "log_capture.h"

#include <gtest/gtest.h>

#include <limits>

using namespace dmtest;
using quarvel_test::LogCapture;

namespace jit_data_manager_registration_test {

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
    EXPECT_TRUE(manager.processCodeUnload(kPid + 1, kHost, 1000, 16, 600).ok()); // an unknown process ends nothing
    manager.finalize();
    ASSERT_EQ(2u, manager.getJitMethods().size());
    EXPECT_EQ(noCode, manager.getJitMethods()[0]);
    ISymbol::Ptr symbol;
    ASSERT_EQ(meSuccess, manager.findMethod(kModulePath, 5, symbol));
    EXPECT_EQ(noCode.get(), symbol.get());
    EXPECT_EQ(6u, ownerAt(manager, 1008, 700));
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
    const quarvel_test::ExpectInternalChecks checks; // these precondition checks are the point
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
    EXPECT_EQ(expected, checks.conditions());
    EXPECT_TRUE(manager.getJitMethods().empty());
}

// A record's regions are placed one after the other, as if each were a record
// of its own: with one moment they lie side by side, with several one may lie
// over or under another, and each must see the ones placed before it.
TEST(JitDataManagerRegistration, ARecordsRegionsLandAsRecordsOfTheirOwnWould) {
    struct Placed {
        RegionShape shape;
        u64 loadTime;
        u32 pid;
    };
    struct Case {
        const char* name;
        std::vector<Placed> regions;
    };
    const u32 kOther = kPid + 1;
    const Case cases[] = {
        {"one moment, side by side", {{{0x1100, 0x80, 0x9000}, 50, kPid}, {{0x1300, 0x200, 0x9100}, 50, kPid}}},
        {"a later one first, an older one under it",
         {{{0x1100, 0x180, 0x9000}, 70, kPid}, {{0x1200, 0x200, 0x9200}, 30, kPid}}},
        {"an older one first, a later one over it",
         {{{0x1100, 0x180, 0x9000}, 30, kPid}, {{0x1200, 0x200, 0x9200}, 70, kPid}}},
        {"three, the last under the first two",
         {{{0x1100, 0x80, 0x9000}, 60, kPid}, {{0x1180, 0x80, 0x9100}, 60, kPid}, {{0x1140, 0x100, 0x9200}, 40, kPid}}},
        {"another process between",
         {{{0x1100, 0x100, 0x9000}, 70, kPid},
          {{0x1100, 0x100, 0x9100}, 70, kOther},
          {{0x1180, 0x100, 0x9200}, 30, kPid}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        // Both start from the same history: one region under everything, so
        // that the record's regions are checked against a space that exists.
        JitDataManager whole;
        JitDataManager apart;
        for (u32 pid : {kPid, kOther}) {
            ASSERT_TRUE(
                whole
                    .processMethodLoadRecord(
                        pid, kHost, makeMethod(pid, 10, {{0x1000, 0x1000, 0x100000 * (pid - kPid + 1)}}, "", pid))
                    .ok());
            ASSERT_TRUE(
                apart
                    .processMethodLoadRecord(
                        pid, kHost, makeMethod(pid, 10, {{0x1000, 0x1000, 0x100000 * (pid - kPid + 1)}}, "", pid))
                    .ok());
        }
        JitMethod::Ptr record = makeMethod(7, c.regions.front().loadTime, {});
        for (const Placed& p : c.regions)
            record->addCodeRegion(makeRegion(p.shape, p.loadTime, p.pid));
        record->setStartJitRva(c.regions.front().shape.jitRva);
        ASSERT_TRUE(whole.processMethodLoadRecord(kPid, kHost, record).ok());
        u32 rawId = 20;
        for (const Placed& p : c.regions) {
            JitMethod::Ptr own = makeMethod(rawId++, p.loadTime, {});
            own->addCodeRegion(makeRegion(p.shape, p.loadTime, p.pid));
            own->setStartJitRva(p.shape.jitRva);
            ASSERT_TRUE(apart.processMethodLoadRecord(p.pid, kHost, own).ok());
        }
        whole.finalize();
        apart.finalize();
        for (u32 pid : {kPid, kOther})
            for (u64 address = 0x1000; address < 0x1400; address += 0x20)
                for (u64 time : {20, 35, 55, 65, 75}) {
                    IModule* module = nullptr;
                    u64 fromWhole = 0;
                    u64 fromApart = 0;
                    const quarvel_error_t a = whole.resolveJitPoint(address, time, pid, kHost, module, fromWhole);
                    const quarvel_error_t b = apart.resolveJitPoint(address, time, pid, kHost, module, fromApart);
                    EXPECT_EQ(b, a) << "pid " << pid << ", address " << address << ", time " << time;
                    EXPECT_EQ(fromApart, fromWhole) << "pid " << pid << ", address " << address << ", time " << time;
                }
    }
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

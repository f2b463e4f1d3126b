// Inline attachment, finalisation of the inline tree and method updates.

#include "byte_buffers.h"
#include "check_listener.h"
#include "jit_data_manager_test_helpers.h"
#include "log_capture.h"

#include <gtest/gtest.h>

using namespace dmtest;
using quarvel_test::LogCapture;

namespace jit_data_manager_inline_test {

const u64 kParentJitRva = 0x10000;

JitMethod::Ptr makeParent(u32 rawId = 1, u64 loadTime = 100) {
    return makeMethod(rawId, loadTime, {{0x1000, 0x100, kParentJitRva}});
}

// A step of a scenario: a load or an inline load.
struct Step {
    bool isInline;
    u32 id;
    u32 parentId;
    u64 address;
    u32 length;
    quarvel_error_t expected;
};

struct InlineScenario {
    const char* name;
    u32 collector;
    std::vector<Step> steps;
    // (jit rva, expected inline chain of raw ids from the top-level region down)
    std::vector<std::pair<u64, std::vector<u32>>> probes;
    const char* expectedLog;
};

std::vector<u32> inlineChain(const Region::Ptr& top, u64 jitRva) {
    std::vector<u32> chain;
    Region::Ptr region = top;
    while (region) {
        const Region::MethodPtr method = region->getInlinedMethod(jitRva);
        if (!method)
            break;
        chain.push_back(method->getRawMethodId());
        region = region->getInlinedRegion(jitRva);
    }
    return chain;
}

TEST(JitDataManagerInline, Scenarios) {
    const std::vector<InlineScenario> scenarios = {
        {"inline before its parent",
         ctJitProfiler,
         {{true, 10, 1, 0x1010, 0x20, meSuccess}, {false, 1, 0, 0, 0, meSuccess}},
         {{kParentJitRva + 0x10, {10}}, {kParentJitRva + 0x30, {}}},
         "because parent method is not found. Inline method is cached."},
        {"nested inlines by id",
         ctJitProfiler,
         {{false, 1, 0, 0, 0, meSuccess},
          {true, 10, 1, 0x1010, 0x40, meSuccess},
          {true, 11, 10, 0x1020, 0x10, meSuccess},
          {true, 12, 1, 0x1080, 0x10, meSuccess}},
         {{kParentJitRva + 0x25, {10, 11}}, {kParentJitRva + 0x15, {10}}, {kParentJitRva + 0x85, {12}}},
         nullptr},
        {"nested inlines by address go one level down",
         0,
         {{false, 1, 0, 0, 0, meSuccess}, {true, 0, 0, 0x1010, 0x40, meSuccess}, {true, 0, 0, 0x1020, 0x10, meSuccess}},
         {{kParentJitRva + 0x25, {0, 0}}, {kParentJitRva + 0x45, {0}}},
         nullptr},
        {"a crossing inline is refused",
         ctJitProfiler,
         {{false, 1, 0, 0, 0, meSuccess},
          {true, 10, 1, 0x1010, 0x30, meSuccess},
          {true, 12, 1, 0x1030, 0x20, meNotFound}},
         {{kParentJitRva + 0x35, {10}}, {kParentJitRva + 0x45, {}}},
         "because it intersects another parent's inline with range 4112-4160"},
        {"a refused inline parents nothing: the inline that names it waits",
         ctJitProfiler,
         {{false, 1, 0, 0, 0, meSuccess},
          {true, 10, 1, 0x1010, 0x30, meSuccess},
          {true, 12, 1, 0x1030, 0x20, meNotFound},
          {true, 13, 12, 0x1042, 0x8, meSuccess}},
         {{kParentJitRva + 0x44, {}}},
         "(method id = 13) because parent method is not found"},
        {"an enclosing inline is refused",
         ctJitProfiler,
         {{false, 1, 0, 0, 0, meSuccess},
          {true, 10, 1, 0x1020, 0x10, meSuccess},
          {true, 12, 1, 0x1010, 0x40, meNotFound}},
         {{kParentJitRva + 0x25, {10}}},
         "because it intersects another parent's inline"},
        {"an inline sticking out of its parent",
         ctJitProfiler,
         {{false, 1, 0, 0, 0, meSuccess}, {true, 10, 1, 0x10F0, 0x20, meNotFound}},
         {{kParentJitRva + 0xF5, {}}},
         "because it overlaps parent's ip range 4096-4352"},
        {"an inline outside every region of its parent waits",
         ctJitProfiler,
         {{false, 1, 0, 0, 0, meSuccess}, {true, 10, 1, 0x3000, 0x20, meSuccess}},
         {},
         "because parent method has not ip range suitable for insert. The cached inline method is stayed awaiting "
         "for a parent."},
        {"an inline without a parent by address",
         0,
         {{true, 0, 0, 0x1010, 0x20, meNotFound}},
         {},
         "because parent method is not found."},
        {"inlines that name each other are not attached in a cycle",
         ctJitProfiler,
         {{false, 1, 0, 0, 0, meSuccess},
          {true, 20, 21, 0x1010, 0x20, meSuccess},
          {true, 21, 20, 0x1010, 0x20, meNotFound}},
         {},
         "because its parent's code region is inlined into it"},
    };

    for (const InlineScenario& scenario : scenarios) {
        SCOPED_TRACE(scenario.name);
        LogCapture capture;
        JitDataManager manager;
        manager.setCollectorType(scenario.collector);
        JitMethod::Ptr parent;
        for (const Step& step : scenario.steps) {
            if (step.isInline) {
                const std::string name = "inline@" + std::to_string(step.address);
                EXPECT_EQ(
                    step.expected,
                    manager
                        .processMethodInlineLoadRecord(
                            kPid, kHost, makeInlineMethod(step.id, step.parentId, 100, step.address, step.length, name))
                        .code());
            } else {
                parent = makeParent(step.id);
                EXPECT_EQ(step.expected, manager.processMethodLoadRecord(kPid, kHost, parent).code());
            }
        }
        manager.finalize();
        for (const auto& probe : scenario.probes) {
            SCOPED_TRACE(probe.first);
            ASSERT_TRUE(parent);
            EXPECT_EQ(probe.second, inlineChain(parent->regions().front(), probe.first));
        }
        if (scenario.expectedLog) {
            EXPECT_TRUE(capture.contains(scenario.expectedLog)) << capture.dump();
        }
    }
}

TEST(JitDataManagerInline, ContentReachablePreconditionsAreRefusedWithTheirConditionText) {
    struct Case {
        const char* name;
        u32 collector;
        JitMethod::Ptr method;
        const char* assertion; // null: a plain refusal with `error`
        const char* error;
    };
    JitMethod::Ptr twoRegions = makeInlineMethod(10, 1, 100, 0x1010, 0x10);
    twoRegions->addCodeRegion(makeRegion({0x1030, 0x10, 0}, 100));
    JitMethod::Ptr withJitRva = makeInlineMethod(10, 1, 100, 0x1010, 0x10);
    withJitRva->regions().front()->setStartJitRva(0x500);
    const std::vector<Case> cases = {
        {"raw id from another collector", 0, makeInlineMethod(10, 0, 100, 0x1010, 0x10), "rawMethodId == 0", nullptr},
        {"raw parent id from another collector", 0, makeInlineMethod(0, 1, 100, 0x1010, 0x10), "rawParentId == 0",
         nullptr},
        {"two regions", ctJitProfiler, twoRegions, "rawMethod->regionCount() == 1", nullptr},
        {"zero start address", ctJitProfiler, makeInlineMethod(10, 1, 100, 0, 0x10), "rawRegion->startAddress()",
         nullptr},
        {"zero length", ctJitProfiler, makeInlineMethod(10, 1, 100, 0x1010, 0), "rawRegion->length()", nullptr},
        {"zero load time", ctJitProfiler, makeInlineMethod(10, 1, 0, 0x1010, 0x10), "rawRegion->loadTime()", nullptr},
        {"jit rva given", ctJitProfiler, withJitRva, "rawRegion->startJitRva() == 0", nullptr},
        {"raw id 0", ctJitProfiler, makeInlineMethod(0, 1, 100, 0x1010, 0x10), nullptr,
         "Couldn't inline method (method id = 0) because method id is invalid."},
        {"raw parent id 0", ctJitProfiler, makeInlineMethod(10, 0, 100, 0x1010, 0x10), nullptr,
         "Couldn't inline method (method id = 10) because its parent id = 0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture capture;
        const quarvel_test::ExpectInternalChecks checks;
        JitDataManager manager;
        manager.setCollectorType(c.collector);
        ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, makeParent()).code());
        EXPECT_EQ(meNotFound, manager.processMethodInlineLoadRecord(kPid, kHost, c.method).code());
        if (c.assertion) {
            EXPECT_EQ(std::vector<std::string>{c.assertion}, checks.conditions());
        } else {
            EXPECT_TRUE(checks.conditions().empty());
            EXPECT_TRUE(capture.contains(c.error, log4cplus::ERROR_LOG_LEVEL)) << capture.dump();
        }
        EXPECT_TRUE(manager.getJitMethods().front()->regions().front()->inlinedRegions().empty());
    }
}

// P (0x1000-0x1100) <- I1 (0x1010-0x1080) <- I2 (0x1020-0x1060) <- I3 (0x1030-0x1040),
// arriving innermost first and the parent third.
TEST(JitDataManagerInline, ThreeLevelChainIsResolvedThroughThePublicInterfaces) {
    LogCapture capture;
    JitDataManager manager;
    manager.setCollectorType(ctJitProfiler);
    const JitMethod::Ptr parent = makeParent();
    addNativeToSource(parent, 0x100, {{0, 0x100, 7}});
    const JitMethod::Ptr i1 = makeInlineMethod(10, 1, 100, 0x1010, 0x70, "level1");
    addNativeToSource(i1, 0x70, {{0, 0x70, 100}});
    const JitMethod::Ptr i2 = makeInlineMethod(11, 10, 100, 0x1020, 0x40, "level2");
    addNativeToSource(i2, 0x40, {{0, 0x10, 200}, {0x10, 0x40, 201}});
    const JitMethod::Ptr i3 = makeInlineMethod(12, 11, 100, 0x1030, 0x10, "level3");
    addNativeToSource(i3, 0x10, {{0, 0x8, 300}, {0x8, 0x10, 301}});

    ASSERT_EQ(meSuccess, manager.processMethodInlineLoadRecord(kPid, kHost, i3).code());
    ASSERT_EQ(meSuccess, manager.processMethodInlineLoadRecord(kPid, kHost, i2).code());
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, parent).code());
    ASSERT_EQ(meSuccess, manager.processMethodInlineLoadRecord(kPid, kHost, i1).code());
    EXPECT_TRUE(i1->isInlineAttached() && i2->isInlineAttached() && i3->isInlineAttached());

    auto check = [&](const char* pass) {
        SCOPED_TRACE(pass);
        JitMethod::Ptr method;
        u64 jitRva = 0;
        ASSERT_EQ(meSuccess, manager.resolveJitPoint(0x1039, 150, kPid, kHost, method, jitRva));
        ASSERT_EQ(parent, method);
        ASSERT_EQ(kParentJitRva + 0x39, jitRva);
        EXPECT_EQ(7u, lineAt(method, jitRva));

        const ICodeRegion::Ptr top = method->getRegions().current();
        const ICodeRegion::Ptr level1 = top->getInlinedCodeRegion(jitRva);
        ASSERT_TRUE(level1);
        EXPECT_EQ(kParentJitRva + 0x10, level1->getStartJitRva());
        const ICodeRegion::Ptr level2 = level1->getInlinedCodeRegion(jitRva);
        ASSERT_TRUE(level2);
        EXPECT_EQ(kParentJitRva + 0x20, level2->getStartJitRva());
        const ICodeRegion::Ptr level3 = level2->getInlinedCodeRegion(jitRva);
        ASSERT_TRUE(level3);
        EXPECT_EQ(kParentJitRva + 0x30, level3->getStartJitRva());
        EXPECT_FALSE(level3->getInlinedCodeRegion(jitRva));

        const ISymbol::Ptr symbol3 = level2->getInlinedSymbol(jitRva);
        ASSERT_TRUE(symbol3);
        EXPECT_STREQ("level3", symbol3->getMethodName());
        EXPECT_EQ(kParentJitRva + 0x30, symbol3->getStartJitRva());
        const ISourceLocation::Ptr location = symbol3->getSourceLocation(jitRva);
        ASSERT_TRUE(location);
        EXPECT_EQ(301u, location->getLine());
        EXPECT_EQ(300u, lineAt(i3, kParentJitRva + 0x30));
        EXPECT_EQ(201u, lineAt(i2, kParentJitRva + 0x35));
        EXPECT_EQ(200u, lineAt(i2, kParentJitRva + 0x25));
        EXPECT_EQ(100u, lineAt(i1, kParentJitRva + 0x75));
        EXPECT_EQ("level1", std::string(top->getInlinedSymbol(jitRva)->getMethodName()));
    };
    manager.finalize();
    check("first pass");
    // Another reading pass finalises again: nothing moves.
    manager.finalize();
    check("second pass");

    // An inline that arrives after a pass gets its jit rvas on the next one,
    // without shifting the tables of those settled before.
    const JitMethod::Ptr i4 = makeInlineMethod(13, 12, 100, 0x1032, 0x4, "level4");
    addNativeToSource(i4, 0x4, {{0, 0x4, 400}});
    ASSERT_EQ(meSuccess, manager.processMethodInlineLoadRecord(kPid, kHost, i4).code());
    // A late sibling of a settled inline: only the newcomer is settled.
    const JitMethod::Ptr i5 = makeInlineMethod(14, 1, 100, 0x1090, 0x10, "late sibling");
    addNativeToSource(i5, 0x10, {{0, 0x10, 500}});
    ASSERT_EQ(meSuccess, manager.processMethodInlineLoadRecord(kPid, kHost, i5).code());
    manager.finalize();
    EXPECT_EQ(kParentJitRva + 0x90, i5->getStartJitRva());
    EXPECT_EQ(500u, lineAt(i5, kParentJitRva + 0x9F));
    check("after a late inline");
    EXPECT_EQ(kParentJitRva + 0x32, i4->getStartJitRva());
    EXPECT_EQ(400u, lineAt(i4, kParentJitRva + 0x33));
    EXPECT_EQ(i4, i3->regions().front()->getInlinedMethod(kParentJitRva + 0x33));
    EXPECT_TRUE(capture.errors().empty()) << capture.dump();
}

TEST(JitDataManagerInline, InlinesAttachOnlyToLiveRegionsOfTheParent) {
    LogCapture capture;
    JitDataManager manager;
    manager.setCollectorType(ctJitProfiler);
    // Method 1 is loaded at 0x1000, then its range is reused by method 2 and it
    // is reloaded at 0x2000: only the reload is live.
    const JitMethod::Ptr first = makeMethod(1, 100, {{0x1000, 0x100, 0x10000}});
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, first).code());
    ASSERT_EQ(meSuccess,
              manager.processMethodLoadRecord(kPid, kHost, makeMethod(2, 200, {{0x1000, 0x100, 0x20000}})).code());
    ASSERT_EQ(meSuccess,
              manager.processMethodLoadRecord(kPid, kHost, makeMethod(1, 300, {{0x2000, 0x100, 0x30000}})).code());
    const JitMethod::Ptr oldPlace = makeInlineMethod(10, 1, 300, 0x1010, 0x10);
    EXPECT_EQ(meSuccess, manager.processMethodInlineLoadRecord(kPid, kHost, oldPlace).code());
    EXPECT_FALSE(oldPlace->isInlineAttached());
    const JitMethod::Ptr newPlace = makeInlineMethod(11, 1, 300, 0x2010, 0x10);
    EXPECT_EQ(meSuccess, manager.processMethodInlineLoadRecord(kPid, kHost, newPlace).code());
    EXPECT_TRUE(newPlace->isInlineAttached());
    EXPECT_EQ(1u, first->regions()[1]->inlinedRegions().size());
    EXPECT_TRUE(first->regions()[0]->inlinedRegions().empty());
}

// ---------------------------------------------------------------------------
// Updates

struct UpdateCase {
    const char* name;
    u32 collector;
    u32 methodId;
    u64 address;
    u32 length;
    u64 loadTime;
    quarvel_error_t expected;
    const char* error;
    const char* expectedBytes; // of the 8-byte region at 0x1000: '.' the old 0x11, 'N' the patch's 0xEE
};

TEST(JitDataManagerUpdate, Scenarios) {
    const std::vector<UpdateCase> cases = {
        {"exact cover", ctJitProfiler, 1, 0x1000, 8, 150, meSuccess, nullptr, "NNNNNNNN"},
        {"another collector", 0, 1, 0x1000, 8, 150, meNotFound,
         "Couldn't accept update because jit file must be                                      collected by old "
         "version of Kelvo JIT agent",
         "........"},
        {"method id 0", ctJitProfiler, 0, 0x1000, 8, 150, meNotFound, "Couldn't accept update because method ID is 0",
         "........"},
        {"before the load", ctJitProfiler, 1, 0x1000, 8, 50, meNotFound,
         "Couldn't accept update (method id = 1) because a range to be updated is not found", "........"},
        {"another method", ctJitProfiler, 2, 0x1000, 8, 150, meNotFound,
         "Couldn't accept update (method id = 2) because a range to be updated has different method id = 1",
         "........"},
        {"sticking out", ctJitProfiler, 1, 0x1006, 4, 150, meNotFound,
         "Couldn't accept update (ip range = 4102-4106) because it overlaps parent's ip range 4096-4104", "........"},
    };
    for (const UpdateCase& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture capture;
        JitDataManager manager;
        manager.setCollectorType(c.collector);
        const JitMethod::Ptr method = makeMethod(1, 100, {{0x1000, 8, 0x10000}});
        method->regions().front()->setContent(quarvel_test::bufferOf(std::vector<uint8_t>(8, 0x11)));
        ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, method).code());

        JitMethod::Ptr update(new JitMethod());
        update->setRawMethodId(c.methodId);
        update->addCodeRegion(makeRegion({c.address, c.length, 0}, c.loadTime, kPid, kHost, 0xEE));
        EXPECT_EQ(c.expected, manager.processMethodUpdateRecord(kPid, kHost, update).code());
        const IByteBuffer::Ptr bytes = method->regions().front()->getBytes();
        std::string shown;
        for (size_t i = 0; i < bytes->size(); ++i)
            shown += bytes->data()[i] == 0x11 ? '.' : bytes->data()[i] == 0xEE ? 'N' : '?';
        EXPECT_EQ(c.expectedBytes, shown);
        if (c.error) {
            EXPECT_TRUE(capture.contains(c.error, log4cplus::ERROR_LOG_LEVEL)) << capture.dump();
        } else {
            EXPECT_TRUE(capture.contains("Updated code region (ip range = 4096-4104) from method 1, name = m1",
                                         log4cplus::INFO_LOG_LEVEL));
        }
    }
}

TEST(JitDataManagerUpdate, MultipleRangesAreRefusedAndShortCodeCopiesClipThePatch) {
    LogCapture capture;
    JitDataManager manager;
    manager.setCollectorType(ctJitProfiler);
    const JitMethod::Ptr method = makeMethod(1, 100, {{0x1000, 8, 0x10000}});
    method->regions()[0]->setContent(quarvel_test::bufferOf({1, 2, 3}));
    ASSERT_EQ(meSuccess, manager.processMethodLoadRecord(kPid, kHost, method).code());

    JitMethod::Ptr twoRanges(new JitMethod());
    twoRanges->setRawMethodId(1);
    twoRanges->addCodeRegion(makeRegion({0x1000, 2, 0}, 150));
    twoRanges->addCodeRegion(makeRegion({0x1002, 2, 0}, 150));
    EXPECT_EQ(meNotFound, manager.processMethodUpdateRecord(kPid, kHost, twoRanges).code());
    EXPECT_TRUE(capture.contains("Couldn't accept update (method id = 1) because it has multiple code ranges"));

    // A code copy shorter than the region keeps its size; the patch is clipped.
    JitMethod::Ptr patch(new JitMethod());
    patch->setRawMethodId(1);
    patch->addCodeRegion(makeRegion({0x1001, 6, 0}, 150, kPid, kHost, 0xEE));
    ASSERT_EQ(meSuccess, manager.processMethodUpdateRecord(kPid, kHost, patch).code());
    const IByteBuffer::Ptr bytes = method->regions()[0]->getBytes();
    EXPECT_EQ((std::vector<unsigned char>{1, 0xEE, 0xEE}),
              std::vector<unsigned char>(bytes->data(), bytes->data() + bytes->size()));
}

} // namespace

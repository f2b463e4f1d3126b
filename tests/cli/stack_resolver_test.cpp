// Naming the frames of call stacks against real traces: which address each
// frame is looked up at, how inlined code becomes frames, what keeps the
// profiler's name, and what is counted as not named.

#include "flame_writer.h"
#include "folded_writer.h"
#include "speedscope_writer.h"
#include "stack_pipeline.h"
#include "stack_resolver.h"
#include "trace_view.h"

#include <trace_builder.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace stack_resolver_test {

using namespace quarvel_jit;
using quarvel_test::makeInline;
using quarvel_test::makeLoad;
using quarvel_test::TempDir;
using quarvel_test::TraceBuilder;

// Process 100 on host h:
//   alpha  [0x1000, 0x1100) from 1000, lines 10 and 11; gamma takes its place at 5000
//   beta   [0x1100, 0x1200) from 1000, line 20, with inner [0x1140, 0x11c0) line 30
//          inlined, and leaf [0x1160, 0x1180) line 40 inlined into inner
//   interp [0x1300, 0x1400) from 1000, code of the runtime (no module)
class StackResolverTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto alpha = makeLoad(1, 1000, 0x1000, 0x100, "alpha");
        alpha.tail.lines.nativeToSource = {{0, 0x80, 10}, {0x80, 0x100, 11}};
        auto beta = makeLoad(2, 1000, 0x1100, 0x100, "beta");
        beta.tail.lines.nativeToSource = {{0, 0x100, 20}};
        auto inner = makeInline(3, 2, 1000, 0x1140, 0x80, "inner");
        inner.tail.lines.nativeToSource = {{0, 0x80, 30}};
        auto leaf = makeInline(4, 3, 1000, 0x1160, 0x20, "leaf");
        leaf.tail.lines.nativeToSource = {{0, 0x20, 40}};
        auto interp = makeLoad(5, 1000, 0x1300, 0x100, "interp");
        interp.tail.moduleName.clear();
        auto gamma = makeLoad(6, 5000, 0x1000, 0x100, "gamma");
        TraceBuilder()
            .magic()
            .collector(1)
            .load(3, alpha)
            .load(3, beta)
            .inlineLoad(inner)
            .inlineLoad(leaf)
            .load(3, interp)
            .load(3, gamma)
            .writeTo(m_dir.file("h.100.jit"));
        ASSERT_TRUE(m_view.open({m_dir.path()}));
    }

    // The frames, root first, as "kind name[:line]".
    std::vector<std::string> resolve(const StackSample& sample) {
        Stack stack;
        m_resolver.resolve(sample, stack);
        std::vector<std::string> out;
        for (const StackElem& e : stack) {
            const FrameInfo& f = m_frames.at(e.frame);
            out.push_back(std::string(frameKindName(f.kind)) + " " + f.name +
                          (e.line ? ":" + std::to_string(e.line) : std::string()));
        }
        return out;
    }

    std::string name(const char* method) {
        // The library's display name of a fixture method (the class comes first).
        return std::string("Klass::") + method;
    }

    TempDir m_dir;
    TraceView m_view;
    FrameTable m_frames;
    StackResolver m_resolver{m_view, m_frames};
};

RawFrame anon(uint64_t address) {
    return RawFrame{address, "[unknown]", "/tmp/perf-100.map"};
}

StackSample sample(uint64_t time, std::vector<RawFrame> leafFirst, unsigned pid = 100) {
    StackSample s;
    s.time = time;
    s.pid = pid;
    s.frames = std::move(leafFirst);
    return s;
}

TEST_F(StackResolverTest, FramesAreLookedUpWhereTheCallIsAndInlinedCodeBecomesFrames) {
    const std::string alpha = name("alpha"), beta = name("beta"), inner = name("inner"), leaf = name("leaf");
    struct Case {
        const char* what;
        StackSample sample;
        std::vector<std::string> frames;
    } cases[] = {
        {"a leaf in nested inlined code: the method, then each inline, outermost first",
         sample(2000, {anon(0x1165)}),
         {"compiled " + beta + ":20", "inlined " + inner + ":30", "inlined " + leaf + ":40"}},
        {"a return address at the first byte of an inline: the call was the byte before, in its parent",
         sample(2000, {anon(0x1010), anon(0x1160)}),
         {"compiled " + beta + ":20", "inlined " + inner + ":30", "compiled " + alpha + ":10"}},
        {"a return address at the first byte of a method: the call was in the method before it",
         sample(2000, {anon(0x1310), anon(0x1100)}),
         {"compiled " + alpha + ":11", "stub " + name("interp")}},
        {"under kernel frames, the user address is where the thread entered the kernel, looked up as it is",
         sample(2000, {RawFrame{0xffffffff81000000, "sys_x", "[kernel.kallsyms]"}, anon(0x1100), anon(0x1010)}),
         {"compiled " + alpha + ":10", "compiled " + beta + ":20", "kernel sys_x"}},
        {"the same address at two moments: the code there at each",
         sample(6000, {anon(0x1010), anon(0x1010)}),
         {"compiled " + name("gamma"), "compiled " + name("gamma")}},
        {"a frame in a library file keeps the profiler's name even inside the jitted area",
         sample(2000, {RawFrame{0x1010, "x_fn", "/usr/lib/libx.so"}, anon(0x1010)}),
         {"compiled " + alpha + ":10", "native x_fn"}},
        {"outside the jitted area, anonymous frames keep their names; frames without one get their address",
         sample(2000, {RawFrame{0x9000, "", ""}, anon(0x9000)}),
         {"native [unknown]", "native 0x9000"}},
        {"kernel frames are known by their addresses when no module is given",
         sample(2000, {RawFrame{0xffffffff81000010, "", ""}, RawFrame{0x1101, "", ""}}),
         {"compiled " + beta + ":20", "kernel 0xffffffff81000010"}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.frames, resolve(c.sample)) << c.what;
    const StackCounters& n = m_resolver.counters();
    EXPECT_EQ(0u, n.unnamedJitFrames);
    EXPECT_EQ(0u, n.untracedSamples);
    EXPECT_EQ(0u, n.beforeTraces);
}

TEST_F(StackResolverTest, WhatCouldNotBeNamedIsCounted) {
    // Between beta and interp nothing was ever loaded.
    EXPECT_EQ(std::vector<std::string>({"unknown [unknown]"}), resolve(sample(2000, {anon(0x1250)})));
    // Before any code was loaded, jitted addresses name nothing either.
    EXPECT_EQ(std::vector<std::string>({"unknown [unknown]", "unknown [unknown]"}),
              resolve(sample(500, {anon(0x1010), anon(0x1020)})));
    // A process without traces: its frames are the profiler's.
    EXPECT_EQ(std::vector<std::string>({"native [unknown]"}), resolve(sample(2000, {anon(0x1010)}, 200)));
    const StackCounters& n = m_resolver.counters();
    EXPECT_EQ(3u, n.samples);
    EXPECT_EQ(4u, n.frames);
    EXPECT_EQ(0u, n.jitFrames);
    EXPECT_EQ(3u, n.unnamedJitFrames);
    EXPECT_EQ(2u, n.samplesWithUnnamed);
    EXPECT_EQ(1u, n.beforeTraces);
    EXPECT_EQ(1u, n.untracedSamples);
    EXPECT_EQ((std::map<std::string, uint64_t>{{"200", 1}}), n.untracedProcesses);
}

TEST_F(StackResolverTest, SamplesOfAnUnknownHostAreOfProcessesWithoutTraces) {
    StackSample s = sample(2000, {anon(0x1010)});
    s.host = "elsewhere";
    EXPECT_EQ(std::vector<std::string>({"native [unknown]"}), resolve(s));
    s.host = "h";
    EXPECT_EQ(std::vector<std::string>({"compiled " + name("alpha") + ":10"}), resolve(s));
    EXPECT_EQ((std::map<std::string, uint64_t>{{"100@elsewhere", 1}}), m_resolver.counters().untracedProcesses);
}

TEST_F(StackResolverTest, FiltersAndTheTopTableCountEachStackOnce) {
    // Two samples recurse through alpha, one runs beta's inlined leaf.
    std::istringstream in("100/1 0.000002000: \n\t1010 [unknown] ()\n\t1020 [unknown] ()\n\n"
                          "100/1 0.000002001: \n\t1010 [unknown] ()\n\t1020 [unknown] ()\n\n"
                          "100/2 0.000002002: \n\t1165 [unknown] ()\n\n"
                          "100/2 0.000009000: \n\t1165 [unknown] ()\n\n");
    StackReader reader(in, StackFormat::Auto);
    StackFilter filter;
    filter.to = 3000;
    const std::regex match("alpha");
    filter.match = &match;
    StackProfile profile;
    const StackSummary summary = collectStacks(m_view, reader, filter, profile);
    EXPECT_EQ(4u, summary.samplesRead);
    EXPECT_EQ(2u, summary.samplesKept); // the last is too late, the third has no alpha
    EXPECT_EQ(1u, summary.distinctStacks);
    const std::vector<FrameCount> top = topFrames(profile.withoutLines(), 0);
    ASSERT_EQ(1u, top.size());
    EXPECT_EQ(name("alpha"), top[0].name);
    EXPECT_EQ(2u, top[0].self);
    EXPECT_EQ(2u, top[0].total); // on the stack twice per sample, counted once
}

// A deterministic generator, the same on every platform.
class Lcg {
public:
    explicit Lcg(uint64_t seed) : m_state(seed) {}
    uint64_t below(uint64_t n) {
        m_state = m_state * 6364136223846793005ull + 1442695040888963407ull;
        return (m_state >> 33) % n;
    }

private:
    uint64_t m_state;
};

std::string damaged(const std::string& text, Lcg& random) {
    static const char kBytes[] = {'\t', '\n', ' ', '(', ')', ':',  '/',    ';',
                                  ',',  '.',  '0', 'f', 'x', '\0', '\xff', '\xc3'};
    std::string s = text;
    const uint64_t edits = 1 + random.below(6);
    for (uint64_t i = 0; i < edits && !s.empty(); ++i) {
        const size_t at = random.below(s.size());
        switch (random.below(5)) {
        case 0:
            s.erase(at, random.below(40));
            break;
        case 1:
            s.insert(at, 1, kBytes[random.below(sizeof kBytes)]);
            break;
        case 2:
            s[at] = kBytes[random.below(sizeof kBytes)];
            break;
        case 3:
            s.resize(at);
            break;
        default:
            s.insert(at, s.substr(random.below(s.size()), random.below(80)));
            break;
        }
    }
    return s;
}

TEST_F(StackResolverTest, DamagedInputOfEitherFormatIsCountedNeverFatal) {
    const std::string perf = "100/1 0.000002000: \n\t1165 [unknown] (/tmp/perf-100.map)\n\t1160 [unknown] ()\n"
                             "\t891f5 start_thread (/usr/lib/libc.so.6)\n\n"
                             "100/2 0.000002500: \n\tffffffff81000000 sys_x ([kernel.kallsyms])\n"
                             "\t1100 [unknown] ()\n\t1020 f(int, (x)) (/lib/a (deleted))\n\n"
                             "  200 0.000003000:   1010\n";
    const std::string csv = "time,address,pid,tid,host,stack\n2000,0x1165,100,1,h,0x1160;0x1101;0xffffffff81000000\n"
                            "2500,0x1310,100,2,,0x1100\n6000,0x1010,100,1,h,\n";
    Lcg random(7);
    for (int round = 0; round < 3000; ++round) {
        const std::string text = damaged(round % 2 ? csv : perf, random);
        std::istringstream in(text);
        StackReader reader(in, StackFormat::Auto);
        StackProfile profile;
        const StackSummary summary = collectStacks(m_view, reader, StackFilter(), profile);
        ASSERT_EQ(summary.samplesRead, profile.samples()) << text;
        ASSERT_LE(summary.errors.size(), StackReader::kMaxErrors);
        std::ostringstream out;
        writeFolded(out, profile, true);
        writeSpeedscope(out, profile, text);
        writeFlame(out, FlameFormat::Svg, profile, FlameOptions());
        topFrames(profile, 3);
    }
}

} // namespace

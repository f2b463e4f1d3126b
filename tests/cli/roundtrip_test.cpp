// A trace written with the public writer, read back by quarvel-jit: every
// record of every layout reaches the tool and is counted under its own name.

#include "trace_builder.h"

#include <quarvel/jittrace_writer.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <unistd.h>

namespace roundtrip_test {

using namespace quarvel;
using Json = nlohmann::json;

struct RunResult {
    int exitCode = -1;
    std::string out;
};

RunResult run(const std::string& args) {
    RunResult r;
    const std::string command = std::string(QUARVEL_JIT_TOOL) + " --log-level off " + args + " 2>/dev/null";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe)
        return r;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0)
        r.out.append(buf, n);
    const int status = ::pclose(pipe);
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

using quarvel_test::makeInline;
using quarvel_test::TempDir;

TraceMethodLoad load(uint32_t id, uint64_t time, uint64_t address, const std::string& name) {
    return quarvel_test::makeLoad(id, time, address, 0x20, name, "demo.Alpha");
}

TEST(QuarvelJitRoundTrip, EveryRecordOfEveryLayoutReachesTheTool) {
    TempDir dir;
    const std::string path = dir.file("rt-host.77.jit");
    JitTraceWriter w;
    ASSERT_TRUE(w.open(path));
    ASSERT_TRUE(w.writeMagic(0));
    ASSERT_TRUE(w.writeCollectorType(ctJitProfiler));
    ASSERT_TRUE(w.writeRuntimeInfo(TraceRuntimeInfo{quarvel_runtime_python, "3.11", "CPython"}));
    // One load of every version and variant, each method at its own address.
    for (uint32_t i = 0; i < 8; ++i) {
        const uint32_t id = i + 1;
        ASSERT_TRUE(w.writeMethodLoad(static_cast<int>(i / 2), i % 2 == 1,
                                      load(id, 1000 + 10 * i, 0x100000 + 0x1000 * i, "m" + std::to_string(id))));
    }
    // Inlines into m8, the second nested in the first; a 32-bit and a 64-bit record.
    ASSERT_TRUE(w.writeInlineLoad(false, makeInline(9, 8, 1070, 0x107004, 0x10, "outer")));
    ASSERT_TRUE(w.writeInlineLoad(true, makeInline(10, 9, 1070, 0x107008, 0x4, "inner")));
    // A method update rewrites the first 4 bytes of m7 with no-operations.
    TraceMethodLoad update = load(7, 2000, 0x106000, "m7");
    update.regions[0] = TraceCodeRegion{0x106000, 4, std::vector<uint8_t>(4, 0x90)};
    ASSERT_TRUE(w.writeMethodUpdate(update));
    w.close();

    // The version 2 update in a process of its own: it is counted, whatever the model makes of it.
    JitTraceWriter w2;
    ASSERT_TRUE(w2.open(dir.file("rt-host.78.jit")));
    ASSERT_TRUE(w2.writeCollectorType(ctJitProfiler));
    ASSERT_TRUE(w2.writeMethodLoad(3, true, load(1, 500, 0x200000, "patched")));
    ASSERT_TRUE(w2.writeUpdateV2(TraceUpdateV2{1, 600, 0x200004, 2, {0x90, 0x90}}));
    w2.close();

    // Each load's fields through every layout: ReadingPassModel and record_bodies_test;
    // the printed form and inline trees: the symbols goldens. Here: every record reaches the tool.
    const RunResult symbols = run("--format json symbols " + path);
    ASSERT_EQ(0, symbols.exitCode);
    EXPECT_EQ(8u, Json::parse(symbols.out).at("symbols").size());

    // The update's no-operations show in m7's code, and only there.
    const RunResult m7 = run("--format json dump " + path + " --match 'm7$'");
    ASSERT_EQ(0, m7.exitCode);
    const std::string m7Dump = Json::parse(m7.out).at("dumps").at(0).at("dump").get<std::string>();
    EXPECT_NE(std::string::npos, m7Dump.find("nop")) << m7Dump;
    const RunResult m6 = run("--format json dump " + path + " --match 'm6$'");
    EXPECT_EQ(std::string::npos, Json::parse(m6.out).at("dumps").at(0).at("dump").get<std::string>().find("nop"));

    // Every record was read: the stats count each type as written.
    const RunResult stats = run("--format json stats " + path + " " + dir.file("rt-host.78.jit"));
    ASSERT_EQ(0, stats.exitCode);
    const Json statsDoc = Json::parse(stats.out);
    const Json& st = statsDoc.at("stats");
    EXPECT_EQ(1u, st.at("records_magic").get<uint64_t>());
    EXPECT_EQ(2u, st.at("records_collector_type").get<uint64_t>());
    EXPECT_EQ(1u, st.at("records_runtime_info").get<uint64_t>());
    for (const char* key : {"records_method_load_v0_32", "records_method_load_v0_64", "records_method_load_v1_32",
                            "records_method_load_v1_64", "records_method_load_v2_32", "records_method_load_v2_64",
                            "records_method_load_v3_32", "records_inline_load_32", "records_inline_load_64",
                            "records_method_update", "records_update_v2"})
        EXPECT_EQ(1u, st.at(key).get<uint64_t>()) << key;
    EXPECT_EQ(2u, st.at("records_method_load_v3_64").get<uint64_t>());
    EXPECT_EQ(2u, st.at("inlined_methods").get<uint64_t>());
    EXPECT_EQ(0u, st.at("damaged_records").get<uint64_t>());
    EXPECT_EQ(2u, st.at("processes").get<uint64_t>());
}

// Names are bytes from a file: JSON output replaces what is not UTF-8
// instead of stopping.
TEST(QuarvelJitRoundTrip, NamesThatAreNotUtf8StillPrintAsJson) {
    TempDir dir;
    const std::string path = dir.file("rt-host.79.jit");
    JitTraceWriter w;
    ASSERT_TRUE(w.open(path));
    ASSERT_TRUE(w.writeMethodLoad(3, true, load(1, 10, 0x1000, "bad\xff\xfename")));
    w.close();
    const RunResult symbols = run("--format json symbols " + path);
    ASSERT_EQ(0, symbols.exitCode);
    EXPECT_EQ("demo::Alpha::bad\xEF\xBF\xBD\xEF\xBF\xBDname",
              Json::parse(symbols.out).at("symbols").at(0).at("name").get<std::string>());
}

} // namespace

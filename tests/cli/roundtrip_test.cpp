// A trace written with the public writer, read back by quarvel-jit: every
// record of every layout reaches the tool and is counted under its own name.

#include "temp_dir.h"

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

std::string hex(uint64_t v) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
    return buf;
}

using quarvel_test::TempDir;

TraceMethodTail tail(const std::string& method, uint32_t firstLine) {
    TraceMethodTail t;
    t.moduleName = "rt.so";
    t.moduleArch = quarvel_arch_vx64;
    t.className = "demo.Alpha";
    t.methodName = method;
    t.sourceFile = "Alpha.src";
    t.lines.nativeToSource = {{0, 0x10, firstLine}, {0x10, 0x20, firstLine + 1}};
    return t;
}

// What was written, to compare with what the tool shows.
struct Written {
    uint32_t id;
    std::string method;
    uint64_t address;
    uint32_t size;
    uint64_t loadTime;
    uint32_t firstLine;
};

TEST(QuarvelJitRoundTrip, EveryRecordOfEveryLayoutReachesTheTool) {
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string path = dir.path() + "/rt-host.77.jit";

    JitTraceWriter w;
    ASSERT_TRUE(w.open(path));
    ASSERT_TRUE(w.writeMagic(0));
    ASSERT_TRUE(w.writeCollectorType(ctJitProfiler));
    ASSERT_TRUE(w.writeRuntimeInfo(TraceRuntimeInfo{quarvel_runtime_python, "3.11", "CPython"}));

    // One load of every version and variant, each method at its own address.
    std::vector<Written> written;
    const int versions[] = {0, 0, 1, 1, 2, 2, 3, 3};
    for (uint32_t i = 0; i < 8; ++i) {
        const Written m{i + 1, "m" + std::to_string(i + 1), 0x100000 + 0x1000 * i, 0x20, 1000 + 10 * i, 10 * (i + 1)};
        TraceMethodLoad load;
        load.hashKey = m.id;
        load.methodId = m.id;
        load.loadTime = m.loadTime;
        load.regions.push_back(TraceCodeRegion{m.address, m.size, std::vector<uint8_t>(m.size, 0xcc)});
        load.tail = tail(m.method, m.firstLine);
        ASSERT_TRUE(w.writeMethodLoad(versions[i], i % 2 == 1, load));
        written.push_back(m);
    }
    // Inlines into m8, the second nested in the first; a 32-bit and a 64-bit record.
    TraceInlineLoad outer;
    outer.methodId = 9;
    outer.parentId = 8;
    outer.loadTime = 1070;
    outer.region = TraceCodeRegion{0x107004, 0x10, std::vector<uint8_t>(0x10, 0x90)};
    outer.tail = tail("outer", 200);
    ASSERT_TRUE(w.writeInlineLoad(false, outer));
    TraceInlineLoad inner = outer;
    inner.methodId = 10;
    inner.parentId = 9;
    inner.region = TraceCodeRegion{0x107008, 0x4, std::vector<uint8_t>(0x4, 0x90)};
    inner.tail = tail("inner", 300);
    ASSERT_TRUE(w.writeInlineLoad(true, inner));
    // A method update rewrites the first 4 bytes of m7 with no-operations.
    TraceMethodLoad update;
    update.hashKey = 7;
    update.methodId = 7;
    update.loadTime = 2000;
    update.regions.push_back(TraceCodeRegion{0x106000, 4, std::vector<uint8_t>(4, 0x90)});
    update.tail = tail("m7", 70);
    ASSERT_TRUE(w.writeMethodUpdate(update));
    w.close();

    // The version 2 update in a process of its own: it is counted, whatever the model makes of it.
    JitTraceWriter w2;
    ASSERT_TRUE(w2.open(dir.path() + "/rt-host.78.jit"));
    ASSERT_TRUE(w2.writeCollectorType(ctJitProfiler));
    TraceMethodLoad patched;
    patched.hashKey = 1;
    patched.methodId = 1;
    patched.loadTime = 500;
    patched.regions.push_back(TraceCodeRegion{0x200000, 0x20, std::vector<uint8_t>(0x20, 0xcc)});
    patched.tail = tail("patched", 1);
    ASSERT_TRUE(w2.writeMethodLoad(3, true, patched));
    TraceUpdateV2 v2;
    v2.methodId = 1;
    v2.loadTime = 600;
    v2.startAddress = 0x200004;
    v2.length = 2;
    v2.bytes = {0x90, 0x90};
    ASSERT_TRUE(w2.writeUpdateV2(v2));
    w2.close();

    const RunResult symbols = run("--format json symbols " + path);
    ASSERT_EQ(0, symbols.exitCode);
    const Json doc = Json::parse(symbols.out);
    const Json& list = doc.at("symbols");
    ASSERT_EQ(written.size(), list.size());
    // Each load's fields through every layout: ReadingPassModel and record_bodies_test;
    // the printed form: the symbols goldens. Here: every record reaches the tool.
    for (size_t i = 0; i < written.size(); ++i) {
        const Json& s = list[i];
        EXPECT_EQ(written[i].id, s.at("method_id").get<uint32_t>());
        EXPECT_EQ("demo::Alpha::" + written[i].method, s.at("name").get<std::string>());
        EXPECT_EQ(written[i].firstLine, s.at("first_line").get<uint32_t>());
        EXPECT_EQ(hex(written[i].address), s.at("regions").at(0).at("start").get<std::string>());
    }
    const Json& tree = list[7].at("regions").at(0).at("inlined");
    ASSERT_EQ(1u, tree.size());
    EXPECT_EQ(9u, tree[0].at("method_id").get<uint32_t>());
    ASSERT_EQ(1u, tree[0].at("inlined").size());
    EXPECT_EQ("demo::Alpha::inner", tree[0].at("inlined")[0].at("name").get<std::string>());
    EXPECT_EQ(hex(0x10700c), tree[0].at("inlined")[0].at("end").get<std::string>());

    // The update's no-operations show in m7's code, and only there.
    const RunResult m7 = run("--format json dump " + path + " --match 'm7$'");
    ASSERT_EQ(0, m7.exitCode);
    const std::string m7Dump = Json::parse(m7.out).at("dumps").at(0).at("dump").get<std::string>();
    EXPECT_NE(std::string::npos, m7Dump.find("nop")) << m7Dump;
    const RunResult m6 = run("--format json dump " + path + " --match 'm6$'");
    EXPECT_EQ(std::string::npos, Json::parse(m6.out).at("dumps").at(0).at("dump").get<std::string>().find("nop"));

    // Every record was read: the stats count each type as written.
    const RunResult stats = run("--format json stats " + path + " " + dir.path() + "/rt-host.78.jit");
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
    const std::string path = dir.path() + "/rt-host.79.jit";
    JitTraceWriter w;
    ASSERT_TRUE(w.open(path));
    TraceMethodLoad load;
    load.methodId = 1;
    load.loadTime = 10;
    load.regions.push_back(TraceCodeRegion{0x1000, 0x10, {}});
    load.tail = tail("bad\xff\xfename", 1);
    ASSERT_TRUE(w.writeMethodLoad(3, true, load));
    w.close();
    const RunResult symbols = run("--format json symbols " + path);
    ASSERT_EQ(0, symbols.exitCode);
    EXPECT_EQ("demo::Alpha::bad\xEF\xBF\xBD\xEF\xBF\xBDname",
              Json::parse(symbols.out).at("symbols").at(0).at("name").get<std::string>());
}

} // namespace

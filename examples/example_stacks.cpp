// Call-stack samples over the example session, as a profiler that unwinds
// frame pointers records them: each stack goes from the sampled instruction
// through the return addresses of its callers, through jitted code, the
// runtime's native code and the kernel. The jitted addresses are those
// write_example_traces.cpp places its methods at:
//
//   server 4242: OrderService.placeOrder tier 1   0x7f3a10001000 +0x180 until 1080000,
//                then ReportBuilder.render there; HashMap.get 0x7f3a10001500 +0x80;
//                Inventory.reserve 0x7f3a10001400 +0xc0; placeOrder tier 2
//                0x7f3a10004000 +0x300 from 1050000, with total inlined at +0x80
//                (applyDiscount nested at +0xc0 +0x40) and reserve at +0x200; its
//                call site at +0x10 is patched to call HashMap.get at 1060000.
//   worker 4343: OrderQueue.poll 0x7f5b20001000 +0x100, EmailSender.send
//                0x7f5b20001200 +0x140 from 1001000 with Template.fill inlined at +0x40.
//
// pid 977 has no traces (a system-wide recording sees other processes too).

#include "example_stacks.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

namespace {

// A 64-bit LCG, the same on every platform.
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

const char* const kLibc = "/usr/lib/x86_64-linux-gnu/libc.so.6";
const char* const kLibjvm = "/usr/lib/jvm/java-17-openjdk-amd64/lib/server/libjvm.so";
const char* const kKernel = "[kernel.kallsyms]";

// Where the CSV's absolute addresses put the libraries.
constexpr uint64_t kLibcBase = 0x7f1c2a000000;
constexpr uint64_t kLibjvmBase = 0x7f1c28000000;

// One frame of a stack. Library frames are written as perf writes them, at
// their offset in the file; jitted code is anonymous memory, at its address.
struct Frame {
    uint64_t address;
    uint32_t spread; // the leaf lands anywhere in [address, address + spread)
    const char* symbol;
    const char* module; // null: anonymous memory of the process
};

Frame jit(uint64_t address, uint32_t spread = 0) {
    return Frame{address, spread, "[unknown]", nullptr};
}
Frame libc(uint64_t offset, const char* symbol) {
    return Frame{offset, 0, symbol, kLibc};
}
Frame libjvm(uint64_t offset, const char* symbol) {
    return Frame{offset, 0, symbol, kLibjvm};
}
Frame kernel(uint64_t address, const char* symbol) {
    return Frame{address, 0, symbol, kKernel};
}

struct Shape {
    unsigned pid;
    unsigned tid;
    uint64_t from; // live in [from, to)
    uint64_t to;
    unsigned weight;
    std::vector<Frame> frames; // the leaf first
};

// The bottom of every Java thread: the runtime calls into Java through its
// call stub, which the traces do not hold.
std::vector<Frame> javaThread(uint64_t stub) {
    return {jit(stub), libjvm(0x8282d2, "JavaCalls::call_helper"), libjvm(0x7b1c42, "JavaThread::run"),
            libjvm(0xe2c1a1, "thread_native_entry"), libc(0x891f5, "start_thread")};
}

std::vector<Frame> on(std::vector<Frame> top, const std::vector<Frame>& bottom) {
    top.insert(top.end(), bottom.begin(), bottom.end());
    return top;
}

std::vector<Shape> shapes() {
    const uint64_t forever = ~0ull;
    const std::vector<Frame> server = javaThread(0x7f3a0fff2345);
    const std::vector<Frame> worker = javaThread(0x7f5b1fff1a10);
    return {
        // placeOrder, tier 2, in its own code; then deep in the inlined discount.
        {4242, 4251, 1050000, forever, 6, on({jit(0x7f3a10004260, 0xa0)}, server)},
        {4242, 4251, 1050000, forever, 9, on({jit(0x7f3a100040c0, 0x40)}, server)},
        {4242, 4251, 1050000, forever, 5, on({jit(0x7f3a10004100, 0x80)}, server)},
        {4242, 4251, 1050000, forever, 3, on({jit(0x7f3a10004200, 0x60)}, server)},
        // HashMap.get called from the patched call site (the call ends at +0x15).
        {4242, 4251, 1060000, forever, 4, on({jit(0x7f3a10001500, 0x80), jit(0x7f3a10004015)}, server)},
        // ... and from inside the inlined applyDiscount, whose call ends right at
        // its last byte: the return address is the first byte after it.
        {4242, 4251, 1050000, forever, 3, on({jit(0x7f3a10001520, 0x40), jit(0x7f3a10004100)}, server)},
        // placeOrder, tier 1, calling total before the recompilation.
        {4242, 4250, 1000200, 1080000, 4, on({jit(0x7f3a10001200, 0x100), jit(0x7f3a100010a5)}, server)},
        {4242, 4250, 1000100, 1080000, 3, on({jit(0x7f3a10001000, 0x180)}, server)},
        // ReportBuilder.render at the addresses placeOrder left.
        {4242, 4250, 1080000, forever, 5, on({jit(0x7f3a10001000, 0x180)}, server)},
        // reserve writing to a log: the kernel, libc, then jitted callers.
        {4242, 4251, 1050000, forever, 3,
         on({kernel(0xffffffff81c3a9b0, "ksys_write"), kernel(0xffffffff82259cc1, "do_syscall_64"),
             kernel(0xffffffff81000130, "entry_SYSCALL_64_after_hwframe"), libc(0x114a37, "__GI___libc_write"),
             jit(0x7f3a10001431), jit(0x7f3a10004190)},
            server)},
        // The runtime compiling, and starting up before any code was jitted.
        {4242,
         4246,
         1000000,
         forever,
         3,
         {libjvm(0x5a2f10, "PhaseChaitin::gather_lrg_masks"), libjvm(0x5a9a31, "PhaseChaitin::Register_Allocate"),
          libjvm(0x4bd0e2, "Compile::Code_Gen"), libjvm(0x4c4e07, "C2Compiler::compile_method"),
          libjvm(0x4e2b9c, "CompileBroker::compiler_thread_loop"), libjvm(0x7b1c42, "JavaThread::run"),
          libjvm(0xe2c1a1, "thread_native_entry"), libc(0x891f5, "start_thread")}},
        {4242,
         4242,
         1000000,
         1000100,
         2,
         {libjvm(0xbab0e4, "MetaspaceShared::map_archive"), libjvm(0xea5659, "Threads::create_vm"),
          libjvm(0x8be9cf, "JNI_CreateJavaVM"), libc(0x891f5, "start_thread")}},
        // The worker: poll, and send with Template.fill inlined.
        {4343, 4343, 1000500, forever, 4, on({jit(0x7f5b20001000, 0x100)}, worker)},
        {4343, 4343, 1001000, forever, 5, on({jit(0x7f5b20001240, 0x80)}, worker)},
        {4343, 4343, 1001000, forever, 2, on({jit(0x7f5b20001200, 0x40)}, worker)},
        // Waiting, called from code between poll and send that no trace names.
        {4343, 4347, 1001000, forever, 1,
         on({kernel(0xffffffff8139f1a2, "futex_wait"), kernel(0xffffffff82259cc1, "do_syscall_64"),
             libc(0x8ed2c, "__futex_abstimed_wait_common"), libc(0x91b11, "pthread_cond_wait@@GLIBC_2.3.2"),
             jit(0x7f5b2000118b)},
            worker)},
        // Another process, without traces.
        {977,
         977,
         1000000,
         forever,
         2,
         {kernel(0xffffffff81e4f6a3, "tcp_sendmsg"), kernel(0xffffffff82259cc1, "do_syscall_64"),
          libc(0x114a37, "__GI___libc_write"), Frame{0x1e4a0, 0, "channel_output_poll", "/usr/sbin/sshd"}}},
    };
}

uint64_t csvAddress(const Frame& f) {
    if (!f.module || f.module == kKernel)
        return f.address;
    return (f.module == kLibc ? kLibcBase : f.module == kLibjvm ? kLibjvmBase : 0x55d0c0a00000) + f.address;
}

} // namespace

bool writeExampleStacks(const std::string& dir) {
    const std::string txtPath = dir + "/stacks.txt", csvPath = dir + "/stacks.csv";
    std::ofstream txt(txtPath), csv(csvPath);
    csv << "time,address,pid,tid,host,stack\n";
    const std::vector<Shape> all = shapes();
    Lcg random(20240612);
    const uint64_t first = 1000000, last = 1200000;
    unsigned total = 0;
    for (const Shape& s : all)
        total += s.weight;
    struct Drawn {
        uint64_t time;
        const Shape* shape;
        std::vector<uint64_t> offsets;
    };
    std::vector<Drawn> drawn;
    for (int i = 0; i < 300; ++i) {
        // A stack by its weight, then a moment while its code was there.
        unsigned pick = static_cast<unsigned>(random.below(total));
        const Shape* shape = &all.front();
        for (const Shape& s : all) {
            if (pick < s.weight) {
                shape = &s;
                break;
            }
            pick -= s.weight;
        }
        const uint64_t from = std::max(first, shape->from), to = std::min(last, shape->to);
        Drawn d{from + random.below(to - from), shape, {}};
        for (const Frame& f : shape->frames)
            d.offsets.push_back(f.spread ? random.below(f.spread) : 0);
        drawn.push_back(std::move(d));
    }
    // A profiler writes its samples in time order.
    std::stable_sort(drawn.begin(), drawn.end(), [](const Drawn& a, const Drawn& b) { return a.time < b.time; });

    for (const Drawn& d : drawn) {
        const Shape* shape = d.shape;
        char line[160];
        std::snprintf(line, sizeof line, "%7u/%-7u %5llu.%09llu: \n", shape->pid, shape->tid,
                      static_cast<unsigned long long>(d.time / 1000000000),
                      static_cast<unsigned long long>(d.time % 1000000000));
        txt << line;
        std::string stack;
        uint64_t leaf = 0;
        for (size_t k = 0; k < shape->frames.size(); ++k) {
            const Frame& f = shape->frames[k];
            const char* module =
                f.module ? f.module : (shape->pid == 4343 ? "/tmp/perf-4343.map" : "/tmp/perf-4242.map");
            std::snprintf(line, sizeof line, "\t%16llx %s (%s)\n",
                          static_cast<unsigned long long>(f.address + d.offsets[k]), f.symbol, module);
            txt << line;
            const uint64_t absolute = csvAddress(f) + d.offsets[k];
            if (k == 0) {
                leaf = absolute;
                continue;
            }
            std::snprintf(line, sizeof line, "%s0x%llx", stack.empty() ? "" : ";",
                          static_cast<unsigned long long>(absolute));
            stack += line;
        }
        txt << '\n';
        std::snprintf(line, sizeof line, "%llu,0x%llx,%u,%u,demo-host,", static_cast<unsigned long long>(d.time),
                      static_cast<unsigned long long>(leaf), shape->pid, shape->tid);
        csv << line << stack << '\n';
    }
    txt.flush();
    csv.flush();
    if (!txt || !csv) {
        std::cerr << "quarvel-example-traces: cannot write " << txtPath << " or " << csvPath << '\n';
        return false;
    }
    return true;
}

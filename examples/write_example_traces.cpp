// Writes an example trace set with the public trace writer: a simulated JIT
// session of a small Java shop application in two processes on one host, and a
// samples file drawn over it. Everything is deterministic, so the output can
// serve as test input.
//
//   quarvel-example-traces <output directory>
//
// The session shows what a real agent writes:
//   - tiered recompilation: OrderService.placeOrder is compiled first at one
//     address, then again (new raw id) at another address with inlined code;
//   - inlining, nested: PriceCalculator.total and its applyDiscount are inlined
//     into the second placeOrder, Inventory.reserve next to them (inline load
//     records, collector type 1);
//   - code reuse: the first placeOrder's code is dropped and ReportBuilder.render
//     is compiled at the same addresses later;
//   - a patched call site: a method update of version 2 rewrites 5 bytes of the
//     second placeOrder with a call into HashMap.get;
//   - line tables: code offset -> source line for every method; code offset ->
//     bytecode index -> source line for HashMap.get.

#include "example_stacks.h"

#include <quarvel/jittrace_writer.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using namespace quarvel;

const char* const kHost = "demo-host";

// Plausible x86-64 code: a frame, a body of moves and adds, leave and ret.
std::vector<uint8_t> code(uint32_t size) {
    static const uint8_t prologue[] = {0x55, 0x48, 0x89, 0xe5, 0x48, 0x83, 0xec, 0x20};
    static const uint8_t body[] = {0x48, 0x8b, 0x45, 0xf8, 0x48, 0x83, 0xc0, 0x01, 0x48, 0x89, 0x45, 0xf8};
    static const uint8_t epilogue[] = {0xc9, 0xc3};
    std::vector<uint8_t> b(prologue, prologue + sizeof prologue);
    while (b.size() + sizeof body + sizeof epilogue <= size)
        b.insert(b.end(), body, body + sizeof body);
    while (b.size() + sizeof epilogue < size)
        b.push_back(0x90);
    b.insert(b.end(), epilogue, epilogue + sizeof epilogue);
    b.resize(size);
    return b;
}

// Code offsets [0, size) in steps of `step` bytes, one source line each.
std::vector<quarvel_line_number_entry> lines(uint32_t size, uint32_t step, uint32_t firstLine) {
    std::vector<quarvel_line_number_entry> t;
    for (uint32_t off = 0, line = firstLine; off < size; off += step, ++line)
        t.push_back({off, off + step < size ? off + step : size, line});
    return t;
}

TraceMethodTail javaTail(const std::string& module, const std::string& klass, const std::string& method,
                         const std::string& source) {
    TraceMethodTail t;
    t.moduleName = module;
    t.moduleArch = quarvel_arch_vx64;
    t.className = klass;
    t.methodName = method;
    t.sourceFile = source;
    t.language = quarvel_language_java;
    return t;
}

TraceMethodLoad load(uint32_t id, uint64_t time, uint64_t address, uint32_t size, TraceMethodTail tail) {
    TraceMethodLoad m;
    m.hashKey = id;
    m.methodId = id;
    m.loadTime = time;
    m.regions.push_back(TraceCodeRegion{address, size, code(size)});
    m.tail = std::move(tail);
    return m;
}

TraceInlineLoad inlined(uint32_t id, uint32_t parent, uint64_t time, uint64_t address, uint32_t size,
                        TraceMethodTail tail) {
    TraceInlineLoad m;
    m.methodId = id;
    m.parentId = parent;
    m.loadTime = time;
    m.region = TraceCodeRegion{address, size, code(size)};
    m.tail = std::move(tail);
    return m;
}

// What the session knows about a piece of code, for the ground truth of the
// samples: its readable name and the source line of every code offset.
struct Known {
    std::string name;
    std::vector<quarvel_line_number_entry> nativeToSource;
    std::vector<quarvel_line_number_entry> nativeToManaged; // with managedToSource, instead of nativeToSource
    std::vector<quarvel_line_number_entry> managedToSource;

    unsigned lineAt(uint64_t offset) const {
        const auto find = [](const std::vector<quarvel_line_number_entry>& t,
                             uint64_t v) -> const quarvel_line_number_entry* {
            for (const quarvel_line_number_entry& e : t)
                if (e.startOffset <= v && v < e.endOffset)
                    return &e;
            return nullptr;
        };
        if (!nativeToManaged.empty()) {
            const quarvel_line_number_entry* il = find(nativeToManaged, offset);
            const quarvel_line_number_entry* line = il ? find(managedToSource, il->value) : nullptr;
            return line ? line->value : 0;
        }
        const quarvel_line_number_entry* line = find(nativeToSource, offset);
        return line ? line->value : 0;
    }
};

// Code inlined into a live method, at an offset of its code.
struct KnownInline {
    uint64_t offset;
    uint32_t size;
    Known what;
};

// Where code lived, for drawing samples and telling which code each sample hit.
struct Live {
    unsigned pid;
    uint64_t start;
    uint32_t size;
    uint64_t from;
    uint64_t to; // exclusive; ~0 while loaded
    unsigned weight;
    Known what;
    std::vector<KnownInline> inlines; // outer before inner
};

Known known(const std::string& name, const TraceMethodTail& tail) {
    return Known{name, tail.lines.nativeToSource, tail.lines.nativeToManaged, tail.lines.managedToSource};
}

// A small deterministic generator (64-bit LCG), the same on every platform.
class Random {
public:
    explicit Random(uint64_t seed) : m_state(seed) {}
    uint64_t next() {
        m_state = m_state * 6364136223846793005ull + 1442695040888963407ull;
        return m_state >> 33;
    }
    uint64_t below(uint64_t n) { return next() % n; }

private:
    uint64_t m_state;
};

bool check(bool ok, const JitTraceWriter& w) {
    if (!ok)
        std::cerr << "quarvel-example-traces: " << w.errorText() << '\n';
    return ok;
}

bool writeServer(const std::string& dir, std::vector<Live>& live) {
    const unsigned pid = 4242;
    JitTraceWriter w;
    if (!check(w.open(dir + "/" + kHost + "." + std::to_string(pid) + ".jit"), w))
        return false;
    bool ok = w.writeMagic(0) && w.writeCollectorType(ctJitProfiler) &&
              w.writeRuntimeInfo(TraceRuntimeInfo{quarvel_runtime_java, "17.0.2+8", "OpenJDK 64-Bit Server VM"});

    // Tier 1: the first compilations.
    TraceMethodLoad placeOrder1 = load(101, 1000100, 0x7f3a10001000, 0x180,
                                       javaTail("shop.jar", "Lcom/acme/shop/OrderService;",
                                                "placeOrder(Lcom/acme/shop/Order;)V", "OrderService.java"));
    placeOrder1.tail.lines.nativeToSource = lines(0x180, 0x40, 42);
    TraceMethodLoad total1 = load(102, 1000200, 0x7f3a10001200, 0x100,
                                  javaTail("shop.jar", "Lcom/acme/shop/PriceCalculator;",
                                           "total(Lcom/acme/shop/Order;)J", "PriceCalculator.java"));
    total1.tail.lines.nativeToSource = lines(0x100, 0x40, 17);
    TraceMethodLoad reserve1 =
        load(103, 1000300, 0x7f3a10001400, 0xc0,
             javaTail("shop.jar", "Lcom/acme/shop/Inventory;", "reserve(Ljava/lang/String;I)Z", "Inventory.java"));
    reserve1.tail.lines.nativeToSource = lines(0xc0, 0x30, 88);
    TraceMethodLoad hashGet =
        load(104, 1000400, 0x7f3a10001500, 0x80,
             javaTail("java.base", "Ljava/util/HashMap;", "get(Ljava/lang/Object;)Ljava/lang/Object;", "HashMap.java"));
    // Compiled Java code maps code offsets to bytecode indices, and those to lines.
    hashGet.tail.lines.nativeToManaged = {{0x00, 0x20, 0}, {0x20, 0x50, 6}, {0x50, 0x80, 14}};
    hashGet.tail.lines.managedToSource = {{0, 6, 556}, {6, 14, 557}, {14, 20, 558}};
    ok = ok && w.writeMethodLoad(3, true, placeOrder1) && w.writeMethodLoad(3, true, total1) &&
         w.writeMethodLoad(3, true, reserve1) && w.writeMethodLoad(3, true, hashGet);

    // Tier 2: placeOrder again, hotter and with its callees inlined.
    TraceMethodLoad placeOrder2 = load(201, 1050000, 0x7f3a10004000, 0x300,
                                       javaTail("shop.jar", "Lcom/acme/shop/OrderService;",
                                                "placeOrder(Lcom/acme/shop/Order;)V", "OrderService.java"));
    placeOrder2.tail.lines.nativeToSource = {
        {0x000, 0x080, 42}, {0x080, 0x180, 44}, {0x180, 0x200, 45}, {0x200, 0x260, 46}, {0x260, 0x300, 48}};
    // The inline records name the parent by its raw id; the nested one names total's inline id.
    TraceInlineLoad totalInline = inlined(202, 201, 1050000, 0x7f3a10004080, 0x100,
                                          javaTail("shop.jar", "Lcom/acme/shop/PriceCalculator;",
                                                   "total(Lcom/acme/shop/Order;)J", "PriceCalculator.java"));
    totalInline.tail.lines.nativeToSource = {{0x00, 0x40, 17}, {0x40, 0x80, 18}, {0x80, 0x100, 20}};
    TraceInlineLoad discountInline =
        inlined(203, 202, 1050000, 0x7f3a100040c0, 0x40,
                javaTail("shop.jar", "Lcom/acme/shop/PriceCalculator;", "applyDiscount(J)J", "PriceCalculator.java"));
    discountInline.tail.lines.nativeToSource = {{0x00, 0x20, 31}, {0x20, 0x40, 32}};
    TraceInlineLoad reserveInline =
        inlined(204, 201, 1050000, 0x7f3a10004200, 0x60,
                javaTail("shop.jar", "Lcom/acme/shop/Inventory;", "reserve(Ljava/lang/String;I)Z", "Inventory.java"));
    reserveInline.tail.lines.nativeToSource = {{0x00, 0x30, 88}, {0x30, 0x60, 90}};
    ok = ok && w.writeMethodLoad(3, true, placeOrder2) && w.writeInlineLoad(true, totalInline) &&
         w.writeInlineLoad(true, discountInline) && w.writeInlineLoad(true, reserveInline);

    // The runtime patches a call site of placeOrder to go straight to HashMap.get.
    const uint64_t site = 0x7f3a10004010;
    const int64_t rel = static_cast<int64_t>(0x7f3a10001500 - (site + 5));
    TraceUpdateV2 patch;
    patch.methodId = 201;
    patch.loadTime = 1060000;
    patch.startAddress = site;
    patch.length = 5;
    patch.bytes = {0xe8};
    for (int i = 0; i < 4; ++i)
        patch.bytes.push_back(static_cast<uint8_t>(static_cast<uint64_t>(rel) >> (8 * i)));
    ok = ok && w.writeUpdateV2(patch);

    // The first placeOrder was dropped; its addresses now hold ReportBuilder.render.
    TraceMethodLoad render = load(105, 1080000, 0x7f3a10001000, 0x180,
                                  javaTail("shop.jar", "Lcom/acme/shop/ReportBuilder;",
                                           "render(Ljava/lang/StringBuilder;)V", "ReportBuilder.java"));
    render.tail.lines.nativeToSource = lines(0x180, 0x60, 120);
    ok = ok && w.writeMethodLoad(3, true, render);
    if (!check(ok, w))
        return false;

    const uint64_t forever = ~0ull;
    const std::string placeOrder = "com::acme::shop::OrderService::placeOrder(com::acme::shop::Order)";
    const std::string total = "com::acme::shop::PriceCalculator::total(com::acme::shop::Order)";
    const std::string reserve = "com::acme::shop::Inventory::reserve(java::lang::String, int)";
    live.push_back({pid, 0x7f3a10001000, 0x180, 1000100, 1080000, 3, known(placeOrder, placeOrder1.tail), {}});
    live.push_back({pid, 0x7f3a10001200, 0x100, 1000200, forever, 2, known(total, total1.tail), {}});
    live.push_back({pid, 0x7f3a10001400, 0xc0, 1000300, forever, 1, known(reserve, reserve1.tail), {}});
    live.push_back({pid,
                    0x7f3a10001500,
                    0x80,
                    1000400,
                    forever,
                    3,
                    known("java::util::HashMap::get(java::lang::Object)", hashGet.tail),
                    {}});
    live.push_back({pid,
                    0x7f3a10004000,
                    0x300,
                    1050000,
                    forever,
                    8,
                    known(placeOrder, placeOrder2.tail),
                    {{0x80, 0x100, known(total, totalInline.tail)},
                     {0xc0, 0x40, known("com::acme::shop::PriceCalculator::applyDiscount(long)", discountInline.tail)},
                     {0x200, 0x60, known(reserve, reserveInline.tail)}}});
    live.push_back({pid,
                    0x7f3a10001000,
                    0x180,
                    1080000,
                    forever,
                    4,
                    known("com::acme::shop::ReportBuilder::render(java::lang::StringBuilder)", render.tail),
                    {}});
    return true;
}

bool writeWorker(const std::string& dir, std::vector<Live>& live) {
    const unsigned pid = 4343;
    JitTraceWriter w;
    if (!check(w.open(dir + "/" + kHost + "." + std::to_string(pid) + ".jit"), w))
        return false;
    bool ok = w.writeMagic(0) && w.writeCollectorType(ctJitProfiler) &&
              w.writeRuntimeInfo(TraceRuntimeInfo{quarvel_runtime_java, "17.0.2+8", "OpenJDK 64-Bit Server VM"});

    // The same raw id as in the server is a different method: ids are per process.
    TraceMethodLoad poll =
        load(101, 1000500, 0x7f5b20001000, 0x100,
             javaTail("shop.jar", "Lcom/acme/shop/OrderQueue;", "poll()Lcom/acme/shop/Order;", "OrderQueue.java"));
    poll.tail.lines.nativeToSource = lines(0x100, 0x40, 23);
    TraceMethodLoad send = load(102, 1001000, 0x7f5b20001200, 0x140,
                                javaTail("shop.jar", "Lcom/acme/shop/EmailSender;",
                                         "send(Lcom/acme/shop/Order;Ljava/lang/String;)V", "EmailSender.java"));
    send.tail.lines.nativeToSource = {{0x00, 0x40, 61}, {0x40, 0xc0, 63}, {0xc0, 0x140, 65}};
    TraceInlineLoad fill = inlined(
        103, 102, 1001000, 0x7f5b20001240, 0x80,
        javaTail("shop.jar", "Lcom/acme/shop/Template;", "fill(Ljava/util/Map;)Ljava/lang/String;", "Template.java"));
    fill.tail.lines.nativeToSource = {{0x00, 0x40, 12}, {0x40, 0x80, 14}};
    ok = ok && w.writeMethodLoad(3, true, poll) && w.writeMethodLoad(3, true, send) && w.writeInlineLoad(true, fill);
    if (!check(ok, w))
        return false;

    const uint64_t forever = ~0ull;
    live.push_back(
        {pid, 0x7f5b20001000, 0x100, 1000500, forever, 2, known("com::acme::shop::OrderQueue::poll()", poll.tail), {}});
    live.push_back({pid,
                    0x7f5b20001200,
                    0x140,
                    1001000,
                    forever,
                    3,
                    known("com::acme::shop::EmailSender::send(com::acme::shop::Order, java::lang::String)", send.tail),
                    {{0x40, 0x80, known("com::acme::shop::Template::fill(java::util::Map)", fill.tail)}}});
    return true;
}

// The ground truth of one sample, as the writer of the session knows it: the
// code live at the address, the source line of the offset, and the innermost
// method inlined there with its line. A row per sample, numbered like the
// samples file's lines.
void writeTruth(std::ofstream& truth, unsigned line, uint64_t time, uint64_t address, unsigned pid,
                const std::vector<Live>& live) {
    for (const Live& l : live) {
        if (l.pid != pid || time < l.from || time >= l.to || address < l.start || address - l.start >= l.size)
            continue;
        const uint64_t offset = address - l.start;
        const KnownInline* innermost = nullptr;
        for (const KnownInline& i : l.inlines)
            if (i.offset <= offset && offset - i.offset < i.size)
                innermost = &i;
        truth << line << ",resolved,\"" << l.what.name << "\"," << l.what.lineAt(offset) << ",";
        if (innermost)
            truth << "\"" << innermost->what.name << "\"," << innermost->what.lineAt(offset - innermost->offset);
        else
            truth << ",";
        truth << "\n";
        return;
    }
    truth << line << ",not_jit,,,,\n";
}

// Samples over the session: mostly in live code, some in the runtime's own
// native code (outside JIT code), before and after the address reuse. The
// truth of each sample goes to truth.csv beside the samples.
bool writeSamples(const std::string& path, const std::vector<Live>& live) {
    std::ofstream out(path);
    out << "time,address,pid,host\n";
    const std::string truthPath = path.substr(0, path.rfind('/') + 1) + "truth.csv";
    std::ofstream truth(truthPath);
    truth << "line,status,method,source_line,inlined,inlined_line\n";
    Random random(20240611);
    const uint64_t first = 1000000, last = 1200000;
    for (int i = 0; i < 400; ++i) {
        const uint64_t time = first + random.below(last - first);
        const unsigned pid = random.below(3) == 0 ? 4343 : 4242;
        uint64_t address;
        if (random.below(10) == 0) {
            address = 0x55d0c0a00000 + random.below(0x100000); // the virtual machine itself
        } else {
            unsigned total = 0;
            for (const Live& l : live)
                if (l.pid == pid && l.from <= time && time < l.to)
                    total += l.weight;
            if (total == 0) {
                address = 0x55d0c0a00000 + random.below(0x100000);
            } else {
                unsigned pick = static_cast<unsigned>(random.below(total));
                address = 0;
                for (const Live& l : live) {
                    if (l.pid != pid || time < l.from || time >= l.to)
                        continue;
                    if (pick < l.weight) {
                        address = l.start + random.below(l.size);
                        break;
                    }
                    pick -= l.weight;
                }
            }
        }
        char line[96];
        std::snprintf(line, sizeof line, "%llu,0x%llx,%u,%s\n", static_cast<unsigned long long>(time),
                      static_cast<unsigned long long>(address), pid, kHost);
        out << line;
        writeTruth(truth, static_cast<unsigned>(i + 2), time, address, pid, live);
    }
    out.flush();
    truth.flush();
    if (!out || !truth) {
        std::cerr << "quarvel-example-traces: cannot write " << path << '\n';
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: quarvel-example-traces <output directory>\n";
        return 1;
    }
    const std::string dir = argv[1];
    if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
        std::cerr << "quarvel-example-traces: cannot create " << dir << ": " << std::strerror(errno) << '\n';
        return 2;
    }
    std::vector<Live> live;
    if (!writeServer(dir, live) || !writeWorker(dir, live) || !writeSamples(dir + "/samples.csv", live))
        return 2;
    if (!writeExampleStacks(dir))
        return 2;
    std::cout << "wrote " << dir << "/" << kHost << ".4242.jit, " << dir << "/" << kHost << ".4343.jit and " << dir
              << "/samples.csv\n";
    return 0;
}

#ifndef QUARVEL_JVMTI_CODE_MAP_H
#define QUARVEL_JVMTI_CODE_MAP_H

// Turns the debug records the JVM gives for one compiled method into the
// line tables of our trace format and the tree of inlined instances. Nothing
// here talks to the JVM, so the rules can be tested without one.

#include <quarvel/types.h>

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace quarvel_jvmti {

// A jmethodID as a plain number; 0 means unknown.
using MethodKey = uintptr_t;

struct Frame {
    MethodKey method = 0;
    int32_t bci = -1;
};

// One pc record. frames[0] is the compiled method, frames.back() the innermost
// inlined frame (the reverse of the JVM's order).
struct PcInfo {
    uint64_t pc = 0;
    std::vector<Frame> frames;
};

// A method's line number table as the JVM gives it: (start bci, line) pairs in
// any order, and the length of its bytecode (0 when unknown).
struct MethodLines {
    std::vector<std::pair<int32_t, int32_t>> entries;
    uint32_t bytecodeLength = 0;
};

constexpr uint32_t kNoBci = 0xFFFFFFFFu;

// One inlined instance: a contiguous code range where one inlined frame holds.
struct InlineInstance {
    static constexpr size_t kTopLevel = static_cast<size_t>(-1);
    size_t parent = kTopLevel; // index of the enclosing instance, or kTopLevel
    MethodKey method = 0;
    int32_t callerBci = -1; // bci of the call site in the enclosing frame
    uint32_t start = 0;     // offsets from the start of the compiled code
    uint32_t end = 0;
    // Offsets relative to start; values are this instance's own bcis.
    std::vector<quarvel_line_number_entry> nativeToManaged;
};

struct CodeMap {
    // Offsets relative to the code start; values are the compiled method's bcis.
    std::vector<quarvel_line_number_entry> nativeToManaged;
    // Parents come before their children.
    std::vector<InlineInstance> inlines;
};

// Builds the map of code [codeStart, codeStart + codeSize) from its pc records.
// A record describes the code from the previous record's pc (or the code start)
// up to its own pc: the JVM records the pc after an instruction and resolves an
// interrupted pc to the first record above it.
CodeMap buildCodeMap(uint64_t codeStart, uint32_t codeSize, std::vector<PcInfo> pcs);

// The same from the JVM's address-to-bci map alone (no inlining known).
CodeMap buildCodeMapFromLocations(uint64_t codeStart, uint32_t codeSize, MethodKey method,
                                  const std::vector<std::pair<uint64_t, int32_t>>& locations);

// [bci, next bci) -> line, sorted by bci; where the VM lists one bci twice the
// later entry wins.
std::vector<quarvel_line_number_entry> managedToSource(const MethodLines& lines);

// Native range -> line, through the bcis of nativeToManaged; ranges without a
// known line are left out and neighbours with the same line are merged.
std::vector<quarvel_line_number_entry> nativeToSource(const std::vector<quarvel_line_number_entry>& nativeToManaged,
                                                      const std::vector<quarvel_line_number_entry>& bciToLine);

} // namespace quarvel_jvmti

#endif

#ifndef QUARVEL_JIT_STACK_PROFILE_H
#define QUARVEL_JIT_STACK_PROFILE_H

// Resolved call stacks, counted: every distinct frame is stored once and
// every distinct stack once with its number of samples, so memory follows the
// number of distinct stacks, not of samples. The folded, speedscope, flame
// graph and top-table writers all read from here.

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace quarvel_jit {

enum class FrameKind {
    Compiled, // jitted code of a method
    Inlined,  // a method inlined into jitted code
    Stub,     // the runtime's own generated code: interpreter, stubs, adapters
    Native,   // code outside the traces: libraries, the runtime itself
    Kernel,
    Unknown, // in a process's jitted code area, but no trace names it
};

const char* frameKindName(FrameKind kind);

struct FrameInfo {
    std::string name;
    std::string module;
    std::string sourceFile; // empty: unknown
    FrameKind kind = FrameKind::Native;
};

// One position of a stack: a frame and the source line it was at (0: unknown).
struct StackElem {
    uint32_t frame = 0;
    uint32_t line = 0;
    bool operator==(const StackElem& o) const { return frame == o.frame && line == o.line; }
};

using Stack = std::vector<StackElem>; // the root first

class FrameTable {
public:
    uint32_t intern(const FrameInfo& frame);
    const FrameInfo& at(uint32_t id) const { return m_frames[id]; }
    size_t size() const { return m_frames.size(); }

private:
    std::vector<FrameInfo> m_frames;
    std::unordered_map<std::string, uint32_t> m_ids;
};

struct StackHash {
    size_t operator()(const Stack& stack) const;
};

class StackProfile {
public:
    void add(const Stack& stack, uint64_t count = 1);
    uint64_t samples() const { return m_samples; }
    size_t distinctStacks() const { return m_stacks.size(); }
    FrameTable& frames() { return m_frames; }
    const FrameTable& frames() const { return m_frames; }
    // Every distinct stack with its count, in a fixed order (by frame names
    // from the root, then lines), so that outputs do not depend on hashing.
    std::vector<std::pair<const Stack*, uint64_t>> sorted() const;
    // The same profile with every line set to 0, so that a method is one
    // frame wherever in it the samples fell.
    StackProfile withoutLines() const;

private:
    FrameTable m_frames;
    std::unordered_map<Stack, uint64_t, StackHash> m_stacks;
    uint64_t m_samples = 0;
};

} // namespace quarvel_jit

#endif

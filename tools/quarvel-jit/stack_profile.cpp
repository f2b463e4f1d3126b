#include "stack_profile.h"

#include <algorithm>

namespace quarvel_jit {

const char* frameKindName(FrameKind kind) {
    switch (kind) {
    case FrameKind::Compiled:
        return "compiled";
    case FrameKind::Inlined:
        return "inlined";
    case FrameKind::Stub:
        return "stub";
    case FrameKind::Native:
        return "native";
    case FrameKind::Kernel:
        return "kernel";
    case FrameKind::Unknown:
        return "unknown";
    }
    return "";
}

uint32_t FrameTable::intern(const FrameInfo& frame) {
    std::string key;
    key.reserve(frame.name.size() + frame.module.size() + frame.sourceFile.size() + 4);
    key += frame.name;
    key += '\0';
    key += frame.module;
    key += '\0';
    key += frame.sourceFile;
    key += '\0';
    key += static_cast<char>('0' + static_cast<int>(frame.kind));
    const auto found = m_ids.find(key);
    if (found != m_ids.end())
        return found->second;
    const uint32_t id = static_cast<uint32_t>(m_frames.size());
    m_frames.push_back(frame);
    m_ids.emplace(std::move(key), id);
    return id;
}

size_t StackHash::operator()(const Stack& stack) const {
    // FNV-1a over the elements.
    uint64_t h = 1469598103934665603ull;
    for (const StackElem& e : stack) {
        h = (h ^ e.frame) * 1099511628211ull;
        h = (h ^ e.line) * 1099511628211ull;
    }
    return static_cast<size_t>(h);
}

void StackProfile::add(const Stack& stack, uint64_t count) {
    m_stacks[stack] += count;
    m_samples += count;
}

std::vector<std::pair<const Stack*, uint64_t>> StackProfile::sorted() const {
    std::vector<std::pair<const Stack*, uint64_t>> out;
    out.reserve(m_stacks.size());
    for (const auto& entry : m_stacks)
        out.emplace_back(&entry.first, entry.second);
    const FrameTable& frames = m_frames;
    const auto less = [&frames](const StackElem& a, const StackElem& b) {
        if (a.frame != b.frame) {
            const FrameInfo& fa = frames.at(a.frame);
            const FrameInfo& fb = frames.at(b.frame);
            if (fa.name != fb.name)
                return fa.name < fb.name;
            if (fa.module != fb.module)
                return fa.module < fb.module;
            if (fa.kind != fb.kind)
                return fa.kind < fb.kind;
            return fa.sourceFile < fb.sourceFile;
        }
        return a.line < b.line;
    };
    std::sort(out.begin(), out.end(), [&less](const auto& a, const auto& b) {
        return std::lexicographical_compare(a.first->begin(), a.first->end(), b.first->begin(), b.first->end(), less);
    });
    return out;
}

StackProfile StackProfile::withoutLines() const {
    StackProfile out;
    out.m_frames = m_frames;
    for (const auto& entry : m_stacks) {
        Stack s = entry.first;
        for (StackElem& e : s)
            e.line = 0;
        out.add(s, entry.second);
    }
    return out;
}

} // namespace quarvel_jit

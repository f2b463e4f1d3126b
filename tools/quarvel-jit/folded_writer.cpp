#include "folded_writer.h"

#include <map>

namespace quarvel_jit {

std::string foldedFrameName(const FrameInfo& frame, unsigned line, bool annotate) {
    std::string name = frame.name;
    for (char& c : name) {
        if (c == ';')
            c = ':';
        else if (c == '\n' || c == '\r')
            c = ' ';
    }
    if (line)
        name += ":" + std::to_string(line);
    if (annotate)
        name += std::string(" [") + frameKindName(frame.kind) + "]";
    return name;
}

void writeFolded(std::ostream& os, const StackProfile& profile, bool annotate) {
    // Frames that differ only in module or kind fold into one name.
    std::map<std::string, uint64_t> lines;
    std::string text;
    for (const auto& entry : profile.sorted()) {
        text.clear();
        for (const StackElem& e : *entry.first) {
            if (!text.empty())
                text += ';';
            text += foldedFrameName(profile.frames().at(e.frame), e.line, annotate);
        }
        lines[text] += entry.second;
    }
    for (const auto& line : lines)
        os << line.first << ' ' << line.second << '\n';
}

} // namespace quarvel_jit

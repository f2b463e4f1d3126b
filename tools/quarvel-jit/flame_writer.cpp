#include "flame_writer.h"

#include "folded_writer.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <tuple>
#include <unordered_map>
#include <vector>

namespace quarvel_jit {

namespace {

constexpr double kFrameHeight = 16;
constexpr double kCharWidth = 7.2; // 12px monospace
constexpr double kPad = 10;
constexpr double kTop = 66;    // title, search box, legend
constexpr double kBottom = 28; // the details line
constexpr uint32_t kRoot = ~0u;
constexpr size_t kLinesShown = 3;

struct Node {
    uint32_t frame = kRoot;
    uint32_t line = 0; // when lines are kept, a part of the node's identity
    uint32_t depth = 0;
    uint64_t total = 0;
    uint64_t self = 0;
    uint64_t start = 0; // samples to the left of the box
    std::vector<uint32_t> children;
    std::map<uint32_t, uint64_t> lines; // source line -> samples in this node
};

struct Tree {
    std::vector<Node> nodes;
    uint32_t maxDepth = 0;
};

Tree buildTree(const StackProfile& profile, bool keepLines) {
    Tree tree;
    tree.nodes.emplace_back();
    // (parent, frame, line) -> child
    struct KeyHash {
        size_t operator()(const std::tuple<uint32_t, uint32_t, uint32_t>& k) const {
            return (static_cast<size_t>(std::get<0>(k)) * 1000003u) ^ (static_cast<size_t>(std::get<1>(k)) * 10007u) ^
                   std::get<2>(k);
        }
    };
    std::unordered_map<std::tuple<uint32_t, uint32_t, uint32_t>, uint32_t, KeyHash> children;
    for (const auto& entry : profile.sorted()) {
        const uint64_t count = entry.second;
        uint32_t at = 0;
        tree.nodes[0].total += count;
        for (const StackElem& e : *entry.first) {
            const auto key = std::make_tuple(at, e.frame, keepLines ? e.line : 0u);
            auto found = children.find(key);
            if (found == children.end()) {
                Node child;
                child.frame = e.frame;
                child.line = keepLines ? e.line : 0;
                child.depth = tree.nodes[at].depth + 1;
                tree.maxDepth = std::max(tree.maxDepth, child.depth);
                const uint32_t id = static_cast<uint32_t>(tree.nodes.size());
                tree.nodes.push_back(std::move(child));
                tree.nodes[at].children.push_back(id);
                found = children.emplace(key, id).first;
            }
            at = found->second;
            Node& node = tree.nodes[at];
            node.total += count;
            if (e.line)
                node.lines[e.line] += count;
        }
        if (at != 0)
            tree.nodes[at].self += count;
    }
    return tree;
}

// Lays the boxes out left to right, children in name order.
void place(Tree& tree, const StackProfile& profile) {
    std::vector<uint32_t> todo{0};
    while (!todo.empty()) {
        const uint32_t id = todo.back();
        todo.pop_back();
        Node& node = tree.nodes[id];
        std::vector<uint32_t>& kids = node.children;
        std::sort(kids.begin(), kids.end(), [&](uint32_t a, uint32_t b) {
            const FrameInfo& fa = profile.frames().at(tree.nodes[a].frame);
            const FrameInfo& fb = profile.frames().at(tree.nodes[b].frame);
            if (fa.name != fb.name)
                return fa.name < fb.name;
            if (tree.nodes[a].line != tree.nodes[b].line)
                return tree.nodes[a].line < tree.nodes[b].line;
            return a < b;
        });
        uint64_t x = node.start;
        for (uint32_t kid : kids) {
            tree.nodes[kid].start = x;
            x += tree.nodes[kid].total;
            todo.push_back(kid);
        }
    }
}

// Valid UTF-8 with markup characters escaped; other bytes become '?'.
std::string xml(const std::string& s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&apos;";
                break;
            default:
                out += (c < 0x20 && c != '\n' && c != '\t') ? '?' : static_cast<char>(c);
            }
            ++i;
            continue;
        }
        const size_t n = (c & 0xe0) == 0xc0 ? 2 : (c & 0xf0) == 0xe0 ? 3 : (c & 0xf8) == 0xf0 ? 4 : 0;
        bool ok = n > 0 && i + n <= s.size() && c >= 0xc2 && c <= 0xf4;
        for (size_t k = 1; ok && k < n; ++k)
            ok = (static_cast<unsigned char>(s[i + k]) & 0xc0) == 0x80;
        if (ok) {
            out.append(s, i, n);
            i += n;
        } else {
            out += '?';
            ++i;
        }
    }
    return out;
}

// JSON that can sit inside markup: '<', '>' and '&' (only ever inside its
// strings) written as escapes; bytes that are not UTF-8 replaced.
std::string jsonInMarkup(const std::vector<std::string>& strings) {
    const std::string text = nlohmann::json(strings).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '<')
            out += "\\u003c";
        else if (c == '>')
            out += "\\u003e";
        else if (c == '&')
            out += "\\u0026";
        else
            out += c;
    }
    return out;
}

std::string fixed(double v, int decimals = 2) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

std::string share(uint64_t part, uint64_t whole) {
    return whole ? fixed(100.0 * static_cast<double>(part) / static_cast<double>(whole)) + "%" : "0.00%";
}

uint32_t nameHash(const std::string& s) {
    uint32_t h = 2166136261u;
    for (char c : s)
        h = (h ^ static_cast<unsigned char>(c)) * 16777619u;
    return h;
}

std::string rgbFromHsl(double h, double s, double l) {
    const double c = (1 - std::fabs(2 * l - 1)) * s;
    const double hp = std::fmod(h, 360.0) / 60.0;
    const double x = c * (1 - std::fabs(std::fmod(hp, 2.0) - 1));
    double r = 0, g = 0, b = 0;
    if (hp < 1) {
        r = c;
        g = x;
    } else if (hp < 2) {
        r = x;
        g = c;
    } else if (hp < 3) {
        g = c;
        b = x;
    } else if (hp < 4) {
        g = x;
        b = c;
    } else if (hp < 5) {
        r = x;
        b = c;
    } else {
        r = c;
        b = x;
    }
    const double m = l - c / 2;
    char buf[32];
    std::snprintf(buf, sizeof buf, "rgb(%d,%d,%d)", static_cast<int>(std::lround((r + m) * 255)),
                  static_cast<int>(std::lround((g + m) * 255)), static_cast<int>(std::lround((b + m) * 255)));
    return buf;
}

// A hue per kind; the name moves it a little, so that neighbours differ.
std::string colour(FrameKind kind, const std::string& name) {
    const uint32_t h = nameHash(name);
    const double a = static_cast<double>(h % 1000) / 1000.0;          // 0..1
    const double b = static_cast<double>((h / 1000) % 1000) / 1000.0; // 0..1
    switch (kind) {
    case FrameKind::Compiled:
        return rgbFromHsl(100 + 30 * a, 0.55, 0.50 + 0.12 * b);
    case FrameKind::Inlined:
        return rgbFromHsl(178 + 20 * a, 0.60, 0.52 + 0.12 * b);
    case FrameKind::Stub:
        return rgbFromHsl(46 + 10 * a, 0.85, 0.55 + 0.10 * b);
    case FrameKind::Native:
        return rgbFromHsl(0 + 14 * a, 0.70, 0.58 + 0.10 * b);
    case FrameKind::Kernel:
        return rgbFromHsl(24 + 10 * a, 0.85, 0.52 + 0.10 * b);
    case FrameKind::Unknown:
        return rgbFromHsl(0, 0, 0.62 + 0.10 * b);
    }
    return "rgb(200,200,200)";
}

const char* kindLabel(FrameKind kind) {
    switch (kind) {
    case FrameKind::Compiled:
        return "compiled (jitted)";
    case FrameKind::Inlined:
        return "inlined";
    case FrameKind::Stub:
        return "interpreter / stub";
    case FrameKind::Native:
        return "native";
    case FrameKind::Kernel:
        return "kernel";
    case FrameKind::Unknown:
        return "jitted, not named";
    }
    return "";
}

std::string sourceText(const Node& node, const FrameInfo& frame) {
    const std::string file = frame.sourceFile.empty() ? "?" : frame.sourceFile;
    if (node.lines.empty())
        return frame.sourceFile.empty() ? std::string() : file;
    std::vector<std::pair<uint32_t, uint64_t>> lines(node.lines.begin(), node.lines.end());
    std::stable_sort(lines.begin(), lines.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    std::string text;
    for (size_t i = 0; i < lines.size() && i < kLinesShown; ++i)
        text += (i ? ", " : "") + file + ":" + std::to_string(lines[i].first) +
                (lines.size() > 1 ? " (" + share(lines[i].second, node.total) + ")" : std::string());
    if (lines.size() > kLinesShown)
        text += ", " + std::to_string(lines.size() - kLinesShown) + " more";
    return text;
}

void writeSvg(std::ostream& os, const Tree& tree, const StackProfile& profile, const FlameOptions& o, bool standalone) {
    const uint64_t total = tree.nodes[0].total;
    const double height = kTop + (tree.maxDepth + 1) * kFrameHeight + kBottom;
    const double inner = o.width - 2 * kPad;
    os << "<svg id=\"flame\" xmlns=\"http://www.w3.org/2000/svg\" version=\"1.1\" width=\"" << fixed(o.width, 0)
       << "\" height=\"" << fixed(height, 0) << "\" viewBox=\"0 0 " << fixed(o.width, 0) << ' ' << fixed(height, 0)
       << "\" data-total=\"" << total << "\" data-width=\"" << fixed(o.width, 0) << "\" data-pad=\"" << fixed(kPad, 0)
       << "\" data-char-width=\"" << fixed(kCharWidth, 1) << "\">\n";
    if (standalone)
        os << "<style><![CDATA[\n" << kFlameStyle << "]]></style>\n";
    os << "<rect class=\"background\" x=\"0\" y=\"0\" width=\"100%\" height=\"100%\"/>\n";
    os << "<text class=\"title\" x=\"" << fixed(o.width / 2) << "\" y=\"22\">" << xml(o.title) << "</text>\n";
    if (!o.subtitle.empty())
        os << "<text class=\"subtitle\" x=\"" << fixed(o.width - kPad) << "\" y=\"44\">" << xml(o.subtitle)
           << "</text>\n";
    os << "<foreignObject x=\"" << fixed(kPad) << "\" y=\"28\" width=\"300\" height=\"24\">"
       << "<input xmlns=\"http://www.w3.org/1999/xhtml\" id=\"search\" type=\"search\" "
          "placeholder=\"Search (regular expression)\" title=\"Search frames by name (Ctrl+F)\"/></foreignObject>\n";
    os << "<text id=\"matched\" x=\"" << fixed(kPad + 310) << "\" y=\"45\"></text>\n";
    os << "<text id=\"unzoom\" class=\"button hide\" x=\"" << fixed(kPad) << "\" y=\"62\">Reset zoom</text>\n";
    // The legend, right-aligned.
    static const FrameKind kKinds[] = {FrameKind::Compiled, FrameKind::Inlined, FrameKind::Stub,
                                       FrameKind::Native,   FrameKind::Kernel,  FrameKind::Unknown};
    double lx = o.width - kPad;
    for (size_t i = sizeof kKinds / sizeof kKinds[0]; i-- > 0;) {
        const std::string label = kindLabel(kKinds[i]);
        lx -= label.size() * kCharWidth + 20;
        os << "<rect x=\"" << fixed(lx) << "\" y=\"52\" width=\"12\" height=\"12\" fill=\"" << colour(kKinds[i], label)
           << "\"/><text class=\"legend\" x=\"" << fixed(lx + 15) << "\" y=\"62\">" << label << "</text>\n";
    }

    // Boxes too narrow to draw are still found by a search: their names and
    // spans go into the page as data.
    std::map<std::string, size_t> narrowNames;
    std::string narrowSpans;
    os << "<g id=\"frames\">\n";
    for (size_t id = 0; id < tree.nodes.size(); ++id) {
        const Node& n = tree.nodes[id];
        const double w = total ? inner * static_cast<double>(n.total) / static_cast<double>(total) : 0;
        if (id != 0 && w < o.minWidth) {
            const std::string name = foldedFrameName(profile.frames().at(n.frame), n.line);
            const size_t index = narrowNames.emplace(name, narrowNames.size()).first->second;
            narrowSpans += (narrowSpans.empty() ? "" : ",") + std::to_string(n.start) + "," + std::to_string(n.total) +
                           "," + std::to_string(index);
            continue;
        }
        const double x = kPad + (total ? inner * static_cast<double>(n.start) / static_cast<double>(total) : 0);
        const double y = kTop + (tree.maxDepth - n.depth) * kFrameHeight;
        const bool root = id == 0;
        FrameInfo frame;
        if (!root)
            frame = profile.frames().at(n.frame);
        else
            frame.name = "all";
        const std::string name = root ? std::string("all") : foldedFrameName(frame, n.line);
        std::string tip = name;
        if (!root) {
            tip += "\nkind: " + std::string(kindLabel(frame.kind));
            if (!frame.module.empty())
                tip += "\nmodule: " + frame.module;
            const std::string source = sourceText(n, frame);
            if (!source.empty())
                tip += "\nsource: " + source;
        }
        tip += "\nsamples: " + std::to_string(n.total) + " of " + std::to_string(total) + " (" + share(n.total, total) +
               ")";
        if (!root)
            tip += ", self " + std::to_string(n.self) + " (" + share(n.self, total) + ")";
        const size_t chars = w > 6 ? static_cast<size_t>((w - 6) / kCharWidth) : 0;
        std::string label;
        if (chars >= 3)
            label = name.size() <= chars ? name : name.substr(0, chars - 2) + "..";
        os << "<g class=\"f" << (root ? " root" : "") << "\" data-s=\"" << n.start << "\" data-n=\"" << n.total
           << "\" data-d=\"" << n.depth << "\" data-self=\"" << n.self << "\" data-kind=\""
           << (root ? "root" : frameKindName(frame.kind)) << "\" data-name=\"" << xml(name) << "\"><title>" << xml(tip)
           << "</title><rect x=\"" << fixed(x) << "\" y=\"" << fixed(y) << "\" width=\"" << fixed(w) << "\" height=\""
           << fixed(kFrameHeight - 1) << "\" rx=\"2\" fill=\""
           << (root ? std::string("rgb(200,200,205)") : colour(frame.kind, frame.name)) << "\"/><text x=\""
           << fixed(x + 3) << "\" y=\"" << fixed(y + kFrameHeight - 4.5) << "\">" << xml(label) << "</text></g>\n";
    }
    os << "</g>\n";
    std::vector<std::string> names(narrowNames.size());
    for (const auto& entry : narrowNames)
        names[entry.second] = entry.first;
    os << "<script type=\"application/json\" id=\"narrow\">{\"names\":" << jsonInMarkup(names) << ",\"spans\":["
       << narrowSpans << "]}</script>\n";
    os << "<text id=\"details\" x=\"" << fixed(kPad) << "\" y=\"" << fixed(height - 10) << "\"> </text>\n";
    if (standalone)
        os << "<script type=\"text/ecmascript\"><![CDATA[\n" << kFlameScript << "]]></script>\n";
    os << "</svg>\n";
}

} // namespace

void writeFlame(std::ostream& os, FlameFormat format, const StackProfile& profile, const FlameOptions& options) {
    Tree tree = buildTree(profile, options.linesApart);
    place(tree, profile);
    if (format == FlameFormat::Svg) {
        os << "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?>\n";
        writeSvg(os, tree, profile, options, true);
        return;
    }
    os << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>" << xml(options.title)
       << "</title>\n<style>\nbody { margin: 0; background: #fff; }\n"
       << kFlameStyle << "</style>\n</head>\n<body>\n";
    writeSvg(os, tree, profile, options, false);
    os << "<script>\n" << kFlameScript << "</script>\n</body>\n</html>\n";
}

} // namespace quarvel_jit

#include "speedscope_writer.h"

#include <nlohmann/json.hpp>

#include <map>
#include <utility>

namespace quarvel_jit {

void writeSpeedscope(std::ostream& os, const StackProfile& profile, const std::string& name) {
    using Json = nlohmann::ordered_json;
    Json frames = Json::array();
    Json samples = Json::array();
    Json weights = Json::array();
    // Frames as the viewer tells them apart: by name, file and line.
    std::map<std::pair<uint32_t, uint32_t>, size_t> index; // (frame, line) -> position in frames
    std::map<std::string, size_t> shown;                   // name, file, line -> position in frames
    for (const auto& entry : profile.sorted()) {
        Json stack = Json::array();
        for (const StackElem& e : *entry.first) {
            auto found = index.find({e.frame, e.line});
            if (found == index.end()) {
                const FrameInfo& f = profile.frames().at(e.frame);
                const std::string& file = f.sourceFile.empty() ? f.module : f.sourceFile;
                const std::string key = f.name + '\0' + file + '\0' + std::to_string(e.line);
                auto same = shown.find(key);
                if (same == shown.end()) {
                    Json frame{{"name", f.name}};
                    if (!file.empty())
                        frame["file"] = file;
                    if (e.line)
                        frame["line"] = e.line;
                    same = shown.emplace(key, frames.size()).first;
                    frames.push_back(std::move(frame));
                }
                found = index.emplace(std::make_pair(e.frame, e.line), same->second).first;
            }
            stack.push_back(found->second);
        }
        samples.push_back(std::move(stack));
        weights.push_back(entry.second);
    }
    const Json doc{{"$schema", "https://www.speedscope.app/file-format-schema.json"},
                   {"shared", {{"frames", std::move(frames)}}},
                   {"profiles", Json::array({Json{{"type", "sampled"},
                                                  {"name", name},
                                                  {"unit", "none"},
                                                  {"startValue", 0},
                                                  {"endValue", profile.samples()},
                                                  {"samples", std::move(samples)},
                                                  {"weights", std::move(weights)}}})},
                   {"name", name},
                   {"activeProfileIndex", 0},
                   {"exporter", "quarvel-jit"}};
    // Names from damaged traces may hold bytes that are not UTF-8: replaced, not thrown at.
    os << doc.dump(1, ' ', false, Json::error_handler_t::replace) << '\n';
}

} // namespace quarvel_jit

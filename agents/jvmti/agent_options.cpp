#include "agent_options.h"

namespace quarvel_jvmti {

namespace {

bool parseFlag(const std::string& key, const std::string& value, bool& out, std::vector<std::string>& problems) {
    if (value == "1" || value == "true" || value == "yes") {
        out = true;
        return true;
    }
    if (value == "0" || value == "false" || value == "no") {
        out = false;
        return true;
    }
    problems.push_back("bad value '" + value + "' for option " + key + " (expected 0 or 1)");
    return false;
}

} // namespace

AgentOptions parseAgentOptions(const char* text) {
    AgentOptions options;
    if (!text)
        return options;
    const std::string all(text);
    size_t pos = 0;
    while (pos <= all.size()) {
        size_t comma = all.find(',', pos);
        if (comma == std::string::npos)
            comma = all.size();
        const std::string item = all.substr(pos, comma - pos);
        pos = comma + 1;
        if (item.empty())
            continue;
        const size_t eq = item.find('=');
        const std::string key = item.substr(0, eq);
        const std::string value = eq == std::string::npos ? std::string() : item.substr(eq + 1);
        if (key == "dir") {
            if (value.empty())
                options.problems.push_back("empty value for option dir");
            else
                options.dir = value;
        } else if (key == "clock") {
            if (value == "monotonic")
                options.clock = ClockKind::monotonic;
            else if (value == "tsc")
                options.clock = ClockKind::tsc;
            else
                options.problems.push_back("bad value '" + value + "' for option clock (expected monotonic or tsc)");
        } else if (key == "stamps") {
            if (value == "history")
                options.stamps = StampKind::history;
            else if (value == "event")
                options.stamps = StampKind::event;
            else
                options.problems.push_back("bad value '" + value + "' for option stamps (expected history or event)");
        } else if (key == "stubs") {
            parseFlag(key, value, options.stubs, options.problems);
        } else if (key == "inlines") {
            parseFlag(key, value, options.inlines, options.problems);
        } else if (key == "verbose") {
            parseFlag(key, value, options.verbose, options.problems);
        } else {
            options.problems.push_back("unknown option '" + key + "'");
        }
    }
    return options;
}

} // namespace quarvel_jvmti

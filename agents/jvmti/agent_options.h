#ifndef QUARVEL_JVMTI_AGENT_OPTIONS_H
#define QUARVEL_JVMTI_AGENT_OPTIONS_H

#include <string>
#include <vector>

namespace quarvel_jvmti {

enum class ClockKind { monotonic, tsc };

// How a load is stamped. history: the latest unload among the code it replaces
// (or the agent's start), which no sample of the new code can precede. event:
// the time its event arrived, which lags the code's first run; a testing aid
// only, so that the end-to-end test can show its oracle catches wrong stamps.
enum class StampKind { history, event };

// -agentpath:libquarvel_jvmti.so=dir=<dir>,clock=monotonic|tsc,stubs=0|1,inlines=0|1,verbose=0|1,
//                                stamps=history|event
struct AgentOptions {
    std::string dir = ".";
    ClockKind clock = ClockKind::monotonic;
    bool stubs = true;    // write interpreter, stub and adapter blobs
    bool inlines = true;  // write inlined instances
    bool verbose = false; // a summary on stderr at exit
    StampKind stamps = StampKind::history;
    // Unknown options and bad values: reported, then the defaults apply.
    std::vector<std::string> problems;
};

AgentOptions parseAgentOptions(const char* text);

} // namespace quarvel_jvmti

#endif

// quarvel-jit: look into JIT trace files and resolve profiler samples against
// them. Options -> trace_view (the library) -> printer.

#include "flame_writer.h"
#include "heap_reservation.h"
#include "folded_writer.h"
#include "printer.h"
#include "sample_csv_writer.h"
#include "samples.h"
#include "speedscope_writer.h"
#include "stack_pipeline.h"
#include "trace_view.h"

#include <CLI/CLI.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

namespace {

using namespace quarvel_jit;

constexpr int kExitOk = 0;
constexpr int kExitUsage = 1;
constexpr int kExitInput = 2;
// The model of a trace of some thousands of methods takes tens of megabytes.
constexpr size_t kHeapReservation = size_t(256) << 20;

struct Options {
    std::string format = "text";
    std::string logLevel;
    std::vector<std::string> paths;
    std::string match;
    std::string rva;
    std::string samples;
    std::string samplesFormat = "auto";
    size_t top = 0;
    // Call stacks.
    std::vector<unsigned> pids;
    std::vector<unsigned> tids;
    std::string from;
    std::string to;
    bool lines = false;
    bool annotate = false;
    std::string output;
    std::string title;
};

const char* kExamples = R"(Examples:
  quarvel-jit processes traces/
  quarvel-jit symbols traces/ --match 'Foo::bar'
  quarvel-jit dump traces/ --rva 0x1a40
  quarvel-jit resolve traces/ --samples samples.csv --top 10
  perf script -F pid,time,ip --ns | quarvel-jit resolve traces/ --samples - --format json
  perf script -F pid,tid,time,ip,sym,dso --ns | quarvel-jit stacks traces/ --samples - > out.folded
  quarvel-jit stacks traces/ --samples stacks.txt --format speedscope > profile.speedscope.json
  quarvel-jit stacks traces/ --samples stacks.txt --top 20 --pid 4242
  quarvel-jit flame traces/ --samples stacks.txt -o flame.html
  quarvel-jit stats traces/ --format csv

Exit codes: 0 success, 1 usage error, 2 unreadable input.)";

void fail(const std::string& message) {
    std::cerr << "quarvel-jit: " << message << '\n';
}

// Every path must exist and be readable; the library then decides which files are traces.
bool checkPaths(const std::vector<std::string>& paths) {
    for (const std::string& p : paths) {
        struct stat st;
        if (::stat(p.c_str(), &st) != 0 || ::access(p.c_str(), R_OK) != 0) {
            fail("cannot read " + p + ": " + std::strerror(errno));
            return false;
        }
    }
    return true;
}

std::string joined(const std::vector<std::string>& paths) {
    std::string s;
    for (const std::string& p : paths)
        s += (s.empty() ? "" : " ") + p;
    return s;
}

// Progress on stderr, only for a person watching a terminal.
class Progress {
public:
    Progress() : m_enabled(::isatty(STDERR_FILENO) == 1) {}
    ~Progress() {
        if (m_shown)
            std::cerr << "\r\033[K" << std::flush;
    }
    // In bytes of the samples read; an input of unknown size (a pipe) shows none.
    void operator()(uint64_t done, uint64_t total) {
        if (!m_enabled || total < (1u << 20))
            return;
        const size_t pct = done * 100 / total;
        if (m_shown && pct == m_last)
            return;
        m_shown = true;
        m_last = pct;
        const size_t filled = pct / 5;
        std::cerr << "\rresolving [" << std::string(filled, '#') << std::string(20 - filled, ' ') << "] " << pct << "%"
                  << std::flush;
    }

private:
    bool m_enabled;
    bool m_shown = false;
    uint64_t m_last = 0;
};

int runResolve(TraceView& view, const Options& o, Format format) {
    SamplesFormat sf = SamplesFormat::Auto;
    if (o.samplesFormat == "csv")
        sf = SamplesFormat::Csv;
    else if (o.samplesFormat == "perf")
        sf = SamplesFormat::Perf;

    const std::string name = o.samples == "-" ? std::string("<stdin>") : o.samples;
    std::ifstream file;
    if (o.samples != "-") {
        file.open(o.samples, std::ios::binary);
        if (!file) {
            fail("cannot read " + o.samples + ": " + std::strerror(errno));
            return kExitInput;
        }
    }
    SampleReader samples(o.samples == "-" ? std::cin : file, sf);

    // CSV rows go out as each sample is resolved; the other outputs need them all.
    const bool streamed = format == Format::Csv && o.top == 0;
    std::vector<SampleResult> results;
    std::unique_ptr<SampleCsvWriter> csv(streamed ? new SampleCsvWriter(std::cout) : nullptr);
    ResolveSummary summary;
    // Samples of processes without traces, by host and pid: a host the traces
    // do not know at all is reported once, as a host, when all are resolved.
    std::map<std::pair<std::string, unsigned>, uint64_t> untraced;
    {
        Progress progress;
        view.resolveEach(
            samples,
            [&](const SampleResult& r) {
                TraceView::count(r, summary);
                if (r.status == SampleStatus::UnknownProcess && !r.host.empty())
                    ++untraced[{r.host, r.pid}];
                if (csv)
                    csv->add(r);
                else
                    results.push_back(r);
            },
            [&](uint64_t done, uint64_t total) { progress(done, total); });
    }
    csv.reset();
    for (const std::string& e : samples.errors())
        std::cerr << name << ":" << e << '\n';
    if (summary.samples == 0)
        std::cerr << "quarvel-jit: " << name << " holds no samples\n";
    for (const auto& host : view.unknownHosts())
        std::cerr << "quarvel-jit: no traces from host " << host.first << " (" << host.second << " samples)\n";
    std::map<unsigned, uint64_t> unknownPids;
    for (const auto& entry : untraced)
        if (!view.unknownHosts().count(entry.first.first))
            unknownPids[entry.first.second] += entry.second;
    for (const auto& pid : unknownPids)
        std::cerr << "quarvel-jit: no traces of pid " << pid.first << " (" << pid.second << " samples)\n";

    if (o.top > 0) {
        printTop(std::cout, format, TraceView::top(results, summary, o.top));
    } else if (!streamed) {
        summary.malformedLines = samples.errors().size();
        printSamples(std::cout, format, results, summary);
    }
    return kExitOk;
}

// The filters of stacks and flame; false (and a message) for a bad time.
bool stackFilter(const Options& o, const std::regex* match, StackFilter& filter) {
    filter.pids = o.pids;
    filter.tids = o.tids;
    filter.match = match;
    if (!o.from.empty() && !parseTimeBound(o.from, filter.from)) {
        fail("--from: '" + o.from + "' is not a time (an integer, or sec.fraction as perf prints it)");
        return false;
    }
    if (!o.to.empty() && !parseTimeBound(o.to, filter.to)) {
        fail("--to: '" + o.to + "' is not a time (an integer, or sec.fraction as perf prints it)");
        return false;
    }
    return true;
}

// Reads, filters and resolves the call-stack samples named by o.samples;
// false when they cannot be read.
bool collect(TraceView& view, const Options& o, const StackFilter& filter, StackProfile& profile,
             StackSummary& summary) {
    const StackFormat format = o.samplesFormat == "csv"    ? StackFormat::Csv
                               : o.samplesFormat == "perf" ? StackFormat::Perf
                                                           : StackFormat::Auto;
    if (o.samples == "-") {
        StackReader reader(std::cin, format);
        summary = collectStacks(view, reader, filter, profile);
    } else {
        std::ifstream in(o.samples);
        if (!in) {
            fail("cannot read " + o.samples + ": " + std::strerror(errno));
            return false;
        }
        StackReader reader(in, format);
        summary = collectStacks(view, reader, filter, profile);
    }
    return true;
}

std::string samplesName(const Options& o) {
    return o.samples == "-" ? std::string("<stdin>") : o.samples;
}

int runStacks(TraceView& view, const Options& o, const std::string& format, const StackFilter& filter) {
    StackProfile profile;
    StackSummary summary;
    if (!collect(view, o, filter, profile, summary))
        return kExitInput;
    const StackProfile shown = o.lines ? StackProfile() : profile.withoutLines();
    const StackProfile& p = o.lines ? profile : shown;
    if (format == "folded" || format == "speedscope" || format == "csv")
        printStackSummary(std::cerr, summary, "quarvel-jit: ");
    if (format == "folded") {
        writeFolded(std::cout, p, o.annotate);
    } else if (format == "speedscope") {
        writeSpeedscope(std::cout, p, samplesName(o));
    } else {
        FrameTopReport report;
        report.summary = summary;
        report.samples = p.samples();
        report.frames = topFrames(p, o.top);
        printFrameTop(std::cout,
                      format == "json"  ? Format::Json
                      : format == "csv" ? Format::Csv
                                        : Format::Text,
                      report);
    }
    return kExitOk;
}

// The flame graph's format from the name of its file; false when it names none.
bool flameFormat(const std::string& path, FlameFormat& format) {
    const auto endsWith = [&](const std::string& suffix) {
        return path.size() >= suffix.size() && path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
    };
    if (endsWith(".svg"))
        format = FlameFormat::Svg;
    else if (endsWith(".html") || endsWith(".htm"))
        format = FlameFormat::Html;
    else
        return false;
    return true;
}

int runFlame(TraceView& view, const Options& o, const StackFilter& filter, FlameFormat format) {
    StackProfile profile;
    StackSummary summary;
    if (!collect(view, o, filter, profile, summary))
        return kExitInput;
    printStackSummary(std::cerr, summary, "quarvel-jit: ");
    FlameOptions options;
    options.title = o.title.empty() ? "Flame graph" : o.title;
    options.subtitle = samplesName(o) + ": " + std::to_string(profile.samples()) + " samples";
    options.linesApart = o.lines;
    std::ofstream out(o.output);
    if (out)
        writeFlame(out, format, profile, options);
    out.flush();
    if (!out) {
        fail("cannot write " + o.output + ": " + std::strerror(errno));
        return kExitInput;
    }
    return kExitOk;
}

} // namespace

int main(int argc, char** argv) {
    // Only iostreams are used; unsynced, std::cin reads samples in blocks.
    std::ios::sync_with_stdio(false);
    CLI::App app{"Looks into JIT trace files and resolves profiler samples against them.", "quarvel-jit"};
    app.footer(kExamples);
    app.set_version_flag("--version", std::string("quarvel-jit ") + QUARVEL_JIT_VERSION);
    app.require_subcommand(1);
    app.fallthrough();

    Options o;
    CLI::Option* formatOption =
        app.add_option("--format", o.format,
                       "Output format (folded and speedscope: stacks only; stacks defaults to folded)")
            ->check(CLI::IsMember({"text", "csv", "json", "folded", "speedscope"}))
            ->capture_default_str();
    app.add_option("--log-level", o.logLevel, "Library log level (sets QUARVEL_LOG)")
        ->check(CLI::IsMember({"trace", "debug", "info", "warn", "error", "off"}, CLI::ignore_case));

    const auto addPaths = [&](CLI::App* cmd) {
        cmd->add_option("paths", o.paths, "Trace files or directories holding them")->required();
    };

    CLI::App* processes = app.add_subcommand("processes", "List the processes that left traces");
    addPaths(processes);
    CLI::App* symbols = app.add_subcommand("symbols", "List the jitted methods, their code and inline trees");
    addPaths(symbols);
    symbols->add_option("--match", o.match, "Only methods whose name matches this regular expression");
    CLI::App* dump = app.add_subcommand("dump", "Dump methods with their disassembly and line tables");
    addPaths(dump);
    CLI::Option* dumpMatch =
        dump->add_option("--match", o.match, "Only methods whose name matches this regular expression");
    dump->add_option("--rva", o.rva, "The method that holds this jit rva (hex with 0x, or decimal)")
        ->excludes(dumpMatch);
    CLI::App* resolve = app.add_subcommand("resolve", "Resolve profiler samples to methods and source lines");
    addPaths(resolve);
    resolve->add_option("--samples", o.samples, "CSV (time,address,pid[,host]) or perf script text; - for stdin")
        ->required();
    resolve->add_option("--samples-format", o.samplesFormat, "Format of the samples (auto-detected by default)")
        ->check(CLI::IsMember({"auto", "csv", "perf"}))
        ->capture_default_str();
    resolve->add_option("--top", o.top, "Print the N hottest methods and source lines instead of every sample");
    const auto addStackInput = [&](CLI::App* cmd) {
        addPaths(cmd);
        cmd->add_option("--samples", o.samples,
                        "perf script text with call chains (perf script -F pid,tid,time,ip,sym,dso --ns), or CSV "
                        "(time,address,pid[,tid][,host][,stack]); - for stdin")
            ->required();
        cmd->add_option("--samples-format", o.samplesFormat, "Format of the samples (auto-detected by default)")
            ->check(CLI::IsMember({"auto", "csv", "perf"}))
            ->capture_default_str();
        cmd->add_option("--pid", o.pids, "Only samples of this process (repeatable)");
        cmd->add_option("--tid", o.tids, "Only samples of this thread (repeatable)");
        cmd->add_option("--from", o.from, "Only samples at or after this time (sample units, or sec.fraction)");
        cmd->add_option("--to", o.to, "Only samples at or before this time (sample units, or sec.fraction)");
        cmd->add_option("--match", o.match, "Only samples with a frame whose name matches this regular expression");
        cmd->add_flag("--lines", o.lines, "Each source line of a method a frame of its own");
    };
    CLI::App* stacks = app.add_subcommand("stacks", "Resolve call-stack samples into a profile: folded stacks, "
                                                    "speedscope JSON, or a table of frames by self and total samples");
    addStackInput(stacks);
    stacks->add_flag("--annotate", o.annotate,
                     "Folded: each frame's kind after its name (compiled, inlined, stub, native, kernel, unknown)");
    stacks->add_option("--top", o.top, "The N hottest frames by self and total samples (text, csv or json)");
    CLI::App* flame = app.add_subcommand("flame", "Resolve call-stack samples into an interactive flame graph");
    addStackInput(flame);
    flame->add_option("-o,--output", o.output, "The flame graph to write: FILE.html or FILE.svg")->required();
    flame->add_option("--title", o.title, "The title of the flame graph");
    CLI::App* stats = app.add_subcommand("stats", "What reading the traces found and refused");
    addPaths(stats);
    stats->add_option("--samples", o.samples,
                      "Also read these call-stack samples and count what they met; - for stdin");
    stats->add_option("--samples-format", o.samplesFormat, "Format of the samples (auto-detected by default)")
        ->check(CLI::IsMember({"auto", "csv", "perf"}))
        ->capture_default_str();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? kExitOk : kExitUsage;
    }

    // Before the first library call: the library reads it once.
    if (!o.logLevel.empty())
        ::setenv("QUARVEL_LOG", o.logLevel.c_str(), 1);

    const bool profileFormat = o.format == "folded" || o.format == "speedscope";
    if (profileFormat && !*stacks) {
        fail("--format " + o.format + " is for stacks only");
        return kExitUsage;
    }
    const std::string stackFormat = formatOption->count() == 0 && o.top == 0 ? std::string("folded") : o.format;
    if (*stacks && o.top > 0 && profileFormat) {
        fail("--top prints a table: use --format text, csv or json with it");
        return kExitUsage;
    }
    const Format format = o.format == "json" ? Format::Json : o.format == "csv" ? Format::Csv : Format::Text;
    std::unique_ptr<std::regex> match;
    if (!o.match.empty()) {
        try {
            match.reset(new std::regex(o.match));
        } catch (const std::regex_error& e) {
            fail("--match: bad regular expression '" + o.match + "': " + e.what());
            return kExitUsage;
        }
    }
    StackFilter filter;
    if (!stackFilter(o, match.get(), filter))
        return kExitUsage;
    FlameFormat flameAs = FlameFormat::Html;
    if (*flame && !flameFormat(o.output, flameAs)) {
        fail("-o: '" + o.output + "' must end in .svg or .html");
        return kExitUsage;
    }
    uint64_t rva = 0;
    if (!o.rva.empty() && !parseAddress(o.rva, rva)) {
        fail("--rva: '" + o.rva + "' is not a number (hex with 0x, or decimal)");
        return kExitUsage;
    }

    if (!checkPaths(o.paths))
        return kExitInput;
    reserveHeap(kHeapReservation);
    TraceView view;
    if (!view.open(o.paths)) {
        fail("cannot read the traces in " + joined(o.paths) + ": " + view.whyNotOpen());
        return kExitInput;
    }

    const int rc = [&]() -> int {
        if (*processes) {
            printProcesses(std::cout, format, view.processes());
        } else if (*symbols) {
            printSymbols(std::cout, format, view.symbols(match.get()));
        } else if (*dump) {
            std::vector<DumpEntry> entries;
            if (!o.rva.empty()) {
                DumpEntry e;
                if (!view.dumpAt(rva, e)) {
                    fail("no method holds jit rva " + o.rva);
                    return kExitUsage;
                }
                entries.push_back(std::move(e));
            } else {
                entries = view.dump(match.get());
            }
            printDump(std::cout, format, entries);
        } else if (*resolve) {
            return runResolve(view, o, format);
        } else if (*stacks) {
            return runStacks(view, o, stackFormat, filter);
        } else if (*flame) {
            return runFlame(view, o, filter, flameAs);
        } else if (*stats) {
            StatsReport report = view.stats();
            if (!o.samples.empty()) {
                StackProfile profile;
                StackSummary summary;
                if (!collect(view, o, StackFilter(), profile, summary))
                    return kExitInput;
                for (const std::string& e : summary.errors)
                    std::cerr << samplesName(o) << ":" << e << '\n';
                const std::vector<StatRow> more = stackStatRows(summary);
                report.counters.insert(report.counters.end(), more.begin(), more.end());
            }
            printStats(std::cout, format, report);
        }
        return kExitOk;
    }();
    // The process ends here: taking a model of millions of objects apart one
    // by one would only delay the exit. The view stays reachable until then.
    std::cout.flush();
    std::exit(rc);
}

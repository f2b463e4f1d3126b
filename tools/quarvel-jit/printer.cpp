#include "printer.h"

#include "sample_csv_writer.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iomanip>
#include <sstream>
#include <string>

namespace quarvel_jit {

namespace {

using Json = nlohmann::ordered_json;

// Addresses and jit rvas are 64-bit: JSON gets them as hex strings, since
// many JSON readers keep only 53 bits of a number.
std::string hex(uint64_t v) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
    return buf;
}

// Two decimals, rounded half up, from integers only.
std::string percent(uint64_t part, uint64_t whole) {
    if (whole == 0)
        return "0.00";
    const uint64_t hundredths = (part * 20000 / whole + 1) / 2;
    std::ostringstream os;
    os << hundredths / 100 << '.' << std::setw(2) << std::setfill('0') << hundredths % 100;
    return os.str();
}

// Names come from trace files, which may hold any bytes: what is not UTF-8
// is printed as U+FFFD rather than stopping the output.
std::string jsonText(const Json& doc) {
    return doc.dump(2, ' ', false, Json::error_handler_t::replace);
}

double percentNumber(uint64_t part, uint64_t whole) {
    return std::stod(percent(part, whole));
}

void csvRow(std::ostream& os, const std::vector<std::string>& fields) {
    std::string row;
    for (size_t i = 0; i < fields.size(); ++i) {
        if (i)
            row += ',';
        appendCsvField(row, fields[i]);
    }
    os << row << '\n';
}

std::string lineRange(const std::string& file, unsigned first, unsigned last) {
    std::string s = file.empty() ? "?" : file;
    if (first) {
        s += ":" + std::to_string(first);
        if (last && last != first)
            s += "-" + std::to_string(last);
    }
    return s;
}

std::string where(const SourcePoint& p) {
    if (p.sourceFile.empty() && !p.line)
        return "";
    return (p.sourceFile.empty() ? "?" : p.sourceFile) + (p.line ? ":" + std::to_string(p.line) : std::string());
}

// A table of text columns, each as wide as its widest cell; the last is not padded.
class Table {
public:
    explicit Table(std::vector<std::string> head) : m_rows{std::move(head)} {}
    void add(std::vector<std::string> row) { m_rows.push_back(std::move(row)); }
    void print(std::ostream& os) const {
        std::vector<size_t> width;
        for (const auto& row : m_rows)
            for (size_t i = 0; i < row.size(); ++i) {
                if (width.size() <= i)
                    width.push_back(0);
                width[i] = std::max(width[i], row[i].size());
            }
        for (const auto& row : m_rows) {
            std::string line;
            for (size_t i = 0; i < row.size(); ++i) {
                if (i)
                    line += "  ";
                line += row[i];
                if (i + 1 < row.size())
                    line.append(width[i] - row[i].size(), ' ');
            }
            while (!line.empty() && line.back() == ' ')
                line.pop_back();
            os << line << '\n';
        }
    }

private:
    std::vector<std::vector<std::string>> m_rows;
};

Json inlineJson(const std::vector<InlineNode>& nodes) {
    Json list = Json::array();
    for (const InlineNode& n : nodes)
        list.push_back(Json{{"method_id", n.methodId},
                            {"name", n.name},
                            {"source_file", n.sourceFile},
                            {"first_line", n.firstLine},
                            {"last_line", n.lastLine},
                            {"start", hex(n.start)},
                            {"end", hex(n.start + n.length)},
                            {"jit_rva", hex(n.jitRva)},
                            {"inlined", inlineJson(n.inlined)}});
    return list;
}

void inlineText(std::ostream& os, const std::vector<InlineNode>& nodes, unsigned indent) {
    for (const InlineNode& n : nodes) {
        os << std::string(indent, ' ') << "inlined " << n.name << "  " << hex(n.start) << "-" << hex(n.start + n.length)
           << "  jit rva " << hex(n.jitRva) << "  method id " << n.methodId;
        if (!n.sourceFile.empty() || n.firstLine)
            os << "  " << lineRange(n.sourceFile, n.firstLine, n.lastLine);
        os << '\n';
        inlineText(os, n.inlined, indent + 2);
    }
}

void inlineCsv(std::ostream& os, const SymbolRow& m, const RegionRow& r, const std::vector<InlineNode>& nodes,
               unsigned depth) {
    for (const InlineNode& n : nodes) {
        csvRow(os,
               {"inline", std::to_string(depth), std::to_string(n.methodId), n.name, "", m.module, n.sourceFile,
                std::to_string(n.firstLine), std::to_string(n.lastLine), std::to_string(r.pid), r.host, hex(n.start),
                hex(n.start + n.length), hex(n.jitRva), std::to_string(r.loadTime), std::to_string(r.unloadTime)});
        inlineCsv(os, m, r, n.inlined, depth + 1);
    }
}

Json summaryJson(const ResolveSummary& s) {
    return Json{{"samples", s.samples},
                {"resolved", s.resolved},
                {"not_jit", s.notJit},
                {"unknown_process", s.unknownProcess},
                {"no_host", s.noHost}};
}

Json pointJson(const SourcePoint& p) {
    return Json{{"method", p.name}, {"source_file", p.sourceFile}, {"source_line", p.line}};
}

} // namespace

bool needsCsvQuotes(const std::string& text) {
    // A plain scan: find_first_of searches the set once per character.
    return std::any_of(text.begin(), text.end(), [](char c) { return c == ',' || c == '"' || c == '\n' || c == '\r'; });
}

void appendCsvField(std::string& out, const std::string& text) {
    if (!needsCsvQuotes(text)) {
        out += text;
        return;
    }
    out += '"';
    for (const char c : text) {
        if (c == '"')
            out += '"';
        out += c;
    }
    out += '"';
}

std::string frameText(const SourcePoint& p) {
    const std::string at = where(p);
    return at.empty() ? p.name : p.name + " (" + at + ")";
}

const char* statusName(SampleStatus s) {
    switch (s) {
    case SampleStatus::Resolved:
        return "resolved";
    case SampleStatus::NotJit:
        return "not_jit";
    case SampleStatus::UnknownProcess:
        return "unknown_process";
    case SampleStatus::NoHost:
        return "no_host";
    }
    return "";
}

void printProcesses(std::ostream& os, Format format, const std::vector<ProcessRow>& rows) {
    if (format == Format::Json) {
        Json list = Json::array();
        for (const ProcessRow& r : rows)
            list.push_back(Json{{"host", r.host},
                                {"pid", r.pid},
                                {"files", r.files},
                                {"bytes", r.bytes},
                                {"methods", r.methods},
                                {"jit_rva_start", hex(r.jitRvaStart)},
                                {"jit_rva_end", hex(r.jitRvaEnd)}});
        os << jsonText(Json{{"processes", list}}) << '\n';
        return;
    }
    if (format == Format::Csv) {
        csvRow(os, {"host", "pid", "files", "bytes", "methods", "jit_rva_start", "jit_rva_end"});
        for (const ProcessRow& r : rows)
            csvRow(os, {r.host, std::to_string(r.pid), std::to_string(r.files), std::to_string(r.bytes),
                        std::to_string(r.methods), hex(r.jitRvaStart), hex(r.jitRvaEnd)});
        return;
    }
    Table t({"HOST", "PID", "FILES", "BYTES", "METHODS", "JIT RVA RANGE"});
    for (const ProcessRow& r : rows)
        t.add({r.host, std::to_string(r.pid), std::to_string(r.files), std::to_string(r.bytes),
               std::to_string(r.methods), hex(r.jitRvaStart) + "-" + hex(r.jitRvaEnd)});
    t.print(os);
}

void printSymbols(std::ostream& os, Format format, const std::vector<SymbolRow>& rows) {
    if (format == Format::Json) {
        Json list = Json::array();
        for (const SymbolRow& m : rows) {
            Json regions = Json::array();
            for (const RegionRow& r : m.regions)
                regions.push_back(Json{{"start", hex(r.start)},
                                       {"end", hex(r.start + r.length)},
                                       {"jit_rva", hex(r.jitRva)},
                                       {"pid", r.pid},
                                       {"host", r.host},
                                       {"load_time", r.loadTime},
                                       {"unload_time", r.unloadTime},
                                       {"inlined", inlineJson(r.inlined)}});
            list.push_back(Json{{"method_id", m.methodId},
                                {"name", m.name},
                                {"class", m.className},
                                {"module", m.module},
                                {"source_file", m.sourceFile},
                                {"first_line", m.firstLine},
                                {"last_line", m.lastLine},
                                {"load_time", m.loadTime},
                                {"jit_rva", hex(m.jitRva)},
                                {"regions", regions}});
        }
        os << jsonText(Json{{"symbols", list}}) << '\n';
        return;
    }
    if (format == Format::Csv) {
        csvRow(os, {"kind", "depth", "method_id", "name", "class", "module", "source_file", "first_line", "last_line",
                    "pid", "host", "start", "end", "jit_rva", "load_time", "unload_time"});
        for (const SymbolRow& m : rows)
            for (const RegionRow& r : m.regions) {
                csvRow(os, {"method", "0", std::to_string(m.methodId), m.name, m.className, m.module, m.sourceFile,
                            std::to_string(m.firstLine), std::to_string(m.lastLine), std::to_string(r.pid), r.host,
                            hex(r.start), hex(r.start + r.length), hex(r.jitRva), std::to_string(r.loadTime),
                            std::to_string(r.unloadTime)});
                inlineCsv(os, m, r, r.inlined, 1);
            }
        return;
    }
    for (const SymbolRow& m : rows) {
        os << m.name << "  [" << m.module << "]  method id " << m.methodId;
        if (!m.sourceFile.empty() || m.firstLine)
            os << "  " << lineRange(m.sourceFile, m.firstLine, m.lastLine);
        os << '\n';
        for (const RegionRow& r : m.regions) {
            os << "  " << hex(r.start) << "-" << hex(r.start + r.length) << "  jit rva " << hex(r.jitRva) << "  pid "
               << r.pid << "@" << r.host << "  loaded " << r.loadTime;
            if (r.unloadTime)
                os << "  unloaded " << r.unloadTime;
            os << '\n';
            inlineText(os, r.inlined, 4);
        }
    }
}

void printDump(std::ostream& os, Format format, const std::vector<DumpEntry>& entries) {
    if (format == Format::Json) {
        Json list = Json::array();
        for (const DumpEntry& e : entries)
            list.push_back(Json{{"name", e.name}, {"jit_rva", hex(e.jitRva)}, {"dump", e.text}});
        os << jsonText(Json{{"dumps", list}}) << '\n';
        return;
    }
    if (format == Format::Csv) {
        csvRow(os, {"name", "jit_rva", "line", "text"});
        for (const DumpEntry& e : entries) {
            std::istringstream in(e.text);
            std::string line;
            for (size_t n = 1; std::getline(in, line); ++n)
                csvRow(os, {e.name, hex(e.jitRva), std::to_string(n), line});
        }
        return;
    }
    for (size_t i = 0; i < entries.size(); ++i) {
        if (i)
            os << '\n';
        os << "== " << entries[i].name << " (jit rva " << hex(entries[i].jitRva) << ")\n" << entries[i].text;
    }
}

void printSamples(std::ostream& os, Format format, const std::vector<SampleResult>& results,
                  const ResolveSummary& summary) {
    if (format == Format::Json) {
        Json list = Json::array();
        for (const SampleResult& r : results) {
            Json s{{"line", r.inputLine}, {"time", r.time}, {"address", hex(r.address)},
                   {"pid", r.pid},        {"host", r.host}, {"status", statusName(r.status)}};
            if (r.status == SampleStatus::Resolved) {
                s["jit_rva"] = hex(r.jitRva);
                s["method"] = r.method.name;
                s["module"] = r.module;
                s["source_file"] = r.method.sourceFile;
                s["source_line"] = r.method.line;
                Json chain = Json::array();
                for (const SourcePoint& p : r.inlined)
                    chain.push_back(pointJson(p));
                s["inlined"] = chain;
            }
            list.push_back(s);
        }
        os << jsonText(Json{{"samples", list}, {"summary", summaryJson(summary)}}) << '\n';
        return;
    }
    if (format == Format::Csv) {
        SampleCsvWriter writer(os);
        for (const SampleResult& r : results)
            writer.add(r);
        return;
    }
    Table t({"TIME", "ADDRESS", "PID", "HOST", "JIT RVA", "METHOD"});
    for (const SampleResult& r : results) {
        std::string what;
        switch (r.status) {
        case SampleStatus::Resolved: {
            // Innermost frame first, each "<-" leads to the code it was inlined into.
            for (const SourcePoint& p : r.inlined)
                what += frameText(p) + " <- ";
            what += frameText(r.method) + " [" + r.module + "]";
            break;
        }
        case SampleStatus::NotJit:
            what = "- not in JIT code";
            break;
        case SampleStatus::UnknownProcess:
            what = "- no traces of this process";
            break;
        case SampleStatus::NoHost:
            what = "- no host given and the traces come from several hosts";
            break;
        }
        t.add({std::to_string(r.time), hex(r.address), std::to_string(r.pid), r.host,
               r.status == SampleStatus::Resolved ? hex(r.jitRva) : "-", what});
    }
    t.print(os);
    os << "# " << summary.samples << " samples: " << summary.resolved << " resolved, " << summary.notJit
       << " not in JIT code, " << summary.unknownProcess << " in processes without traces, " << summary.noHost
       << " without a host\n";
}

void printTop(std::ostream& os, Format format, const TopReport& report) {
    const ResolveSummary& s = report.summary;
    if (format == Format::Json) {
        Json methods = Json::array(), lines = Json::array();
        for (const Counted& c : report.methods)
            methods.push_back(Json{{"method", c.key},
                                   {"module", c.module},
                                   {"samples", c.samples},
                                   {"percent", percentNumber(c.samples, s.samples)}});
        for (const Counted& c : report.lines)
            lines.push_back(
                Json{{"source", c.key}, {"samples", c.samples}, {"percent", percentNumber(c.samples, s.samples)}});
        os << jsonText(Json{{"summary", summaryJson(s)}, {"methods", methods}, {"lines", lines}}) << '\n';
        return;
    }
    if (format == Format::Csv) {
        csvRow(os, {"kind", "name", "module", "samples", "percent"});
        for (const Counted& c : report.methods)
            csvRow(os, {"method", c.key, c.module, std::to_string(c.samples), percent(c.samples, s.samples)});
        for (const Counted& c : report.lines)
            csvRow(os, {"line", c.key, "", std::to_string(c.samples), percent(c.samples, s.samples)});
        const uint64_t outside = s.notJit + s.unknownProcess + s.noHost;
        csvRow(os, {"outside_jit", "", "", std::to_string(outside), percent(outside, s.samples)});
        return;
    }
    const uint64_t outside = s.notJit + s.unknownProcess + s.noHost;
    os << s.samples << " samples, " << s.resolved << " in JIT code, " << outside << " not in JIT code ("
       << percent(outside, s.samples) << "%)";
    if (s.unknownProcess || s.noHost)
        os << ", of which " << s.unknownProcess << " in processes without traces and " << s.noHost << " without a host";
    os << "\n\nHottest methods\n";
    Table methods({"SAMPLES", "PERCENT", "METHOD", "MODULE"});
    for (const Counted& c : report.methods)
        methods.add({std::to_string(c.samples), percent(c.samples, s.samples) + "%", c.key, c.module});
    methods.print(os);
    os << "\nHottest source lines\n";
    Table lines({"SAMPLES", "PERCENT", "SOURCE"});
    for (const Counted& c : report.lines)
        lines.add({std::to_string(c.samples), percent(c.samples, s.samples) + "%", c.key});
    lines.print(os);
}

void printStats(std::ostream& os, Format format, const StatsReport& report) {
    if (format == Format::Json) {
        Json stats = Json::object();
        for (const StatRow& r : report.counters)
            stats[r.name] = r.value;
        Json refusals = Json::array();
        for (const RefusalRow& r : report.refusals)
            refusals.push_back(Json{{"file", r.file}, {"offset", r.offset}, {"field", r.field}, {"reason", r.reason}});
        os << jsonText(Json{{"stats", stats}, {"refusals", refusals}, {"refusals_not_listed", report.refusalsNotKept}})
           << '\n';
        return;
    }
    if (format == Format::Csv) {
        csvRow(os, {"name", "value", "file", "offset", "field", "reason"});
        for (const StatRow& r : report.counters)
            csvRow(os, {r.name, std::to_string(r.value), "", "", "", ""});
        for (const RefusalRow& r : report.refusals)
            csvRow(os, {"refusal", "", r.file, r.offset, r.field, r.reason});
        return;
    }
    Table t({"COUNTER", "VALUE"});
    for (const StatRow& r : report.counters)
        t.add({r.label, std::to_string(r.value)});
    t.print(os);
    if (report.refusals.empty())
        return;
    os << "\nRefused, and why\n";
    Table why({"FILE", "OFFSET", "FIELD", "REASON"});
    for (const RefusalRow& r : report.refusals)
        why.add({r.file, r.offset, r.field.empty() ? "-" : r.field, r.reason});
    why.print(os);
    if (report.refusalsNotKept)
        os << "(" << report.refusalsNotKept << " more not listed)\n";
}

void printStackSummary(std::ostream& os, const StackSummary& s, const std::string& prefix) {
    os << prefix << s.samplesRead << " samples read, " << s.samplesKept << " kept";
    if (s.samplesRead != s.samplesKept)
        os << " (" << s.samplesRead - s.samplesKept << " left out by --pid, --tid, --from/--to or --match)";
    os << "; " << s.distinctStacks << " distinct stacks\n";
    if (s.malformedLines || s.truncatedSamples) {
        os << prefix << s.malformedLines << " malformed lines (" << s.droppedSamples << " samples left out), "
           << s.truncatedSamples << " samples cut short by the end of the input (left out)\n";
        for (const std::string& e : s.errors)
            os << prefix << "  line " << e << '\n';
    }
    if (s.untracedSamples) {
        os << prefix << s.untracedSamples << " samples of processes without traces (their frames keep the "
           << "profiler's names):";
        size_t shown = 0;
        for (const auto& p : s.untracedProcesses) {
            if (shown++ == 10) {
                os << " ...";
                break;
            }
            os << " pid " << p.first << " (" << p.second << ")";
        }
        os << '\n';
    }
    if (s.noHostSamples)
        os << prefix << s.noHostSamples << " samples without a host, and the traces come from several hosts\n";
    if (s.beforeTraces)
        os << prefix << s.beforeTraces << " samples outside their traces' time range: taken before their process's "
           << "first jitted code\n";
    const uint64_t jit = s.jitFrames + s.unnamedJitFrames;
    os << prefix << s.frames << " frames: " << s.jitFrames << " named from the traces, " << s.unnamedJitFrames
       << " in jitted code but not named (" << percent(s.unnamedJitFrames, jit) << "% of jitted frames; in "
       << s.samplesWithUnnamed << " samples, " << percent(s.samplesWithUnnamed, s.samplesRead) << "%)\n";
}

void printFrameTop(std::ostream& os, Format format, const FrameTopReport& r) {
    const StackSummary& s = r.summary;
    if (format == Format::Json) {
        Json frames = Json::array();
        for (const FrameCount& f : r.frames) {
            Json row{{"name", f.name}, {"module", f.module}, {"kind", f.kind}, {"source_file", f.sourceFile}};
            if (f.line)
                row["line"] = f.line;
            row["self"] = f.self;
            row["self_percent"] = percentNumber(f.self, r.samples);
            row["total"] = f.total;
            row["total_percent"] = percentNumber(f.total, r.samples);
            frames.push_back(std::move(row));
        }
        const Json summary{{"samples_read", s.samplesRead},
                           {"samples_kept", s.samplesKept},
                           {"malformed_lines", s.malformedLines},
                           {"dropped_samples", s.droppedSamples},
                           {"truncated_samples", s.truncatedSamples},
                           {"untraced_samples", s.untracedSamples},
                           {"no_host_samples", s.noHostSamples},
                           {"samples_before_traces", s.beforeTraces},
                           {"frames", s.frames},
                           {"jit_frames", s.jitFrames},
                           {"unnamed_jit_frames", s.unnamedJitFrames},
                           {"samples_with_unnamed", s.samplesWithUnnamed},
                           {"distinct_stacks", s.distinctStacks},
                           {"errors", s.errors}};
        os << jsonText(Json{{"summary", summary}, {"samples", r.samples}, {"frames", frames}})
           << '\n';
        return;
    }
    if (format == Format::Csv) {
        csvRow(os, {"name", "module", "kind", "source_file", "line", "self", "self_percent", "total", "total_percent"});
        for (const FrameCount& f : r.frames)
            csvRow(os, {f.name, f.module, f.kind, f.sourceFile, f.line ? std::to_string(f.line) : "",
                        std::to_string(f.self), percent(f.self, r.samples), std::to_string(f.total),
                        percent(f.total, r.samples)});
        return;
    }
    printStackSummary(os, s, "");
    os << '\n';
    Table t({"SELF", "SELF%", "TOTAL", "TOTAL%", "KIND", "FRAME", "MODULE"});
    for (const FrameCount& f : r.frames)
        t.add({std::to_string(f.self), percent(f.self, r.samples) + "%", std::to_string(f.total),
               percent(f.total, r.samples) + "%", f.kind,
               f.line ? f.name + " (" + (f.sourceFile.empty() ? "?" : f.sourceFile) + ":" + std::to_string(f.line) + ")"
                      : f.name,
               f.module});
    t.print(os);
}

} // namespace quarvel_jit

#ifndef QUARVEL_JIT_STACK_READER_H
#define QUARVEL_JIT_STACK_READER_H

// Call-stack samples, one at a time, so that any number of them streams
// through in constant memory. Two inputs:
//   - the text of `perf script -F pid,tid,time,ip,sym,dso --ns` over a
//     recording with call chains: a header line per sample, then one
//     tab-indented line per frame (leaf first), then an empty line. A header
//     that carries the ip itself (a recording without call chains) is a
//     sample of one frame;
//   - CSV with a header naming its columns: time, address and pid, optional
//     host, tid and stack (the callers' return addresses, innermost first,
//     separated by ';').
// Bad lines and samples cut short are counted and the reading goes on.

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace quarvel_jit {

enum class StackFormat { Auto, Csv, Perf };

struct RawFrame {
    uint64_t address = 0;
    std::string symbol; // what the profiler named it; empty when it gave no name
    std::string module; // empty when the profiler gave none
};

struct StackSample {
    size_t line = 0; // the sample's first line in the input
    uint64_t time = 0;
    unsigned pid = 0;
    unsigned tid = 0;
    bool hasTid = false;
    std::string host;             // empty: none given
    std::vector<RawFrame> frames; // the leaf first
};

struct StackInputStats {
    uint64_t samples = 0;            // samples handed out
    uint64_t malformedLines = 0;     // lines that could not be read; a sample with one is left out
    uint64_t droppedSamples = 0;     // samples left out for a malformed line of theirs
    uint64_t truncatedSamples = 0;   // the input ended inside a sample
    std::vector<std::string> errors; // the first few, "<line>: <what is wrong>"
};

class StackReader {
public:
    static constexpr size_t kMaxErrors = 20;

    StackReader(std::istream& in, StackFormat format);
    // The next good sample; false at the end of the input.
    bool next(StackSample& sample);
    const StackInputStats& stats() const { return m_stats; }
    // The format in use, known after the first line.
    StackFormat format() const { return m_format; }

private:
    enum class LineKind { Blank, Comment, Header, Frame, Bad };

    bool readLine();
    void error(size_t line, const std::string& what);
    bool nextPerf(StackSample& sample);
    bool nextCsv(StackSample& sample);
    bool readCsvHeader();
    std::string parseCsvRow(StackSample& sample) const;
    // Ends the sample being collected; true when it is handed out in `out`.
    bool finishPerfSample(StackSample& out, bool truncated);
    void dropPerfSample(const std::string& what);

    std::istream& m_in;
    StackFormat m_format;
    StackInputStats m_stats;
    std::string m_line;
    size_t m_lineNumber = 0;
    bool m_lineComplete = true; // the line read ended with a newline
    bool m_pendingLine = false; // m_line was read but not yet handled

    // perf: the sample being collected.
    StackSample m_current;
    bool m_open = false;
    bool m_bad = false; // left out for a malformed line; its remaining lines are passed over

    // CSV: the column of each field; -1 when absent.
    bool m_csvHeaderDone = false;
    int m_colTime = -1, m_colAddress = -1, m_colPid = -1, m_colTid = -1, m_colHost = -1, m_colStack = -1;
    size_t m_columns = 0;
};

// One frame line of perf script without its leading indentation:
// "7f39c0941260 Hot::deep(int) (/tmp/perf-24238.map)". The module is the last
// parenthesised group (symbols may hold parentheses of their own).
bool parsePerfFrame(const std::string& text, RawFrame& frame);

} // namespace quarvel_jit

#endif

#ifndef QUARVEL_JIT_SAMPLES_H
#define QUARVEL_JIT_SAMPLES_H

// Samples to resolve: CSV with the header time,address,pid[,host], or the text
// of `perf script -F pid,time,ip --ns`. A bad line is reported by its number
// and skipped; the good ones are kept.

#include <cstdint>
#include <istream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quarvel_jit {

enum class SamplesFormat { Auto, Csv, Perf };

struct Sample {
    size_t line = 0;
    uint64_t time = 0;
    uint64_t address = 0;
    unsigned pid = 0;
    std::string host; // empty: none given
};

// One sample at a time: profiles hold millions of lines, and a sample that
// is resolved as soon as it is read is never stored. The text is read in
// blocks and parsed in place, without a copy per line.
class SampleReader {
public:
    SampleReader(std::istream& in, SamplesFormat format);
    ~SampleReader();
    SampleReader(const SampleReader&) = delete;
    SampleReader& operator=(const SampleReader&) = delete;

    // The next good sample; false at the end. Bad lines are skipped and listed in errors().
    bool next(Sample& sample);
    // The format used (Csv until a line decides, or when there was none).
    SamplesFormat format() const;
    const std::vector<std::string>& errors() const; // "<line>: <what is wrong>"
    // How far the reading is, for progress: bytes read, and the input's size (0: unknown, a pipe).
    uint64_t bytesRead() const { return m_bytesRead; }
    uint64_t totalBytes() const { return m_totalBytes; }

private:
    bool nextLine(std::string_view& line);

    class LineParser;
    std::unique_ptr<LineParser> m_parser;
    std::istream& m_in;
    std::unique_ptr<char[]> m_block;
    size_t m_capacity = 0;
    size_t m_begin = 0; // the unparsed text is [m_begin, m_end) of m_block
    size_t m_end = 0;
    bool m_inputDone = false;
    size_t m_lineNumber = 0;
    uint64_t m_bytesRead = 0;
    uint64_t m_totalBytes = 0;
};

// Blanks between the fields of perf script's lines and around CSV cells: the
// characters std::isspace takes in the "C" locale.
inline bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Parsers of one field; false when the text is not a number that fits.
bool parseDecimal(std::string_view text, uint64_t& value);
bool parsePid(std::string_view text, unsigned& pid); // decimal, at most 32 bits
bool parseAddress(std::string_view text, uint64_t& value); // hex with 0x, or decimal
bool parseHex(std::string_view text, uint64_t& value);     // without prefix
// "sec.fraction" to integer nanoseconds, without floating point.
bool parsePerfTime(std::string_view text, uint64_t& nanoseconds);

} // namespace quarvel_jit

#endif

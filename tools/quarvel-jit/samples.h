#ifndef QUARVEL_JIT_SAMPLES_H
#define QUARVEL_JIT_SAMPLES_H

// Samples to resolve: CSV with the header time,address,pid[,host], or the text
// of `perf script -F pid,time,ip --ns`. A bad line is reported by its number
// and skipped; the good ones are kept.

#include <cstdint>
#include <istream>
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

struct SampleInput {
    SamplesFormat format = SamplesFormat::Auto; // the format used
    std::vector<Sample> samples;
    std::vector<std::string> errors; // "<line>: <what is wrong>"
};

// The whole text at once: profiles hold millions of lines, read here without
// a copy per line.
SampleInput readSamples(std::string_view text, SamplesFormat format);
SampleInput readSamples(std::istream& in, SamplesFormat format);

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

#include "samples.h"

#include <cstring>
#include <limits>

namespace quarvel_jit {

namespace {

std::string_view trim(std::string_view s) {
    size_t b = 0, e = s.size();
    while (b < e && isSpace(s[b]))
        ++b;
    while (e > b && isSpace(s[e - 1]))
        --e;
    return s.substr(b, e - b);
}

// The trimmed fields between separators, into `out` (reused from line to line).
void split(std::string_view s, char sep, std::vector<std::string_view>& out) {
    out.clear();
    for (;;) {
        const size_t at = s.find(sep);
        out.push_back(trim(s.substr(0, at)));
        if (at == std::string_view::npos)
            return;
        s.remove_prefix(at + 1);
    }
}

// The value of every byte as a digit; 16 for bytes that are none. A table:
// this runs for every digit of millions of samples.
struct DigitTable {
    unsigned char value[256];
    constexpr DigitTable() : value() {
        for (unsigned c = 0; c < 256; ++c)
            value[c] = c >= '0' && c <= '9'   ? static_cast<unsigned char>(c - '0')
                       : c >= 'a' && c <= 'f' ? static_cast<unsigned char>(c - 'a' + 10)
                       : c >= 'A' && c <= 'F' ? static_cast<unsigned char>(c - 'A' + 10)
                                              : 16;
    }
};
constexpr DigitTable kDigits;

// Up to 19 decimal or 16 hex digits cannot overflow 64 bits, so only longer
// numbers pay for the overflow check (made without a division).
bool parseInBase(std::string_view text, unsigned base, uint64_t& value) {
    if (text.empty())
        return false;
    uint64_t v = 0;
    if (text.size() <= (base == 10 ? 19u : 16u)) {
        for (const char c : text) {
            const unsigned digit = kDigits.value[static_cast<unsigned char>(c)];
            if (digit >= base)
                return false;
            v = v * base + digit;
        }
    } else {
        for (const char c : text) {
            const unsigned digit = kDigits.value[static_cast<unsigned char>(c)];
            if (digit >= base || __builtin_mul_overflow(v, uint64_t(base), &v) || __builtin_add_overflow(v, digit, &v))
                return false;
        }
    }
    value = v;
    return true;
}

// The common perf line, "  4242 785.213867049:   7f12abcd1234" and nothing
// after the ip, in one pass over its bytes. Anything else (pid/tid, a 0x,
// text after the ip, long numbers, a bad field) is left to the general
// parser, which also words the errors.
class CommonPerfLine {
public:
    explicit CommonPerfLine(std::string_view line)
        : m_at(reinterpret_cast<const unsigned char*>(line.data())), m_end(m_at + line.size()) {}

    bool parse(Sample& s) {
        uint64_t pid = 0, seconds = 0, fraction = 0, ip = 0;
        // Up to 9 digits of pid fit 32 bits; up to 10 of seconds keep the
        // nanoseconds within 64 bits.
        if (digits(10, 9, pid) == 0 || !blanks() || digits(10, 10, seconds) == 0 || !skip('.'))
            return false;
        const size_t fractionDigits = digits(10, 9, fraction);
        if (fractionDigits == 0 || !skip(':') || !blanks() || digits(16, 16, ip) == 0)
            return false;
        blanks();
        if (m_at != m_end)
            return false;
        for (size_t d = fractionDigits; d < 9; ++d)
            fraction *= 10;
        s.pid = static_cast<unsigned>(pid);
        s.time = seconds * 1000000000u + fraction;
        s.address = ip;
        s.host.clear();
        return true;
    }

private:
    // The number of digits read into v; 0 also when there are more than maxDigits.
    size_t digits(unsigned base, size_t maxDigits, uint64_t& v) {
        const unsigned char* const first = m_at;
        for (; m_at != m_end; ++m_at) {
            const unsigned digit = kDigits.value[*m_at];
            if (digit >= base)
                break;
            v = v * base + digit;
        }
        const size_t n = static_cast<size_t>(m_at - first);
        return n <= maxDigits ? n : 0;
    }
    bool blanks() {
        const unsigned char* const first = m_at;
        while (m_at != m_end && (*m_at == ' ' || *m_at == '\t'))
            ++m_at;
        return m_at != first;
    }
    bool skip(char c) {
        if (m_at == m_end || *m_at != static_cast<unsigned char>(c))
            return false;
        ++m_at;
        return true;
    }

    const unsigned char* m_at;
    const unsigned char* const m_end;
};

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

} // namespace

// The lines of one input, in order: the format (detected from the first
// line when not given), the CSV header, and each line's sample or error.
class SampleReader::LineParser {
public:
    explicit LineParser(SamplesFormat f) : format(f) {}
    // True when the line is a good sample (in s); comments, blank lines and the header give false.
    bool line(size_t number, std::string_view raw, Sample& s);

    SamplesFormat format;
    std::vector<std::string> errors; // "<line>: <what is wrong>"

private:
    std::string parseCsvRow(std::string_view line, Sample& s);
    std::string parsePerfLine(std::string_view line, Sample& s) const;
    bool isCsvHeader(std::string_view line);

    bool m_withHost = false;
    bool m_headerSeen = false;
    std::vector<std::string_view> m_cols;
};

bool SampleReader::LineParser::isCsvHeader(std::string_view line) {
    split(line, ',', m_cols);
    const std::vector<std::string_view>& cols = m_cols;
    return (cols.size() == 3 || cols.size() == 4) && cols[0] == "time" && cols[1] == "address" && cols[2] == "pid" &&
           (cols.size() == 3 || cols[3] == "host");
}

// One CSV row; the error text when it is bad.
std::string SampleReader::LineParser::parseCsvRow(std::string_view line, Sample& s) {
    split(line, ',', m_cols);
    const std::vector<std::string_view>& cols = m_cols;
    const size_t want = m_withHost ? 4 : 3;
    // A trailing empty host column is allowed in a 3-column file too.
    if (cols.size() != want && !(cols.size() == want + 1 && cols.back().empty()) && !(m_withHost && cols.size() == 3))
        return "expected " + std::to_string(want) + " columns (time,address,pid" + (m_withHost ? ",host" : "") +
               "), found " + std::to_string(cols.size());
    if (!parseDecimal(cols[0], s.time))
        return "bad time " + quoted(cols[0]) + " (a decimal integer)";
    if (!parseAddress(cols[1], s.address))
        return "bad address " + quoted(cols[1]) + " (hex with 0x, or decimal)";
    if (!parsePid(cols[2], s.pid))
        return "bad pid " + quoted(cols[2]);
    if (m_withHost && cols.size() > 3)
        s.host.assign(cols[3]);
    else
        s.host.clear();
    return std::string();
}

// "  4242 785.213867049:   7f12abcd1234" (pid, time, ip; anything after the ip is ignored).
std::string SampleReader::LineParser::parsePerfLine(std::string_view line, Sample& s) const {
    std::string_view fields[3];
    size_t i = 0;
    for (std::string_view& field : fields) {
        while (i < line.size() && isSpace(line[i]))
            ++i;
        const size_t begin = i;
        while (i < line.size() && !isSpace(line[i]))
            ++i;
        if (i == begin)
            return "expected 'pid time: ip'";
        field = line.substr(begin, i - begin);
    }
    std::string_view pid = fields[0], time = fields[1], ip = fields[2];
    // perf writes pid/tid when asked for both; the pid is what we need.
    pid = pid.substr(0, pid.find('/'));
    if (!parsePid(pid, s.pid))
        return "bad pid " + quoted(pid);
    if (time.back() != ':')
        return "bad time " + quoted(time) + " (sec.nanosec followed by ':')";
    time.remove_suffix(1);
    if (!parsePerfTime(time, s.time))
        return "bad time " + quoted(time) + " (sec.nanosec)";
    if (ip.size() > 2 && ip[0] == '0' && (ip[1] == 'x' || ip[1] == 'X'))
        ip.remove_prefix(2);
    if (!parseHex(ip, s.address))
        return "bad ip " + quoted(ip) + " (hex)";
    s.host.clear();
    return std::string();
}

bool SampleReader::LineParser::line(size_t number, std::string_view raw, Sample& s) {
    const std::string_view line = trim(raw);
    if (line.empty() || line[0] == '#')
        return false;
    if (format == SamplesFormat::Auto)
        format = line.substr(0, 5) == "time," ? SamplesFormat::Csv : SamplesFormat::Perf;

    if (format == SamplesFormat::Csv && !m_headerSeen) {
        m_headerSeen = true;
        if (!isCsvHeader(line)) {
            errors.push_back(std::to_string(number) +
                                      ": expected the header time,address,pid or time,address,pid,host");
            // The rows are still read, in that column order, the host optional.
            m_withHost = true;
            return false;
        }
        m_withHost = m_cols.size() == 4;
        return false;
    }

    s.line = number;
    if (format == SamplesFormat::Perf && CommonPerfLine(line).parse(s))
        return true;
    const std::string error = format == SamplesFormat::Csv ? parseCsvRow(line, s) : parsePerfLine(line, s);
    if (error.empty())
        return true;
    errors.push_back(std::to_string(number) + ": " + error);
    return false;
}

bool parseDecimal(std::string_view text, uint64_t& value) {
    return parseInBase(text, 10, value);
}

bool parsePid(std::string_view text, unsigned& pid) {
    uint64_t v = 0;
    if (!parseDecimal(text, v) || v > std::numeric_limits<unsigned>::max())
        return false;
    pid = static_cast<unsigned>(v);
    return true;
}

bool parseHex(std::string_view text, uint64_t& value) {
    return parseInBase(text, 16, value);
}

bool parseAddress(std::string_view text, uint64_t& value) {
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        return parseHex(text.substr(2), value);
    return parseDecimal(text, value);
}

bool parsePerfTime(std::string_view text, uint64_t& nanoseconds) {
    const size_t dot = text.find('.');
    const std::string_view sec = text.substr(0, dot);
    const std::string_view frac = dot == std::string_view::npos ? std::string_view() : text.substr(dot + 1);
    if (frac.size() > 9)
        return false;
    uint64_t s = 0, ns = 0;
    if (!parseDecimal(sec, s) || (!frac.empty() && !parseDecimal(frac, ns)))
        return false;
    for (size_t digits = frac.size(); digits < 9; ++digits)
        ns *= 10;
    return !__builtin_mul_overflow(s, uint64_t(1000000000), &s) && !__builtin_add_overflow(s, ns, &nanoseconds);
}


namespace {

constexpr size_t kReadBlock = size_t(1) << 16;

} // namespace

SampleReader::SampleReader(std::istream& in, SamplesFormat format)
    : m_parser(new LineParser(format)), m_in(in), m_block(new char[kReadBlock]), m_capacity(kReadBlock) {
    // The size, when the input has one, is only for progress.
    const std::istream::pos_type start = in.tellg();
    if (start != std::istream::pos_type(-1) && in.seekg(0, std::ios::end)) {
        const std::istream::pos_type end = in.tellg();
        in.seekg(start);
        if (end != std::istream::pos_type(-1) && end > start)
            m_totalBytes = static_cast<uint64_t>(end - start);
    }
    in.clear();
}

SampleReader::~SampleReader() = default;

SamplesFormat SampleReader::format() const {
    return m_parser->format == SamplesFormat::Auto ? SamplesFormat::Csv : m_parser->format;
}

const std::vector<std::string>& SampleReader::errors() const {
    return m_parser->errors;
}

// The next line without its newline, viewed in the block: valid until the next call.
bool SampleReader::nextLine(std::string_view& line) {
    for (;;) {
        const char* const begin = m_block.get() + m_begin;
        if (const void* nl = std::memchr(begin, '\n', m_end - m_begin)) {
            const size_t length = static_cast<size_t>(static_cast<const char*>(nl) - begin);
            line = std::string_view(begin, length);
            m_begin += length + 1;
            return true;
        }
        if (m_inputDone) {
            if (m_begin == m_end)
                return false;
            line = std::string_view(begin, m_end - m_begin); // the last line has no newline
            m_begin = m_end;
            return true;
        }
        // The partial line moves to the front; a line longer than the block grows it.
        const size_t partial = m_end - m_begin;
        if (partial == m_capacity) {
            std::unique_ptr<char[]> larger(new char[m_capacity * 2]);
            std::memcpy(larger.get(), m_block.get(), partial);
            m_block = std::move(larger);
            m_capacity *= 2;
        } else if (m_begin != 0) {
            std::memmove(m_block.get(), begin, partial);
        }
        m_begin = 0;
        m_end = partial;
        m_in.read(m_block.get() + m_end, static_cast<std::streamsize>(m_capacity - m_end));
        const size_t got = static_cast<size_t>(m_in.gcount());
        m_end += got;
        m_bytesRead += got;
        if (got == 0 || !m_in)
            m_inputDone = true;
    }
}

bool SampleReader::next(Sample& sample) {
    std::string_view line;
    while (nextLine(line))
        if (m_parser->line(++m_lineNumber, line, sample))
            return true;
    return false;
}

} // namespace quarvel_jit

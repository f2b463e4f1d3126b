#include "samples.h"

#include <algorithm>
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

unsigned digitValue(char c) {
    if (c >= '0' && c <= '9')
        return static_cast<unsigned>(c - '0');
    if (c >= 'a' && c <= 'f')
        return static_cast<unsigned>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F')
        return static_cast<unsigned>(c - 'A' + 10);
    return 16;
}

// This runs for every digit of millions of samples. Up to 19 decimal or 16
// hex digits cannot overflow 64 bits, so only longer numbers pay for the
// overflow check (made without a division).
bool parseInBase(std::string_view text, unsigned base, uint64_t& value) {
    if (text.empty())
        return false;
    const bool mayOverflow = text.size() > (base == 10 ? 19u : 16u);
    uint64_t v = 0;
    for (const char c : text) {
        const unsigned digit = digitValue(c);
        if (digit >= base)
            return false;
        if (!mayOverflow)
            v = v * base + digit;
        else if (__builtin_mul_overflow(v, uint64_t(base), &v) || __builtin_add_overflow(v, digit, &v))
            return false;
    }
    value = v;
    return true;
}

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

class Reader {
public:
    Reader(SamplesFormat format, size_t expected) {
        m_result.format = format;
        m_result.samples.reserve(expected);
    }

    void line(size_t number, std::string_view raw);
    SampleInput finish();

private:
    std::string parseCsvRow(std::string_view line, Sample& s);
    std::string parsePerfLine(std::string_view line, Sample& s) const;
    bool isCsvHeader(std::string_view line);

    SampleInput m_result;
    bool m_withHost = false;
    bool m_headerSeen = false;
    std::vector<std::string_view> m_cols;
};

bool Reader::isCsvHeader(std::string_view line) {
    split(line, ',', m_cols);
    const std::vector<std::string_view>& cols = m_cols;
    return (cols.size() == 3 || cols.size() == 4) && cols[0] == "time" && cols[1] == "address" && cols[2] == "pid" &&
           (cols.size() == 3 || cols[3] == "host");
}

// One CSV row; the error text when it is bad.
std::string Reader::parseCsvRow(std::string_view line, Sample& s) {
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
    s.host = m_withHost && cols.size() > 3 ? std::string(cols[3]) : std::string();
    return std::string();
}

// "  4242 785.213867049:   7f12abcd1234" (pid, time, ip; anything after the ip is ignored).
std::string Reader::parsePerfLine(std::string_view line, Sample& s) const {
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

void Reader::line(size_t number, std::string_view raw) {
    const std::string_view line = trim(raw);
    if (line.empty() || line[0] == '#')
        return;
    if (m_result.format == SamplesFormat::Auto)
        m_result.format = line.substr(0, 5) == "time," ? SamplesFormat::Csv : SamplesFormat::Perf;

    if (m_result.format == SamplesFormat::Csv && !m_headerSeen) {
        m_headerSeen = true;
        if (!isCsvHeader(line)) {
            m_result.errors.push_back(std::to_string(number) +
                                      ": expected the header time,address,pid or time,address,pid,host");
            // The rows are still read, in that column order, the host optional.
            m_withHost = true;
            return;
        }
        m_withHost = m_cols.size() == 4;
        return;
    }

    Sample& s = m_result.samples.emplace_back();
    s.line = number;
    const std::string error =
        m_result.format == SamplesFormat::Csv ? parseCsvRow(line, s) : parsePerfLine(line, s);
    if (!error.empty()) {
        m_result.samples.pop_back();
        m_result.errors.push_back(std::to_string(number) + ": " + error);
    }
}

SampleInput Reader::finish() {
    if (m_result.format == SamplesFormat::Auto)
        m_result.format = SamplesFormat::Csv;
    return std::move(m_result);
}

} // namespace

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

SampleInput readSamples(std::string_view text, SamplesFormat format) {
    // About one sample per line: the lines are counted so that the samples
    // are stored once, without regrowing. A sample line as perf prints it
    // takes some 40 bytes; lines far shorter (a file of empty lines) reserve
    // no more than a sixteenth of the text's size in samples.
    size_t lines = 1;
    for (const char* at = text.data(); (at = static_cast<const char*>(
                                            std::memchr(at, '\n', static_cast<size_t>(text.data() + text.size() - at))));
         ++at)
        ++lines;
    Reader reader(format, std::min(lines, text.size() / 16 + 1));
    size_t number = 1;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        reader.line(number++, text.substr(0, end));
        if (end == std::string_view::npos)
            break;
        text.remove_prefix(end + 1);
    }
    return reader.finish();
}

SampleInput readSamples(std::istream& in, SamplesFormat format) {
    // A file's size is known: read in one go. A pipe is read in blocks.
    std::string text;
    const std::istream::pos_type start = in.tellg();
    if (start != std::istream::pos_type(-1) && in.seekg(0, std::ios::end)) {
        const std::istream::pos_type end = in.tellg();
        in.seekg(start);
        if (end != std::istream::pos_type(-1) && end > start)
            text.reserve(static_cast<size_t>(end - start));
    }
    in.clear();
    char block[1 << 16];
    while (in.read(block, sizeof block) || in.gcount() > 0)
        text.append(block, static_cast<size_t>(in.gcount()));
    return readSamples(std::string_view(text), format);
}

} // namespace quarvel_jit

#include "samples.h"

#include <cctype>
#include <limits>
#include <sstream>

namespace quarvel_jit {

namespace {

std::string trim(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b])))
        ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1])))
        --e;
    return s.substr(b, e - b);
}

std::vector<std::string> split(const std::string& s, char sep) {
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        const size_t at = s.find(sep, start);
        out.push_back(trim(s.substr(start, at == std::string::npos ? std::string::npos : at - start)));
        if (at == std::string::npos)
            return out;
        start = at + 1;
    }
}

bool accumulate(uint64_t& value, unsigned base, unsigned digit) {
    if (value > (std::numeric_limits<uint64_t>::max() - digit) / base)
        return false;
    value = value * base + digit;
    return true;
}

bool parseInBase(const std::string& text, unsigned base, uint64_t& value) {
    if (text.empty())
        return false;
    uint64_t v = 0;
    for (char c : text) {
        unsigned digit;
        if (c >= '0' && c <= '9')
            digit = static_cast<unsigned>(c - '0');
        else if (base == 16 && c >= 'a' && c <= 'f')
            digit = static_cast<unsigned>(c - 'a' + 10);
        else if (base == 16 && c >= 'A' && c <= 'F')
            digit = static_cast<unsigned>(c - 'A' + 10);
        else
            return false;
        if (!accumulate(v, base, digit))
            return false;
    }
    value = v;
    return true;
}

bool parsePid(const std::string& text, unsigned& pid) {
    uint64_t v = 0;
    if (!parseDecimal(text, v) || v > std::numeric_limits<unsigned>::max())
        return false;
    pid = static_cast<unsigned>(v);
    return true;
}

bool isCsvHeader(const std::string& line) {
    const std::vector<std::string> cols = split(line, ',');
    return (cols.size() == 3 || cols.size() == 4) && cols[0] == "time" && cols[1] == "address" && cols[2] == "pid" &&
           (cols.size() == 3 || cols[3] == "host");
}

// One CSV row; the error text when it is bad.
std::string parseCsvRow(const std::string& line, bool withHost, Sample& s) {
    const std::vector<std::string> cols = split(line, ',');
    const size_t want = withHost ? 4 : 3;
    // A trailing empty host column is allowed in a 3-column file too.
    if (cols.size() != want && !(cols.size() == want + 1 && cols.back().empty()) && !(withHost && cols.size() == 3)) {
        std::ostringstream os;
        os << "expected " << want << " columns (time,address,pid" << (withHost ? ",host" : "") << "), found "
           << cols.size();
        return os.str();
    }
    if (!parseDecimal(cols[0], s.time))
        return "bad time '" + cols[0] + "' (a decimal integer)";
    if (!parseAddress(cols[1], s.address))
        return "bad address '" + cols[1] + "' (hex with 0x, or decimal)";
    if (!parsePid(cols[2], s.pid))
        return "bad pid '" + cols[2] + "'";
    s.host = withHost && cols.size() > 3 ? cols[3] : std::string();
    return std::string();
}

// "  4242 785.213867049:   7f12abcd1234" (pid, time, ip; anything after the ip is ignored).
std::string parsePerfLine(const std::string& line, Sample& s) {
    std::istringstream in(line);
    std::string pid, time, ip;
    if (!(in >> pid >> time >> ip))
        return "expected 'pid time: ip'";
    // perf writes pid/tid when asked for both; the pid is what we need.
    const size_t slash = pid.find('/');
    if (slash != std::string::npos)
        pid.erase(slash);
    if (!parsePid(pid, s.pid))
        return "bad pid '" + pid + "'";
    if (time.empty() || time.back() != ':')
        return "bad time '" + time + "' (sec.nanosec followed by ':')";
    time.pop_back();
    if (!parsePerfTime(time, s.time))
        return "bad time '" + time + "' (sec.nanosec)";
    if (ip.size() > 2 && ip[0] == '0' && (ip[1] == 'x' || ip[1] == 'X'))
        ip.erase(0, 2);
    if (!parseHex(ip, s.address))
        return "bad ip '" + ip + "' (hex)";
    s.host.clear();
    return std::string();
}

} // namespace

bool parseDecimal(const std::string& text, uint64_t& value) {
    return parseInBase(text, 10, value);
}

bool parseHex(const std::string& text, uint64_t& value) {
    return parseInBase(text, 16, value);
}

bool parseAddress(const std::string& text, uint64_t& value) {
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        return parseHex(text.substr(2), value);
    return parseDecimal(text, value);
}

bool parsePerfTime(const std::string& text, uint64_t& nanoseconds) {
    const size_t dot = text.find('.');
    const std::string sec = text.substr(0, dot);
    std::string frac = dot == std::string::npos ? std::string() : text.substr(dot + 1);
    if (frac.size() > 9)
        return false;
    frac.append(9 - frac.size(), '0');
    uint64_t s = 0, ns = 0;
    if (!parseDecimal(sec, s) || !parseDecimal(frac, ns))
        return false;
    if (s > (std::numeric_limits<uint64_t>::max() - ns) / 1000000000u)
        return false;
    nanoseconds = s * 1000000000u + ns;
    return true;
}

SampleInput readSamples(std::istream& in, SamplesFormat format) {
    SampleInput result;
    result.format = format;
    bool withHost = false;
    bool headerSeen = false;
    std::string raw;
    for (size_t number = 1; std::getline(in, raw); ++number) {
        const std::string line = trim(raw);
        if (line.empty() || line[0] == '#')
            continue;
        if (result.format == SamplesFormat::Auto)
            result.format = line.compare(0, 5, "time,") == 0 ? SamplesFormat::Csv : SamplesFormat::Perf;

        if (result.format == SamplesFormat::Csv && !headerSeen) {
            headerSeen = true;
            if (!isCsvHeader(line)) {
                result.errors.push_back(std::to_string(number) +
                                        ": expected the header time,address,pid or time,address,pid,host");
                // The rows are still read, in that column order, the host optional.
                withHost = true;
                continue;
            }
            withHost = split(line, ',').size() == 4;
            continue;
        }

        Sample s;
        s.line = number;
        const std::string error =
            result.format == SamplesFormat::Csv ? parseCsvRow(line, withHost, s) : parsePerfLine(line, s);
        if (!error.empty()) {
            result.errors.push_back(std::to_string(number) + ": " + error);
            continue;
        }
        result.samples.push_back(std::move(s));
    }
    if (result.format == SamplesFormat::Auto)
        result.format = SamplesFormat::Csv;
    return result;
}

} // namespace quarvel_jit

#include "stack_reader.h"

#include "samples.h"

#include <cctype>
#include <limits>

namespace quarvel_jit {

namespace {

std::string trimmed(const std::string& s, size_t from = 0, size_t to = std::string::npos) {
    size_t b = from, e = std::min(to, s.size());
    while (b < e && isSpace(s[b]))
        ++b;
    while (e > b && isSpace(s[e - 1]))
        --e;
    return s.substr(b, e - b);
}

// Whitespace-separated tokens with where each starts and ends.
struct Token {
    size_t begin;
    size_t end;
};

std::vector<Token> tokens(const std::string& s) {
    std::vector<Token> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && isSpace(s[i]))
            ++i;
        if (i == s.size())
            break;
        const size_t b = i;
        while (i < s.size() && !isSpace(s[i]))
            ++i;
        out.push_back({b, i});
    }
    return out;
}

bool isIdentifier(const std::string& s) {
    if (s.empty())
        return false;
    for (char c : s)
        if (!(std::islower(static_cast<unsigned char>(c)) || c == '_'))
            return false;
    return true;
}

std::vector<std::string> splitCsv(const std::string& s) {
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        const size_t at = s.find(',', start);
        out.push_back(trimmed(s, start, at));
        if (at == std::string::npos)
            return out;
        start = at + 1;
    }
}

bool looksLikeCsvHeader(const std::string& line) {
    const std::vector<std::string> names = splitCsv(line);
    if (names.size() < 3)
        return false;
    for (const std::string& n : names)
        if (!isIdentifier(n))
            return false;
    return true;
}

// "pid[/tid] time: [event:] [ip [sym] [(dso)]]", with anything before the pid
// (the command name, which may hold spaces) passed over. The error text when bad.
std::string parsePerfHeader(const std::string& line, StackSample& s, bool& oneLine) {
    const std::vector<Token> t = tokens(line);
    size_t timeAt = t.size();
    for (size_t i = 1; i < t.size(); ++i) {
        const Token& k = t[i];
        if (line[k.end - 1] != ':')
            continue;
        uint64_t ns = 0;
        if (parsePerfTime(line.substr(k.begin, k.end - 1 - k.begin), ns)) {
            s.time = ns;
            timeAt = i;
            break;
        }
    }
    if (timeAt == t.size())
        return "expected 'pid[/tid] sec.nsec:' to start a sample";
    std::string pid = line.substr(t[timeAt - 1].begin, t[timeAt - 1].end - t[timeAt - 1].begin);
    s.hasTid = false;
    const size_t slash = pid.find('/');
    if (slash != std::string::npos) {
        if (!parsePid(pid.substr(slash + 1), s.tid))
            return "bad tid in '" + pid + "'";
        s.hasTid = true;
        pid.erase(slash);
    }
    if (!parsePid(pid, s.pid))
        return "bad pid '" + pid + "'";

    // Event names end with ':' as well; the ip, when there is one, follows them.
    size_t i = timeAt + 1;
    while (i < t.size() && line[t[i].end - 1] == ':')
        ++i;
    oneLine = i < t.size();
    if (oneLine) {
        RawFrame f;
        if (!parsePerfFrame(line.substr(t[i].begin), f))
            return "bad ip '" + line.substr(t[i].begin, t[i].end - t[i].begin) + "' (hex)";
        s.frames.push_back(std::move(f));
    }
    return std::string();
}

} // namespace

bool parsePerfFrame(const std::string& line, RawFrame& frame) {
    // Positions in the line, so that a frame costs no copies beyond its names.
    size_t begin = 0, end = line.size();
    while (begin < end && isSpace(line[begin]))
        ++begin;
    while (end > begin && isSpace(line[end - 1]))
        --end;
    size_t ipEnd = begin;
    while (ipEnd < end && !isSpace(line[ipEnd]))
        ++ipEnd;
    size_t ipBegin = begin;
    if (ipEnd - ipBegin > 2 && line[ipBegin] == '0' && (line[ipBegin + 1] == 'x' || line[ipBegin + 1] == 'X'))
        ipBegin += 2;
    if (ipBegin == ipEnd || ipEnd - ipBegin > 16)
        return false;
    uint64_t address = 0;
    for (size_t i = ipBegin; i < ipEnd; ++i) {
        const char c = line[i];
        const int digit = c >= '0' && c <= '9'   ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : -1;
        if (digit < 0)
            return false;
        address = address << 4 | static_cast<uint64_t>(digit);
    }
    frame.address = address;
    frame.module.clear();
    size_t symEnd = end;
    if (symEnd > ipEnd && line[end - 1] == ')') {
        // The module is the last balanced parenthesised group, preceded by a space.
        int depth = 0;
        for (size_t i = end; i-- > ipEnd;) {
            if (line[i] == ')')
                ++depth;
            else if (line[i] == '(' && --depth == 0) {
                if (i > ipEnd && isSpace(line[i - 1])) {
                    frame.module.assign(line, i + 1, end - i - 2);
                    symEnd = i;
                }
                break;
            }
        }
    }
    size_t symBegin = ipEnd;
    while (symBegin < symEnd && isSpace(line[symBegin]))
        ++symBegin;
    while (symEnd > symBegin && isSpace(line[symEnd - 1]))
        --symEnd;
    frame.symbol.assign(line, symBegin, symEnd - symBegin);
    return true;
}

StackReader::StackReader(std::istream& in, StackFormat format) : m_in(in), m_format(format) {}

void StackReader::error(size_t line, const std::string& what) {
    if (m_stats.errors.size() < kMaxErrors)
        m_stats.errors.push_back(std::to_string(line) + ": " + what);
}

bool StackReader::readLine() {
    if (m_pendingLine) {
        m_pendingLine = false;
        return true;
    }
    if (!std::getline(m_in, m_line))
        return false;
    ++m_lineNumber;
    m_lineComplete = !m_in.eof();
    if (!m_line.empty() && m_line.back() == '\r')
        m_line.pop_back();
    return true;
}

bool StackReader::next(StackSample& sample) {
    if (m_format == StackFormat::Auto) {
        // The first line that says something decides.
        while (readLine()) {
            const std::string line = trimmed(m_line);
            if (line.empty() || line[0] == '#')
                continue;
            m_format = looksLikeCsvHeader(line) ? StackFormat::Csv : StackFormat::Perf;
            m_pendingLine = true;
            break;
        }
        if (m_format == StackFormat::Auto)
            return false;
    }
    return m_format == StackFormat::Csv ? nextCsv(sample) : nextPerf(sample);
}

bool StackReader::finishPerfSample(StackSample& out, bool truncated) {
    const bool wasOpen = m_open;
    m_open = false;
    if (!wasOpen || m_bad)
        return false;
    if (truncated) {
        ++m_stats.truncatedSamples;
        error(m_current.line, "the input ends inside this sample; it is left out");
        return false;
    }
    if (m_current.frames.empty()) {
        ++m_stats.malformedLines;
        ++m_stats.droppedSamples;
        error(m_current.line, "a sample without frames");
        return false;
    }
    ++m_stats.samples;
    std::swap(out, m_current);
    return true;
}

void StackReader::dropPerfSample(const std::string& what) {
    ++m_stats.malformedLines;
    ++m_stats.droppedSamples;
    error(m_lineNumber, what);
    m_bad = true;
}

bool StackReader::nextPerf(StackSample& out) {
    while (readLine()) {
        const size_t first = m_line.find_first_not_of(" \t\r\v\f");
        if (first == std::string::npos) {
            if (finishPerfSample(out, false))
                return true;
            continue;
        }
        if (m_line[first] == '#' && !m_open)
            continue;
        RawFrame frame;
        // Frames are indented with a tab: no need to try them as a header.
        if (m_open && m_line[0] == '\t') {
            if (m_bad)
                continue;
            if (!parsePerfFrame(m_line, frame)) {
                dropPerfSample("expected a frame 'ip symbol (module)', found '" + trimmed(m_line) + "'");
                continue;
            }
            m_current.frames.push_back(std::move(frame));
            if (!m_lineComplete) // the input stops in the middle of this line
                return finishPerfSample(out, true);
            continue;
        }

        StackSample header;
        header.line = m_lineNumber;
        bool oneLine = false;
        const std::string bad = parsePerfHeader(m_line, header, oneLine);
        if (!bad.empty() && m_open) {
            // A frame whose tab was lost on the way, or a damaged line.
            if (m_bad)
                continue;
            if (parsePerfFrame(m_line, frame)) {
                m_current.frames.push_back(std::move(frame));
                if (!m_lineComplete)
                    return finishPerfSample(out, true);
            } else {
                dropPerfSample(bad);
            }
            continue;
        }
        if (m_open) {
            // A header ends the sample before it; this line is read again next time.
            m_pendingLine = true;
            if (finishPerfSample(out, false))
                return true;
            m_pendingLine = false;
        }
        m_open = true;
        m_bad = false;
        m_current = std::move(header);
        if (!bad.empty()) {
            // Its frame lines, if any, go with it.
            dropPerfSample(m_line[0] == '\t' ? "frames without a sample header before them" : bad);
            continue;
        }
        if (oneLine && finishPerfSample(out, !m_lineComplete)) // the line may be cut inside the ip
            return true;
    }
    // At the end of the input a sample with frame lines was never closed by
    // its empty line: it may have lost frames.
    return finishPerfSample(out, true);
}

bool StackReader::readCsvHeader() {
    while (readLine()) {
        const std::string line = trimmed(m_line);
        if (line.empty() || line[0] == '#')
            continue;
        m_csvHeaderDone = true;
        const std::vector<std::string> names = splitCsv(line);
        m_columns = names.size();
        for (size_t i = 0; i < names.size(); ++i) {
            const int col = static_cast<int>(i);
            int* slot = names[i] == "time"      ? &m_colTime
                        : names[i] == "address" ? &m_colAddress
                        : names[i] == "pid"     ? &m_colPid
                        : names[i] == "tid"     ? &m_colTid
                        : names[i] == "host"    ? &m_colHost
                        : names[i] == "stack"   ? &m_colStack
                                                : nullptr;
            if (!slot) {
                error(m_lineNumber, "unknown column '" + names[i] + "' is ignored");
                continue;
            }
            *slot = col;
        }
        if (m_colTime < 0 || m_colAddress < 0 || m_colPid < 0) {
            ++m_stats.malformedLines;
            error(m_lineNumber, "the header must name the columns time, address and pid (and may name host, tid, "
                                "stack)");
            return false;
        }
        return true;
    }
    return false;
}

std::string StackReader::parseCsvRow(StackSample& s) const {
    const std::vector<std::string> cols = splitCsv(m_line);
    if (cols.size() != m_columns && !(cols.size() == m_columns + 1 && cols.back().empty()))
        return "expected " + std::to_string(m_columns) + " columns, found " + std::to_string(cols.size());
    if (!parseDecimal(cols[m_colTime], s.time))
        return "bad time '" + cols[m_colTime] + "' (a decimal integer)";
    RawFrame leaf;
    if (!parseAddress(cols[m_colAddress], leaf.address))
        return "bad address '" + cols[m_colAddress] + "' (hex with 0x, or decimal)";
    if (!parsePid(cols[m_colPid], s.pid))
        return "bad pid '" + cols[m_colPid] + "'";
    s.hasTid = m_colTid >= 0 && !cols[m_colTid].empty();
    if (s.hasTid && !parsePid(cols[m_colTid], s.tid))
        return "bad tid '" + cols[m_colTid] + "'";
    s.host = m_colHost >= 0 ? cols[m_colHost] : std::string();
    s.frames.push_back(std::move(leaf));
    if (m_colStack >= 0 && !cols[m_colStack].empty()) {
        const std::string& stack = cols[m_colStack];
        size_t start = 0;
        for (;;) {
            const size_t at = stack.find(';', start);
            const std::string item = trimmed(stack, start, at);
            RawFrame f;
            if (!parseAddress(item, f.address))
                return "bad return address '" + item + "' in the stack (hex with 0x, or decimal)";
            s.frames.push_back(std::move(f));
            if (at == std::string::npos)
                break;
            start = at + 1;
        }
    }
    return std::string();
}

bool StackReader::nextCsv(StackSample& sample) {
    if (!m_csvHeaderDone && !readCsvHeader())
        return false;
    if (m_colTime < 0 || m_colAddress < 0 || m_colPid < 0)
        return false;
    while (readLine()) {
        const std::string line = trimmed(m_line);
        if (line.empty() || line[0] == '#')
            continue;
        sample = StackSample();
        sample.line = m_lineNumber;
        std::string bad = parseCsvRow(sample);
        if (bad.empty() && !m_lineComplete)
            bad = "the input ends inside this row";
        if (!bad.empty()) {
            if (!m_lineComplete) {
                ++m_stats.truncatedSamples;
            } else {
                ++m_stats.malformedLines;
                ++m_stats.droppedSamples;
            }
            error(m_lineNumber, bad);
            continue;
        }
        ++m_stats.samples;
        return true;
    }
    return false;
}

} // namespace quarvel_jit

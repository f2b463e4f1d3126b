#include "format/perf_map_reader.h"

#include "format/pid_file_name.h"

#include "support/byte_cursor.h"

#include <algorithm>
#include <cstring>
#include <limits>

QUARVEL_NAMESPACE_BEGIN

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

void skipBlanks(std::string_view line, size_t& i) {
    while (i < line.size() && isBlank(line[i]))
        ++i;
}

bool allBlank(std::string_view line) {
    return std::all_of(line.begin(), line.end(), [](char c) { return isBlank(c) || c == '\r'; });
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The token at i, cut short and with bytes that are not printable shown as '?', for messages.
std::string quoted(std::string_view line, size_t i) {
    const size_t kShown = 32;
    std::string text = "'";
    size_t n = 0;
    for (; i < line.size() && !isBlank(line[i]) && n < kShown; ++i, ++n)
        text += (line[i] >= 0x20 && line[i] < 0x7F) ? line[i] : '?';
    text += (i < line.size() && !isBlank(line[i])) ? "...'" : "'";
    return text;
}

// A hexadecimal number of 1 to 16 digits, "0x" optional, ending at a blank or the line's end.
bool parseHex(std::string_view line, size_t& i, uint64_t& value, const char* field, std::string& why) {
    const size_t start = i;
    if (i + 1 < line.size() && line[i] == '0' && (line[i + 1] == 'x' || line[i + 1] == 'X'))
        i += 2;
    const size_t digitsAt = i;
    value = 0;
    for (; i < line.size() && !isBlank(line[i]); ++i) {
        const int d = hexDigit(line[i]);
        if (d < 0 || i - digitsAt >= 16) {
            why = std::string(field) + " " + quoted(line, start) +
                  (d < 0 ? " is not hexadecimal" : " has more than 16 hexadecimal digits");
            return false;
        }
        value = value << 4 | static_cast<uint64_t>(d);
    }
    if (i == digitsAt) {
        why = i == line.size() && start == i ? std::string(field) + " is missing"
                                             : std::string(field) + " " + quoted(line, start) + " has no digits";
        return false;
    }
    return true;
}

} // namespace

bool PerfMapReader::parseLine(std::string_view line, PerfMapEntry& entry, std::string& why) {
    if (line.find('\0') != std::string_view::npos) {
        why = "the line holds a zero byte: not text";
        return false;
    }
    size_t i = 0;
    skipBlanks(line, i);
    if (!parseHex(line, i, entry.start, "START", why))
        return false;
    skipBlanks(line, i);
    if (!parseHex(line, i, entry.size, "SIZE", why))
        return false;
    skipBlanks(line, i);
    if (i == line.size()) {
        why = "no name after START and SIZE";
        return false;
    }
    if (entry.size > std::numeric_limits<uint64_t>::max() - entry.start) {
        why = "START + SIZE passes the end of the address space";
        return false;
    }
    entry.name = line.substr(i);
    return true;
}

bool PerfMapReader::pidFromFileName(const std::string& fileName, uint32_t& pid) {
    return parsePidFileName(fileName, "perf-", ".map", pid);
}

bool PerfMapReader::detect(const uint8_t* data, size_t size) {
    if (!data)
        return false;
    ByteCursor c(data, std::min(size, kDetectWindow));
    while (!c.atEnd()) {
        const void* end = std::memchr(c.data() + c.offset(), '\n', c.remaining());
        const size_t length =
            end ? static_cast<size_t>(static_cast<const uint8_t*>(end) - (c.data() + c.offset())) : c.remaining();
        const uint8_t* p = nullptr;
        c.bytes(length, p, "line");
        c.skip(end ? 1 : 0, "line end");
        std::string_view line(reinterpret_cast<const char*>(p), length);
        if (allBlank(line))
            continue;
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        PerfMapEntry entry;
        std::string why;
        return parseLine(line, entry, why);
    }
    return false;
}

Expected<PerfMapReader> PerfMapReader::open(const std::string& path) {
    Expected<std::shared_ptr<const MappedFile>> file = MappedFile::open(path);
    if (!file)
        return file.reason();
    const std::shared_ptr<const MappedFile> mapped = *file;
    return PerfMapReader(mapped, mapped->data(), mapped->size(), path);
}

PerfMapReader PerfMapReader::fromBytes(const uint8_t* data, size_t size, std::string name) {
    return PerfMapReader(nullptr, data, data ? size : 0, std::move(name));
}

void PerfMapReader::malformed(uint64_t offset, std::string why) {
    ++m_malformed;
    if (m_problems.size() < kKeptProblems)
        m_problems.push_back(
            {m_line,
             Reason::badInput(std::move(why)).inFile(m_path).at(offset).ofField("line " + std::to_string(m_line))});
}

bool PerfMapReader::next(PerfMapEntry& entry) {
    while (m_offset < m_size) {
        ByteCursor c(m_data + m_offset, m_size - static_cast<size_t>(m_offset), ByteCursor::Order::little, m_offset);
        const void* end = std::memchr(c.data(), '\n', c.remaining());
        const size_t length = end ? static_cast<size_t>(static_cast<const uint8_t*>(end) - c.data()) : c.remaining();
        const uint8_t* p = nullptr;
        c.bytes(length, p, "line");
        c.skip(end ? 1 : 0, "line end");
        const uint64_t lineOffset = m_offset;
        m_offset = c.fileOffset();
        ++m_line;
        m_endedMidLine = end == nullptr;
        if (length > kMaxLineLength) {
            malformed(lineOffset, "a line of " + std::to_string(length) + " bytes: longer than the " +
                                      std::to_string(kMaxLineLength) + " a line may take");
            continue;
        }
        std::string_view line(reinterpret_cast<const char*>(p), length);
        if (allBlank(line))
            continue;
        if (line.back() == '\r')
            line.remove_suffix(1);
        std::string why;
        if (!parseLine(line, entry, why)) {
            malformed(lineOffset, std::move(why));
            continue;
        }
        entry.line = m_line;
        entry.offset = lineOffset;
        return true;
    }
    return false;
}

QUARVEL_NAMESPACE_END

#ifndef QUARVEL_FORMAT_PERF_MAP_READER_H
#define QUARVEL_FORMAT_PERF_MAP_READER_H

// Reads a perf map one line at a time, forward, without copying it. Each line
// is "START SIZE name": START and SIZE hexadecimal, with or without "0x"; the
// name is the rest of the line. CRLF line ends and blank lines are taken in
// stride; a line of another shape is counted, remembered with its line number
// and reason (the first kKeptProblems of them), and skipped, so one bad line
// costs only itself.
//
//     auto reader = PerfMapReader::open(path);
//     PerfMapEntry entry;
//     while (reader->next(entry)) { ... }

#include "format/perf_map_records.h"
#include "support/mapped_file.h"
#include "support/result.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

class PerfMapReader {
public:
    // Longer lines are refused unread: no runtime writes names this long.
    static constexpr size_t kMaxLineLength = 64 * 1024;
    static constexpr size_t kKeptProblems = 100;
    // How far detect() looks for the first line.
    static constexpr size_t kDetectWindow = 4096;

    // Whether bytes that start a file are a perf map's: text whose first
    // non-blank line has the shape of an entry (a line the window cuts counts
    // when what it shows has that shape).
    static bool detect(const uint8_t* data, size_t size);
    // The pid of a file named "perf-<pid>.map" (a name without its directory).
    static bool pidFromFileName(const std::string& fileName, uint32_t& pid);

    static Expected<PerfMapReader> open(const std::string& path);
    // Over bytes the caller keeps alive as long as the reader and its entries.
    static PerfMapReader fromBytes(const uint8_t* data, size_t size, std::string name);

    // The next well-formed line; false at the end of the file.
    bool next(PerfMapEntry& entry);

    const std::string& path() const { return m_path; }
    uint64_t linesRead() const { return m_line; }
    // Where the next line starts: the bytes read so far.
    uint64_t position() const { return m_offset; }
    uint64_t malformedLines() const { return m_malformed; }
    // The first kKeptProblems malformed lines.
    const std::vector<PerfMapProblem>& problems() const { return m_problems; }
    // The last line had no line end (the writer may have been stopped mid-line).
    bool endedMidLine() const { return m_endedMidLine; }

    // Parses one line without its line end; the reason of a malformed one in `why`.
    static bool parseLine(std::string_view line, PerfMapEntry& entry, std::string& why);

private:
    PerfMapReader(std::shared_ptr<const MappedFile> file, const uint8_t* data, size_t size, std::string path)
        : m_file(std::move(file)), m_data(data), m_size(size), m_path(std::move(path)) {}

    void malformed(uint64_t offset, std::string why);

    std::shared_ptr<const MappedFile> m_file; // null when reading the caller's bytes
    const uint8_t* m_data;
    size_t m_size;
    std::string m_path;
    uint64_t m_offset = 0;
    uint64_t m_line = 0;
    uint64_t m_malformed = 0;
    bool m_endedMidLine = false;
    std::vector<PerfMapProblem> m_problems;
};

QUARVEL_NAMESPACE_END

#endif

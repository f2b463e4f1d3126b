#ifndef QUARVEL_TESTS_TRACE_BUILDER_H
#define QUARVEL_TESTS_TRACE_BUILDER_H

// Test fixtures are built in code: a fluent layer over the public trace
// encoders that collects records in memory and writes them to files.

#include <quarvel/jittrace_writer.h>

#include <cstdint>
#include <string>
#include <vector>

namespace quarvel_test {

using quarvel_3_13::TraceCodeRegion;
using quarvel_3_13::TraceInlineLoad;
using quarvel_3_13::TraceLineTables;
using quarvel_3_13::TraceMethodLoad;
using quarvel_3_13::TraceMethodTail;
using quarvel_3_13::TraceRuntimeInfo;
using quarvel_3_13::TraceUpdateV2;

class TraceBuilder {
public:
    TraceBuilder& magic(uint32_t value = 0);
    TraceBuilder& collector(uint32_t type);
    TraceBuilder& load(int version, const TraceMethodLoad& load, bool is64 = true);
    TraceBuilder& update(const TraceMethodLoad& update);
    TraceBuilder& inlineLoad(const TraceInlineLoad& load, bool is64 = true);
    TraceBuilder& updateV2(const TraceUpdateV2& update);
    TraceBuilder& runtimeInfo(const TraceRuntimeInfo& info);
    // A sized record with any body, and a value record of any type.
    TraceBuilder& sized(uint32_t type, const std::vector<uint8_t>& body);
    TraceBuilder& value(uint32_t type, uint32_t value);
    TraceBuilder& raw(const std::vector<uint8_t>& bytes);

    const std::vector<uint8_t>& bytes() const { return m_bytes; }
    // File offsets at which each record starts.
    const std::vector<size_t>& recordStarts() const { return m_starts; }
    // Writes the bytes (the first `length` of them when given); returns path.
    std::string writeTo(const std::string& path, size_t length = SIZE_MAX) const;

private:
    TraceBuilder& append(const std::vector<uint8_t>& record);
    std::vector<uint8_t> m_bytes;
    std::vector<size_t> m_starts;
};

// A fresh directory, removed with everything in it when the object dies.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// A version 3-style load with one region of `size` bytes (0xCC filled) at `address`.
TraceMethodLoad makeLoad(uint32_t methodId, uint64_t loadTime, uint64_t address, uint32_t size,
                         const std::string& name = "method", const std::string& className = "Klass");
TraceInlineLoad makeInline(uint32_t methodId, uint32_t parentId, uint64_t loadTime, uint64_t address, uint32_t size,
                           const std::string& name = "inlined");

} // namespace quarvel_test

#endif

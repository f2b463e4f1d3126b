#ifndef QUARVEL_JIT_SAMPLE_CSV_WRITER_H
#define QUARVEL_JIT_SAMPLE_CSV_WRITER_H

// Resolved samples as CSV, one row per sample as it is resolved: profiles
// hold millions of samples, so rows are neither kept nor formatted field by
// field through the stream, but built in a buffer written out in large
// blocks. The columns are part of the tool's interface (docs/cli.md).

#include "report.h"

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>

namespace quarvel_jit {

class SampleCsvWriter {
public:
    // Writes the header row.
    explicit SampleCsvWriter(std::ostream& os);
    ~SampleCsvWriter() { flush(); }
    SampleCsvWriter(const SampleCsvWriter&) = delete;
    SampleCsvWriter& operator=(const SampleCsvWriter&) = delete;

    void add(const SampleResult& r);
    void flush();

private:
    char* field(char* at, const std::string& text);
    void put(const char* text, size_t n);
    // Room for n more bytes at m_used (flushing first when the block is full).
    char* room(size_t n);

    std::ostream& m_os;
    // A plain block written to directly: appending through std::string cost
    // more than formatting the numbers did.
    std::unique_ptr<char[]> m_block;
    size_t m_capacity = 0;
    size_t m_used = 0;
    std::string m_quoted; // scratch for the rare field that needs quotes
    std::string m_chain;  // scratch for the inline chain
};

} // namespace quarvel_jit

#endif

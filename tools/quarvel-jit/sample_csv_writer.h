#ifndef QUARVEL_JIT_SAMPLE_CSV_WRITER_H
#define QUARVEL_JIT_SAMPLE_CSV_WRITER_H

// Resolved samples as CSV, one row per sample as it is resolved: profiles
// hold millions of samples, so rows are neither kept nor formatted field by
// field through the stream, but built in a buffer written out in large
// blocks. The columns are part of the tool's interface (docs/cli.md).

#include "report.h"

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
    void field(const std::string& text);
    void number(uint64_t value);
    void hex(uint64_t value);

    std::ostream& m_os;
    std::string m_buffer;
};

} // namespace quarvel_jit

#endif

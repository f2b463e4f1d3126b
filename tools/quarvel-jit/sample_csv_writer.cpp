#include "sample_csv_writer.h"

#include "printer.h"

#include <charconv>
#include <cstring>

namespace quarvel_jit {

namespace {

constexpr size_t kBlock = 1 << 16;

} // namespace

SampleCsvWriter::SampleCsvWriter(std::ostream& os) : m_os(os), m_block(new char[kBlock]), m_capacity(kBlock) {
    static const char kHeader[] =
        "line,time,address,pid,host,status,jit_rva,method,module,source_file,source_line,inlined\n";
    put(kHeader, sizeof kHeader - 1);
}

void SampleCsvWriter::flush() {
    m_os.write(m_block.get(), static_cast<std::streamsize>(m_used));
    m_used = 0;
}

char* SampleCsvWriter::room(size_t n) {
    if (m_capacity - m_used < n) {
        flush();
        if (m_capacity < n) { // a field longer than a block
            m_block.reset(new char[n]);
            m_capacity = n;
        }
    }
    return m_block.get() + m_used;
}

void SampleCsvWriter::put(const char* text, size_t n) {
    std::memcpy(room(n), text, n);
    m_used += n;
}

void SampleCsvWriter::put(char c) {
    *room(1) = c;
    ++m_used;
}

void SampleCsvWriter::field(const std::string& text) {
    if (!needsCsvQuotes(text))
        return put(text.data(), text.size());
    m_quoted.clear();
    appendCsvField(m_quoted, text);
    put(m_quoted.data(), m_quoted.size());
}

void SampleCsvWriter::number(uint64_t value) {
    constexpr size_t kDigits = 20;
    char* at = room(kDigits);
    m_used = static_cast<size_t>(std::to_chars(at, at + kDigits, value).ptr - m_block.get());
}

void SampleCsvWriter::hex(uint64_t value) {
    constexpr size_t kDigits = 2 + 16;
    char* at = room(kDigits);
    at[0] = '0';
    at[1] = 'x';
    m_used = static_cast<size_t>(std::to_chars(at + 2, at + kDigits, value, 16).ptr - m_block.get());
}

void SampleCsvWriter::add(const SampleResult& r) {
    const bool ok = r.status == SampleStatus::Resolved;
    number(r.inputLine);
    put(',');
    number(r.time);
    put(',');
    hex(r.address);
    put(',');
    number(r.pid);
    put(',');
    field(r.host);
    put(',');
    const char* status = statusName(r.status);
    put(status, std::strlen(status));
    put(',');
    if (ok)
        hex(r.jitRva);
    put(',');
    if (ok)
        field(r.method.name);
    put(',');
    if (ok)
        field(r.module);
    put(',');
    if (ok)
        field(r.method.sourceFile);
    put(',');
    if (ok)
        number(r.method.line);
    put(',');
    // Innermost frame first, each "<-" leads to the code it was inlined into.
    std::string chain;
    for (const SourcePoint& p : r.inlined) {
        if (!chain.empty())
            chain += " <- ";
        chain += frameText(p);
    }
    field(chain);
    put('\n');
}

} // namespace quarvel_jit

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

namespace {

// Writers into room made beforehand: each returns the end of what it wrote.
char* plain(char* at, const char* text, size_t n) {
    std::memcpy(at, text, n);
    return at + n;
}

char* decimal(char* at, uint64_t value) {
    return std::to_chars(at, at + 20, value).ptr;
}

char* hexadecimal(char* at, uint64_t value) {
    *at++ = '0';
    *at++ = 'x';
    return std::to_chars(at, at + 16, value, 16).ptr;
}

} // namespace

// Fields that need quotes are made in a scratch string first; the rest go
// straight into the block.
char* SampleCsvWriter::field(char* at, const std::string& text) {
    if (!needsCsvQuotes(text))
        return plain(at, text.data(), text.size());
    m_quoted.clear();
    appendCsvField(m_quoted, text);
    return plain(at, m_quoted.data(), m_quoted.size());
}

// One check for room per row: the numbers take at most 20 characters each,
// and a quoted field at most twice its length plus its quotes.
void SampleCsvWriter::add(const SampleResult& r) {
    const bool ok = r.status == SampleStatus::Resolved;
    // Innermost frame first, each "<-" leads to the code it was inlined into.
    m_chain.clear();
    for (const SourcePoint& p : r.inlined) {
        if (!m_chain.empty())
            m_chain += " <- ";
        m_chain += frameText(p);
    }
    const char* status = statusName(r.status);
    const size_t statusLength = std::strlen(status);
    const auto quotedSize = [](const std::string& text) { return 2 * text.size() + 2; };
    size_t most = 7 * 20 + 12 + statusLength + quotedSize(r.host) + quotedSize(m_chain);
    if (ok)
        most += quotedSize(r.method.name) + quotedSize(r.module) + quotedSize(r.method.sourceFile);

    char* const first = room(most);
    char* at = first;
    at = decimal(at, r.inputLine);
    *at++ = ',';
    at = decimal(at, r.time);
    *at++ = ',';
    at = hexadecimal(at, r.address);
    *at++ = ',';
    at = decimal(at, r.pid);
    *at++ = ',';
    at = field(at, r.host);
    *at++ = ',';
    at = plain(at, status, statusLength);
    *at++ = ',';
    if (ok)
        at = hexadecimal(at, r.jitRva);
    *at++ = ',';
    if (ok)
        at = field(at, r.method.name);
    *at++ = ',';
    if (ok)
        at = field(at, r.module);
    *at++ = ',';
    if (ok)
        at = field(at, r.method.sourceFile);
    *at++ = ',';
    if (ok)
        at = decimal(at, r.method.line);
    *at++ = ',';
    at = field(at, m_chain);
    *at++ = '\n';
    m_used += static_cast<size_t>(at - first);
}

} // namespace quarvel_jit

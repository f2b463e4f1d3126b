#include "sample_csv_writer.h"

#include "printer.h"

#include <charconv>

namespace quarvel_jit {

namespace {

constexpr size_t kBlock = 1 << 16;

} // namespace

SampleCsvWriter::SampleCsvWriter(std::ostream& os) : m_os(os) {
    m_buffer.reserve(kBlock + 4096);
    m_buffer += "line,time,address,pid,host,status,jit_rva,method,module,source_file,source_line,inlined\n";
}

void SampleCsvWriter::flush() {
    m_os.write(m_buffer.data(), static_cast<std::streamsize>(m_buffer.size()));
    m_buffer.clear();
}

void SampleCsvWriter::field(const std::string& text) {
    appendCsvField(m_buffer, text);
}

void SampleCsvWriter::number(uint64_t value) {
    char text[24];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    m_buffer.append(text, end);
}

void SampleCsvWriter::hex(uint64_t value) {
    char text[24];
    const auto end = std::to_chars(text, text + sizeof text, value, 16).ptr;
    m_buffer += "0x";
    m_buffer.append(text, end);
}

void SampleCsvWriter::add(const SampleResult& r) {
    const bool ok = r.status == SampleStatus::Resolved;
    number(r.inputLine);
    m_buffer += ',';
    number(r.time);
    m_buffer += ',';
    hex(r.address);
    m_buffer += ',';
    number(r.pid);
    m_buffer += ',';
    field(r.host);
    m_buffer += ',';
    m_buffer += statusName(r.status);
    m_buffer += ',';
    if (ok)
        hex(r.jitRva);
    m_buffer += ',';
    if (ok)
        field(r.method.name);
    m_buffer += ',';
    if (ok)
        field(r.module);
    m_buffer += ',';
    if (ok)
        field(r.method.sourceFile);
    m_buffer += ',';
    if (ok)
        number(r.method.line);
    m_buffer += ',';
    // Innermost frame first, each "<-" leads to the code it was inlined into.
    std::string chain;
    for (const SourcePoint& p : r.inlined) {
        if (!chain.empty())
            chain += " <- ";
        chain += frameText(p);
    }
    field(chain);
    m_buffer += '\n';
    if (m_buffer.size() >= kBlock)
        flush();
}

} // namespace quarvel_jit

#include "dotnet/metadata_heaps.h"

#include "dotnet/compressed_integer.h"

#include <cstring>

QUARVEL_NAMESPACE_BEGIN

std::string guidText(const Guid& g) {
    // Data1, Data2 and Data3 are little-endian; Data4 is eight bytes as they come.
    static const char* const digits = "0123456789abcdef";
    static const int order[16] = {3, 2, 1, 0, -1, 5, 4, -1, 7, 6, -1, 8, 9, -1, 10, 11};
    std::string text;
    text.reserve(36);
    for (int i : order) {
        if (i < 0) {
            text += '-';
            continue;
        }
        text += digits[g[i] >> 4];
        text += digits[g[i] & 0xF];
    }
    for (int i = 12; i < 16; ++i) {
        text += digits[g[i] >> 4];
        text += digits[g[i] & 0xF];
    }
    return text;
}

MetadataHeaps::MetadataHeaps(const MetadataRoot& root, std::string fileName)
    : m_strings(root.stream("#Strings")), m_blobs(root.stream("#Blob")), m_guids(root.stream("#GUID")),
      m_fileName(std::move(fileName)) {}

Status MetadataHeaps::appendString(uint32_t index, std::string& out) const {
    if (index == 0 && m_strings.size() == 0)
        return Status::success();
    if (index >= m_strings.size())
        return Reason::badInput("string index " + std::to_string(index) + " lies past the end of #Strings (" +
                                std::to_string(m_strings.size()) + " bytes)")
            .inFile(m_fileName);
    ByteCursor c = m_strings;
    if (!c.seek(index, "string") || !c.appendCString(out, "string"))
        return Reason::badInput(c.error()).inFile(m_fileName);
    return Status::success();
}

Expected<ByteCursor> MetadataHeaps::blob(uint32_t index) const {
    if (index == 0 && m_blobs.size() == 0)
        return ByteCursor(nullptr, 0, ByteCursor::Order::little, m_blobs.fileOffset());
    ByteCursor c = m_blobs;
    uint32_t length = 0;
    if (!c.seek(index, "blob") || !readCompressedUnsigned(c, length, "blob length"))
        return Reason::badInput("blob index " + std::to_string(index) + ": " + c.error()).inFile(m_fileName);
    ByteCursor body = c.sub(length, "blob");
    if (!body)
        return Reason::badInput("blob index " + std::to_string(index) + ": " + body.error()).inFile(m_fileName);
    return body;
}

Status MetadataHeaps::guid(uint32_t index, Guid& out) const {
    if (index == 0) {
        out.fill(0);
        return Status::success();
    }
    ByteCursor c = m_guids;
    const uint8_t* bytes = nullptr;
    if (index > m_guids.size() / 16 || !c.seek((index - 1) * size_t(16), "GUID") || !c.bytes(16, bytes, "GUID"))
        return Reason::badInput("GUID index " + std::to_string(index) + " lies past the end of #GUID (" +
                                std::to_string(m_guids.size() / 16) + " entries)")
            .inFile(m_fileName);
    std::memcpy(out.data(), bytes, 16);
    return Status::success();
}

QUARVEL_NAMESPACE_END

#include "dotnet/metadata_root.h"

QUARVEL_NAMESPACE_BEGIN

namespace {

const size_t kMaxStreamName = 32;

} // namespace

Expected<MetadataRoot> MetadataRoot::parse(const ByteCursor& block, const std::string& fileName) {
    MetadataRoot root;
    root.m_block = block;
    ByteCursor c = block;
    const uint64_t at = c.fileOffset();
    uint32_t signature = 0;
    uint32_t versionLength = 0;
    if (!c.u32(signature, "metadata signature"))
        return Reason::badInput(c.error()).inFile(fileName);
    if (signature != kSignature)
        return Reason::badInput("no metadata signature BSJB (found " + std::to_string(signature) + ")")
            .inFile(fileName)
            .at(at);
    c.skip(8, "metadata version and reserved field");
    c.u32(versionLength, "metadata version length");
    const uint8_t* version = nullptr;
    c.bytes(versionLength, version, "metadata version string");
    uint16_t flags = 0;
    uint16_t streamCount = 0;
    c.u16(flags, "metadata flags");
    c.u16(streamCount, "metadata stream count");
    if (!c)
        return Reason::badInput(c.error()).inFile(fileName);
    root.m_version = ByteCursor::makeCountedString(version, versionLength);

    // A stream header takes at least 12 bytes.
    if (streamCount > c.remaining() / 12)
        return Reason::badInput(std::to_string(streamCount) + " stream headers do not fit in the metadata (" +
                                std::to_string(c.remaining()) + " bytes left)")
            .inFile(fileName)
            .at(c.fileOffset());
    root.m_streams.reserve(streamCount);
    for (uint16_t i = 0; i < streamCount; ++i) {
        MetadataStream s;
        const uint64_t headerAt = c.fileOffset();
        c.u32(s.offset, "stream offset");
        c.u32(s.size, "stream size");
        // The name is NUL-terminated and padded to a multiple of 4 bytes.
        const size_t nameStart = c.offset();
        if (!c.cString(s.name, "stream name"))
            return Reason::badInput(c.error()).inFile(fileName);
        if (s.name.size() >= kMaxStreamName)
            return Reason::badInput("stream name longer than 31 bytes").inFile(fileName).at(headerAt + 8);
        const size_t padded = (c.offset() - nameStart + 3) & ~size_t(3);
        c.seek(nameStart + padded, "stream name padding");
        if (!c)
            return Reason::badInput(c.error()).inFile(fileName);
        if (uint64_t(s.offset) + s.size > block.size())
            return Reason::badInput("stream " + s.name + " [" + std::to_string(s.offset) + ", +" +
                                    std::to_string(s.size) + ") runs past the end of the metadata (" +
                                    std::to_string(block.size()) + " bytes)")
                .inFile(fileName)
                .at(headerAt);
        root.m_streams.push_back(std::move(s));
    }
    return root;
}

bool MetadataRoot::has(const char* name) const {
    for (const MetadataStream& s : m_streams)
        if (s.name == name)
            return true;
    return false;
}

ByteCursor MetadataRoot::stream(const char* name) const {
    for (const MetadataStream& s : m_streams)
        if (s.name == name)
            return ByteCursor(m_block.data() + s.offset, s.size, ByteCursor::Order::little,
                              m_block.fileOffset() - m_block.offset() + s.offset);
    return ByteCursor(nullptr, 0, ByteCursor::Order::little, m_block.fileOffset());
}

QUARVEL_NAMESPACE_END

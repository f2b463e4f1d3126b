#include "dotnet/debug_directory.h"

#include <cstring>

QUARVEL_NAMESPACE_BEGIN

namespace {

const size_t kEntrySize = 28;
const uint32_t kRsds = 0x53445352;
const uint16_t kPortableCodeViewMinor = 0x504D;

} // namespace

Expected<DebugDirectory> DebugDirectory::read(const PeImage& image) {
    DebugDirectory out;
    const DataDirectory dir = image.directory(PeImage::kDebugDirectory);
    if (dir.rva == 0 || dir.size == 0)
        return out;
    Expected<ByteCursor> table = image.at(dir.rva, dir.size, "debug directory");
    if (!table)
        return table.reason();
    ByteCursor c = table.value();
    const size_t count = dir.size / kEntrySize;
    out.m_entries.resize(count);
    for (DebugDirectoryEntry& e : out.m_entries) {
        c.u32(e.characteristics, "debug entry Characteristics");
        c.u32(e.timeDateStamp, "debug entry TimeDateStamp");
        c.u16(e.majorVersion, "debug entry MajorVersion");
        c.u16(e.minorVersion, "debug entry MinorVersion");
        c.u32(e.type, "debug entry Type");
        c.u32(e.dataSize, "debug entry SizeOfData");
        c.u32(e.dataRva, "debug entry AddressOfRawData");
        c.u32(e.dataPointer, "debug entry PointerToRawData");
    }
    if (!c)
        return Reason::badInput(c.error()).inFile(image.name());

    for (const DebugDirectoryEntry& e : out.m_entries) {
        if (e.type != DebugDirectoryEntry::codeView)
            continue;
        Expected<ByteCursor> bytes = data(image, e);
        if (!bytes)
            return bytes.reason();
        ByteCursor d = bytes.value();
        const uint64_t at = d.fileOffset();
        uint32_t signature = 0;
        const uint8_t* guid = nullptr;
        CodeViewRecord record;
        d.u32(signature, "CodeView signature");
        if (d && signature != kRsds)
            continue; // an older CodeView form names no PDB we can read
        d.bytes(16, guid, "CodeView GUID");
        d.u32(record.age, "CodeView Age");
        d.cString(record.path, "CodeView path");
        if (!d)
            return Reason::badInput(d.error()).inFile(image.name()).at(at);
        std::memcpy(record.guid.data(), guid, 16);
        record.portable = e.minorVersion == kPortableCodeViewMinor;
        std::memcpy(record.pdbId.data(), guid, 16);
        for (unsigned i = 0; i < 4; ++i)
            record.pdbId[16 + i] = static_cast<uint8_t>(e.timeDateStamp >> (8 * i));
        out.m_codeViews.push_back(std::move(record));
    }
    return out;
}

const DebugDirectoryEntry* DebugDirectory::embeddedPdb() const {
    for (const DebugDirectoryEntry& e : m_entries)
        if (e.type == DebugDirectoryEntry::embeddedPortablePdb)
            return &e;
    return nullptr;
}

Expected<ByteCursor> DebugDirectory::data(const PeImage& image, const DebugDirectoryEntry& entry) {
    if (entry.dataPointer != 0)
        return image.atFileOffset(entry.dataPointer, entry.dataSize, "debug entry data");
    return image.at(entry.dataRva, entry.dataSize, "debug entry data");
}

QUARVEL_NAMESPACE_END

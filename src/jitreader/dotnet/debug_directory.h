#ifndef QUARVEL_DOTNET_DEBUG_DIRECTORY_H
#define QUARVEL_DOTNET_DEBUG_DIRECTORY_H

#include "dotnet/pe_image.h"
#include "support/result.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

typedef std::array<uint8_t, 20> PdbId;

struct DebugDirectoryEntry {
    enum Type : uint32_t { codeView = 2, deterministic = 16, embeddedPortablePdb = 17, pdbChecksum = 19 };
    uint32_t characteristics = 0;
    uint32_t timeDateStamp = 0;
    uint16_t majorVersion = 0;
    uint16_t minorVersion = 0;
    uint32_t type = 0;
    uint32_t dataSize = 0;
    uint32_t dataRva = 0;
    uint32_t dataPointer = 0; // file offset of the data
};

// An "RSDS" CodeView record: the PDB the compiler wrote beside the image.
struct CodeViewRecord {
    std::array<uint8_t, 16> guid{};
    uint32_t age = 0;
    std::string path;
    // Minor version 0x504D ("PM") marks a portable PDB; its id is the GUID
    // followed by the entry's time stamp.
    bool portable = false;
    PdbId pdbId{};
};

// The debug directory of an image (data directory 6).
class DebugDirectory {
public:
    // An image without a debug directory gives an empty one.
    static Expected<DebugDirectory> read(const PeImage& image);

    const std::vector<DebugDirectoryEntry>& entries() const { return m_entries; }
    const std::vector<CodeViewRecord>& codeViews() const { return m_codeViews; }
    // Null when the image embeds no PDB.
    const DebugDirectoryEntry* embeddedPdb() const;
    // The entry's data, read from its file offset.
    static Expected<ByteCursor> data(const PeImage& image, const DebugDirectoryEntry& entry);

private:
    std::vector<DebugDirectoryEntry> m_entries;
    std::vector<CodeViewRecord> m_codeViews;
};

QUARVEL_NAMESPACE_END

#endif

#ifndef QUARVEL_DOTNET_PE_IMAGE_H
#define QUARVEL_DOTNET_PE_IMAGE_H

#include "dotnet/file_bytes.h"
#include "support/byte_cursor.h"
#include "support/result.h"

#include <cstdint>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

struct DataDirectory {
    uint32_t rva = 0;
    uint32_t size = 0;
};

struct PeSection {
    std::string name;
    uint32_t virtualAddress = 0;
    uint32_t virtualSize = 0;
    uint32_t rawSize = 0;
    uint32_t rawPointer = 0;
};

// The CLI header (ECMA-335 II.25.3.3) of a .NET image.
struct CliHeader {
    enum Flags : uint32_t {
        ilOnly = 0x1,
        requires32Bit = 0x2,
        ilLibrary = 0x4,
        strongNameSigned = 0x8,
        nativeEntryPoint = 0x10,
        trackDebugData = 0x10000,
        prefers32Bit = 0x20000
    };
    uint16_t majorRuntimeVersion = 0;
    uint16_t minorRuntimeVersion = 0;
    DataDirectory metadata;
    uint32_t flags = 0;
    uint32_t entryPointToken = 0;
    DataDirectory resources;
    DataDirectory strongNameSignature;
    DataDirectory codeManagerTable;
    DataDirectory vtableFixups;
    DataDirectory exportAddressTableJumps;
    DataDirectory managedNativeHeader;
};

// A PE/COFF image as a file on disk (not as loaded): headers, sections, the
// data directories, RVA to file offset mapping and the CLI header.
class PeImage {
public:
    enum : unsigned { kDebugDirectory = 6, kCliHeaderDirectory = 14 };
    enum : uint16_t { kPe32 = 0x10B, kPe32Plus = 0x20B };

    // Refuses anything that is not a PE image with a CLI header; the reason
    // names the file, the offset and the bad value.
    static Expected<PeImage> parse(const FileBytes& file);

    const FileBytes& file() const { return m_file; }
    const std::string& name() const { return m_file.name(); }
    // As stored: ReadyToRun images for other systems than Windows XOR the
    // architecture with a system value.
    uint16_t machine() const { return m_machine; }
    // The architecture with the system value removed, and which system that
    // was (null for an ordinary image).
    uint16_t baseMachine() const { return m_baseMachine; }
    const char* targetSystem() const { return m_targetSystem; }
    uint32_t timeDateStamp() const { return m_timeDateStamp; }
    uint16_t characteristics() const { return m_characteristics; }
    bool isPe32Plus() const { return m_magic == kPe32Plus; }
    const std::vector<PeSection>& sections() const { return m_sections; }
    // {0, 0} when the image has no such directory.
    DataDirectory directory(unsigned index) const;
    const CliHeader& cliHeader() const { return m_cli; }

    // The file offset of [rva, rva + size), which must lie in the raw data of
    // one section.
    bool rvaToOffset(uint32_t rva, uint32_t size, size_t& offset) const;
    // A cursor over [rva, rva + size); the reason names `what`.
    Expected<ByteCursor> at(uint32_t rva, uint32_t size, const char* what) const;
    // A cursor from rva to the end of its section's raw data.
    Expected<ByteCursor> sectionRest(uint32_t rva, const char* what) const;
    // A cursor over [offset, offset + size) of the file.
    Expected<ByteCursor> atFileOffset(uint32_t offset, uint32_t size, const char* what) const;

private:
    FileBytes m_file;
    uint16_t m_machine = 0;
    uint16_t m_baseMachine = 0;
    const char* m_targetSystem = nullptr;
    uint32_t m_timeDateStamp = 0;
    uint16_t m_characteristics = 0;
    uint16_t m_magic = 0;
    std::vector<DataDirectory> m_directories;
    std::vector<PeSection> m_sections;
    CliHeader m_cli;
};

QUARVEL_NAMESPACE_END

#endif

#include "dotnet/pe_image.h"

#include <algorithm>
#include <sstream>

QUARVEL_NAMESPACE_BEGIN

namespace {

const uint16_t kKnownMachines[] = {
    0x014C, // x86
    0x8664, // x64
    0x01C0, // ARM
    0x01C4, // ARM Thumb-2
    0xAA64, // ARM64
    0x6264, // LoongArch64
    0x5064, // RISC-V 64
};

struct TargetSystem {
    uint16_t mask;
    const char* name;
};
// What ReadyToRun images of these systems XOR into the Machine field.
const TargetSystem kTargetSystems[] = {
    {0x7B79, "Linux"}, {0x4644, "Apple"}, {0xADC4, "FreeBSD"}, {0x1993, "NetBSD"}, {0x1992, "SunOS"},
};

bool knownMachine(uint16_t machine) {
    return std::find(std::begin(kKnownMachines), std::end(kKnownMachines), machine) != std::end(kKnownMachines);
}

std::string hex(uint64_t value) {
    std::ostringstream os;
    os << "0x" << std::hex << value;
    return os.str();
}

Reason bad(const FileBytes& file, uint64_t offset, const std::string& message) {
    return Reason::badInput(message).inFile(file.name()).at(offset);
}

Reason shortRead(const FileBytes& file, const ByteCursor& c) {
    return Reason::badInput(c.error()).inFile(file.name());
}

bool readDirectory(ByteCursor& c, DataDirectory& d, const char* field) {
    return c.u32(d.rva, field) && c.u32(d.size, field);
}

} // namespace

Expected<PeImage> PeImage::parse(const FileBytes& file) {
    PeImage image;
    image.m_file = file;
    ByteCursor c = file.cursor();

    uint16_t mz = 0;
    if (!c.u16(mz, "DOS signature"))
        return Reason::notFound("not a PE image: " + c.error(), meBadRecord).inFile(file.name());
    if (mz != 0x5A4D)
        return Reason::notFound("not a PE image: no MZ signature (found " + hex(mz) + ")", meBadRecord)
            .inFile(file.name())
            .at(0);
    uint32_t peOffset = 0;
    if (!c.seek(0x3C, "e_lfanew") || !c.u32(peOffset, "e_lfanew") || !c.seek(peOffset, "PE signature"))
        return shortRead(file, c);
    uint32_t signature = 0;
    if (!c.u32(signature, "PE signature"))
        return shortRead(file, c);
    if (signature != 0x00004550)
        return bad(file, peOffset, "no PE signature (found " + hex(signature) + ")");

    uint16_t sectionCount = 0;
    uint16_t optionalSize = 0;
    c.u16(image.m_machine, "COFF Machine");
    c.u16(sectionCount, "COFF NumberOfSections");
    c.u32(image.m_timeDateStamp, "COFF TimeDateStamp");
    c.skip(8, "COFF symbol table");
    c.u16(optionalSize, "COFF SizeOfOptionalHeader");
    c.u16(image.m_characteristics, "COFF Characteristics");
    if (!c)
        return shortRead(file, c);

    image.m_baseMachine = image.m_machine;
    if (!knownMachine(image.m_machine)) {
        for (const TargetSystem& system : kTargetSystems) {
            if (knownMachine(uint16_t(image.m_machine ^ system.mask))) {
                image.m_baseMachine = uint16_t(image.m_machine ^ system.mask);
                image.m_targetSystem = system.name;
                break;
            }
        }
    }

    const uint64_t optionalAt = c.fileOffset();
    ByteCursor optional = c.sub(optionalSize, "optional header");
    if (!optional)
        return Reason::badInput(optional.error()).inFile(file.name());
    optional.u16(image.m_magic, "optional header Magic");
    if (!optional)
        return Reason::badInput(optional.error()).inFile(file.name());
    size_t countAt = 0;
    if (image.m_magic == kPe32)
        countAt = 92;
    else if (image.m_magic == kPe32Plus)
        countAt = 108;
    else
        return bad(file, optionalAt, "unknown optional header magic " + hex(image.m_magic));
    uint32_t directoryCount = 0;
    if (!optional.seek(countAt, "NumberOfRvaAndSizes") || !optional.u32(directoryCount, "NumberOfRvaAndSizes"))
        return Reason::badInput(optional.error()).inFile(file.name());
    if (directoryCount > optional.remaining() / 8)
        return bad(file, optionalAt + countAt,
                   "NumberOfRvaAndSizes " + std::to_string(directoryCount) + " does not fit the optional header (" +
                       std::to_string(optionalSize) + " bytes)");
    image.m_directories.resize(directoryCount);
    for (DataDirectory& d : image.m_directories)
        readDirectory(optional, d, "data directory");

    if (sectionCount > c.remaining() / 40)
        return bad(file, c.fileOffset(),
                   std::to_string(sectionCount) + " sections do not fit in the file (" + std::to_string(c.remaining()) +
                       " bytes left)");
    image.m_sections.resize(sectionCount);
    for (PeSection& s : image.m_sections) {
        const uint8_t* name = nullptr;
        c.bytes(8, name, "section name");
        c.u32(s.virtualSize, "section VirtualSize");
        c.u32(s.virtualAddress, "section VirtualAddress");
        c.u32(s.rawSize, "section SizeOfRawData");
        c.u32(s.rawPointer, "section PointerToRawData");
        c.skip(16, "section relocations, line numbers and characteristics");
        if (!c)
            return shortRead(file, c);
        s.name = ByteCursor::makeCountedString(name, 8);
    }

    const DataDirectory cli = image.directory(kCliHeaderDirectory);
    if (cli.rva == 0)
        return Reason::notFound("not a .NET assembly: the image has no CLI header", meBadRecord).inFile(file.name());
    Expected<ByteCursor> header = image.at(cli.rva, 72, "CLI header");
    if (!header)
        return header.reason();
    ByteCursor h = header.value();
    const uint64_t cliAt = h.fileOffset();
    uint32_t cb = 0;
    CliHeader& out = image.m_cli;
    h.u32(cb, "CLI header cb");
    h.u16(out.majorRuntimeVersion, "CLI MajorRuntimeVersion");
    h.u16(out.minorRuntimeVersion, "CLI MinorRuntimeVersion");
    readDirectory(h, out.metadata, "CLI MetaData");
    h.u32(out.flags, "CLI Flags");
    h.u32(out.entryPointToken, "CLI EntryPointToken");
    readDirectory(h, out.resources, "CLI Resources");
    readDirectory(h, out.strongNameSignature, "CLI StrongNameSignature");
    readDirectory(h, out.codeManagerTable, "CLI CodeManagerTable");
    readDirectory(h, out.vtableFixups, "CLI VTableFixups");
    readDirectory(h, out.exportAddressTableJumps, "CLI ExportAddressTableJumps");
    readDirectory(h, out.managedNativeHeader, "CLI ManagedNativeHeader");
    if (!h)
        return shortRead(file, h);
    if (out.metadata.rva == 0 || out.metadata.size == 0)
        return bad(file, cliAt + 8, "the CLI header names no metadata");
    return image;
}

DataDirectory PeImage::directory(unsigned index) const {
    return index < m_directories.size() ? m_directories[index] : DataDirectory();
}

bool PeImage::rvaToOffset(uint32_t rva, uint32_t size, size_t& offset) const {
    for (const PeSection& s : m_sections) {
        const uint64_t extent = std::max(s.virtualSize, s.rawSize);
        if (rva < s.virtualAddress || uint64_t(rva) >= uint64_t(s.virtualAddress) + extent)
            continue;
        const uint64_t relative = rva - s.virtualAddress;
        // Bytes past the raw data are zero fill in memory; the readers want file bytes.
        if (relative + size > s.rawSize)
            return false;
        const uint64_t at = uint64_t(s.rawPointer) + relative;
        if (at + size > m_file.size())
            return false;
        offset = static_cast<size_t>(at);
        return true;
    }
    return false;
}

Expected<ByteCursor> PeImage::at(uint32_t rva, uint32_t size, const char* what) const {
    size_t offset = 0;
    if (!rvaToOffset(rva, size, offset))
        return Reason::badInput(std::string(what) + " at rva " + hex(rva) + " (" + std::to_string(size) +
                                " bytes) lies outside the file data of every section")
            .inFile(name());
    return ByteCursor(m_file.data() + offset, size, ByteCursor::Order::little, offset);
}

Expected<ByteCursor> PeImage::sectionRest(uint32_t rva, const char* what) const {
    for (const PeSection& s : m_sections) {
        if (rva < s.virtualAddress || rva - s.virtualAddress >= s.rawSize)
            continue;
        const uint64_t relative = rva - s.virtualAddress;
        const uint64_t end = std::min<uint64_t>(uint64_t(s.rawPointer) + s.rawSize, m_file.size());
        const uint64_t at = uint64_t(s.rawPointer) + relative;
        if (at > end)
            break;
        return ByteCursor(m_file.data() + at, static_cast<size_t>(end - at), ByteCursor::Order::little, at);
    }
    return Reason::badInput(std::string(what) + " at rva " + hex(rva) + " lies outside the file data of every section")
        .inFile(name());
}

Expected<ByteCursor> PeImage::atFileOffset(uint32_t offset, uint32_t size, const char* what) const {
    if (uint64_t(offset) + size > m_file.size())
        return Reason::badInput(std::string(what) + " (" + std::to_string(size) +
                                " bytes) runs past the end of the file (" + std::to_string(m_file.size()) + " bytes)")
            .inFile(name())
            .at(offset);
    return ByteCursor(m_file.data() + offset, size, ByteCursor::Order::little, offset);
}

QUARVEL_NAMESPACE_END

#include "model/method_dump.h"

#include "model/jit_method.h"

#include <x86_decoder.h>

#include <algorithm>
#include <iomanip>
#include <sstream>

QUARVEL_NAMESPACE_BEGIN

namespace {

const char* archLabel(int arch) {
    switch (arch) {
    case quarvel_arch_vx32:
        return "vx32";
    case quarvel_arch_varda64:
        return "varda64";
    case quarvel_arch_vx64:
        return "vx64";
    case quarvel_arch_mcx1:
        return "mcx1";
    default:
        return "UNKNOWN";
    }
}

struct Hex {
    u64 value;
};

std::ostream& operator<<(std::ostream& os, Hex h) {
    const std::ios_base::fmtflags flags = os.flags();
    os << "0x" << std::hex << h.value;
    os.flags(flags);
    return os;
}

const char* const kTableHeadings[3] = {
    "Native to managed map: (nativeStartOffset-nativeEndOffset, ILOffset)", // type 0
    "Managed to source map: (ILOffset, lineNo)",                            // type 1
    "Native to source map: (nativeStartOffset-nativeEndOffset, LineNo)",    // type 2
};

} // namespace

void krad_print_hex_line(char* buffer, const uint8_t* bytes, int32_t length, int32_t bufferLength) {
    static const char kDigits[] = "0123456789ABCDEF";
    if (!buffer || bufferLength <= 0)
        return;
    if (length == 0)
        length = static_cast<int32_t>(quarvel_x86::kMaxInstructionLength);
    const int32_t fits = (bufferLength - 1) / 2;
    const int32_t n = bytes ? std::max(0, std::min(length, fits)) : 0;
    for (int32_t i = 0; i < n; ++i) {
        buffer[2 * i] = kDigits[bytes[i] >> 4];
        buffer[2 * i + 1] = kDigits[bytes[i] & 0x0F];
    }
    buffer[2 * n] = '\0';
}

void dumpCodeDisassembly(std::ostream& os, const uint8_t* bytes, uint32_t length, uint64_t address, quarvel_arch arch) {
    if (!bytes || length == 0) {
        os << "  no bytes" << '\n';
        return;
    }
    quarvel_x86::Mode mode;
    if (arch == quarvel_arch_vx32)
        mode = quarvel_x86::Mode::Bits32;
    else if (arch == quarvel_arch_varda64 || arch == quarvel_arch_vx64)
        mode = quarvel_x86::Mode::Bits64;
    else {
        os << "  wrong architecture of code" << '\n';
        return;
    }

    const quarvel_x86::Decoder decoder(mode);
    std::ostringstream lines;
    lines << std::hex;
    char text[quarvel_x86::kTextBufferLength];
    char hex[2 * quarvel_x86::kMaxInstructionLength + 1];
    uint32_t position = 0;
    while (position < length) {
        const size_t available = std::min<size_t>(quarvel_x86::kMaxInstructionLength, length - position);
        const quarvel_x86::Disassembled result =
            decoder.disassemble(bytes + position, available, address, text, sizeof text);
        if (result.stage != quarvel_x86::Disassembled::Ok || result.length == 0) {
            const char* what = result.stage == quarvel_x86::Disassembled::FormatFailed
                                   ? ": could not dump instruction. Error: "
                                   : ": could not decode instruction. Error: ";
            lines << "       " << address << what << std::dec << result.error << '\n';
            break;
        }
        krad_print_hex_line(hex, bytes + position, result.length, sizeof hex);
        lines << "  XDIS " << address << ": " << std::left << std::setw(2 * quarvel_x86::kMaxInstructionLength + 1)
              << hex << text << '\n';
        position += result.length;
        address += result.length;
    }
    os << lines.str();
}

std::string JitMethod::dumpRegions() const {
    std::ostringstream os;
    for (size_t i = 0; i < m_regions.size(); ++i) {
        const Region& region = *m_regions[i];
        if (i)
            os << '\n';
        os << "Code region #" << i << ": ip range = " << Hex{region.startAddress()} << "-" << Hex{region.endAddress()}
           << ", jit rva range = " << Hex{region.startJitRva()} << "-" << Hex{region.startJitRva() + region.length()}
           << ", load time = " << region.loadTime() << ", unload time = " << region.unloadTime();
    }
    return os.str();
}

std::ostream& operator<<(std::ostream& os, JitMethod& method) {
    const BaseMethodInfo& info = *method.info();
    const IModule::Ptr& module = info.module();
    const int arch = module ? static_cast<int>(module->getArchitecture()) : -1;

    os << "Method id:       " << Hex{method.getRawMethodId()} << std::endl;
    os << "Parent id:       " << Hex{method.getRawParentId()} << std::endl;
    os << "Metadata token:  " << Hex{info.methodToken()} << std::endl;
    os << "Load time:       " << Hex{method.getLoadTime()} << std::endl;
    os << "Name:            " << info.methodName() << std::endl;
    os << "Full name:       " << info.qualifiedMethodName() << std::endl;
    os << "Class:           " << info.className() << std::endl;
    os << "Module:          " << (module ? module->getFilePath() : "") << std::endl;
    os << "Module arch:     " << archLabel(arch) << std::endl;
    if (const ISourceFile::Ptr source = info.getSourceFile()) {
        os << "Source file:     " << source->getSourceFileName() << std::endl;
        os << "Checksum type:   " << source->getChecksumType() << std::endl;
        os << "Checksum:        " << source->getChecksum() << std::endl;
        os << "Language type:   " << source->getLanguageType() << std::endl;
    }

    os << "Code info:" << std::endl;
    os << "number of code regions: " << method.regionCount() << std::endl;
    for (size_t i = 0; i < method.regionCount(); ++i) {
        const Region& region = *method.regions()[i];
        os << "  Code region:   " << i << std::endl;
        os << "  JitRVA range:  " << Hex{region.startJitRva()} << "-" << Hex{region.startJitRva() + region.length()}
           << std::endl;
        os << "  startAddr:     " << Hex{region.startAddress()} << std::endl;
        os << "  size:          " << Hex{region.length()} << std::endl;
        os << "  IP range:      " << Hex{region.startAddress()} << "-" << Hex{region.endAddress()} << std::endl;
        os << "  Disassembly:" << std::endl;
        const CodeView& bytes = region.codeView();
        dumpCodeDisassembly(os, bytes.bytes, bytes.bytes ? bytes.length : 0, region.startAddress(),
                            static_cast<quarvel_arch>(arch));
        os.flush();
    }

    // The tables of every code range, in the order the trace writes them.
    const quarvel_line_info_type order[3] = {quarvel_line_info_managed_to_source, quarvel_line_info_native_to_managed,
                                             quarvel_line_info_native_to_source};
    for (quarvel_line_info_type type : order) {
        const LineTables& lines = method.getLineNumberInfo();
        size_t count = 0;
        for (size_t r = 0; r < lines.rangeCount(); ++r)
            count += lines.table(r, type).size();
        os << kTableHeadings[type] << std::endl;
        os << "number of lines: " << count << std::endl;
        for (size_t r = 0; r < lines.rangeCount(); ++r)
            for (const quarvel_line_number_entry& e : lines.table(r, type))
                os << "    " << e.startOffset << "-" << e.endOffset << "  " << e.value << std::endl;
    }
    return os;
}

QUARVEL_NAMESPACE_END

#include "model/dotnet_method.h"

#include <iomanip>

QUARVEL_NAMESPACE_BEGIN

quarvel_error_t DotNetMethod::getSourceFileInfo(SourceFile& out) const {
    if (!m_symbolReader)
        return meNotFound;
    std::string name;
    if (m_symbolReader->getSourceFileWithFuncRowID(rowId(), name) != meSuccess)
        return meNotFound;
    // A portable PDB gives no checksum or language through this path.
    out = SourceFile(name, std::string(), 0, 0);
    return meSuccess;
}

u32 DotNetMethod::getSourceLineByILOffset(u32 ilOffset) const {
    if (!m_symbolReader)
        return 0;
    unsigned line = 0;
    if (m_symbolReader->getSourceLineWithFuncRowIDAndILOffset(rowId(), ilOffset, line) != meSuccess)
        return 0;
    return line;
}

quarvel_error_t DotNetMethod::getILToSourceMapping(quarvel_line_number_entry* /*entries*/, unsigned* /*count*/) const {
    return meNotFound;
}

std::ostream& operator<<(std::ostream& os, const DotNetMethod& method) {
    const std::ios_base::fmtflags flags = os.flags();
    os << "Method (" << std::hex << method.token() << ")" << '\n';
    os.flags(flags);
    os << std::string(55, '-') << '\n'
       << "     MethodName:      " << method.getMethodName() << '\n'
       << "     TypeDefName:     " << method.getClassName() << '\n'
       << "     MethodSignature: " << method.getMethodSignature() << '\n'
       << '\n';
    return os;
}

QUARVEL_NAMESPACE_END

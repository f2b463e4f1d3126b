#include "dotnet/assembly_reader_impl.h"

#include "dotnet/clr_symreader.h"
#include "dotnet/failure_log.h"
#include "dotnet/pdb_finder.h"
#include "dotnet/runtime_marks.h"
#include "support/log.h"

#include <memory>

#include <sstream>

QUARVEL_NAMESPACE_BEGIN

namespace {

std::string hexToken(unsigned token) {
    std::ostringstream os;
    os << "0x" << std::hex << token;
    return os.str();
}

} // namespace

AssemblyReader::AssemblyReader(std::shared_ptr<const AssemblyMetadata> metadata, CoreCLRSymbolReader::Ptr symbols)
    : m_metadata(std::move(metadata)), m_symbols(std::move(symbols)) {}

boost::intrusive_ptr<DotNetMethod> AssemblyReader::getMethod(unsigned token) const {
    Expected<MethodDescription> method = m_metadata->describeMethod(token);
    if (!method) {
        // A damaged row or a token of another version of the assembly: the
        // method keeps the names the trace gave.
        if (FailureLog::firstReport(m_metadata->name() + " (methods)"))
            QV_ERROR("Couldn't read .NET method " << hexToken(token) << ": " << method.reason().text());
        return boost::intrusive_ptr<DotNetMethod>();
    }
    MethodDescription& m = method.value();
    boost::intrusive_ptr<DotNetMethod> out(new DotNetMethod(token));
    out->setNames(std::move(m.typeName), std::move(m.name), std::move(m.signature));
    out->setSymbolReader(m_symbols);
    return out;
}

quarvel_error_t IAssemblyReader::create(const char* assemblyPath, const char* debugFilePath, Ptr& reader) {
    if (!assemblyPath || !*assemblyPath) {
        QV_ERROR("Couldn't open a .NET assembly: no path was given");
        return meNotFound;
    }
    try {
        Expected<FileBytes> file = FileBytes::map(assemblyPath);
        if (!file) {
            if (FailureLog::firstReport(assemblyPath))
                QV_ERROR("Couldn't open .NET assembly: " << file.reason().text());
            return file.code();
        }
        Expected<std::shared_ptr<const AssemblyMetadata>> metadata = AssemblyMetadata::open(file.value());
        if (!metadata) {
            if (FailureLog::firstReport(assemblyPath))
                QV_ERROR("Couldn't read .NET assembly: " << metadata.reason().text());
            return metadata.code();
        }
        PdbFinder::Result pdb = PdbFinder::find(*metadata.value(), debugFilePath);
        for (const Reason& refused : pdb.refused)
            if (FailureLog::firstReport(refused.file.empty() ? std::string(assemblyPath) : refused.file))
                QV_ERROR("Refused the PDB of " << assemblyPath << ": " << refused.text());
        CoreCLRSymbolReader::Ptr symbols;
        if (pdb.pdb)
            symbols = std::make_shared<ClrSymReader>(pdb.pdb);
        reader.reset(new AssemblyReader(metadata.value(), symbols));
        return meSuccess;
    } catch (const std::exception& e) {
        QV_ERROR("Couldn't read .NET assembly " << assemblyPath << ": " << e.what());
        return meNotFound;
    }
}

bool isDotNetCore(const std::string& path) {
    if (path.empty())
        return false;
    Expected<FileBytes> file = FileBytes::map(path);
    Expected<PeImage> image = file ? PeImage::parse(file.value()) : Expected<PeImage>(file.reason());
    if (!image) {
        QV_ERROR("Fail: module image for %s is null");
        return false;
    }
    Expected<std::shared_ptr<const AssemblyMetadata>> bank = AssemblyMetadata::open(image.value());
    if (!bank) {
        QV_ERROR("Fail: module bank for %s is null");
        return false;
    }
    return (runtimeMarks(*bank.value()) & (kTargetsCore | kCoreReadyToRun)) != 0;
}

bool isDotNetCoreValidPdb(const std::string& path) {
    ClrSymReader reader(path);
    return reader.initialize() != meNotFound;
}

QUARVEL_NAMESPACE_END

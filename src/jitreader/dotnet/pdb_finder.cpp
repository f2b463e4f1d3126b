#include "dotnet/pdb_finder.h"

#include "dotnet/debug_directory.h"
#include "dotnet/embedded_pdb.h"

#include <algorithm>

#include <sys/stat.h>

QUARVEL_NAMESPACE_BEGIN

namespace {

bool isFile(const std::string& path) {
    struct stat st {};
    return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string directoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

// The last component of a path written on either system.
std::string fileNameOf(const std::string& path) {
    const size_t slash = path.find_last_of("/\\");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string stemOf(const std::string& fileName) {
    const size_t dot = fileName.rfind('.');
    return dot == std::string::npos ? fileName : fileName.substr(0, dot);
}

bool belongs(const PortablePdb& pdb, const std::vector<CodeViewRecord>& codeViews) {
    for (const CodeViewRecord& cv : codeViews)
        if (cv.portable && cv.pdbId == pdb.id())
            return true;
    return false;
}

class Search {
public:
    Search(const AssemblyMetadata& assembly, const std::vector<CodeViewRecord>& codeViews, PdbFinder::Result& result)
        : m_assembly(assembly), m_codeViews(codeViews), m_result(result) {}

    // True when the file at path is the assembly's PDB (and now the result).
    bool tryFile(const std::string& path) {
        if (std::find(m_tried.begin(), m_tried.end(), path) != m_tried.end() || !isFile(path))
            return false;
        m_tried.push_back(path);
        Expected<FileBytes> file = FileBytes::map(path);
        if (!file) {
            m_result.refused.push_back(file.reason());
            return false;
        }
        return tryBytes(file.value(), path);
    }

    bool tryEmbedded(const DebugDirectoryEntry& entry) {
        const std::string name = m_assembly.name() + " (embedded PDB)";
        Expected<ByteCursor> data = DebugDirectory::data(m_assembly.image(), entry);
        if (!data) {
            m_result.refused.push_back(data.reason().inFile(name));
            return false;
        }
        Expected<std::vector<uint8_t>> bytes = inflateEmbeddedPdb(data.value());
        if (!bytes) {
            m_result.refused.push_back(bytes.reason().inFile(name));
            return false;
        }
        return tryBytes(FileBytes::hold(std::move(bytes.value()), name), "embedded", true);
    }

private:
    bool tryBytes(const FileBytes& file, const std::string& source, bool embedded = false) {
        Expected<std::shared_ptr<const PortablePdb>> pdb = PortablePdb::open(file);
        if (!pdb) {
            m_result.refused.push_back(pdb.reason());
            return false;
        }
        // An embedded PDB travels inside its assembly; a file must prove it
        // was written with it.
        const bool anyPortable =
            std::any_of(m_codeViews.begin(), m_codeViews.end(), [](const CodeViewRecord& cv) { return cv.portable; });
        if (!belongs(*pdb.value(), m_codeViews) && !(embedded && !anyPortable)) {
            m_result.refused.push_back(
                Reason::badInput(anyPortable ? "its PDB id differs from the id in the assembly's CodeView record"
                                             : "the assembly names no portable PDB (no CodeView record of one)")
                    .inFile(file.name()));
            return false;
        }
        m_result.pdb = pdb.value();
        m_result.source = source;
        return true;
    }

    const AssemblyMetadata& m_assembly;
    const std::vector<CodeViewRecord>& m_codeViews;
    PdbFinder::Result& m_result;
    std::vector<std::string> m_tried;
};

} // namespace

PdbFinder::Result PdbFinder::find(const AssemblyMetadata& assembly, const char* debugFilePath) {
    Result result;
    Expected<DebugDirectory> debug = DebugDirectory::read(assembly.image());
    if (!debug) {
        result.refused.push_back(debug.reason());
        return result;
    }
    const std::vector<CodeViewRecord>& codeViews = debug.value().codeViews();
    Search search(assembly, codeViews, result);

    if (debugFilePath && *debugFilePath && search.tryFile(debugFilePath))
        return result;
    const std::string directory = directoryOf(assembly.name());
    for (const CodeViewRecord& cv : codeViews)
        if (cv.portable && search.tryFile(directory + "/" + fileNameOf(cv.path)))
            return result;
    if (search.tryFile(directory + "/" + stemOf(fileNameOf(assembly.name())) + ".pdb"))
        return result;
    for (const CodeViewRecord& cv : codeViews)
        if (cv.portable && search.tryFile(cv.path))
            return result;
    if (const DebugDirectoryEntry* embedded = debug.value().embeddedPdb())
        search.tryEmbedded(*embedded);
    return result;
}

QUARVEL_NAMESPACE_END

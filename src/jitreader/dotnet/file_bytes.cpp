#include "dotnet/file_bytes.h"

#include "support/mapped_file.h"

#include <climits>
#include <cstdlib>

QUARVEL_NAMESPACE_BEGIN

Expected<FileBytes> FileBytes::map(const std::string& path) {
    // The mapping refuses links; an assembly is read through its real path
    // but reported under the name it was asked for.
    std::string real = path;
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved))
        real = resolved;
    Expected<std::shared_ptr<const MappedFile>> mapped = MappedFile::open(real);
    if (!mapped) {
        Reason reason = mapped.reason();
        reason.file = path;
        return reason;
    }
    const std::shared_ptr<const MappedFile>& file = mapped.value();
    return FileBytes(path, file->data(), file->size(), file);
}

FileBytes FileBytes::hold(std::vector<uint8_t> bytes, std::string name) {
    auto owned = std::make_shared<const std::vector<uint8_t>>(std::move(bytes));
    return FileBytes(std::move(name), owned->data(), owned->size(), owned);
}

QUARVEL_NAMESPACE_END

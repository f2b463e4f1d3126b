#include "support/regular_file.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

QUARVEL_NAMESPACE_BEGIN

namespace {

Reason openError(const std::string& path, const std::string& what) {
    return Reason::notFound(what, meFileOpenError).inFile(path);
}

} // namespace

Expected<RegularFile> RegularFile::open(const std::string& path) {
    struct stat link {};
    if (::lstat(path.c_str(), &link) != 0)
        return openError(path, std::string("cannot open: ") + std::strerror(errno));
    if (S_ISLNK(link.st_mode))
        return openError(path, "is a symbolic link; give the file's real path");
    // Non-blocking, so that a fifo put in the file's place since the lstat
    // cannot hang the open; the check below refuses it. Reads of a regular
    // file do not block either way.
    RegularFile file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.m_fd < 0)
        return openError(path, std::string("cannot open: ") + std::strerror(errno));
    struct stat st {};
    if (::fstat(file.m_fd, &st) != 0)
        return openError(path, std::string("cannot read its size: ") + std::strerror(errno));
    if (!S_ISREG(st.st_mode))
        return openError(path, "is not a regular file");
    file.m_size = static_cast<uint64_t>(st.st_size);
    return Expected<RegularFile>(std::move(file));
}

RegularFile::~RegularFile() {
    if (m_fd >= 0)
        ::close(m_fd);
}

QUARVEL_NAMESPACE_END

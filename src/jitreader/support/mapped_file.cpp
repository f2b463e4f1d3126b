#include "support/mapped_file.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

QUARVEL_NAMESPACE_BEGIN

namespace {

Reason openError(const std::string& path, const std::string& what) {
    return Reason::notFound(what, meFileOpenError).inFile(path);
}

// Closes the descriptor on every path out of open().
struct Descriptor {
    int fd;
    ~Descriptor() {
        if (fd >= 0)
            ::close(fd);
    }
};

} // namespace

Expected<std::shared_ptr<const MappedFile>> MappedFile::open(const std::string& path, Access access) {
    struct stat link {};
    if (::lstat(path.c_str(), &link) != 0)
        return openError(path, std::string("cannot open: ") + std::strerror(errno));
    if (S_ISLNK(link.st_mode))
        return openError(path, "is a symbolic link; give the file's real path");
    const Descriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0)
        return openError(path, std::string("cannot open: ") + std::strerror(errno));
    struct stat st {};
    if (::fstat(file.fd, &st) != 0)
        return openError(path, std::string("cannot read its size: ") + std::strerror(errno));
    if (!S_ISREG(st.st_mode))
        return openError(path, "is not a regular file");
    const size_t size = static_cast<size_t>(st.st_size);
    if (size == 0)
        return std::shared_ptr<const MappedFile>(new MappedFile(path, nullptr, 0));
    const int populate = access == Access::whole ? MAP_POPULATE : 0;
    void* data = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | populate, file.fd, 0);
    if (data == MAP_FAILED)
        return openError(path, std::string("cannot map: ") + std::strerror(errno));
    return std::shared_ptr<const MappedFile>(new MappedFile(path, static_cast<const uint8_t*>(data), size));
}

MappedFile::~MappedFile() {
    if (m_data)
        ::munmap(const_cast<uint8_t*>(m_data), m_size);
}

QUARVEL_NAMESPACE_END

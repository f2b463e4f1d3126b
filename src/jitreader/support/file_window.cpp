#include "support/file_window.h"

#include <algorithm>
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

Expected<std::unique_ptr<FileWindow>> FileWindow::open(const std::string& path) {
    struct stat link {};
    if (::lstat(path.c_str(), &link) != 0)
        return openError(path, std::string("cannot open: ") + std::strerror(errno));
    if (S_ISLNK(link.st_mode))
        return openError(path, "is a symbolic link; give the file's real path");
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return openError(path, std::string("cannot open: ") + std::strerror(errno));
    std::unique_ptr<FileWindow> window(new FileWindow(path, fd, 0)); // closes fd from here on
    struct stat st {};
    if (::fstat(fd, &st) != 0)
        return openError(path, std::string("cannot read its size: ") + std::strerror(errno));
    if (!S_ISREG(st.st_mode))
        return openError(path, "is not a regular file");
    window->m_size = static_cast<uint64_t>(st.st_size);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return window;
}

FileWindow::FileWindow(std::string path, int fd, uint64_t size) : m_path(std::move(path)), m_fd(fd), m_size(size) {}

FileWindow::~FileWindow() {
    ::close(m_fd);
}

const uint8_t* FileWindow::at(uint64_t offset, size_t length) {
    static const uint8_t kNothing = 0;
    if (length == 0)
        return &kNothing;
    if (offset >= m_bufferOffset && offset - m_bufferOffset <= m_filled &&
        m_filled - (offset - m_bufferOffset) >= length)
        return m_buffer.get() + (offset - m_bufferOffset);
    return fill(offset, length) ? m_buffer.get() : nullptr;
}

// Moves what is already read of [offset, ...) to the buffer's start and reads
// on from there until length bytes are in, a whole chunk when the file has it.
bool FileWindow::fill(uint64_t offset, size_t length) {
    if (offset > m_size || m_size - offset < length) {
        m_error = "asked for " + std::to_string(length) + " bytes at offset " + std::to_string(offset) + " of a " +
                  std::to_string(m_size) + "-byte file";
        return false;
    }
    size_t kept = 0;
    if (offset >= m_bufferOffset && offset - m_bufferOffset < m_filled) {
        kept = m_filled - static_cast<size_t>(offset - m_bufferOffset);
        std::memmove(m_buffer.get(), m_buffer.get() + (m_filled - kept), kept);
    }
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(std::max(length, kChunkBytes), m_size - offset));
    if (wanted > m_capacity) {
        std::unique_ptr<uint8_t[]> grown(new uint8_t[wanted]);
        if (kept)
            std::memcpy(grown.get(), m_buffer.get(), kept);
        m_buffer = std::move(grown);
        m_capacity = wanted;
    }
    m_bufferOffset = offset;
    m_filled = kept;
    while (m_filled < wanted) {
        const ssize_t got =
            ::pread(m_fd, m_buffer.get() + m_filled, wanted - m_filled, static_cast<off_t>(offset + m_filled));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            m_error =
                std::string("cannot read at offset ") + std::to_string(offset + m_filled) + ": " + std::strerror(errno);
            return false;
        }
        if (got == 0)
            break;
        m_filled += static_cast<size_t>(got);
    }
    if (m_filled < length) {
        m_error = "the file shrank below the " + std::to_string(m_size) +
                  " bytes it had when opened: nothing at offset " + std::to_string(offset + m_filled);
        return false;
    }
    return true;
}

QUARVEL_NAMESPACE_END

#ifndef QUARVEL_SUPPORT_REGULAR_FILE_H
#define QUARVEL_SUPPORT_REGULAR_FILE_H

#include "support/result.h"

#include <cstdint>
#include <string>

QUARVEL_NAMESPACE_BEGIN

// A regular file opened read-only through its real path, with its size when
// it was opened: what the whole-file readers start from. A symbolic link or
// anything but a regular file is refused, with the system's reason where it
// gave one (meFileOpenError). The descriptor closes with the object.
class RegularFile {
public:
    static Expected<RegularFile> open(const std::string& path);

    RegularFile(RegularFile&& other) noexcept : m_fd(other.m_fd), m_size(other.m_size) { other.m_fd = -1; }
    RegularFile& operator=(RegularFile&&) = delete;
    RegularFile(const RegularFile&) = delete;
    RegularFile& operator=(const RegularFile&) = delete;
    ~RegularFile();

    int fd() const { return m_fd; }
    uint64_t size() const { return m_size; }

private:
    explicit RegularFile(int fd) : m_fd(fd) {}

    int m_fd;
    uint64_t m_size = 0;
};

QUARVEL_NAMESPACE_END

#endif

#include "support/mapped_file.h"

#include <cerrno>
#include <cstring>

#include <sys/mman.h>

QUARVEL_NAMESPACE_BEGIN

Expected<std::shared_ptr<const MappedFile>> MappedFile::open(const std::string& path, Access access) {
    Expected<RegularFile> file = RegularFile::open(path);
    if (!file)
        return file.reason();
    return map(file.value(), path, static_cast<size_t>(file.value().size()), access);
}

Expected<std::shared_ptr<const MappedFile>> MappedFile::map(const RegularFile& file, const std::string& path,
                                                            size_t size, Access access) {
    if (size == 0)
        return std::shared_ptr<const MappedFile>(new MappedFile(path, nullptr, 0));
    const int populate = access == Access::whole ? MAP_POPULATE : 0;
    void* data = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | populate, file.fd(), 0);
    if (data == MAP_FAILED)
        return Reason::notFound(std::string("cannot map: ") + std::strerror(errno), meFileOpenError).inFile(path);
    return std::shared_ptr<const MappedFile>(new MappedFile(path, static_cast<const uint8_t*>(data), size));
}

std::atomic<size_t> MappedFile::s_live{0};
std::atomic<size_t> MappedFile::s_keepLimit{4096};

MappedFile::MappedFile(std::string path, const uint8_t* data, size_t size)
    : m_path(std::move(path)), m_data(data), m_size(size) {
    if (m_data)
        s_live.fetch_add(1, std::memory_order_relaxed);
}

MappedFile::~MappedFile() {
    if (m_data) {
        ::munmap(const_cast<uint8_t*>(m_data), m_size);
        s_live.fetch_sub(1, std::memory_order_relaxed);
    }
}

QUARVEL_NAMESPACE_END

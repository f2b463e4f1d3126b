#ifndef QUARVEL_DOTNET_FILE_BYTES_H
#define QUARVEL_DOTNET_FILE_BYTES_H

#include "support/byte_cursor.h"
#include "support/result.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// The bytes of one whole file that the .NET readers walk: mapped from disk,
// or held in memory (an inflated embedded PDB, a fuzzer's input). Copies
// share the owner, so cursors into the bytes stay valid while a copy lives.
class FileBytes {
public:
    FileBytes() = default;

    // Maps the file, following symbolic links (runtimes install assemblies
    // behind links). meFileOpenError with the system's reason on failure.
    static Expected<FileBytes> map(const std::string& path);
    // Takes the bytes; name stands for the file in messages.
    static FileBytes hold(std::vector<uint8_t> bytes, std::string name);

    const std::string& name() const { return m_name; }
    const uint8_t* data() const { return m_data; }
    size_t size() const { return m_size; }
    ByteCursor cursor() const { return ByteCursor(m_data, m_size); }

private:
    FileBytes(std::string name, const uint8_t* data, size_t size, std::shared_ptr<const void> owner)
        : m_name(std::move(name)), m_data(data), m_size(size), m_owner(std::move(owner)) {}

    std::string m_name;
    const uint8_t* m_data = nullptr;
    size_t m_size = 0;
    std::shared_ptr<const void> m_owner;
};

QUARVEL_NAMESPACE_END

#endif

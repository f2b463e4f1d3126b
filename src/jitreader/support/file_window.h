#ifndef QUARVEL_SUPPORT_FILE_WINDOW_H
#define QUARVEL_SUPPORT_FILE_WINDOW_H

// A regular file read forward through one buffer that the reads refill: for
// readers that walk a file once and copy out what they keep. Copying a
// stretch into the same warm buffer with read() costs a fraction of faulting
// in a mapping's pages one by one, which on a virtual machine is most of the
// cost of walking a mapped trace.

#include "support/cache_lines.h"
#include "support/mapped_file.h"
#include "support/regular_file.h"
#include "support/result.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

QUARVEL_NAMESPACE_BEGIN

class FileWindow {
public:
    // meFileOpenError (with the system's reason) when the file cannot be
    // read; a symbolic link is refused as MappedFile refuses it.
    static Expected<std::unique_ptr<FileWindow>> open(const std::string& path);

    // What one refill reads: big enough that a read() call's fixed cost is
    // lost in the copy, small enough to stay in the caches between the copy
    // and the decoding, and to come from the general heap's reused blocks
    // rather than a fresh mapping per file.
    static constexpr size_t kChunkBytes = size_t(128) << 10;

    FileWindow(const FileWindow&) = delete;
    FileWindow& operator=(const FileWindow&) = delete;

    // The file's size when it was opened; what is appended later is not read.
    uint64_t size() const { return m_size; }
    const std::string& path() const { return m_path; }

    // The bytes [offset, offset + length), valid until the next call. Offsets
    // only move forward: bytes before the last call's offset may be gone.
    // Null when the file cannot give them (it shrank, or the system failed
    // to read it); error() then says why.
    const uint8_t* at(uint64_t offset, size_t length);
    // The file's first size() bytes mapped read-only, for a reader that keeps
    // views of some of what it reads (code bytes) instead of copying them:
    // the pages are faulted in only when a view is read. The mapping lives
    // as long as its last holder; the file must not shrink meanwhile.
    Expected<std::shared_ptr<const MappedFile>> map() const;
    const std::string& error() const { return m_error; }

private:
    FileWindow(std::string path, RegularFile file);
    bool fill(uint64_t offset, size_t length);

    std::string m_path;
    RegularFile m_file;
    uint64_t m_size;
    static constexpr size_t kLine =
        kCacheLine; // the kernel copies fastest into a destination at its source's place in a line
    struct alignas(kLine) Line {
        uint8_t bytes[kLine];
    };
    uint8_t* bytes() { return reinterpret_cast<uint8_t*>(m_buffer.get()); }
    size_t capacity() const { return m_lines * kLine; }

    std::unique_ptr<Line[]> m_buffer;
    size_t m_lines = 0;
    uint64_t m_bufferOffset = 0; // the file offset of the buffer's first byte, a line's start
    size_t m_filled = 0;         // bytes of m_buffer holding file content
    std::string m_error;
};

QUARVEL_NAMESPACE_END

#endif

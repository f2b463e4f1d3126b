#ifndef QUARVEL_SUPPORT_MAPPED_FILE_H
#define QUARVEL_SUPPORT_MAPPED_FILE_H

// A whole file, read-only, mapped into memory for one reading pass: readers
// of whole-file formats walk it with a ByteCursor. Regular files only; a
// symbolic link is refused (traces are read through their real path).

#include "support/regular_file.h"
#include "support/result.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

QUARVEL_NAMESPACE_BEGIN

class MappedFile {
public:
    // meFileOpenError (with the system's reason) when the file cannot be read.
    // Access::whole: the reader will touch every page, so they are mapped in
    // the same call rather than faulted in one small run at a time.
    enum class Access { asRead, whole };
    static Expected<std::shared_ptr<const MappedFile>> open(const std::string& path, Access access = Access::asRead);
    // The first `size` bytes of a file already open, named `path` in errors.
    static Expected<std::shared_ptr<const MappedFile>> map(const RegularFile& file, const std::string& path,
                                                           size_t size, Access access = Access::asRead);

    ~MappedFile();
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    const uint8_t* data() const { return m_data; }
    size_t size() const { return m_size; }
    const std::string& path() const { return m_path; }

    // Mappings alive in the process. Each is one of the memory mappings the
    // system allows a process (65530 by default). A reader that would keep a
    // file mapped for long (its code bytes as views) keeps it only while the
    // live mappings, its own counted, stay within keepLimit(), and copies
    // what it keeps otherwise: a set of many thousand files must leave the
    // rest of the system's limit to the heap and the index's arrays.
    static size_t liveMappings() { return s_live.load(std::memory_order_relaxed); }
    static size_t keepLimit() { return s_keepLimit.load(std::memory_order_relaxed); }
    static void setKeepLimit(size_t limit) { s_keepLimit.store(limit, std::memory_order_relaxed); } // tests
    static bool withinKeepLimit() { return liveMappings() <= keepLimit(); }

private:
    MappedFile(std::string path, const uint8_t* data, size_t size);

    static std::atomic<size_t> s_live;
    static std::atomic<size_t> s_keepLimit;

    std::string m_path;
    const uint8_t* m_data;
    size_t m_size;
};

QUARVEL_NAMESPACE_END

#endif

// A mapped file whose read pages were handed back to the system still reads
// the file's bytes everywhere: the trace decoder releases what it passed and
// the model may keep views into it.

#include "support/mapped_file.h"
#include "temp_dir.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

using namespace quarvel;
using quarvel_test::TempDir;

namespace mapped_file_test {

TEST(MappedFile, BytesReadTheSameAfterTheirPagesAreReleased) {
    TempDir dir;
    const std::string path = dir.file("pages.bin");
    std::vector<char> bytes(5 * 4096 + 123);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>((i * 131 + i / 4096) & 0xFF);
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));

    Expected<std::shared_ptr<const MappedFile>> file = MappedFile::open(path);
    ASSERT_TRUE(file.ok());
    const MappedFile& mapped = *file.value();
    ASSERT_EQ(bytes.size(), mapped.size());
    // Inside a page, on a page bound, past the end: whatever is released reads back.
    for (size_t offset : {size_t(0), size_t(100), size_t(4096), size_t(3 * 4096 + 7), bytes.size() + 4096}) {
        SCOPED_TRACE(offset);
        mapped.releaseBefore(offset);
        for (size_t i = 0; i < bytes.size(); ++i)
            ASSERT_EQ(bytes[i], static_cast<char>(mapped.data()[i])) << "byte " << i;
    }
}

} // namespace mapped_file_test

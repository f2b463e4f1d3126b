// A file read forward through a refilled buffer gives the file's bytes for
// any run of requests, however they fall on the buffer's refills, and says
// where and why when the file cannot give them.

#include "support/file_window.h"
#include "temp_dir.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace quarvel;
using quarvel_test::TempDir;

namespace file_window_test {

std::string patterned(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 131 + i / 4096) & 0xFF);
    return bytes;
}

// Requests as (offset, length), each at or after the one before: within the
// buffer, across a refill, larger than a refill, touching the file's end, at
// odd offsets.
TEST(FileWindow, GivesTheFileBytesForForwardRequests) {
    const size_t chunk = FileWindow::kChunkBytes;
    const size_t size = 3 * chunk + 77;
    const std::vector<std::vector<std::pair<size_t, size_t>>> runs = {
        {{0, 8}, {8, 100}, {108, 4096}},
        {{0, 4}, {chunk - 3, 8}, {chunk + 5, 10}},
        {{10, 8}, {18, chunk + chunk / 3}, {18 + chunk + chunk / 3, 8}},
        {{0, size}},
        {{size - 8, 8}, {size, 0}},
        {{100, 8}, {100, 16}, {2 * chunk, 8}},
        {{3, 5}, {chunk + 17, 9}, {2 * chunk + 41, chunk / 2}},
    };
    TempDir dir;
    const std::string bytes = patterned(size);
    const std::string path = dir.write("window.bin", bytes);
    for (size_t r = 0; r < runs.size(); ++r) {
        Expected<std::unique_ptr<FileWindow>> window = FileWindow::open(path);
        ASSERT_TRUE(window.ok());
        ASSERT_EQ(size, window.value()->size());
        for (const auto& request : runs[r]) {
            SCOPED_TRACE("run " + std::to_string(r) + ", offset " + std::to_string(request.first));
            const uint8_t* got = window.value()->at(request.first, request.second);
            ASSERT_NE(nullptr, got) << window.value()->error();
            ASSERT_EQ(bytes.substr(request.first, request.second),
                      std::string(reinterpret_cast<const char*>(got), request.second));
            // A byte lies where it lies in its page: the kernel copies into such a buffer fast.
            if (request.second) {
                EXPECT_EQ(request.first % 64, reinterpret_cast<uintptr_t>(got) % 64);
            }
        }
    }
}

TEST(FileWindow, SaysWhyBytesAreMissing) {
    TempDir dir;
    const size_t size = 16 * FileWindow::kChunkBytes;
    const std::string path = dir.write("short.bin", patterned(size));
    Expected<std::unique_ptr<FileWindow>> window = FileWindow::open(path);
    ASSERT_TRUE(window.ok());
    FileWindow& w = *window.value();
    EXPECT_EQ(nullptr, w.at(size - 10, 20));
    EXPECT_EQ("asked for 20 bytes at offset " + std::to_string(size - 10) + " of a " + std::to_string(size) +
                  "-byte file",
              w.error());
    // Cut after opening: what the buffer holds stays readable, the rest is missing.
    ASSERT_NE(nullptr, w.at(0, 100));
    const size_t cut = 4 * FileWindow::kChunkBytes;
    ASSERT_EQ(0, ::truncate(path.c_str(), static_cast<off_t>(cut)));
    EXPECT_NE(nullptr, w.at(50, 50));
    EXPECT_EQ(nullptr, w.at(cut + 100, 10));
    EXPECT_EQ("the file shrank below the " + std::to_string(size) + " bytes it had when opened: nothing at offset " +
                  std::to_string(cut + 100),
              w.error());

    const std::string missing = dir.file("none.bin");
    Expected<std::unique_ptr<FileWindow>> none = FileWindow::open(missing);
    ASSERT_FALSE(none.ok());
    EXPECT_EQ(meFileOpenError, none.reason().code);
    EXPECT_EQ(missing, none.reason().file);
    ASSERT_EQ(0, ::symlink(path.c_str(), dir.file("link.bin").c_str()));
    EXPECT_FALSE(FileWindow::open(dir.file("link.bin")).ok());
}

} // namespace file_window_test

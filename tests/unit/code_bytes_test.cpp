// Code bytes of runtime files: a view into a file's mapping keeps the mapping
// alive, and taking new bytes (even its own) never reads a released mapping.

#include "byte_buffers.h"
#include "support/code_bytes.h"
#include "support/mapped_file.h"
#include "temp_dir.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace code_bytes_test {

using namespace quarvel;
using quarvel_test::bytesOf;
using quarvel_test::TempDir;

std::shared_ptr<const MappedFile> mapped(const TempDir& dir, const std::vector<unsigned char>& bytes) {
    Expected<std::shared_ptr<const MappedFile>> file =
        MappedFile::open(dir.write("code.bin", std::string(bytes.begin(), bytes.end())));
    EXPECT_TRUE(file.ok());
    return file.ok() ? *file : nullptr;
}

TEST(CodeBytes, AViewOutlivesItsReaderAndBecomesACopyOnAssign) {
    TempDir dir;
    const std::vector<unsigned char> code = {0x55, 0x48, 0x89, 0xe5, 0x90, 0xc3};
    std::shared_ptr<const MappedFile> file = mapped(dir, code);
    ASSERT_TRUE(file);
    EXPECT_EQ(nullptr, CodeBytes(file, file->data(), 0).data()); // an empty view holds nothing
    CodeBytes view(file, file->data() + 1, 4);
    const unsigned char* const inFile = file->data() + 1;
    file.reset(); // the reader is gone; the view holds the mapping
    EXPECT_EQ(inFile, view.data());
    EXPECT_EQ(std::vector<unsigned char>(code.begin() + 1, code.begin() + 5), bytesOf(&view));

    // Its own bytes: copied before the mapping is let go.
    view.assign(view.data(), view.size());
    EXPECT_NE(inFile, view.data());
    EXPECT_EQ(std::vector<unsigned char>(code.begin() + 1, code.begin() + 5), bytesOf(&view));

    const unsigned char other[] = {0xcc, 0xcc};
    view.assign(other, sizeof other);
    EXPECT_EQ(std::vector<unsigned char>(other, other + 2), bytesOf(&view));
    view.assign(nullptr, 3);
    EXPECT_EQ(0u, view.size());
    EXPECT_EQ(nullptr, view.data());
}

} // namespace code_bytes_test

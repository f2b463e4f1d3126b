// The reading pass shares one SourceFile per distinct source file: the same
// content must give the same object (before and after its table grows), and
// files that differ in any field (name, checksum, its type, the language)
// must stay apart.

#include "ingest/method_builder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quarvel;

namespace source_file_sharing_test {

struct Fields {
    std::string name;
    std::string checksum;
    unsigned checksumType;
    unsigned language;
};

TEST(SourceFileSharing, SameContentSameObjectAnyDifferenceAnother) {
    std::vector<Fields> files;
    for (int i = 0; i < 300; ++i) {
        const std::string name = "File" + std::to_string(i / 4) + ".java";
        // Four variants of each name, each differing in one field.
        switch (i % 4) {
        case 0: files.push_back({name, "", 0, 1}); break;
        case 1: files.push_back({name, "ab12", 0, 1}); break;
        case 2: files.push_back({name, "ab12", 2, 1}); break;
        default: files.push_back({name, "ab12", 2, 3}); break;
        }
    }
    ModuleCache cache;
    std::vector<const SourceFile*> first;
    for (const Fields& f : files)
        first.push_back(cache.sourceFile(f.name, f.checksum, f.checksumType, f.language).get());
    for (size_t i = 0; i < files.size(); ++i) {
        const Fields& f = files[i];
        const SourceFile::Ptr again = cache.sourceFile(f.name, f.checksum, f.checksumType, f.language);
        EXPECT_EQ(first[i], again.get()) << f.name << " variant " << i % 4;
        EXPECT_EQ(f.name, again->name());
        EXPECT_EQ(f.checksum, again->getChecksum());
        EXPECT_EQ(f.checksumType, again->getChecksumType());
        EXPECT_EQ(f.language, again->getLanguageType());
        if (i > 0) {
            EXPECT_NE(first[i - 1], first[i]) << "files " << i - 1 << " and " << i << " differ";
        }
    }
}

} // namespace source_file_sharing_test

// The reading pass shares one SourceFile per distinct source file: the same
// content must give the same object (before and after its table grows), and
// files that differ in any field (name, checksum, its type, the language)
// must stay apart. The references it hands out come from batches it takes
// ahead: every one must be counted once, whether the cache or the method
// goes first. The registry then keeps one object per content across passes.

#include "index/method_registry.h"
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
        case 0:
            files.push_back({name, "", 0, 1});
            break;
        case 1:
            files.push_back({name, "ab12", 0, 1});
            break;
        case 2:
            files.push_back({name, "ab12", 2, 1});
            break;
        default:
            files.push_back({name, "ab12", 2, 3});
            break;
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

// A slot compares the first bytes it holds itself, then the rest from its
// texts: contents of one hash that differ at either side of that bound, in
// the name or in the checksum, must stay apart.
TEST(SourceFileSharing, ContentsOfOneHashDifferingAnywhereStayApart) {
    const std::string longName = "a/long/package/path/Name.java"; // past the slot's own bytes
    const std::vector<Fields> files = {
        {"Short.java", "", 0, 1},
        {"Short.javb", "", 0, 1},
        {longName, "", 0, 1},
        {longName.substr(0, longName.size() - 1) + "b", "", 0, 1}, // differs in its last byte
        {"x" + longName.substr(1), "", 0, 1},                      // in its first
        {"Name.java", "0123456789abcdef", 1, 1},                   // the checksum runs past the bound
        {"Name.java", "0123456789abcdeF", 1, 1},
        {"Name.java", "0123456X89abcdef", 1, 1},
        {"Name.jav", "a0123456789abcdef", 1, 1}, // the same bytes split elsewhere
    };
    const size_t hash = 42; // every content in one chain of slots
    ModuleCache cache;
    std::vector<const SourceFile*> made;
    for (const Fields& f : files)
        made.push_back(cache.sourceFile(f.name, f.checksum, f.checksumType, f.language, hash).get());
    for (size_t i = 0; i < files.size(); ++i) {
        const Fields& f = files[i];
        EXPECT_EQ(made[i], cache.sourceFile(f.name, f.checksum, f.checksumType, f.language, hash).get()) << i;
        for (size_t j = 0; j < i; ++j)
            EXPECT_NE(made[j], made[i]) << j << " and " << i;
    }
}

// The count a file's holders see: the cache's batches must neither leak nor
// give back a reference a method still holds.
unsigned references(const SourceFile& file) {
    file.addRef();
    return file.release();
}

TEST(SourceFileSharing, EveryReferenceHandedOutIsCountedOnceAndOutlivesTheCache) {
    for (const size_t handedOut : {size_t(1), size_t(2), size_t(3), size_t(100), size_t(1000)}) {
        SCOPED_TRACE(handedOut);
        std::vector<SourceFile::Ptr> held;
        {
            ModuleCache cache;
            for (size_t i = 0; i < handedOut; ++i) {
                held.push_back(cache.sourceFile("Held.java", "", 0, 1));
                cache.sourceFile("Other.java", "", 0, 1); // dropped at once, the batches interleaved
            }
            EXPECT_GE(references(*held.front()), handedOut + 1); // the cache's own and its batch's rest
        }
        EXPECT_EQ(handedOut, references(*held.front()));
        for (const SourceFile::Ptr& file : held)
            EXPECT_EQ(held.front(), file);
        held.resize(1);
        EXPECT_EQ(1u, references(*held.front()));
        EXPECT_EQ("Held.java", held.front()->name());
    }
}

// Two passes (two caches) each make their own object for one content; the
// registry hands every method the first one it kept, and a method that
// already holds a kept object keeps it.
TEST(SourceFileSharing, TheRegistryKeepsOneObjectPerContentAcrossPasses) {
    MethodRegistry registry;
    ModuleCache first;
    ModuleCache second;
    std::vector<JitMethod::Ptr> methods;
    for (int i = 0; i < 200; ++i) {
        ModuleCache& cache = i % 2 ? second : first;
        JitMethod::Ptr method = adoptNew(new JitMethod());
        method->info()->shareSourceFile(cache.sourceFile("File" + std::to_string(i % 50) + ".java", "", 0, 1));
        registry.internShared(*method);
        methods.push_back(method);
    }
    for (int i = 0; i < 200; ++i) {
        const SourceFile::Ptr& file = methods[i]->info()->sharedSourceFile();
        EXPECT_EQ("File" + std::to_string(i % 50) + ".java", file->name());
        EXPECT_EQ(methods[i % 50]->info()->sharedSourceFile(), file) << "method " << i;
    }
    EXPECT_NE(methods[0]->info()->sharedSourceFile(), methods[1]->info()->sharedSourceFile());
}

} // namespace source_file_sharing_test

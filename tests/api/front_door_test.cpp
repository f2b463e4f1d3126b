// Bad inputs at the factories and the first queries: each gives its
// documented result and none crashes.

#include "api_fixture.h"

#include <sys/stat.h>
#include <unistd.h>

namespace api_test {
namespace front_door_test {

TEST(FrontDoorTest, MissingPathsAndUnparsableNamesFailEveryFactory) {
    TempDir dir;
    TraceBuilder().load(3, method(1, 100, 0x1000, 16, "m"), true).writeTo(dir.file("h.1.jit"));
    dir.write("notes.txt", "\1\2\3");
    for (const std::string& bad : {dir.file("h.2.jit"), dir.file("missing/"), dir.file("notes.txt"), std::string("")}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(makeLoader({dir.file("h.1.jit"), bad}));
        EXPECT_FALSE(makeResolver({dir.file("h.1.jit"), bad}));
        EXPECT_FALSE(makeProcesses({dir.file("h.1.jit"), bad}));
    }
    std::vector<const char*> withNull{nullptr};
    generic_iterator_t<const char*> it(withNull.begin(), withNull.end());
    EXPECT_FALSE(IJitLoader::create(it));
    EXPECT_FALSE(IJitProcesses::create(it));
    ISymbolFileLocator::Ptr none;
    EXPECT_FALSE(ISymbolResolver::create(it, none));
}

TEST(FrontDoorTest, EmptyDirectoriesAndDirectoriesOfOtherFilesGiveEmptySets) {
    TempDir empty;
    TempDir others;
    others.write("README", "x");
    others.write("data.bin", "\1\2");
    stdfs::create_directory(others.file("sub.3.jit"));
    for (const std::string& path : {empty.path(), others.path()}) {
        SCOPED_TRACE(path);
        IJitLoader::Ptr loader = makeLoader({path});
        ASSERT_TRUE(loader);
        EXPECT_EQ(meNotFound, resolve(loader, "h", 1, 100, 0x1000));
        ISymbol::Ptr symbol;
        EXPECT_EQ(meNotFound, loader->findSymbol("app.jar", 1, symbol));
        ISymbolResolver::Ptr resolver = makeResolver({path});
        ASSERT_TRUE(resolver);
        EXPECT_TRUE(itemsOf(resolver->getSymbols()).empty());
        EXPECT_FALSE(resolver->getSymbol(0x1000));
        IJitProcesses::Ptr processes = makeProcesses({path});
        ASSERT_TRUE(processes);
        EXPECT_TRUE(processes->getJitProcessId().atEnd());
        EXPECT_TRUE(processes->getJitProcessId().atEnd());
    }
    // No path at all is an empty set too.
    EXPECT_TRUE(makeLoader(Paths(std::vector<std::string>{})));
}

TEST(FrontDoorTest, SymlinksAreNotReadThrough) {
    TempDir dir;
    TempDir real;
    TraceBuilder().load(3, method(1, 100, 0x1000, 16, "m"), true).writeTo(real.file("h.1.jit"));
    stdfs::create_symlink(real.file("h.1.jit"), dir.file("h.1.jit"));

    // In a directory a link is passed over.
    IJitProcesses::Ptr listed = makeProcesses({dir.path()});
    ASSERT_TRUE(listed);
    EXPECT_TRUE(itemsOf(listed->getJitProcessId()).empty());

    // Named directly it is part of the set, but the reader refuses to open it.
    IJitLoader::Ptr loader = makeLoader({dir.file("h.1.jit")});
    ASSERT_TRUE(loader);
    EXPECT_EQ(meNotFound, resolve(loader, "h", 1, 100, 0x1000));
    ISymbolResolver::Ptr resolver = makeResolver({dir.file("h.1.jit")});
    ASSERT_TRUE(resolver);
    EXPECT_TRUE(itemsOf(resolver->getSymbols()).empty());

    // The real path reads.
    IJitLoader::Ptr direct = makeLoader({real.file("h.1.jit")});
    EXPECT_EQ(meSuccess, resolve(direct, "h", 1, 100, 0x1000));
}

TEST(FrontDoorTest, UnreadableFile) {
    if (::geteuid() == 0)
        GTEST_SKIP() << "file permissions do not stop root";
    TempDir dir;
    TraceBuilder().load(3, method(1, 100, 0x1000, 16, "m"), true).writeTo(dir.file("h.1.jit"));
    ::chmod(dir.file("h.1.jit").c_str(), 0);
    IJitLoader::Ptr loader = makeLoader({dir.path()});
    ASSERT_TRUE(loader);
    EXPECT_EQ(meFileOpenError, resolve(loader, "h", 1, 100, 0x1000));
    ISymbolResolver::Ptr resolver = makeResolver({dir.path()});
    ASSERT_TRUE(resolver);
    EXPECT_TRUE(itemsOf(resolver->getSymbols()).empty());
}

TEST(FrontDoorTest, FifoNamedDirectlyFailsAndIsPassedOverInADirectory) {
    TempDir dir;
    ASSERT_EQ(0, ::mkfifo(dir.file("h.1.jit").c_str(), 0600));
    EXPECT_FALSE(makeLoader({dir.file("h.1.jit")}));
    IJitLoader::Ptr loader = makeLoader({dir.path()});
    ASSERT_TRUE(loader);
    EXPECT_EQ(meNotFound, resolve(loader, "h", 1, 100, 0x1000));
}

TEST(FrontDoorTest, TruncatedFilesKeepWhatWasWrittenBeforeTheCut) {
    TraceBuilder trace;
    trace.magic()
        .collector(ctJitProfiler)
        .load(3, method(1, 100, 0x1000, 16, "first"), true)
        .inlineLoad(inlined(11, 1, 110, 0x1004, 4, "inner"))
        .load(3, method(2, 100, 0x2000, 16, "second"), true);

    // Cut the file at every length: the first method resolves once its
    // record is complete, and nothing fails to create.
    size_t firstComplete = 0;
    for (size_t cut = 0; cut <= trace.bytes().size(); ++cut) {
        TempDir dir;
        trace.writeTo(dir.file("h.1.jit"), cut);
        IJitLoader::Ptr loader = makeLoader({dir.path()});
        ASSERT_TRUE(loader) << cut;
        const quarvel_error_t ret = resolve(loader, "h", 1, 150, 0x1002);
        ASSERT_TRUE(ret == meSuccess || ret == meNotFound) << cut << ": " << ret;
        if (ret == meSuccess && firstComplete == 0)
            firstComplete = cut;
        if (firstComplete) {
            EXPECT_EQ(meSuccess, ret) << cut;
        }
        ISymbolResolver::Ptr resolver = makeResolver({dir.path()});
        ASSERT_TRUE(resolver) << cut;
        EXPECT_LE(itemsOf(resolver->getSymbols()).size(), 2u);
    }
    EXPECT_GT(firstComplete, 0u);
    EXPECT_LT(firstComplete, trace.bytes().size());
}

TEST(FrontDoorTest, RandomBytesNeverCrash) {
    TempDir dir;
    std::mt19937 random(20240601);
    std::vector<unsigned> pids;
    for (unsigned pid = 1; pid <= 40; ++pid) {
        std::vector<uint8_t> bytes(random() % 3000);
        for (uint8_t& b : bytes)
            b = static_cast<uint8_t>(random());
        // Every fourth file starts like a real trace, so the damage comes later.
        if (pid % 4 == 0 && bytes.size() > 12) {
            const std::vector<uint8_t> head = jittrace::frameValue(quarvel_jt_Magic, 0);
            std::copy(head.begin(), head.end(), bytes.begin());
            bytes[8] = static_cast<uint8_t>(quarvel_jt_FunctionLoad64_v3);
            bytes[9] = bytes[10] = bytes[11] = 0;
        }
        dir.write("noise." + std::to_string(pid) + ".jit", std::string(bytes.begin(), bytes.end()));
        pids.push_back(pid);
    }
    IJitLoader::Ptr loader = makeLoader({dir.path()});
    ASSERT_TRUE(loader);
    for (unsigned pid : pids) {
        const quarvel_error_t ret = resolve(loader, "noise", pid, 100, 0x1000);
        EXPECT_TRUE(ret == meSuccess || ret == meNotFound) << pid << ": " << ret;
    }
    ISymbol::Ptr symbol;
    loader->findSymbol("x", 1, symbol);
    ISymbolResolver::Ptr resolver = makeResolver({dir.path()});
    ASSERT_TRUE(resolver);
    for (const ISymbol::Ptr& s : itemsOf(resolver->getSymbols()))
        resolver->getSymbol(s->getStartJitRva());
    // A directory holds only the files whose content is a trace's; named
    // one by one, every file is taken as a trace.
    IJitProcesses::Ptr processes = makeProcesses({dir.path()});
    ASSERT_TRUE(processes);
    EXPECT_LE(itemsOf(processes->getJitProcessId()).size(), pids.size());
    EXPECT_GE(itemsOf(processes->getJitProcessId()).size(), pids.size() / 4);
    std::vector<std::string> files;
    for (unsigned pid : pids)
        files.push_back(dir.file("noise." + std::to_string(pid) + ".jit"));
    IJitProcesses::Ptr named = makeProcesses(Paths(files));
    ASSERT_TRUE(named);
    EXPECT_EQ(pids.size(), itemsOf(named->getJitProcessId()).size());
}

} // namespace
} // namespace api_test

// The portable PDB reader: sequence point blobs (the format's own examples,
// hidden points, document switches, wide deltas, damage), the line of an IL
// offset, documents, and the PDB file itself.

#include "dotnet_test_support.h"
#include "log_capture.h"
#include "temp_dir.h"

#include "dotnet/assembly_reader_impl.h"
#include "dotnet/clr_symreader.h"
#include "dotnet/portable_pdb.h"
#include "dotnet/sequence_points.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quarvel;
using namespace dotnet_test;
using quarvel_test::compressed;
using quarvel_test::compressedSigned;
using quarvel_test::LogCapture;
using quarvel_test::TempDir;

namespace dotnet_pdb_test {

const uint32_t H = SequencePoint::kHiddenLine;

struct Point {
    uint32_t il, line, column, endLine, endColumn, document;
};

std::vector<Point> plain(const std::vector<SequencePoint>& points) {
    std::vector<Point> out;
    for (const SequencePoint& p : points)
        out.push_back({p.ilOffset, p.startLine, p.startColumn, p.endLine, p.endColumn, p.document});
    return out;
}

bool operator==(const Point& a, const Point& b) {
    return a.il == b.il && a.line == b.line && a.column == b.column && a.endLine == b.endLine &&
           a.endColumn == b.endColumn && a.document == b.document;
}

std::ostream& operator<<(std::ostream& os, const Point& p) {
    return os << "{il " << p.il << ", " << p.line << ":" << p.column << "-" << p.endLine << ":" << p.endColumn
              << ", doc " << p.document << "}";
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

TEST(SequencePoints, DecodeTheFormatsShapes) {
    struct Case {
        const char* what;
        Bytes blob;
        uint32_t rowDocument;
        std::vector<Point> points;
    };
    const std::vector<Case> cases = {
        // local signature 1; IL 0 (9,9)-(9,10); IL 1 (10,13)-(10,14); IL 0x0a (11,9)-(11,10), where 79 is -4.
        {"relative lines and columns",
         {0x01, 0x00, 0x00, 0x01, 0x09, 0x09, 0x01, 0x00, 0x01, 0x02, 0x08, 0x09, 0x00, 0x01, 0x02, 0x79},
         1,
         {{0, 9, 9, 9, 10, 1}, {1, 10, 13, 10, 14, 1}, {10, 11, 9, 11, 10, 1}}},
        // The initial document in the blob, a hidden point, a switch to document 2 and a
        // two-byte start line delta of +191.
        {"documents and hidden points",
         {0x00, 0x01, 0x00, 0x00, 0x04, 0x0A, 0x05, 0x08, 0x00, 0x00, 0x00, 0x02, 0x02, 0x01, 0x02, 0x81, 0x7E, 0x00},
         0,
         {{0, 10, 5, 10, 9, 1}, {8, H, 0, H, 0, 1}, {10, 201, 5, 202, 6, 2}}},
        {"a hidden first point does not count as the first line",
         {0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x02, 0x07, 0x03},
         4,
         {{0, H, 0, H, 0, 4}, {3, 7, 3, 7, 5, 4}}},
        {"four-byte deltas",
         cat({{0x00},
              compressed(0x4000),
              {0x00, 0x01},
              compressed(90000),
              {0x0D},
              compressed(0x100),
              {0x01, 0x02},
              compressedSigned(3 - 90000),
              {0x00}}),
         1,
         {{0x4000, 90000, 13, 90000, 14, 1}, {0x4100, 3, 13, 4, 14, 1}}},
        {"no points", {0x05}, 1, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<SequencePoint> points;
        const Status s = decodeSequencePoints(ByteCursor(c.blob), c.rowDocument, points);
        ASSERT_TRUE(s.ok()) << s.reason().text();
        EXPECT_EQ(c.points, plain(points));
    }
}

TEST(SequencePoints, DamageKeepsThePointsBeforeIt) {
    struct Case {
        const char* what;
        Bytes blob;
        size_t kept;
        std::string reason;
    };
    const std::vector<Case> cases = {
        {"truncated record",
         {0x01, 0x00, 0x00, 0x01, 0x09, 0x09, 0x01, 0x00},
         1,
         "offset 6: sequence points: unexpected end of data at offset 8 while reading column delta: 1 bytes needed, 0 "
         "left"},
        {"IL offset past the limit",
         cat({{0x00}, compressed(0x1FFFFFFF), {0x00, 0x01, 0x05, 0x01}, compressed(0x1FFFFFFF)}), 1,
         "offset 9: sequence points: IL offset 1073741822 out of range"},
        {"the hidden line as a real line", cat({{0x00, 0x00, 0x00, 0x01}, compressed(0xFEEFEE), {0x01}}), 0,
         "offset 1: sequence points: point 16707566:1-16707566:2 out of range"},
        {"negative column",
         {0x00, 0x00, 0x00, 0x01, 0x09, 0x09, 0x01, 0x00, 0x01, 0x00, 0x41},
         1,
         "offset 6: sequence points: point 9:-23-9:-22 out of range"},
        {"bad compressed integer",
         {0x00, 0x00, 0xE0},
         0,
         "offset 1: sequence points: bad compressed integer (first byte 224) at offset 2 while reading line delta"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<SequencePoint> points;
        const Status s = decodeSequencePoints(ByteCursor(c.blob), 1, points);
        ASSERT_FALSE(s.ok());
        EXPECT_EQ(c.reason, s.reason().text());
        EXPECT_EQ(c.kept, points.size());
    }
}

TEST(SequencePoints, LineOfAnIlOffset) {
    std::vector<SequencePoint> points;
    // IL 0 hidden, 2 line 10, 6 line 11, 9 hidden, 12 line 14.
    const Bytes blob = {0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x01, 0x0A, 0x05, 0x04, 0x00,
                        0x01, 0x02, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x01, 0x06, 0x00};
    ASSERT_TRUE(decodeSequencePoints(ByteCursor(blob), 1, points).ok());
    ASSERT_EQ(5u, points.size());
    const std::vector<std::pair<uint32_t, uint32_t>> lines = {{0, 0},
                                                              {1, 0},
                                                              {2, 10},
                                                              {5, 10},
                                                              {6, 11},
                                                              {8, 11},
                                                              {9, 11} /* hidden: the last visible line */,
                                                              {11, 11},
                                                              {12, 14},
                                                              {500, 14},
                                                              {kPrologue, 10},
                                                              {kEpilogue, 14},
                                                              {kNoMapping, 0}};
    for (const auto& l : lines) {
        const SequencePoint* p = sequencePointAt(points, l.first);
        EXPECT_EQ(l.second, p ? p->startLine : 0) << "IL offset " << l.first;
    }
    EXPECT_EQ(nullptr, sequencePointAt({}, kEpilogue));
}

// A PDB with two documents and three methods: 1 in document 1, 2 with no
// points, 3 starting hidden and moving to document 2.
class PdbFile : public ::testing::Test {
protected:
    Bytes build(const std::map<uint8_t, uint32_t>& typeSystemRows = {{0x06, 3}}) {
        md.pdb(pdbId(9), typeSystemRows);
        const Guid csharp = {0xf8, 0x62, 0x51, 0x3f, 0xc6, 0x07, 0xd3, 0x11,
                             0x90, 0x53, 0x00, 0xc0, 0x4f, 0xa3, 0x02, 0xa1};
        const uint32_t language = md.guid(csharp);
        const uint32_t src = md.blob({'s', 'r', 'c'});
        const uint32_t a = md.blob({'a', '.', 'c', 's'});
        md.row(M::Document, {md.blob(cat({{'/'}, compressed(0), compressed(src), compressed(a)})), 0, 0, language});
        const uint32_t drive = md.blob({'C', ':', '\\', 'x', '\\'});
        md.row(M::Document, {md.blob(cat({{0x00}, compressed(drive), compressed(0), compressed(a)})), 0, 0, 0});
        md.row(M::MethodDebugInformation,
               {1, md.blob({0x00, 0x00, 0x00, 0x01, 0x09, 0x09, 0x04, 0x00, 0x01, 0x02, 0x02})});
        md.row(M::MethodDebugInformation, {0, 0});
        md.row(M::MethodDebugInformation, {0, md.blob({0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 0x02, 0x0C, 0x03})});
        return md.build("PDB v1.0");
    }
    MetadataBuilder md;
    TempDir dir;
};

TEST_F(PdbFile, DocumentsAndMethods) {
    Expected<std::shared_ptr<const PortablePdb>> opened = PortablePdb::open(hold(build(), "x.pdb"));
    ASSERT_TRUE(opened.ok()) << opened.reason().text();
    const PortablePdb& pdb = *opened.value();
    EXPECT_EQ(pdbId(9), pdb.id());
    EXPECT_EQ(2u, pdb.documentCount());
    EXPECT_EQ(3u, pdb.methodCount());
    EXPECT_EQ("/src/a.cs", pdb.document(1)->name);
    EXPECT_EQ("3f5162f8-07c6-11d3-9053-00c04fa302a1", guidText(pdb.document(1)->language));
    EXPECT_EQ("C:\\x\\a.cs", pdb.document(2)->name);
    EXPECT_EQ("x.pdb: Document row 3 does not exist", pdb.document(3).reason().text());

    std::vector<SequencePoint> points;
    ASSERT_TRUE(pdb.sequencePoints(1, points).ok());
    EXPECT_EQ((std::vector<Point>{{0, 9, 9, 9, 10, 1}, {4, 10, 10, 10, 11, 1}}), plain(points));
    ASSERT_TRUE(pdb.sequencePoints(2, points).ok());
    EXPECT_TRUE(points.empty());
    ASSERT_TRUE(pdb.sequencePoints(3, points).ok());
    EXPECT_EQ((std::vector<Point>{{0, H, 0, H, 0, 2}, {1, 12, 3, 12, 5, 2}}), plain(points));
    ASSERT_TRUE(pdb.sequencePoints(4, points).ok()); // past the table: no points
    EXPECT_TRUE(points.empty());
}

// Found by fuzzing: a name whose parts name one long blob again and again.
TEST_F(PdbFile, OverlongDocumentNamesAreRefused) {
    const uint32_t part = md.blob(Bytes(5000, 'x'));
    md.row(M::Document, {md.blob(cat({{'/'}, compressed(part), compressed(part)})), 0, 0, 0});
    Expected<std::shared_ptr<const PortablePdb>> pdb = PortablePdb::open(hold(build(), "x.pdb"));
    ASSERT_TRUE(pdb.ok()) << pdb.reason().text();
    EXPECT_EQ("x.pdb: document name of row 1 longer than 8192 bytes", pdb.value()->document(1).reason().text());
}

// A method's first document and a line in its one document: the assembly
// reader's tests (FindsThePdbWhereverItIs).
TEST_F(PdbFile, SymbolReaderAnswersByRowId) {
    const std::string path = dir.file("x.pdb");
    writeFile(path, build());
    ClrSymReader reader(path);
    ASSERT_EQ(meSuccess, reader.initialize());
    std::string file;
    ASSERT_EQ(meSuccess, reader.getSourceFileWithFuncRowID(3, file)); // the first visible point's document
    EXPECT_EQ("C:\\x\\a.cs", file);
    EXPECT_EQ(meNotFound, reader.getSourceFileWithFuncRowID(2, file));
    unsigned line = 0;
    ASSERT_EQ(meSuccess, reader.getSourceLineWithFuncRowIDAndILOffset(3, kEpilogue, line));
    EXPECT_EQ(12u, line);
    EXPECT_EQ(meNotFound, reader.getSourceLineWithFuncRowIDAndILOffset(3, 0, line)); // hidden only so far
    EXPECT_EQ(meNotFound, reader.getSourceLineWithFuncRowIDAndILOffset(2, 0, line));
    EXPECT_TRUE(isDotNetCoreValidPdb(path));
}

TEST_F(PdbFile, IndicesIntoAssemblyTablesAreSizedByTheAssemblysRows) {
    for (uint32_t methods : {3u, 70000u}) {
        md = MetadataBuilder();
        md.row(M::StateMachineMethod, {1, 2});
        Expected<std::shared_ptr<const PortablePdb>> pdb = PortablePdb::open(hold(build({{0x06, methods}})));
        ASSERT_TRUE(pdb.ok()) << pdb.reason().text();
        EXPECT_EQ(methods < 0x10000 ? 2u : 4u, pdb.value()->tables().columnWidth(table::StateMachineMethod, 0));
        EXPECT_EQ(3u, pdb.value()->methodCount());
    }
}

TEST(PdbRefusals, OtherSymbolFormatsAndDamage) {
    Bytes msf = {'M', 'i', 'c', 'r', 'o', 's', 'o', 'f', 't', ' ', 'C', '/',  'C',
                 '+', '+', ' ', 'M', 'S', 'F', ' ', '7', '.', '0', '0', '\r', '\n'};
    const Bytes mdb = {0x14, 0xa6, 0x7f, 0xfd, 0x23, 0x26, 0xe8, 0x45, 0, 0, 0, 0};
    MetadataBuilder plain;
    plain.row(M::Module, {0, 0, 0, 0, 0});
    const Bytes noPdbStream = plain.build();
    MetadataBuilder debugTables;
    debugTables.pdb(pdbId(1), {{0x30, 1}});
    const Bytes typeSystemCountOfADebugTable = debugTables.build("PDB v1.0");
    const Bytes text = {'h', 'e', 'l', 'l', 'o'};
    const std::vector<std::pair<Bytes, std::string>> cases = {
        {msf, "p.pdb: offset 0: a Windows PDB, not a portable PDB"},
        {mdb, "p.pdb: offset 0: a Mono .mdb symbol file, not a portable PDB"},
        {noPdbStream, "p.pdb: no #Pdb stream: not a portable PDB"},
        {typeSystemCountOfADebugTable, "p.pdb: offset "},
        {text, "p.pdb: offset 0: no metadata signature BSJB (found 1819043176)"},
    };
    for (const auto& c : cases) {
        Expected<std::shared_ptr<const PortablePdb>> pdb = PortablePdb::open(hold(c.first, "p.pdb"));
        ASSERT_FALSE(pdb.ok());
        EXPECT_EQ(0u, pdb.reason().text().find(c.second)) << pdb.reason().text();
    }
    TempDir dir;
    writeFile(dir.file("text.pdb"), text);
    EXPECT_FALSE(isDotNetCoreValidPdb(dir.file("text.pdb")));
    EXPECT_FALSE(isDotNetCoreValidPdb(dir.file("missing.pdb")));
    ClrSymReader reader(dir.file("missing.pdb"));
    EXPECT_EQ(meNotFound, reader.initialize());
    EXPECT_EQ(dir.file("missing.pdb") + ": cannot open: No such file or directory", reader.failure().text());
}

TEST(PdbRefusals, DamagedPointsAreLoggedOncePerFile) {
    MetadataBuilder md;
    md.pdb(pdbId(2), {{0x06, 2}});
    md.row(M::Document, {0, 0, 0, 0});
    md.row(M::MethodDebugInformation, {1, md.blob({0x00, 0x00, 0x00, 0x01, 0x09, 0x09, 0x01})});
    md.row(M::MethodDebugInformation, {1, md.blob({0x00, 0x00, 0xE0})});
    Expected<std::shared_ptr<const PortablePdb>> pdb =
        PortablePdb::open(hold(md.build("PDB v1.0"), "damaged-once.pdb"));
    ASSERT_TRUE(pdb.ok());
    ClrSymReader reader(pdb.value());
    LogCapture log;
    unsigned line = 0;
    // The point before the damage still answers.
    ASSERT_EQ(meSuccess, reader.getSourceLineWithFuncRowIDAndILOffset(1, 3, line));
    EXPECT_EQ(9u, line);
    EXPECT_EQ(meNotFound, reader.getSourceLineWithFuncRowIDAndILOffset(2, 0, line));
    EXPECT_EQ(meNotFound, reader.getSourceLineWithFuncRowIDAndILOffset(2, 4, line));
    ASSERT_EQ(1u, log.errors().size()) << log.dump();
    EXPECT_NE(std::string::npos, log.errors()[0].find("damaged-once.pdb: offset ")) << log.errors()[0];
}

} // namespace

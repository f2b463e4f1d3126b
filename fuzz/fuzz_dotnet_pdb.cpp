// Portable PDBs: the metadata root, #Pdb, the debug tables sized with the
// assembly's row counts, documents, and the sequence points of every method
// with the line lookups the resolver makes.
//
// Input: a portable PDB (seeds: tests/dotnet/make_fuzz_seeds.sh).

#include "fuzz_support.h"

#include "dotnet/clr_symreader.h"
#include "dotnet/file_bytes.h"
#include "dotnet/portable_pdb.h"
#include "dotnet/sequence_points.h"

#include <algorithm>
#include <string>
#include <vector>

using namespace quarvel;

namespace {

const uint32_t kMaxRows = 4096;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quarvel_fuzz::setUpLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Expected<std::shared_ptr<const PortablePdb>> opened =
        PortablePdb::open(FileBytes::hold(std::vector<uint8_t>(data, data + size), "fuzz.pdb"));
    if (!opened)
        return 0;
    const std::shared_ptr<const PortablePdb>& pdb = opened.value();
    for (uint32_t rid = 0; rid <= std::min(pdb->documentCount() + 1, kMaxRows); ++rid)
        (void)pdb->document(rid);
    ClrSymReader reader(pdb);
    std::vector<SequencePoint> points;
    for (uint32_t rid = 0; rid <= std::min(pdb->methodCount() + 1, kMaxRows); ++rid) {
        (void)pdb->sequencePoints(rid, points);
        std::string file;
        (void)reader.getSourceFileWithFuncRowID(rid, file);
        unsigned line = 0;
        for (uint32_t il : {0u, 1u, 7u, 0x100u, uint32_t(kPrologue), uint32_t(kEpilogue), uint32_t(kNoMapping)})
            (void)reader.getSourceLineWithFuncRowIDAndILOffset(rid, il, line);
        for (const SequencePoint& p : points)
            (void)reader.getSourceLineWithFuncRowIDAndILOffset(rid, p.ilOffset, line);
    }
    return 0;
}

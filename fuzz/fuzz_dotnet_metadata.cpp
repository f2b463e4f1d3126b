// .NET assemblies: PE/COFF headers, metadata root, table stream, heaps, every
// MethodDef described (names, signatures, IL sizes), the runtime marks, the
// debug directory and an embedded PDB with its sequence points. Nothing is
// read from the file system: the input is the whole image.
//
// Input: an assembly (seeds: tests/dotnet/make_fuzz_seeds.sh).

#include "fuzz_support.h"

#include "dotnet/assembly_metadata.h"
#include "dotnet/debug_directory.h"
#include "dotnet/embedded_pdb.h"
#include "dotnet/file_bytes.h"
#include "dotnet/portable_pdb.h"
#include "dotnet/runtime_marks.h"

#include <algorithm>
#include <vector>

using namespace quarvel;

namespace {

// Bounds the work per input; real assemblies are far larger than fuzz inputs.
const uint32_t kMaxMethods = 4096;

void readPdb(const FileBytes& bytes) {
    Expected<std::shared_ptr<const PortablePdb>> pdb = PortablePdb::open(bytes);
    if (!pdb)
        return;
    std::vector<SequencePoint> points;
    for (uint32_t rid = 1; rid <= std::min(pdb.value()->methodCount(), kMaxMethods); ++rid)
        (void)pdb.value()->sequencePoints(rid, points);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quarvel_fuzz::setUpLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const FileBytes bytes = FileBytes::hold(std::vector<uint8_t>(data, data + size), "fuzz.dll");
    Expected<PeImage> image = PeImage::parse(bytes);
    if (!image)
        return 0;
    Expected<std::shared_ptr<const AssemblyMetadata>> opened = AssemblyMetadata::open(image.value());
    if (opened) {
        const AssemblyMetadata& assembly = *opened.value();
        for (uint32_t rid = 0; rid <= std::min(assembly.methodCount() + 1, kMaxMethods); ++rid) {
            Expected<MethodDescription> method = assembly.describeMethod(0x06000000 | rid);
            if (method)
                assembly.readIlBody(method.value());
        }
        (void)runtimeMarks(assembly);
    }
    Expected<DebugDirectory> debug = DebugDirectory::read(image.value());
    if (debug && debug.value().embeddedPdb()) {
        Expected<ByteCursor> entry = DebugDirectory::data(image.value(), *debug.value().embeddedPdb());
        if (entry) {
            Expected<std::vector<uint8_t>> pdb = inflateEmbeddedPdb(entry.value());
            if (pdb)
                readPdb(FileBytes::hold(std::move(pdb.value()), "fuzz.dll (embedded PDB)"));
        }
    }
    return 0;
}

// Prints what our readers find in .NET assemblies, line for line in the
// format of the peer tool (peer/Program.cs), so that ctest can compare the
// two outputs byte for byte:
//
//   quarvel_dotnet_dump <assembly>...
//   quarvel_dotnet_dump --embedded-pdb <assembly> <output>   (writes the PDB the assembly embeds)

#include "dotnet/assembly_metadata.h"
#include "dotnet/debug_directory.h"
#include "dotnet/embedded_pdb.h"
#include "dotnet/file_bytes.h"
#include "dotnet/metadata_heaps.h"
#include "dotnet/pdb_finder.h"
#include "dotnet/portable_pdb.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

using namespace quarvel;

namespace {

std::string hex(uint32_t value, int width = 0) {
    char text[16];
    std::snprintf(text, sizeof text, "%0*x", width, value);
    return text;
}

std::string fileNameOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string ilSize(const MethodDescription& m) {
    switch (m.ilBody) {
    case MethodDescription::IlBody::none:
        return "-";
    case MethodDescription::IlBody::damaged:
        return "bad";
    case MethodDescription::IlBody::present:
        return std::to_string(m.ilSize);
    }
    return "?";
}

// Everything is collected first: a file that fails halfway prints only "error".
bool dump(const std::string& path, std::vector<std::string>& lines) {
    Expected<FileBytes> file = FileBytes::map(path);
    if (!file)
        return false;
    Expected<std::shared_ptr<const AssemblyMetadata>> opened = AssemblyMetadata::open(file.value());
    if (!opened) {
        std::cerr << path << ": " << opened.reason().text() << '\n';
        return false;
    }
    const AssemblyMetadata& assembly = *opened.value();
    const PdbFinder::Result found = PdbFinder::find(assembly, nullptr);
    for (const Reason& r : found.refused)
        std::cerr << "refused PDB: " << r.text() << '\n';
    const PortablePdb* pdb = found.pdb.get();
    lines.push_back("pdb\t" + (pdb ? (found.source == "embedded" ? found.source : fileNameOf(found.source)) : "none"));
    if (pdb) {
        for (uint32_t rid = 1; rid <= pdb->documentCount(); ++rid) {
            Expected<PdbDocument> doc = pdb->document(rid);
            if (!doc) {
                std::cerr << doc.reason().text() << '\n';
                return false;
            }
            lines.push_back("document\t" + std::to_string(rid) + "\t" + guidText(doc.value().language) + "\t" +
                            doc.value().name);
        }
    }
    std::vector<SequencePoint> points;
    for (uint32_t rid = 1; rid <= assembly.methodCount(); ++rid) {
        const uint32_t token = 0x06000000 | rid;
        Expected<MethodDescription> method = assembly.describeMethod(token);
        if (!method) {
            std::cerr << method.reason().text() << '\n';
            return false;
        }
        MethodDescription& m = method.value();
        assembly.readIlBody(m);
        lines.push_back("method\t" + hex(token, 8) + "\t" + m.typeName + "\t" + m.name + "\t" + m.signature + "\t" +
                        m.returnType + "\t0x" + hex(m.rva) + "\t" + ilSize(m));
        if (!pdb)
            continue;
        Status s = pdb->sequencePoints(rid, points);
        if (!s) {
            std::cerr << s.reason().text() << '\n';
            return false;
        }
        for (const SequencePoint& p : points) {
            const std::string where = p.hidden()
                                          ? std::string("hidden")
                                          : std::to_string(p.startLine) + ":" + std::to_string(p.startColumn) + "-" +
                                                std::to_string(p.endLine) + ":" + std::to_string(p.endColumn);
            lines.push_back("point\t" + hex(token, 8) + "\t0x" + hex(p.ilOffset) + "\t" + std::to_string(p.document) +
                            "\t" + where);
        }
    }
    return true;
}

int writeEmbeddedPdb(const std::string& assembly, const std::string& output) {
    Expected<FileBytes> file = FileBytes::map(assembly);
    Expected<PeImage> image = file ? PeImage::parse(file.value()) : Expected<PeImage>(file.reason());
    Expected<DebugDirectory> debug =
        image ? DebugDirectory::read(image.value()) : Expected<DebugDirectory>(image.reason());
    if (!debug || !debug.value().embeddedPdb()) {
        std::cerr << assembly << ": no embedded PDB\n";
        return 1;
    }
    Expected<ByteCursor> data = DebugDirectory::data(image.value(), *debug.value().embeddedPdb());
    Expected<std::vector<uint8_t>> pdb =
        data ? inflateEmbeddedPdb(data.value()) : Expected<std::vector<uint8_t>>(data.reason());
    if (!pdb) {
        std::cerr << pdb.reason().text() << '\n';
        return 1;
    }
    std::ofstream out(output, std::ios::binary);
    out.write(reinterpret_cast<const char*>(pdb.value().data()), std::streamsize(pdb.value().size()));
    return out ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--embedded-pdb")
        return writeEmbeddedPdb(argv[2], argv[3]);
    std::ios::sync_with_stdio(false);
    for (int i = 1; i < argc; ++i) {
        std::cout << "assembly\t" << argv[i] << '\n';
        std::vector<std::string> lines;
        if (!dump(argv[i], lines)) {
            std::cout << "error\n";
            continue;
        }
        for (const std::string& line : lines)
            std::cout << line << '\n';
    }
    return 0;
}

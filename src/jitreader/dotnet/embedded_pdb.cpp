#include "dotnet/embedded_pdb.h"

#include <zlib.h>

#include <limits>
#include <string>

QUARVEL_NAMESPACE_BEGIN

namespace {

const uint32_t kMpdb = 0x4244504D;

// Frees the stream on every way out.
struct Inflater {
    z_stream stream{};
    bool open = false;
    ~Inflater() {
        if (open)
            inflateEnd(&stream);
    }
};

} // namespace

Expected<std::vector<uint8_t>> inflateEmbeddedPdb(ByteCursor c) {
    const uint64_t at = c.fileOffset();
    uint32_t signature = 0;
    uint32_t size = 0;
    c.u32(signature, "embedded PDB signature");
    c.u32(size, "embedded PDB size");
    if (!c)
        return Reason::badInput(c.error()).ofField("embedded PDB");
    if (signature != kMpdb)
        return Reason::badInput("no MPDB signature (found " + std::to_string(signature) + ")")
            .at(at)
            .ofField("embedded PDB");
    const uint64_t compressed = c.remaining();
    if (size == 0 || size > compressed * kMaxDeflateRatio || size > kMaxEmbeddedPdb ||
        compressed > std::numeric_limits<uInt>::max())
        return Reason::badInput("claims " + std::to_string(size) + " bytes from " + std::to_string(compressed) +
                                " compressed bytes")
            .at(at + 4)
            .ofField("embedded PDB");
    const uint8_t* input = nullptr;
    c.bytes(c.remaining(), input, "embedded PDB data");

    std::vector<uint8_t> out(size);
    Inflater z;
    // Negative window bits: raw deflate, no zlib header.
    if (inflateInit2(&z.stream, -MAX_WBITS) != Z_OK)
        return Reason::internal("cannot start inflating").ofField("embedded PDB");
    z.open = true;
    z.stream.next_in = const_cast<Bytef*>(input);
    z.stream.avail_in = static_cast<uInt>(compressed);
    z.stream.next_out = out.data();
    z.stream.avail_out = size;
    const int result = inflate(&z.stream, Z_FINISH);
    if (result != Z_STREAM_END || z.stream.total_out != size)
        return Reason::badInput("the compressed data does not inflate to " + std::to_string(size) + " bytes (" +
                                (z.stream.msg ? std::string(z.stream.msg) : "zlib result " + std::to_string(result)) +
                                ", " + std::to_string(z.stream.total_out) + " bytes made)")
            .at(at + 8)
            .ofField("embedded PDB");
    return out;
}

QUARVEL_NAMESPACE_END

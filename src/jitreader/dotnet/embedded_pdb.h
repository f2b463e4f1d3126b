#ifndef QUARVEL_DOTNET_EMBEDDED_PDB_H
#define QUARVEL_DOTNET_EMBEDDED_PDB_H

#include "support/byte_cursor.h"
#include "support/result.h"

#include <cstdint>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Deflate expands at most this much; an embedded PDB that claims more than
// its compressed bytes could give is refused before anything is allocated.
const uint64_t kMaxDeflateRatio = 1032;
// And none larger than this is taken at all, whatever the compressed size.
const uint64_t kMaxEmbeddedPdb = uint64_t(1) << 30;

// The data of a debug directory entry of type 17: "MPDB", the size of the
// PDB, then the PDB compressed with raw deflate. Gives the PDB's bytes.
Expected<std::vector<uint8_t>> inflateEmbeddedPdb(ByteCursor data);

QUARVEL_NAMESPACE_END

#endif

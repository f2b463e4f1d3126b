#ifndef QUARVEL_INGEST_DOTNET_IL_MAP_ROWS_H
#define QUARVEL_INGEST_DOTNET_IL_MAP_ROWS_H

// The .NET runtime's native-to-IL map of one native code version as the
// model's native-to-managed rows: {start, end (exclusive), IL offset}, offsets
// from the code's first byte, which the resolver turns into source lines
// through the portable PDB.

#include <quarvel/types.h>

#include <cstdint>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Entry i of the map (parallel arrays) covers its native offset up to the
// next greater native offset of the map, the last one up to the end of the
// code. Of entries at the same native offset only the last covers code: the
// ones before it cover nothing. The runtime's special IL offsets (prologue
// 0xFFFFFFFE, epilogue 0xFFFFFFFD, no mapping 0xFFFFFFFF) are kept as they
// come; the resolver knows them. Entries past the code are dropped; rows
// that follow each other with one IL offset are merged.
std::vector<quarvel_line_number_entry> dotnetNativeToILRows(const std::vector<uint32_t>& ilOffsets,
                                                            const std::vector<uint32_t>& nativeOffsets,
                                                            uint32_t codeSize);

QUARVEL_NAMESPACE_END

#endif

#ifndef QUARVEL_INGEST_JITDUMP_LINE_TABLE_H
#define QUARVEL_INGEST_JITDUMP_LINE_TABLE_H

// The native-to-source line table of a jitdump code load, from the debug
// record paired with it. A method has one source file: the file most of the
// record's entries name. An entry of another file (code inlined from it)
// ends the row before it and starts none, so its addresses answer no line
// rather than a line of the wrong file.

#include "format/jitdump_records.h"

#include <quarvel/types.h>

#include <string_view>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

struct JitdumpLines {
    std::string_view sourceFile;                 // a view into the dump, as the entries' names are
    std::vector<quarvel_line_number_entry> rows; // offsets from the code's first byte
};

// Entry addresses less `bias` (see JitdumpDebugBias) that fall outside
// [codeAddr, codeAddr + codeSize), and lines below 1, give no row. Each entry
// holds from its address up to the next entry's (the last one to the end of
// the code); of entries at one address the last one written counts.
JitdumpLines jitdumpLines(const JitdumpDebugInfo& info, u64 codeAddr, u64 codeSize, u64 bias);

QUARVEL_NAMESPACE_END

#endif

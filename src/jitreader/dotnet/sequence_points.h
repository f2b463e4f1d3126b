#ifndef QUARVEL_DOTNET_SEQUENCE_POINTS_H
#define QUARVEL_DOTNET_SEQUENCE_POINTS_H

#include "support/byte_cursor.h"
#include "support/result.h"

#include <cstdint>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

struct SequencePoint {
    // Hidden points (compiler-generated code) carry this line and column 0.
    static const uint32_t kHiddenLine = 0xFEEFEE;

    uint32_t ilOffset = 0;
    uint32_t startLine = 0;
    uint32_t startColumn = 0;
    uint32_t endLine = 0;
    uint32_t endColumn = 0;
    uint32_t document = 0; // Document rid

    bool hidden() const { return startLine == kHiddenLine; }
};

// IL offsets that native-to-IL maps of the runtime use for code outside the
// method's IL.
enum SpecialIlOffset : uint32_t { kNoMapping = 0xFFFFFFFF, kPrologue = 0xFFFFFFFE, kEpilogue = 0xFFFFFFFD };

// Decodes a sequence points blob of the MethodDebugInformation table.
// `document` is the row's Document column (0 when the blob names its first
// document itself). On damage the points decoded before it are kept in
// `out` and the reason says what was wrong.
Status decodeSequencePoints(ByteCursor blob, uint32_t document, std::vector<SequencePoint>& out);

// The point that gives the line of an IL offset: the last non-hidden point
// at or before it. The prologue takes the first non-hidden point, the
// epilogue the last one; kNoMapping and offsets before every visible point
// have none (null).
const SequencePoint* sequencePointAt(const std::vector<SequencePoint>& points, uint32_t ilOffset);

QUARVEL_NAMESPACE_END

#endif

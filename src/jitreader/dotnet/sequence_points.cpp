#include "dotnet/sequence_points.h"

#include "dotnet/compressed_integer.h"

#include <string>

QUARVEL_NAMESPACE_BEGIN

namespace {

const uint32_t kLimit = 0x20000000; // IL offsets and lines lie below it
const uint32_t kColumnLimit = 0x10000;

bool validLine(int64_t line) {
    return line >= 0 && line < kLimit && line != SequencePoint::kHiddenLine;
}
bool validColumn(int64_t column) {
    return column >= 0 && column < kColumnLimit;
}

Reason damage(const ByteCursor& c, uint64_t at, const std::string& message) {
    return Reason::badInput(c ? message : c.error()).at(at).ofField("sequence points");
}

} // namespace

Status decodeSequencePoints(ByteCursor c, uint32_t document, std::vector<SequencePoint>& out) {
    out.clear();
    uint32_t localSignature = 0;
    if (!readCompressedUnsigned(c, localSignature, "local signature"))
        return damage(c, c.fileOffset(), "");
    if (document == 0 && !readCompressedUnsigned(c, document, "initial document"))
        return damage(c, c.fileOffset(), "");

    bool first = true;
    bool haveVisible = false;
    int64_t previousLine = 0;
    int64_t previousColumn = 0;
    uint32_t ilOffset = 0;
    while (!c.atEnd()) {
        const uint64_t at = c.fileOffset();
        uint32_t deltaIl = 0;
        if (!readCompressedUnsigned(c, deltaIl, "IL offset delta"))
            return damage(c, at, "");
        if (!first && deltaIl == 0) {
            if (!readCompressedUnsigned(c, document, "document"))
                return damage(c, at, "");
            continue;
        }
        const uint64_t offset = first ? uint64_t(deltaIl) : uint64_t(ilOffset) + deltaIl;
        if (offset >= kLimit)
            return damage(c, at, "IL offset " + std::to_string(offset) + " out of range");
        first = false;
        ilOffset = static_cast<uint32_t>(offset);

        uint32_t deltaLines = 0;
        int64_t deltaColumns = 0;
        if (!readCompressedUnsigned(c, deltaLines, "line delta"))
            return damage(c, at, "");
        if (deltaLines == 0) {
            uint32_t columns = 0;
            if (!readCompressedUnsigned(c, columns, "column delta"))
                return damage(c, at, "");
            deltaColumns = columns;
        } else {
            int32_t columns = 0;
            if (!readCompressedSigned(c, columns, "column delta"))
                return damage(c, at, "");
            deltaColumns = columns;
        }

        SequencePoint p;
        p.ilOffset = ilOffset;
        p.document = document;
        if (deltaLines == 0 && deltaColumns == 0) {
            p.startLine = p.endLine = SequencePoint::kHiddenLine;
            out.push_back(p);
            continue;
        }

        int64_t startLine = 0;
        int64_t startColumn = 0;
        if (!haveVisible) {
            uint32_t line = 0;
            uint32_t column = 0;
            if (!readCompressedUnsigned(c, line, "start line") || !readCompressedUnsigned(c, column, "start column"))
                return damage(c, at, "");
            startLine = line;
            startColumn = column;
        } else {
            int32_t line = 0;
            int32_t column = 0;
            if (!readCompressedSigned(c, line, "start line delta") ||
                !readCompressedSigned(c, column, "start column delta"))
                return damage(c, at, "");
            startLine = previousLine + line;
            startColumn = previousColumn + column;
        }
        const int64_t endLine = startLine + deltaLines;
        const int64_t endColumn = startColumn + deltaColumns;
        if (!validLine(startLine) || !validLine(endLine) || !validColumn(startColumn) || !validColumn(endColumn))
            return damage(c, at,
                          "point " + std::to_string(startLine) + ":" + std::to_string(startColumn) + "-" +
                              std::to_string(endLine) + ":" + std::to_string(endColumn) + " out of range");
        haveVisible = true;
        previousLine = startLine;
        previousColumn = startColumn;
        p.startLine = static_cast<uint32_t>(startLine);
        p.startColumn = static_cast<uint32_t>(startColumn);
        p.endLine = static_cast<uint32_t>(endLine);
        p.endColumn = static_cast<uint32_t>(endColumn);
        out.push_back(p);
    }
    return Status::success();
}

const SequencePoint* sequencePointAt(const std::vector<SequencePoint>& points, uint32_t ilOffset) {
    const SequencePoint* found = nullptr;
    if (ilOffset == kNoMapping)
        return nullptr;
    for (const SequencePoint& p : points) {
        if (p.hidden())
            continue;
        if (ilOffset == kPrologue)
            return &p;
        if (ilOffset != kEpilogue && p.ilOffset > ilOffset)
            break;
        found = &p;
    }
    return found;
}

QUARVEL_NAMESPACE_END

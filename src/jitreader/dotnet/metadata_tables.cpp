#include "dotnet/metadata_tables.h"

#include <sstream>

QUARVEL_NAMESPACE_BEGIN

namespace {

const uint32_t kLargeTable = 0x10000;

std::string hexId(unsigned id) {
    std::ostringstream os;
    os << "0x" << std::hex << id;
    return os.str();
}

} // namespace

Expected<MetadataTables> MetadataTables::parse(const ByteCursor& stream, const std::string& fileName, bool minimalDelta,
                                               const TableRowCounts* typeSystemRows) {
    MetadataTables t;
    ByteCursor c = stream;
    t.m_data = stream.data();
    t.m_base = stream.fileOffset() - stream.offset();

    uint8_t major = 0;
    uint8_t minor = 0;
    c.skip(4, "table stream reserved field");
    c.u8(major, "table stream major version");
    c.u8(minor, "table stream minor version");
    c.u8(t.m_heapSizes, "HeapSizes");
    c.skip(1, "table stream reserved byte");
    c.u64(t.m_valid, "Valid");
    c.u64(t.m_sorted, "Sorted");
    if (!c)
        return Reason::badInput(c.error()).inFile(fileName);
    for (unsigned id = 0; id < table::count; ++id) {
        if (!(t.m_valid >> id & 1))
            continue;
        if (!tableSchema(id))
            return Reason::badInput("unknown table " + hexId(id) + " marked present in Valid")
                .inFile(fileName)
                .at(stream.fileOffset() + 8);
        c.u32(t.m_rows[id], "table row count");
    }
    // Obfuscators set this flag and add four bytes after the row counts.
    if (t.m_heapSizes & extraData)
        c.skip(4, "extra data after the row counts");
    if (!c)
        return Reason::badInput(c.error()).inFile(fileName);

    // Indices are sized by the rows of the tables they reach; in a PDB those
    // of the type-system tables live in the assembly.
    TableRowCounts sizing = t.m_rows;
    if (typeSystemRows)
        for (unsigned id = 0; id < table::Document; ++id)
            sizing[id] = (*typeSystemRows)[id];
    auto large = [&](unsigned id) {
        return minimalDelta || sizing[id] >= kLargeTable;
    };
    auto codedWidth = [&](CodedIndex kind) -> uint8_t {
        const CodedIndexSchema& schema = codedIndexSchema(kind);
        const uint32_t limit = 1u << (16 - schema.tagBits);
        if (minimalDelta)
            return 4;
        for (unsigned i = 0; i < schema.count; ++i)
            if (schema.tables[i] != CodedIndexSchema::kNoTable && sizing[schema.tables[i]] >= limit)
                return 4;
        return 2;
    };
    const uint8_t stringWidth = minimalDelta || (t.m_heapSizes & largeStrings) ? 4 : 2;
    const uint8_t guidWidth = minimalDelta || (t.m_heapSizes & largeGuids) ? 4 : 2;
    const uint8_t blobWidth = minimalDelta || (t.m_heapSizes & largeBlobs) ? 4 : 2;

    size_t at = c.offset();
    for (unsigned id = 0; id < table::count; ++id) {
        const TableSchema* schema = tableSchema(id);
        if (!schema)
            continue;
        unsigned offset = 0;
        for (unsigned col = 0; col < schema->columnCount; ++col) {
            const ColumnSchema& column = schema->columns[col];
            uint8_t width = 2;
            switch (column.kind) {
            case ColumnKind::fixed2:
                width = 2;
                break;
            case ColumnKind::fixed4:
                width = 4;
                break;
            case ColumnKind::string:
                width = stringWidth;
                break;
            case ColumnKind::guid:
                width = guidWidth;
                break;
            case ColumnKind::blob:
                width = blobWidth;
                break;
            case ColumnKind::table:
                width = large(column.target) ? 4 : 2;
                break;
            case ColumnKind::list:
                width = large(column.target) ||
                                (column.pointerTable != CodedIndexSchema::kNoTable && large(column.pointerTable))
                            ? 4
                            : 2;
                break;
            case ColumnKind::coded:
                width = codedWidth(static_cast<CodedIndex>(column.target));
                break;
            }
            t.m_offset[id][col] = static_cast<uint8_t>(offset);
            t.m_width[id][col] = width;
            offset += width;
        }
        t.m_rowSize[id] = static_cast<uint16_t>(offset);
        if (!t.m_rows[id])
            continue;
        t.m_start[id] = at;
        const uint64_t bytes = uint64_t(t.m_rows[id]) * offset;
        if (bytes > stream.size() - at)
            return Reason::badInput(std::string("table ") + schema->name + " (" + std::to_string(t.m_rows[id]) +
                                    " rows of " + std::to_string(offset) +
                                    " bytes) runs past the end of the table stream (" + std::to_string(stream.size()) +
                                    " bytes)")
                .inFile(fileName)
                .at(t.m_base + at);
        at += static_cast<size_t>(bytes);
    }
    return t;
}

QUARVEL_NAMESPACE_END

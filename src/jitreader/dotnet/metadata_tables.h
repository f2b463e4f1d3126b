#ifndef QUARVEL_DOTNET_METADATA_TABLES_H
#define QUARVEL_DOTNET_METADATA_TABLES_H

#include "dotnet/metadata_schema.h"
#include "support/byte_cursor.h"
#include "support/result.h"

#include <array>
#include <cstdint>
#include <string>

QUARVEL_NAMESPACE_BEGIN

typedef std::array<uint32_t, table::count> TableRowCounts;

// The table stream (#~, or #- with its Ptr tables; ECMA-335 II.24.2.6):
// row counts, the width of every column (heap indices by the HeapSizes
// flags, table and coded indices by the row counts of the tables they
// reach) and where each table starts. Rows are read on demand.
class MetadataTables {
public:
    enum HeapSizes : uint8_t { largeStrings = 0x01, largeGuids = 0x02, largeBlobs = 0x04, extraData = 0x40 };

    // minimalDelta: every index is 4 bytes wide (#JTD). typeSystemRows: in a
    // portable PDB, the row counts of the assembly's tables (from #Pdb), which
    // size the indices into them.
    static Expected<MetadataTables> parse(const ByteCursor& stream, const std::string& fileName, bool minimalDelta,
                                          const TableRowCounts* typeSystemRows = nullptr);

    uint32_t rows(unsigned id) const { return id < table::count ? m_rows[id] : 0; }
    uint8_t heapSizes() const { return m_heapSizes; }
    uint64_t validMask() const { return m_valid; }
    uint64_t sortedMask() const { return m_sorted; }
    unsigned rowSize(unsigned id) const { return m_rowSize[id]; }
    unsigned columnWidth(unsigned id, unsigned column) const { return m_width[id][column]; }

    // Column `column` of row `rid` (1-based); false when the table has no such row.
    bool read(unsigned id, uint32_t rid, unsigned column, uint32_t& value) const {
        if (rid == 0 || rid > rows(id) || column >= TableSchema::kMaxColumns || m_width[id][column] == 0)
            return false;
        const size_t at = m_start[id] + size_t(rid - 1) * m_rowSize[id] + m_offset[id][column];
        ByteCursor c(m_data + at, m_width[id][column], ByteCursor::Order::little, m_base + at);
        if (m_width[id][column] == 2) {
            uint16_t v = 0;
            c.u16(v, "column");
            value = v;
            return true;
        }
        return c.u32(value, "column");
    }
    // Every column of row `rid`, in order; false when the table has no such row.
    bool readRow(unsigned id, uint32_t rid, uint32_t (&values)[TableSchema::kMaxColumns]) const {
        if (rid == 0 || rid > rows(id))
            return false;
        const size_t at = m_start[id] + size_t(rid - 1) * m_rowSize[id];
        ByteCursor c(m_data + at, m_rowSize[id], ByteCursor::Order::little, m_base + at);
        for (unsigned column = 0; column < TableSchema::kMaxColumns && m_width[id][column]; ++column) {
            if (m_width[id][column] == 2) {
                uint16_t v = 0;
                c.u16(v, "column");
                values[column] = v;
            } else {
                c.u32(values[column], "column");
            }
        }
        return c.ok();
    }
    // Where the row lies in the file, for messages.
    uint64_t rowFileOffset(unsigned id, uint32_t rid) const {
        return m_base + m_start[id] + size_t(rid ? rid - 1 : 0) * m_rowSize[id];
    }

private:
    const uint8_t* m_data = nullptr;
    uint64_t m_base = 0;
    uint8_t m_heapSizes = 0;
    uint64_t m_valid = 0;
    uint64_t m_sorted = 0;
    TableRowCounts m_rows{};
    std::array<size_t, table::count> m_start{};
    std::array<uint16_t, table::count> m_rowSize{};
    std::array<std::array<uint8_t, TableSchema::kMaxColumns>, table::count> m_offset{};
    std::array<std::array<uint8_t, TableSchema::kMaxColumns>, table::count> m_width{};
};

QUARVEL_NAMESPACE_END

#endif

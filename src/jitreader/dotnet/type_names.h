#ifndef QUARVEL_DOTNET_TYPE_NAMES_H
#define QUARVEL_DOTNET_TYPE_NAMES_H

#include "dotnet/metadata_heaps.h"
#include "dotnet/metadata_tables.h"
#include "support/result.h"

#include <cstdint>
#include <string>
#include <vector>

namespace quarvel_3_13 {

// Full names of defined and referenced types: "Namespace.Name", nested
// types after their enclosing type with a ".", generic arity kept as the
// metadata spells it ("Outer`1.Inner`1").
class TypeNames {
public:
    // Nesting deeper than this (a cycle in a damaged file) is cut off.
    static const unsigned kMaxNesting = 64;

    TypeNames() = default;
    TypeNames(const MetadataTables* tables, const MetadataHeaps* heaps);

    // Reads the NestedClass table once.
    void build();

    Status appendTypeDef(uint32_t rid, std::string& out) const;
    Status appendTypeRef(uint32_t rid, std::string& out) const;
    // 0 when the type is not nested.
    uint32_t enclosingType(uint32_t typeDefRid) const {
        return typeDefRid < m_enclosing.size() ? m_enclosing[typeDefRid] : 0;
    }

private:
    Status appendOwnName(unsigned tableId, uint32_t rid, unsigned nameColumn, std::string& out) const;

    const MetadataTables* m_tables = nullptr;
    const MetadataHeaps* m_heaps = nullptr;
    std::vector<uint32_t> m_enclosing; // by TypeDef rid
};

} // namespace quarvel_3_13

#endif

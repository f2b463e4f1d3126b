#ifndef QUARVEL_DOTNET_GENERIC_PARAMETER_INDEX_H
#define QUARVEL_DOTNET_GENERIC_PARAMETER_INDEX_H

#include "dotnet/metadata_heaps.h"
#include "dotnet/metadata_tables.h"
#include "support/result.h"

#include <cstdint>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// The GenericParam rows of each type and method, so that signatures can name
// !0 and !!0 as the source did ("T", "TKey"). The i-th parameter of an owner
// is its i-th row in table order, as the table is sorted by owner.
class GenericParameterIndex {
public:
    GenericParameterIndex() = default;
    GenericParameterIndex(const MetadataTables* tables, const MetadataHeaps* heaps);

    void build();

    // Appends the name of parameter `index` of a type (forMethod false) or a
    // method; "!index" or "!!index" when the owner has no such parameter.
    Status appendName(bool forMethod, uint32_t ownerRid, uint32_t index, std::string& out) const;

private:
    struct Entry {
        uint32_t owner; // TypeOrMethodDef coded index
        uint32_t rid;
        bool operator<(const Entry& other) const { return owner < other.owner; }
    };

    const MetadataTables* m_tables = nullptr;
    const MetadataHeaps* m_heaps = nullptr;
    std::vector<Entry> m_entries; // stable-sorted by owner
};

QUARVEL_NAMESPACE_END

#endif

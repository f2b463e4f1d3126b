#include "dotnet/generic_parameter_index.h"

#include <algorithm>

QUARVEL_NAMESPACE_BEGIN

namespace {

// GenericParam: Number, Flags, Owner, Name.
const unsigned kOwner = 2;
const unsigned kName = 3;

} // namespace

GenericParameterIndex::GenericParameterIndex(const MetadataTables* tables, const MetadataHeaps* heaps)
    : m_tables(tables), m_heaps(heaps) {}

void GenericParameterIndex::build() {
    const uint32_t rows = m_tables->rows(table::GenericParam);
    m_entries.clear();
    m_entries.reserve(rows);
    for (uint32_t rid = 1; rid <= rows; ++rid) {
        uint32_t owner = 0;
        if (m_tables->read(table::GenericParam, rid, kOwner, owner))
            m_entries.push_back(Entry{owner, rid});
    }
    std::stable_sort(m_entries.begin(), m_entries.end());
}

Status GenericParameterIndex::appendName(bool forMethod, uint32_t ownerRid, uint32_t index, std::string& out) const {
    // TypeOrMethodDef: tag 0 TypeDef, 1 MethodDef.
    const Entry key{(ownerRid << 1) | (forMethod ? 1u : 0u), 0};
    const auto range = std::equal_range(m_entries.begin(), m_entries.end(), key);
    if (index < static_cast<uint32_t>(range.second - range.first)) {
        uint32_t name = 0;
        if (m_tables->read(table::GenericParam, range.first[index].rid, kName, name))
            return m_heaps->appendString(name, out);
    }
    out += forMethod ? "!!" : "!";
    out += std::to_string(index);
    return Status::success();
}

QUARVEL_NAMESPACE_END

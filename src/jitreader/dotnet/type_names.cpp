#include "dotnet/type_names.h"

namespace quarvel_3_13 {

namespace {

// TypeDef: Flags, Name, Namespace, ...; TypeRef: ResolutionScope, Name, Namespace.
const unsigned kTypeDefName = 1;
const unsigned kTypeRefScope = 0;
const unsigned kTypeRefName = 1;
const unsigned kResolutionScopeTypeRef = 3;

Reason missingRow(const char* tableName, uint32_t rid) {
    return Reason::badInput(std::string(tableName) + " row " + std::to_string(rid) + " does not exist");
}

} // namespace

TypeNames::TypeNames(const MetadataTables* tables, const MetadataHeaps* heaps) : m_tables(tables), m_heaps(heaps) {}

void TypeNames::build() {
    const uint32_t types = m_tables->rows(table::TypeDef);
    m_enclosing.assign(size_t(types) + 1, 0);
    const uint32_t rows = m_tables->rows(table::NestedClass);
    for (uint32_t rid = 1; rid <= rows; ++rid) {
        uint32_t nested = 0;
        uint32_t enclosing = 0;
        if (m_tables->read(table::NestedClass, rid, 0, nested) && m_tables->read(table::NestedClass, rid, 1, enclosing) &&
            nested <= types && enclosing <= types && !m_enclosing[nested])
            m_enclosing[nested] = enclosing;
    }
    m_typeDefNames.assign(size_t(types) + 1, std::string());
    m_typeDefSpelled.assign(size_t(types) + 1, false);
    for (uint32_t rid = 1; rid <= types; ++rid)
        m_typeDefSpelled[rid] = spellTypeDef(rid, m_typeDefNames[rid]).ok();
    const uint32_t references = m_tables->rows(table::TypeRef);
    m_typeRefNames.assign(size_t(references) + 1, std::string());
    m_typeRefSpelled.assign(size_t(references) + 1, false);
    for (uint32_t rid = 1; rid <= references; ++rid)
        m_typeRefSpelled[rid] = spellTypeRef(rid, m_typeRefNames[rid]).ok();
}

Status TypeNames::appendTypeDef(uint32_t rid, std::string& out) const {
    if (rid < m_typeDefSpelled.size() && m_typeDefSpelled[rid]) {
        out += m_typeDefNames[rid];
        return Status::success();
    }
    return spellTypeDef(rid, out);
}

Status TypeNames::appendTypeRef(uint32_t rid, std::string& out) const {
    if (rid < m_typeRefSpelled.size() && m_typeRefSpelled[rid]) {
        out += m_typeRefNames[rid];
        return Status::success();
    }
    return spellTypeRef(rid, out);
}

Status TypeNames::appendOwnName(unsigned tableId, uint32_t rid, unsigned nameColumn, std::string& out) const {
    uint32_t name = 0;
    uint32_t space = 0;
    if (!m_tables->read(tableId, rid, nameColumn, name) || !m_tables->read(tableId, rid, nameColumn + 1, space))
        return missingRow(tableSpec(tableId)->name, rid);
    if (space) {
        const size_t before = out.size();
        Status s = m_heaps->appendString(space, out);
        if (!s)
            return s;
        if (out.size() != before)
            out += '.';
    }
    return m_heaps->appendString(name, out);
}

Status TypeNames::spellTypeDef(uint32_t rid, std::string& out) const {
    if (rid == 0 || rid > m_tables->rows(table::TypeDef))
        return missingRow("TypeDef", rid);
    // Outermost first.
    uint32_t chain[kMaxNesting + 1];
    unsigned depth = 0;
    chain[0] = rid;
    while (depth < kMaxNesting && enclosingType(chain[depth]))
        chain[depth + 1] = enclosingType(chain[depth]), ++depth;
    for (unsigned i = depth + 1; i-- > 0;) {
        Status s = appendOwnName(table::TypeDef, chain[i], kTypeDefName, out);
        if (!s)
            return s;
        if (i)
            out += '.';
    }
    return Status::success();
}

Status TypeNames::spellTypeRef(uint32_t rid, std::string& out) const {
    uint32_t chain[kMaxNesting + 1];
    unsigned depth = 0;
    chain[0] = rid;
    for (;;) {
        uint32_t scope = 0;
        if (!m_tables->read(table::TypeRef, chain[depth], kTypeRefScope, scope))
            return missingRow("TypeRef", chain[depth]);
        uint8_t scopeTable = 0;
        uint32_t scopeRid = 0;
        if (depth >= kMaxNesting || !decodeCodedIndex(CodedIndex::ResolutionScope, scope, scopeTable, scopeRid) ||
            scopeTable != table::TypeRef || (scope & 3) != kResolutionScopeTypeRef)
            break;
        chain[++depth] = scopeRid;
    }
    for (unsigned i = depth + 1; i-- > 0;) {
        Status s = appendOwnName(table::TypeRef, chain[i], kTypeRefName, out);
        if (!s)
            return s;
        if (i)
            out += '.';
    }
    return Status::success();
}

} // namespace quarvel_3_13

#include "dotnet/type_names.h"

QUARVEL_NAMESPACE_BEGIN

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
        if (m_tables->read(table::NestedClass, rid, 0, nested) &&
            m_tables->read(table::NestedClass, rid, 1, enclosing) && nested <= types && enclosing <= types &&
            !m_enclosing[nested])
            m_enclosing[nested] = enclosing;
    }
    size_t budget = kCacheFactor * (m_heaps->stringsSize() + 64);
    auto keep = [&budget](const Status& spelled, std::string& name) {
        if (!spelled || name.size() > budget) {
            std::string().swap(name);
            return false;
        }
        budget -= name.size();
        return true;
    };
    m_typeDefNames.assign(size_t(types) + 1, std::string());
    m_typeDefSpelled.assign(size_t(types) + 1, false);
    for (uint32_t rid = 1; rid <= types; ++rid)
        m_typeDefSpelled[rid] = keep(spellTypeDef(rid, m_typeDefNames[rid]), m_typeDefNames[rid]);
    const uint32_t references = m_tables->rows(table::TypeRef);
    m_typeRefNames.assign(size_t(references) + 1, std::string());
    m_typeRefSpelled.assign(size_t(references) + 1, false);
    for (uint32_t rid = 1; rid <= references; ++rid)
        m_typeRefSpelled[rid] = keep(spellTypeRef(rid, m_typeRefNames[rid]), m_typeRefNames[rid]);
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
        return missingRow(tableSchema(tableId)->name, rid);
    const size_t before = out.size();
    if (space) {
        Status s = m_heaps->appendString(space, out);
        if (!s)
            return s;
        if (out.size() != before)
            out += '.';
    }
    Status s = m_heaps->appendString(name, out);
    if (s && out.size() - before > kMaxName)
        return Reason::badInput(std::string(tableSchema(tableId)->name) + " row " + std::to_string(rid) +
                                " has a name longer than " + std::to_string(kMaxName) + " bytes");
    return s;
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
    const size_t start = out.size();
    for (unsigned i = depth + 1; i-- > 0;) {
        Status s = appendOwnName(table::TypeDef, chain[i], kTypeDefName, out);
        if (!s)
            return s;
        if (out.size() - start > kMaxName)
            return Reason::badInput("the full name of TypeDef row " + std::to_string(rid) + " is longer than " +
                                    std::to_string(kMaxName) + " bytes");
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
    const size_t start = out.size();
    for (unsigned i = depth + 1; i-- > 0;) {
        Status s = appendOwnName(table::TypeRef, chain[i], kTypeRefName, out);
        if (!s)
            return s;
        if (out.size() - start > kMaxName)
            return Reason::badInput("the full name of TypeRef row " + std::to_string(rid) + " is longer than " +
                                    std::to_string(kMaxName) + " bytes");
        if (i)
            out += '.';
    }
    return Status::success();
}

QUARVEL_NAMESPACE_END

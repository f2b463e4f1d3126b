#ifndef QUARVEL_DOTNET_TYPE_NAMES_H
#define QUARVEL_DOTNET_TYPE_NAMES_H

#include "dotnet/metadata_heaps.h"
#include "dotnet/metadata_tables.h"
#include "support/result.h"

#include <cstdint>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Full names of defined and referenced types: "Namespace.Name", nested
// types after their enclosing type with a ".", generic arity kept as the
// metadata spells it ("Outer`1.Inner`1").
class TypeNames {
public:
    // Nesting deeper than this (a cycle in a damaged file) is cut off, and a
    // full name longer than kMaxName is refused: no real type is named so.
    static const unsigned kMaxNesting = 64;
    static const size_t kMaxName = 1 << 14;

    TypeNames() = default;
    TypeNames(const MetadataTables* tables, const MetadataHeaps* heaps);

    // Reads the NestedClass table and spells every type's full name once:
    // signatures name the same few types over and over. Names are kept up to
    // a total of kCacheFactor times the #Strings heap (deep nesting repeats
    // the outer names in every inner one); the rest are spelled on request.
    void build();
    static const size_t kCacheFactor = 8;

    Status appendTypeDef(uint32_t rid, std::string& out) const;
    Status appendTypeRef(uint32_t rid, std::string& out) const;
    // 0 when the type is not nested.
    uint32_t enclosingType(uint32_t typeDefRid) const {
        return typeDefRid < m_enclosing.size() ? m_enclosing[typeDefRid] : 0;
    }

private:
    Status spellTypeDef(uint32_t rid, std::string& out) const;
    Status spellTypeRef(uint32_t rid, std::string& out) const;
    Status appendOwnName(unsigned tableId, uint32_t rid, unsigned nameColumn, std::string& out) const;

    const MetadataTables* m_tables = nullptr;
    const MetadataHeaps* m_heaps = nullptr;
    std::vector<uint32_t> m_enclosing; // by TypeDef rid
    // Full names by rid; a name that could not be read is spelled again on
    // request, for its reason.
    std::vector<std::string> m_typeDefNames;
    std::vector<bool> m_typeDefSpelled;
    std::vector<std::string> m_typeRefNames;
    std::vector<bool> m_typeRefSpelled;
};

QUARVEL_NAMESPACE_END

#endif

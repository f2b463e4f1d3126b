#ifndef QUARVEL_DOTNET_METADATA_ROOT_H
#define QUARVEL_DOTNET_METADATA_ROOT_H

#include "support/byte_cursor.h"
#include "support/result.h"

#include <cstdint>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

struct MetadataStream {
    std::string name;
    uint32_t offset = 0; // from the start of the root
    uint32_t size = 0;
};

// The metadata root ("BSJB", ECMA-335 II.24.2.1) and its stream headers: the
// same layout in an assembly's CLI metadata and in a portable PDB.
class MetadataRoot {
public:
    static const uint32_t kSignature = 0x424A5342;

    // block: the whole metadata, from the root's signature on.
    static Expected<MetadataRoot> parse(const ByteCursor& block, const std::string& fileName);

    const std::string& version() const { return m_version; }
    const std::vector<MetadataStream>& streams() const { return m_streams; }
    bool has(const char* name) const;
    // A cursor over the first stream of that name; an empty cursor when absent.
    ByteCursor stream(const char* name) const;

private:
    ByteCursor m_block{nullptr, 0};
    std::string m_version;
    std::vector<MetadataStream> m_streams;
};

QUARVEL_NAMESPACE_END

#endif

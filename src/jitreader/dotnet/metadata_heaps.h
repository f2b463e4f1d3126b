#ifndef QUARVEL_DOTNET_METADATA_HEAPS_H
#define QUARVEL_DOTNET_METADATA_HEAPS_H

#include "dotnet/metadata_root.h"
#include "support/byte_cursor.h"
#include "support/result.h"

#include <array>
#include <cstdint>
#include <string>

QUARVEL_NAMESPACE_BEGIN

typedef std::array<uint8_t, 16> Guid;

// "3f5162f8-07c6-11d3-9053-00c04fa302a1"
std::string guidText(const Guid& guid);

// The #Strings, #Blob and #GUID heaps (ECMA-335 II.24.2.3-5). A missing heap
// reads as empty: only index 0 (the empty string or blob, the null GUID) is
// valid in it.
class MetadataHeaps {
public:
    MetadataHeaps() = default;
    MetadataHeaps(const MetadataRoot& root, std::string fileName);

    // Appends the NUL-terminated UTF-8 string at `index` of #Strings.
    Status appendString(uint32_t index, std::string& out) const;
    // The blob at `index` of #Blob, without its length prefix.
    Expected<ByteCursor> blob(uint32_t index) const;
    // The 1-based GUID entry; 0 is the null GUID.
    Status guid(uint32_t index, Guid& out) const;

    size_t stringsSize() const { return m_strings.size(); }
    size_t blobsSize() const { return m_blobs.size(); }

private:
    ByteCursor m_strings{nullptr, 0};
    ByteCursor m_blobs{nullptr, 0};
    ByteCursor m_guids{nullptr, 0};
    std::string m_fileName;
};

QUARVEL_NAMESPACE_END

#endif

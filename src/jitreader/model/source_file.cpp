#include "model/source_file.h"

QUARVEL_NAMESPACE_BEGIN

SourceFile::SourceFile(const std::string& name, const std::string& checksum, unsigned checksumType,
                       unsigned languageType)
    : m_name(name), m_checksum(checksum), m_checksumType(checksumType), m_languageType(languageType) {}

// Copied through the getters, field by field; the reference count is not copied.
SourceFile::SourceFile(const SourceFile& other)
    : ISourceFile(), m_name(other.getSourceFileName()), m_checksum(other.getChecksum()),
      m_checksumType(other.getChecksumType()), m_languageType(other.getLanguageType()) {}

SourceFile& SourceFile::operator=(const SourceFile& other) {
    if (this != &other) {
        m_name = other.m_name;
        m_checksum = other.m_checksum;
        m_checksumType = other.m_checksumType;
        m_languageType = other.m_languageType;
    }
    return *this;
}

QUARVEL_NAMESPACE_END

#ifndef QUARVEL_MODEL_SOURCE_FILE_H
#define QUARVEL_MODEL_SOURCE_FILE_H

#include "support/object_pool.h"

#include <quarvel/symbol.h>

#include <string>

QUARVEL_NAMESPACE_BEGIN

class SourceFile : public ISourceFile, public Pooled<SourceFile> {
public:
    typedef boost::intrusive_ptr<SourceFile> Ptr;

    SourceFile() = default;
    SourceFile(const std::string& name, const std::string& checksum, unsigned checksumType, unsigned languageType);
    SourceFile(const SourceFile& other);
    SourceFile& operator=(const SourceFile& other);

    const char* getSourceFileName() const override { return m_name.c_str(); }
    const char* getChecksum() const override { return m_checksum.c_str(); }
    unsigned getChecksumType() const override { return m_checksumType; }
    u64 getTime() const override { return 0; }
    u64 getSize() const override { return 0; }
    unsigned getLanguageType() const override { return m_languageType; }

    const std::string& name() const { return m_name; }

    // Whether this object is the one an owner (a registry of shared source
    // files, numbered uniquely from 1) keeps for its content: that owner need
    // not look it up again.
    bool sharedBy(u64 owner) const { return m_sharedBy == owner; }
    void markSharedBy(u64 owner) const { m_sharedBy = owner; }

private:
    std::string m_name;
    std::string m_checksum;
    unsigned m_checksumType = 0;
    unsigned m_languageType = 0;
    mutable u64 m_sharedBy = 0; // not copied
};

QUARVEL_NAMESPACE_END

#endif

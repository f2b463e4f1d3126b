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

private:
    std::string m_name;
    std::string m_checksum;
    unsigned m_checksumType = 0;
    unsigned m_languageType = 0;
};

QUARVEL_NAMESPACE_END

#endif

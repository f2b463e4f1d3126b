#ifndef QUARVEL_MODEL_SOURCE_LOCATION_H
#define QUARVEL_MODEL_SOURCE_LOCATION_H

#include "model/source_file.h"

QUARVEL_NAMESPACE_BEGIN

class SourceLocation : public ISourceLocation {
public:
    SourceLocation(unsigned line, const SourceFile& file);

    unsigned getLine() const override { return m_line; }
    // A fresh copy of the file on every call.
    ISourceFile::Ptr getSourceFile() const override;

private:
    unsigned m_line;
    SourceFile m_file;
};

QUARVEL_NAMESPACE_END

#endif

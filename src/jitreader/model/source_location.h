#ifndef QUARVEL_MODEL_SOURCE_LOCATION_H
#define QUARVEL_MODEL_SOURCE_LOCATION_H

#include "model/source_file.h"

namespace quarvel_3_13 {

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

} // namespace quarvel_3_13

#endif

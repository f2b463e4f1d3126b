#include "model/source_location.h"

QUARVEL_NAMESPACE_BEGIN

SourceLocation::SourceLocation(unsigned line, const SourceFile& file) : m_line(line), m_file(file) {}

ISourceFile::Ptr SourceLocation::getSourceFile() const {
    return ISourceFile::Ptr(new SourceFile(m_file));
}

QUARVEL_NAMESPACE_END

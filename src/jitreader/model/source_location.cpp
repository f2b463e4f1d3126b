#include "model/source_location.h"

namespace quarvel_3_13 {

SourceLocation::SourceLocation(unsigned line, const SourceFile& file) : m_line(line), m_file(file) {}

ISourceFile::Ptr SourceLocation::getSourceFile() const { return ISourceFile::Ptr(new SourceFile(m_file)); }

} // namespace quarvel_3_13

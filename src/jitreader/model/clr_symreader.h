#ifndef QUARVEL_MODEL_CLR_SYMREADER_H
#define QUARVEL_MODEL_CLR_SYMREADER_H

#include <quarvel/types.h>

#include <memory>

#include <string>

QUARVEL_NAMESPACE_BEGIN

// Source files and lines of .NET methods from a portable PDB, by method row
// id (the low 24 bits of a MethodDef token).
class CoreCLRSymbolReader {
public:
    typedef std::shared_ptr<CoreCLRSymbolReader> Ptr;

    virtual ~CoreCLRSymbolReader() = default;

    // meSuccess when the file is a readable portable PDB, meNotFound otherwise.
    virtual quarvel_error_t initialize() = 0;
    // The source file of the method's first sequence point; fileName is written only on success.
    virtual quarvel_error_t getSourceFileWithFuncRowID(u32 rowId, std::string& fileName) = 0;
    // The source line of the IL offset; line is written only on success.
    virtual quarvel_error_t getSourceLineWithFuncRowIDAndILOffset(u32 rowId, u32 ilOffset, unsigned& line) = 0;
};

QUARVEL_NAMESPACE_END

#endif

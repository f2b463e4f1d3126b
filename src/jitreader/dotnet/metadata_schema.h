#ifndef QUARVEL_DOTNET_METADATA_SCHEMA_H
#define QUARVEL_DOTNET_METADATA_SCHEMA_H

// The column layout of every metadata table: the type-system tables of
// ECMA-335 II.22 and the debug tables of portable PDBs. Every present table
// before the one wanted must be sized to find it, so the schema is complete.

#include <quarvel/namespace.h>

#include <cstdint>

QUARVEL_NAMESPACE_BEGIN

namespace table {
enum Id : uint8_t {
    Module = 0x00,
    TypeRef = 0x01,
    TypeDef = 0x02,
    FieldPtr = 0x03,
    Field = 0x04,
    MethodPtr = 0x05,
    MethodDef = 0x06,
    ParamPtr = 0x07,
    Param = 0x08,
    InterfaceImpl = 0x09,
    MemberRef = 0x0A,
    Constant = 0x0B,
    CustomAttribute = 0x0C,
    FieldMarshal = 0x0D,
    DeclSecurity = 0x0E,
    ClassLayout = 0x0F,
    FieldLayout = 0x10,
    StandAloneSig = 0x11,
    EventMap = 0x12,
    EventPtr = 0x13,
    Event = 0x14,
    PropertyMap = 0x15,
    PropertyPtr = 0x16,
    Property = 0x17,
    MethodSemantics = 0x18,
    MethodImpl = 0x19,
    ModuleRef = 0x1A,
    TypeSpec = 0x1B,
    ImplMap = 0x1C,
    FieldRva = 0x1D,
    EncLog = 0x1E,
    EncMap = 0x1F,
    Assembly = 0x20,
    AssemblyProcessor = 0x21,
    AssemblyOs = 0x22,
    AssemblyRef = 0x23,
    AssemblyRefProcessor = 0x24,
    AssemblyRefOs = 0x25,
    File = 0x26,
    ExportedType = 0x27,
    ManifestResource = 0x28,
    NestedClass = 0x29,
    GenericParam = 0x2A,
    MethodSpec = 0x2B,
    GenericParamConstraint = 0x2C,
    Document = 0x30,
    MethodDebugInformation = 0x31,
    LocalScope = 0x32,
    LocalVariable = 0x33,
    LocalConstant = 0x34,
    ImportScope = 0x35,
    StateMachineMethod = 0x36,
    CustomDebugInformation = 0x37,
    count = 64
};
} // namespace table

enum class CodedIndex : uint8_t {
    TypeDefOrRef,
    HasConstant,
    HasCustomAttribute,
    HasFieldMarshal,
    HasDeclSecurity,
    MemberRefParent,
    HasSemantics,
    MethodDefOrRef,
    MemberForwarded,
    Implementation,
    CustomAttributeType,
    ResolutionScope,
    TypeOrMethodDef,
    HasCustomDebugInformation,
    count
};

// Tag values name candidate tables in order; kNoTable marks tags no table uses.
struct CodedIndexSchema {
    static const uint8_t kNoTable = 0xFF;
    uint8_t tagBits;
    uint8_t count;
    const uint8_t* tables;
};

enum class ColumnKind : uint8_t {
    fixed2,
    fixed4,
    string, // #Strings index
    guid,   // #GUID index
    blob,   // #Blob index
    table,  // row id of `target`
    list,   // first row of a run in `target`, through `pointerTable` when that has rows
    coded   // coded index of kind `target`
};

struct ColumnSchema {
    ColumnKind kind;
    uint8_t target = 0;
    uint8_t pointerTable = CodedIndexSchema::kNoTable;
};

struct TableSchema {
    static const unsigned kMaxColumns = 9;
    const char* name;
    uint8_t columnCount;
    ColumnSchema columns[kMaxColumns];
};

// Null for the ids no table has (0x2D-0x2F, 0x38-0x3F).
const TableSchema* tableSchema(unsigned id);
const CodedIndexSchema& codedIndexSchema(CodedIndex kind);
// Splits a coded index into table and row; false for a tag no table uses.
bool decodeCodedIndex(CodedIndex kind, uint32_t value, uint8_t& table, uint32_t& rid);

QUARVEL_NAMESPACE_END

#endif

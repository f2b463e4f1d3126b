#include "dotnet/metadata_schema.h"

#include <cstddef>

QUARVEL_NAMESPACE_BEGIN

namespace {

using namespace table;
const uint8_t N = CodedIndexSchema::kNoTable;

const uint8_t kTypeDefOrRef[] = {TypeDef, TypeRef, TypeSpec};
const uint8_t kHasConstant[] = {Field, Param, Property};
const uint8_t kHasCustomAttribute[] = {MethodDef,        Field,        TypeRef,
                                       TypeDef,          Param,        InterfaceImpl,
                                       MemberRef,        Module,       DeclSecurity,
                                       Property,         Event,        StandAloneSig,
                                       ModuleRef,        TypeSpec,     Assembly,
                                       AssemblyRef,      File,         ExportedType,
                                       ManifestResource, GenericParam, GenericParamConstraint,
                                       MethodSpec};
const uint8_t kHasFieldMarshal[] = {Field, Param};
const uint8_t kHasDeclSecurity[] = {TypeDef, MethodDef, Assembly};
const uint8_t kMemberRefParent[] = {TypeDef, TypeRef, ModuleRef, MethodDef, TypeSpec};
const uint8_t kHasSemantics[] = {Event, Property};
const uint8_t kMethodDefOrRef[] = {MethodDef, MemberRef};
const uint8_t kMemberForwarded[] = {Field, MethodDef};
const uint8_t kImplementation[] = {File, AssemblyRef, ExportedType};
const uint8_t kCustomAttributeType[] = {N, N, MethodDef, MemberRef, N};
const uint8_t kResolutionScope[] = {Module, ModuleRef, AssemblyRef, TypeRef};
const uint8_t kTypeOrMethodDef[] = {TypeDef, MethodDef};
const uint8_t kHasCustomDebugInformation[] = {MethodDef,        Field,         TypeRef,
                                              TypeDef,          Param,         InterfaceImpl,
                                              MemberRef,        Module,        DeclSecurity,
                                              Property,         Event,         StandAloneSig,
                                              ModuleRef,        TypeSpec,      Assembly,
                                              AssemblyRef,      File,          ExportedType,
                                              ManifestResource, GenericParam,  GenericParamConstraint,
                                              MethodSpec,       Document,      LocalScope,
                                              LocalVariable,    LocalConstant, ImportScope};

#define QV_CODED(bits, list)                           \
    CodedIndexSchema {                                 \
        bits, static_cast<uint8_t>(sizeof(list)), list \
    }
const CodedIndexSchema kCodedIndices[] = {
    QV_CODED(2, kTypeDefOrRef),        QV_CODED(2, kHasConstant),
    QV_CODED(5, kHasCustomAttribute),  QV_CODED(1, kHasFieldMarshal),
    QV_CODED(2, kHasDeclSecurity),     QV_CODED(3, kMemberRefParent),
    QV_CODED(1, kHasSemantics),        QV_CODED(1, kMethodDefOrRef),
    QV_CODED(1, kMemberForwarded),     QV_CODED(2, kImplementation),
    QV_CODED(3, kCustomAttributeType), QV_CODED(2, kResolutionScope),
    QV_CODED(1, kTypeOrMethodDef),     QV_CODED(5, kHasCustomDebugInformation),
};
#undef QV_CODED
static_assert(sizeof(kCodedIndices) / sizeof(kCodedIndices[0]) == std::size_t(CodedIndex::count),
              "one schema per kind");

constexpr ColumnSchema c2{ColumnKind::fixed2};
constexpr ColumnSchema c4{ColumnKind::fixed4};
constexpr ColumnSchema S{ColumnKind::string};
constexpr ColumnSchema G{ColumnKind::guid};
constexpr ColumnSchema B{ColumnKind::blob};
constexpr ColumnSchema T(uint8_t t) {
    return ColumnSchema{ColumnKind::table, t};
}
constexpr ColumnSchema L(uint8_t t, uint8_t ptr = N) {
    return ColumnSchema{ColumnKind::list, t, ptr};
}
constexpr ColumnSchema C(CodedIndex k) {
    return ColumnSchema{ColumnKind::coded, static_cast<uint8_t>(k)};
}

struct Entry {
    uint8_t id;
    TableSchema schema;
};

const Entry kTables[] = {
    {Module, {"Module", 5, {c2, S, G, G, G}}},
    {TypeRef, {"TypeRef", 3, {C(CodedIndex::ResolutionScope), S, S}}},
    {TypeDef, {"TypeDef", 6, {c4, S, S, C(CodedIndex::TypeDefOrRef), L(Field, FieldPtr), L(MethodDef, MethodPtr)}}},
    {FieldPtr, {"FieldPtr", 1, {T(Field)}}},
    {Field, {"Field", 3, {c2, S, B}}},
    {MethodPtr, {"MethodPtr", 1, {T(MethodDef)}}},
    {MethodDef, {"MethodDef", 6, {c4, c2, c2, S, B, L(Param, ParamPtr)}}},
    {ParamPtr, {"ParamPtr", 1, {T(Param)}}},
    {Param, {"Param", 3, {c2, c2, S}}},
    {InterfaceImpl, {"InterfaceImpl", 2, {T(TypeDef), C(CodedIndex::TypeDefOrRef)}}},
    {MemberRef, {"MemberRef", 3, {C(CodedIndex::MemberRefParent), S, B}}},
    {Constant, {"Constant", 3, {c2, C(CodedIndex::HasConstant), B}}},
    {CustomAttribute,
     {"CustomAttribute", 3, {C(CodedIndex::HasCustomAttribute), C(CodedIndex::CustomAttributeType), B}}},
    {FieldMarshal, {"FieldMarshal", 2, {C(CodedIndex::HasFieldMarshal), B}}},
    {DeclSecurity, {"DeclSecurity", 3, {c2, C(CodedIndex::HasDeclSecurity), B}}},
    {ClassLayout, {"ClassLayout", 3, {c2, c4, T(TypeDef)}}},
    {FieldLayout, {"FieldLayout", 2, {c4, T(Field)}}},
    {StandAloneSig, {"StandAloneSig", 1, {B}}},
    {EventMap, {"EventMap", 2, {T(TypeDef), L(Event, EventPtr)}}},
    {EventPtr, {"EventPtr", 1, {T(Event)}}},
    {Event, {"Event", 3, {c2, S, C(CodedIndex::TypeDefOrRef)}}},
    {PropertyMap, {"PropertyMap", 2, {T(TypeDef), L(Property, PropertyPtr)}}},
    {PropertyPtr, {"PropertyPtr", 1, {T(Property)}}},
    {Property, {"Property", 3, {c2, S, B}}},
    {MethodSemantics, {"MethodSemantics", 3, {c2, T(MethodDef), C(CodedIndex::HasSemantics)}}},
    {MethodImpl, {"MethodImpl", 3, {T(TypeDef), C(CodedIndex::MethodDefOrRef), C(CodedIndex::MethodDefOrRef)}}},
    {ModuleRef, {"ModuleRef", 1, {S}}},
    {TypeSpec, {"TypeSpec", 1, {B}}},
    {ImplMap, {"ImplMap", 4, {c2, C(CodedIndex::MemberForwarded), S, T(ModuleRef)}}},
    {FieldRva, {"FieldRVA", 2, {c4, T(Field)}}},
    {EncLog, {"EncLog", 2, {c4, c4}}},
    {EncMap, {"EncMap", 1, {c4}}},
    {Assembly, {"Assembly", 9, {c4, c2, c2, c2, c2, c4, B, S, S}}},
    {AssemblyProcessor, {"AssemblyProcessor", 1, {c4}}},
    {AssemblyOs, {"AssemblyOS", 3, {c4, c4, c4}}},
    {AssemblyRef, {"AssemblyRef", 9, {c2, c2, c2, c2, c4, B, S, S, B}}},
    {AssemblyRefProcessor, {"AssemblyRefProcessor", 2, {c4, T(AssemblyRef)}}},
    {AssemblyRefOs, {"AssemblyRefOS", 4, {c4, c4, c4, T(AssemblyRef)}}},
    {File, {"File", 3, {c4, S, B}}},
    {ExportedType, {"ExportedType", 5, {c4, c4, S, S, C(CodedIndex::Implementation)}}},
    {ManifestResource, {"ManifestResource", 4, {c4, c4, S, C(CodedIndex::Implementation)}}},
    {NestedClass, {"NestedClass", 2, {T(TypeDef), T(TypeDef)}}},
    {GenericParam, {"GenericParam", 4, {c2, c2, C(CodedIndex::TypeOrMethodDef), S}}},
    {MethodSpec, {"MethodSpec", 2, {C(CodedIndex::MethodDefOrRef), B}}},
    {GenericParamConstraint, {"GenericParamConstraint", 2, {T(GenericParam), C(CodedIndex::TypeDefOrRef)}}},
    {Document, {"Document", 4, {B, G, B, G}}},
    {MethodDebugInformation, {"MethodDebugInformation", 2, {T(Document), B}}},
    {LocalScope, {"LocalScope", 6, {T(MethodDef), T(ImportScope), L(LocalVariable), L(LocalConstant), c4, c4}}},
    {LocalVariable, {"LocalVariable", 3, {c2, c2, S}}},
    {LocalConstant, {"LocalConstant", 2, {S, B}}},
    {ImportScope, {"ImportScope", 2, {T(ImportScope), B}}},
    {StateMachineMethod, {"StateMachineMethod", 2, {T(MethodDef), T(MethodDef)}}},
    {CustomDebugInformation, {"CustomDebugInformation", 3, {C(CodedIndex::HasCustomDebugInformation), G, B}}},
};

struct Index {
    const TableSchema* byId[table::count] = {};
    Index() {
        for (const Entry& e : kTables)
            byId[e.id] = &e.schema;
    }
};

} // namespace

const TableSchema* tableSchema(unsigned id) {
    static const Index index;
    return id < table::count ? index.byId[id] : nullptr;
}

const CodedIndexSchema& codedIndexSchema(CodedIndex kind) {
    return kCodedIndices[static_cast<unsigned>(kind)];
}

bool decodeCodedIndex(CodedIndex kind, uint32_t value, uint8_t& tableId, uint32_t& rid) {
    const CodedIndexSchema& schema = codedIndexSchema(kind);
    const uint32_t tag = value & ((1u << schema.tagBits) - 1);
    if (tag >= schema.count || schema.tables[tag] == CodedIndexSchema::kNoTable)
        return false;
    tableId = schema.tables[tag];
    rid = value >> schema.tagBits;
    return true;
}

QUARVEL_NAMESPACE_END

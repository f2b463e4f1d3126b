#ifndef QUARVEL_DOTNET_SIGNATURE_DECODER_H
#define QUARVEL_DOTNET_SIGNATURE_DECODER_H

#include "dotnet/generic_parameter_index.h"
#include "dotnet/metadata_heaps.h"
#include "dotnet/metadata_tables.h"
#include "dotnet/type_names.h"
#include "support/byte_cursor.h"
#include "support/result.h"

#include <cstdint>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

// Whose generic parameters !n and !!n name.
struct GenericContext {
    uint32_t typeRid = 0;
    uint32_t methodRid = 0;
};

struct MethodSignatureText {
    uint8_t header = 0; // calling convention and HASTHIS/EXPLICITTHIS/GENERIC bits
    uint32_t genericCount = 0;
    uint32_t parameterCount = 0;
    std::string returnType;
    std::string parameters; // the parameter types joined by ", "

    // "<T, U>(int, string)": method type parameters, then the parameter
    // types; a vararg method ends its list with "__arglist".
    std::string text(const GenericParameterIndex& generics, uint32_t methodRid) const;
};

// Turns signature blobs (ECMA-335 II.23.2) into readable types: C# keywords
// for primitives, full type names, T[] / T[,] / T* / T&, generic
// instantiations as Name`n<A, B>, function pointers as delegate*<A, R>,
// custom modifiers as "T modreq(X)" / "T modopt(X)".
class SignatureDecoder {
public:
    // Nesting of types inside types (TypeSpecs included) is bounded by this,
    // and one signature spells at most kMaxTypes types: TypeSpecs that name
    // each other several times would otherwise expand exponentially.
    static const unsigned kMaxDepth = 64;
    static const unsigned kMaxTypes = 4096;
    // Nor is a text longer than this spelled (real ones are some hundred bytes).
    static const size_t kMaxText = 1 << 16;

    SignatureDecoder() = default;
    SignatureDecoder(const MetadataTables* tables, const MetadataHeaps* heaps, const TypeNames* names,
                     const GenericParameterIndex* generics);

    // A MethodDefSig (or MethodRefSig) from the blob heap.
    Status decodeMethod(uint32_t blobIndex, const GenericContext& context, MethodSignatureText& out) const;

private:
    // `budget`: the types this signature may still spell.
    bool method(ByteCursor& c, const GenericContext& context, unsigned depth, unsigned& budget,
                MethodSignatureText& out) const;
    bool type(ByteCursor& c, const GenericContext& context, unsigned depth, unsigned& budget, std::string& out) const;
    bool typeDefOrRef(ByteCursor& c, const GenericContext& context, unsigned depth, unsigned& budget,
                      std::string& out) const;
    bool arrayShape(ByteCursor& c, std::string& out) const;
    bool functionPointer(ByteCursor& c, const GenericContext& context, unsigned depth, unsigned& budget,
                         std::string& out) const;

    const MetadataTables* m_tables = nullptr;
    const MetadataHeaps* m_heaps = nullptr;
    const TypeNames* m_names = nullptr;
    const GenericParameterIndex* m_generics = nullptr;
};

QUARVEL_NAMESPACE_END

#endif

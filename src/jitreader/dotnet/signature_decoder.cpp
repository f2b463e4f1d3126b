#include "dotnet/signature_decoder.h"

#include "dotnet/compressed_integer.h"

QUARVEL_NAMESPACE_BEGIN

namespace {

enum ElementType : uint8_t {
    kVoid = 0x01,
    kBoolean = 0x02,
    kChar = 0x03,
    kI1 = 0x04,
    kU1 = 0x05,
    kI2 = 0x06,
    kU2 = 0x07,
    kI4 = 0x08,
    kU4 = 0x09,
    kI8 = 0x0A,
    kU8 = 0x0B,
    kR4 = 0x0C,
    kR8 = 0x0D,
    kString = 0x0E,
    kPtr = 0x0F,
    kByRef = 0x10,
    kValueType = 0x11,
    kClass = 0x12,
    kVar = 0x13,
    kArray = 0x14,
    kGenericInst = 0x15,
    kTypedByRef = 0x16,
    kI = 0x18,
    kU = 0x19,
    kFnPtr = 0x1B,
    kObject = 0x1C,
    kSzArray = 0x1D,
    kMVar = 0x1E,
    kCModReqd = 0x1F,
    kCModOpt = 0x20,
    kSentinel = 0x41,
    kPinned = 0x45
};

enum SignatureHeader : uint8_t {
    kCallingConventionMask = 0x0F,
    kGeneric = 0x10,
    kHasThis = 0x20,
};

enum CallingConvention : uint8_t {
    kDefault = 0,
    kCDecl = 1,
    kStdCall = 2,
    kThisCall = 3,
    kFastCall = 4,
    kVarArg = 5,
    kUnmanaged = 9,
    kField = 6,
    kLocalSig = 7,
    kProperty = 8,
    kGenericInstSig = 0x0A
};

const char* primitiveName(uint8_t code) {
    switch (code) {
    case kVoid:
        return "void";
    case kBoolean:
        return "bool";
    case kChar:
        return "char";
    case kI1:
        return "sbyte";
    case kU1:
        return "byte";
    case kI2:
        return "short";
    case kU2:
        return "ushort";
    case kI4:
        return "int";
    case kU4:
        return "uint";
    case kI8:
        return "long";
    case kU8:
        return "ulong";
    case kR4:
        return "float";
    case kR8:
        return "double";
    case kString:
        return "string";
    case kTypedByRef:
        return "TypedReference";
    case kI:
        return "nint";
    case kU:
        return "nuint";
    case kObject:
        return "object";
    default:
        return nullptr;
    }
}

const uint32_t kMaxRank = 64;

void fail(ByteCursor& c, uint64_t at, const std::string& what) {
    c.fail(what + " at offset " + std::to_string(at));
}

} // namespace

std::string MethodSignatureText::text(const GenericParameterIndex& generics, uint32_t methodRid) const {
    std::string out;
    out.reserve(parameters.size() + 16);
    if (genericCount) {
        out += '<';
        for (uint32_t i = 0; i < genericCount; ++i) {
            if (i)
                out += ", ";
            // A name that cannot be read is spelled !!i.
            const size_t before = out.size();
            if (!generics.appendName(true, methodRid, i, out)) {
                out.resize(before);
                out += "!!" + std::to_string(i);
            }
        }
        out += '>';
    }
    out += '(';
    out += parameters;
    if ((header & kCallingConventionMask) == kVarArg)
        out += parameterCount ? ", __arglist" : "__arglist";
    out += ')';
    return out;
}

SignatureDecoder::SignatureDecoder(const MetadataTables* tables, const MetadataHeaps* heaps, const TypeNames* names,
                                   const GenericParameterIndex* generics)
    : m_tables(tables), m_heaps(heaps), m_names(names), m_generics(generics) {}

Status SignatureDecoder::decodeMethod(uint32_t blobIndex, const GenericContext& context,
                                      MethodSignatureText& out) const {
    Expected<ByteCursor> blob = m_heaps->blob(blobIndex);
    if (!blob)
        return blob.reason();
    ByteCursor c = blob.value();
    unsigned budget = kMaxTypes;
    if (!method(c, context, 0, budget, out))
        return Reason::badInput("method signature: " + c.error());
    return Status::success();
}

bool SignatureDecoder::method(ByteCursor& c, const GenericContext& context, unsigned depth, unsigned& budget,
                              MethodSignatureText& out) const {
    const uint64_t at = c.fileOffset();
    if (!c.u8(out.header, "signature header"))
        return false;
    const uint8_t convention = out.header & kCallingConventionMask;
    if (convention == kField || convention == kLocalSig || convention == kGenericInstSig) {
        fail(c, at, "not a method signature (header " + std::to_string(out.header) + ")");
        return false;
    }
    out.genericCount = 0;
    if ((out.header & kGeneric) && !readCompressedUnsigned(c, out.genericCount, "generic parameter count"))
        return false;
    // Each is spelled from a GenericParam row: a count beyond them is damage.
    if (out.genericCount > m_tables->rows(table::GenericParam)) {
        fail(c, at,
             std::to_string(out.genericCount) + " generic parameters, but " +
                 std::to_string(m_tables->rows(table::GenericParam)) + " GenericParam rows");
        return false;
    }
    uint32_t count = 0;
    if (!readCompressedUnsigned(c, count, "parameter count"))
        return false;
    // Each parameter takes at least one byte: a count beyond the blob is damage.
    if (count > c.remaining()) {
        fail(c, at, std::to_string(count) + " parameters in a signature of " + std::to_string(c.size()) + " bytes");
        return false;
    }
    out.parameterCount = count;
    out.returnType.clear();
    if (!type(c, context, depth, budget, out.returnType))
        return false;
    out.parameters.clear();
    for (uint32_t i = 0; i < count; ++i) {
        if (i)
            out.parameters += ", ";
        // Vararg call sites mark the start of the optional arguments.
        uint8_t next = 0;
        ByteCursor peek = c;
        if (peek.u8(next, "parameter type") && next == kSentinel)
            c.skip(1, "sentinel");
        if (!type(c, context, depth, budget, out.parameters))
            return false;
    }
    return true;
}

bool SignatureDecoder::type(ByteCursor& c, const GenericContext& context, unsigned depth, unsigned& budget,
                            std::string& out) const {
    const uint64_t at = c.fileOffset();
    if (depth > kMaxDepth) {
        fail(c, at, "types nested deeper than " + std::to_string(kMaxDepth));
        return false;
    }
    if (budget == 0) {
        fail(c, at, "more than " + std::to_string(kMaxTypes) + " types in one signature");
        return false;
    }
    if (out.size() > kMaxText) {
        fail(c, at, "a signature text longer than " + std::to_string(kMaxText) + " bytes");
        return false;
    }
    --budget;
    uint8_t code = 0;
    if (!c.u8(code, "element type"))
        return false;
    if (const char* primitive = primitiveName(code)) {
        out += primitive;
        return true;
    }
    switch (code) {
    case kPtr:
        if (!type(c, context, depth + 1, budget, out))
            return false;
        out += '*';
        return true;
    case kByRef:
        if (!type(c, context, depth + 1, budget, out))
            return false;
        out += '&';
        return true;
    case kPinned:
        if (!type(c, context, depth + 1, budget, out))
            return false;
        out += " pinned";
        return true;
    case kSzArray:
        if (!type(c, context, depth + 1, budget, out))
            return false;
        out += "[]";
        return true;
    case kArray:
        return type(c, context, depth + 1, budget, out) && arrayShape(c, out);
    case kValueType:
    case kClass:
        return typeDefOrRef(c, context, depth, budget, out);
    case kVar:
    case kMVar: {
        uint32_t index = 0;
        if (!readCompressedUnsigned(c, index, "generic parameter number"))
            return false;
        const bool method = code == kMVar;
        const size_t before = out.size();
        if (!m_generics->appendName(method, method ? context.methodRid : context.typeRid, index, out)) {
            out.resize(before);
            out += (method ? "!!" : "!") + std::to_string(index);
        }
        return true;
    }
    case kGenericInst: {
        uint8_t kind = 0;
        const uint64_t kindAt = c.fileOffset();
        if (!c.u8(kind, "generic instantiation kind"))
            return false;
        if (kind != kClass && kind != kValueType) {
            fail(c, kindAt, "generic instantiation of element type " + std::to_string(kind));
            return false;
        }
        if (!typeDefOrRef(c, context, depth, budget, out))
            return false;
        uint32_t count = 0;
        if (!readCompressedUnsigned(c, count, "generic argument count"))
            return false;
        if (count == 0 || count > c.remaining()) {
            fail(c, kindAt, std::to_string(count) + " generic arguments");
            return false;
        }
        out += '<';
        for (uint32_t i = 0; i < count; ++i) {
            if (i)
                out += ", ";
            if (!type(c, context, depth + 1, budget, out))
                return false;
        }
        out += '>';
        return true;
    }
    case kFnPtr:
        return functionPointer(c, context, depth, budget, out);
    case kCModReqd:
    case kCModOpt: {
        std::string modifier;
        if (!typeDefOrRef(c, context, depth, budget, modifier) || !type(c, context, depth + 1, budget, out))
            return false;
        out += code == kCModReqd ? " modreq(" : " modopt(";
        out += modifier;
        out += ')';
        return true;
    }
    default:
        fail(c, at, "unknown element type " + std::to_string(code));
        return false;
    }
}

bool SignatureDecoder::typeDefOrRef(ByteCursor& c, const GenericContext& context, unsigned depth, unsigned& budget,
                                    std::string& out) const {
    const uint64_t at = c.fileOffset();
    uint32_t coded = 0;
    if (!readCompressedUnsigned(c, coded, "type token"))
        return false;
    const uint32_t rid = coded >> 2;
    Status named;
    switch (coded & 3) {
    case 0:
        named = m_names->appendTypeDef(rid, out);
        break;
    case 1:
        named = m_names->appendTypeRef(rid, out);
        break;
    case 2: {
        uint32_t blobIndex = 0;
        if (!m_tables->read(table::TypeSpec, rid, 0, blobIndex)) {
            fail(c, at, "TypeSpec row " + std::to_string(rid) + " does not exist");
            return false;
        }
        Expected<ByteCursor> blob = m_heaps->blob(blobIndex);
        if (!blob) {
            c.fail(blob.reason().message);
            return false;
        }
        ByteCursor inner = blob.value();
        if (!type(inner, context, depth + 1, budget, out)) {
            c.fail(inner.error());
            return false;
        }
        return true;
    }
    default:
        fail(c, at, "bad type token tag 3");
        return false;
    }
    if (!named) {
        c.fail(named.reason().message + " (type token at offset " + std::to_string(at) + ")");
        return false;
    }
    return true;
}

bool SignatureDecoder::arrayShape(ByteCursor& c, std::string& out) const {
    const uint64_t at = c.fileOffset();
    uint32_t rank = 0;
    uint32_t sizeCount = 0;
    if (!readCompressedUnsigned(c, rank, "array rank") || !readCompressedUnsigned(c, sizeCount, "array size count"))
        return false;
    // The runtime allows 32 dimensions; the bound keeps a damaged rank from
    // making a text of gigabytes.
    if (rank == 0 || rank > kMaxRank || sizeCount > rank) {
        fail(c, at, "array of rank " + std::to_string(rank) + " with " + std::to_string(sizeCount) + " sizes");
        return false;
    }
    std::vector<uint32_t> sizes(sizeCount);
    for (uint32_t& s : sizes)
        if (!readCompressedUnsigned(c, s, "array size"))
            return false;
    uint32_t boundCount = 0;
    if (!readCompressedUnsigned(c, boundCount, "array lower bound count"))
        return false;
    if (boundCount > rank) {
        fail(c, at, "array of rank " + std::to_string(rank) + " with " + std::to_string(boundCount) + " lower bounds");
        return false;
    }
    std::vector<int32_t> bounds(boundCount);
    for (int32_t& b : bounds)
        if (!readCompressedSigned(c, b, "array lower bound"))
            return false;
    std::string dims;
    for (uint32_t i = 0; i < rank; ++i) {
        if (i)
            dims += ',';
        const int64_t lower = i < boundCount ? bounds[i] : 0;
        if (i < sizeCount)
            dims += std::to_string(lower) + "..." + std::to_string(lower + int64_t(sizes[i]) - 1);
        else if (lower != 0)
            dims += std::to_string(lower) + "...";
    }
    out += '[';
    out += rank == 1 && dims.empty() ? "*" : dims;
    out += ']';
    return true;
}

bool SignatureDecoder::functionPointer(ByteCursor& c, const GenericContext& context, unsigned depth, unsigned& budget,
                                       std::string& out) const {
    MethodSignatureText signature;
    if (!method(c, context, depth + 1, budget, signature))
        return false;
    out += "delegate*";
    if (signature.header & kHasThis)
        out += " instance";
    switch (signature.header & kCallingConventionMask) {
    case kDefault:
        break;
    case kCDecl:
        out += " unmanaged[Cdecl]";
        break;
    case kStdCall:
        out += " unmanaged[Stdcall]";
        break;
    case kThisCall:
        out += " unmanaged[Thiscall]";
        break;
    case kFastCall:
        out += " unmanaged[Fastcall]";
        break;
    case kVarArg:
        out += " vararg";
        break;
    case kUnmanaged:
        out += " unmanaged";
        break;
    default:
        out += " callconv(" + std::to_string(signature.header & kCallingConventionMask) + ")";
        break;
    }
    out += '<';
    out += signature.parameters;
    if (signature.parameterCount)
        out += ", ";
    out += signature.returnType;
    out += '>';
    return true;
}

QUARVEL_NAMESPACE_END

#include "dotnet/runtime_marks.h"

#include "dotnet/compressed_integer.h"

#include <string>

QUARVEL_NAMESPACE_BEGIN

namespace {

const uint32_t kReadyToRunSignature = 0x00525452; // "RTR"
const uint8_t kAssemblyParentTag = 14;            // HasCustomAttribute tag of the Assembly table

// CustomAttribute: Parent, Type, Value. MemberRef: Class, Name, Signature.
// AssemblyRef: Major, Minor, Build, Revision, Flags, PublicKeyOrToken, Name, ...
// Assembly: HashAlgId, Major, Minor, Build, Revision, Flags, PublicKey, Name, Culture.
const unsigned kAttributeParent = 0;
const unsigned kAttributeType = 1;
const unsigned kAttributeValue = 2;
const unsigned kMemberRefClass = 0;
const unsigned kAssemblyRefMajor = 0;
const unsigned kAssemblyRefMinor = 1;
const unsigned kAssemblyRefKey = 5;
const unsigned kAssemblyRefName = 6;
const unsigned kAssemblyName = 7;

enum class Verdict { core, notCore, unknown };

bool hasReadyToRunHeader(const PeImage& image) {
    const CliHeader& cli = image.cliHeader();
    if (!(cli.flags & CliHeader::ilLibrary) || cli.managedNativeHeader.rva == 0)
        return false;
    Expected<ByteCursor> header = image.at(cli.managedNativeHeader.rva, 4, "managed native header");
    uint32_t signature = 0;
    return header && header.value().u32(signature, "managed native header signature") &&
           signature == kReadyToRunSignature;
}

std::string typeNameOf(const AssemblyMetadata& a, uint8_t tableId, uint32_t rid) {
    std::string name;
    if (tableId == table::TypeRef)
        (void)a.typeNames().appendTypeRef(rid, name);
    else if (tableId == table::TypeDef)
        (void)a.typeNames().appendTypeDef(rid, name);
    return name;
}

// The type whose constructor a CustomAttribute row calls.
std::string attributeType(const AssemblyMetadata& a, uint32_t type) {
    uint8_t ctorTable = 0;
    uint32_t ctor = 0;
    if (!decodeCodedIndex(CodedIndex::CustomAttributeType, type, ctorTable, ctor))
        return std::string();
    if (ctorTable == table::MethodDef)
        return typeNameOf(a, table::TypeDef, a.declaringType(ctor));
    uint32_t parent = 0;
    uint8_t parentTable = 0;
    uint32_t parentRid = 0;
    if (!a.tables().read(table::MemberRef, ctor, kMemberRefClass, parent) ||
        !decodeCodedIndex(CodedIndex::MemberRefParent, parent, parentTable, parentRid))
        return std::string();
    return typeNameOf(a, parentTable, parentRid);
}

// ".NETCoreApp,Version=v8.0" from the TargetFrameworkAttribute of the assembly.
Verdict targetFramework(const AssemblyMetadata& a) {
    const MetadataTables& t = a.tables();
    for (uint32_t rid = 1; rid <= t.rows(table::CustomAttribute); ++rid) {
        uint32_t parent = 0;
        uint32_t type = 0;
        uint32_t value = 0;
        if (!t.read(table::CustomAttribute, rid, kAttributeParent, parent) || (parent & 0x1F) != kAssemblyParentTag ||
            !t.read(table::CustomAttribute, rid, kAttributeType, type) ||
            !t.read(table::CustomAttribute, rid, kAttributeValue, value))
            continue;
        if (attributeType(a, type) != "System.Runtime.Versioning.TargetFrameworkAttribute")
            continue;
        // Prolog 0x0001, then the framework name as a SerString.
        Expected<ByteCursor> blob = a.heaps().blob(value);
        if (!blob)
            return Verdict::unknown;
        ByteCursor c = blob.value();
        uint16_t prolog = 0;
        uint32_t length = 0;
        const uint8_t* text = nullptr;
        if (!c.u16(prolog, "attribute prolog") || prolog != 1 || !readCompressedUnsigned(c, length, "string length") ||
            !c.bytes(length, text, "framework name"))
            return Verdict::unknown;
        const std::string framework(reinterpret_cast<const char*>(text), length);
        return framework.compare(0, 11, ".NETCoreApp") == 0 ? Verdict::core : Verdict::notCore;
    }
    return Verdict::unknown;
}

// The first corlib the assembly references with a public key decides.
Verdict corlibReference(const AssemblyMetadata& a, bool& anyReference) {
    const MetadataTables& t = a.tables();
    anyReference = false;
    for (uint32_t rid = 1; rid <= t.rows(table::AssemblyRef); ++rid) {
        uint32_t major = 0;
        uint32_t minor = 0;
        uint32_t key = 0;
        uint32_t nameIndex = 0;
        if (!t.read(table::AssemblyRef, rid, kAssemblyRefMajor, major) ||
            !t.read(table::AssemblyRef, rid, kAssemblyRefMinor, minor) ||
            !t.read(table::AssemblyRef, rid, kAssemblyRefKey, key) ||
            !t.read(table::AssemblyRef, rid, kAssemblyRefName, nameIndex))
            continue;
        Expected<ByteCursor> keyBlob = a.heaps().blob(key);
        if (!keyBlob || keyBlob.value().size() == 0)
            continue; // refs without a key or token say nothing (ilasm adds such a "mscorlib")
        std::string name;
        if (!a.heaps().appendString(nameIndex, name))
            continue;
        anyReference = true;
        if (name == "System.Private.CoreLib")
            return Verdict::core;
        if (name == "System.Runtime")
            return major > 4 || (major == 4 && minor >= 2) ? Verdict::core : Verdict::notCore;
        if (name == "mscorlib" || name == "netstandard")
            return Verdict::notCore;
    }
    return Verdict::unknown;
}

bool isCoreCorlib(const AssemblyMetadata& a) {
    uint32_t nameIndex = 0;
    std::string name;
    return a.tables().read(table::Assembly, 1, kAssemblyName, nameIndex) && a.heaps().appendString(nameIndex, name) &&
           name == "System.Private.CoreLib";
}

} // namespace

uint32_t runtimeMarks(const AssemblyMetadata& a) {
    uint32_t marks = 0;
    if (a.image().targetSystem() || hasReadyToRunHeader(a.image()))
        marks |= kCoreReadyToRun;
    Verdict verdict = targetFramework(a);
    bool anyReference = false;
    if (verdict == Verdict::unknown)
        verdict = corlibReference(a, anyReference);
    if (verdict == Verdict::unknown && !anyReference && isCoreCorlib(a))
        verdict = Verdict::core;
    if (verdict == Verdict::core)
        marks |= kTargetsCore;
    return marks;
}

QUARVEL_NAMESPACE_END

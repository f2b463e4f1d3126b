#include "format/nettrace_metadata_parser.h"

#include "format/nettrace_primitives.h"

QUARVEL_NAMESPACE_BEGIN

namespace {

// Nested object fields deeper than this are refused (the runtime writes flat lists).
const unsigned kMaxNesting = 8;

enum ObjectStreamTag : uint8_t { tagOpcode = 1, tagParameters = 2 };
enum OptionalKind : uint8_t {
    optOpcode = 1,
    optKeywords = 3,
    optMessageTemplate = 4,
    optDescription = 5,
    optKeyValue = 6,
    optProviderGuid = 7,
    optLevel = 8,
    optVersion = 9
};

bool failNesting(ByteCursor& c) {
    c.fail("field descriptions nested deeper than " + std::to_string(kMaxNesting) + " levels at offset " +
           std::to_string(c.fileOffset()));
    return false;
}

// A count can claim no more entries than the bytes left could hold.
bool checkCount(ByteCursor& c, uint64_t count, size_t minEntryBytes, const char* what) {
    if (count > c.remaining() / minEntryBytes) {
        c.fail(std::string(what) + " count " + std::to_string(count) + " at offset " + std::to_string(c.fileOffset()) +
               " exceeds what the remaining " + std::to_string(c.remaining()) + " bytes can hold");
        return false;
    }
    return true;
}

} // namespace

bool NettraceMetadataParser::parseEventPayload(ByteCursor& c, NettraceEventMetadata& out) {
    out = NettraceEventMetadata();
    using nettrace::readUtf16String;
    if (!c.u32(out.id, "metadata id") || !readUtf16String(c, out.providerName, "provider name") ||
        !c.u32(out.eventId, "event id") || !readUtf16String(c, out.eventName, "event name") ||
        !c.u64(out.keywords, "keywords") || !c.u32(out.version, "event version") || !c.u32(out.level, "level"))
        return false;
    // Old writers may stop before the field list.
    if (c.remaining() >= 4 && !parseObjectStreamFields(c, &out.fields, 0))
        return false;
    // Version 5 tags: a size that excludes itself and the kind byte.
    while (c.remaining() >= 5) {
        uint32_t size = 0;
        uint8_t kind = 0;
        if (!c.u32(size, "metadata tag size") || !c.u8(kind, "metadata tag kind"))
            return false;
        ByteCursor tag = c.sub(size, "metadata tag");
        if (!c)
            return false;
        if (kind == tagOpcode) {
            uint8_t opcode = 0;
            if (tag.u8(opcode, "opcode"))
                out.opcode = opcode;
        } else if (kind == tagParameters) {
            // Replaces the first list (which is empty when this one is written).
            std::vector<NettraceFieldDescription> fields;
            if (parseParameterTag(tag, fields))
                out.fields = std::move(fields);
        }
    }
    return true;
}

bool NettraceMetadataParser::parseObjectStreamFields(ByteCursor& c, std::vector<NettraceFieldDescription>* out,
                                                     unsigned depth) {
    if (depth > kMaxNesting)
        return failNesting(c);
    uint32_t count = 0;
    if (!c.u32(count, "field count") || !checkCount(c, count, 6, "field"))
        return false;
    if (out)
        out->reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        NettraceFieldDescription field;
        if (!c.u32(field.typeCode, "field type code"))
            return false;
        // Nested fields are walked over, not kept.
        if (field.typeCode == ntObject && !parseObjectStreamFields(c, nullptr, depth + 1))
            return false;
        if (!nettrace::readUtf16String(c, field.name, "field name"))
            return false;
        if (out)
            out->push_back(std::move(field));
    }
    return true;
}

// Each parameter: a size that counts itself, the name, the type code and,
// for arrays, the element type code.
bool NettraceMetadataParser::parseParameterTag(ByteCursor tag, std::vector<NettraceFieldDescription>& out) {
    uint32_t count = 0;
    if (!tag.u32(count, "parameter count") || !checkCount(tag, count, 4, "parameter"))
        return false;
    out.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t size = 0;
        if (!tag.u32(size, "parameter size"))
            return false;
        if (size < 4) {
            tag.fail("parameter size " + std::to_string(size) + " is smaller than its own field");
            return false;
        }
        ByteCursor p = tag.sub(size - 4, "parameter");
        NettraceFieldDescription field;
        if (!nettrace::readUtf16String(p, field.name, "parameter name") || !p.u32(field.typeCode, "parameter type"))
            return false;
        if (field.typeCode == ntArray && !p.u32(field.elementTypeCode, "array element type"))
            return false;
        out.push_back(std::move(field));
    }
    return true;
}

bool NettraceMetadataParser::parseRow(ByteCursor& c, NettraceEventMetadata& out) {
    out = NettraceEventMetadata();
    if (!nettrace::readVarUInt32(c, out.id, "metadata id") ||
        !nettrace::readUtf8String(c, out.providerName, "provider name") ||
        !nettrace::readVarUInt32(c, out.eventId, "event id") ||
        !nettrace::readUtf8String(c, out.eventName, "event name") || !parseRowFields(c, &out.fields, 0))
        return false;
    uint16_t optionalSize = 0;
    if (!c.u16(optionalSize, "optional metadata size"))
        return false;
    ByteCursor optional = c.sub(optionalSize, "optional metadata");
    if (!c)
        return false;
    // A property of an unknown kind (or a bad one) ends the list, not the row.
    (void)parseOptionalMetadata(optional, out);
    return true;
}

bool NettraceMetadataParser::parseRowFields(ByteCursor& c, std::vector<NettraceFieldDescription>* out, unsigned depth) {
    if (depth > kMaxNesting)
        return failNesting(c);
    uint16_t count = 0;
    if (!c.u16(count, "field count") || !checkCount(c, count, 2, "field"))
        return false;
    if (out)
        out->reserve(count);
    for (uint16_t i = 0; i < count; ++i) {
        uint16_t size = 0;
        if (!c.u16(size, "field description size"))
            return false;
        ByteCursor f = c.sub(size, "field description");
        NettraceFieldDescription field;
        if (!nettrace::readUtf8String(f, field.name, "field name") || !parseRowType(f, field, depth)) {
            c.fail(f.error());
            return false;
        }
        if (out)
            out->push_back(std::move(field));
    }
    return true;
}

bool NettraceMetadataParser::parseRowType(ByteCursor& c, NettraceFieldDescription& field, unsigned depth) {
    if (depth > kMaxNesting)
        return failNesting(c);
    uint8_t code = 0;
    if (!c.u8(code, "field type code"))
        return false;
    field.typeCode = code;
    switch (code) {
    case ntArray:
    case ntFixedLengthArray:
    case ntRelLoc:
    case ntDataLoc: {
        NettraceFieldDescription element;
        if (!parseRowType(c, element, depth + 1))
            return false;
        field.elementTypeCode = element.typeCode;
        uint16_t elementCount = 0;
        return code != ntFixedLengthArray || c.u16(elementCount, "fixed array length");
    }
    case ntObject:
        return parseRowFields(c, nullptr, depth + 1);
    default:
        return true;
    }
}

bool NettraceMetadataParser::parseOptionalMetadata(ByteCursor c, NettraceEventMetadata& out) {
    std::string text, value;
    while (c && !c.atEnd()) {
        uint8_t kind = 0;
        c.u8(kind, "optional metadata kind");
        switch (kind) {
        case optOpcode:
            c.u8(out.opcode, "opcode");
            break;
        case optKeywords:
            c.u64(out.keywords, "keywords");
            break;
        case optMessageTemplate:
        case optDescription:
            nettrace::readUtf8String(c, text, "text");
            break;
        case optKeyValue:
            if (nettrace::readUtf8String(c, text, "key"))
                nettrace::readUtf8String(c, value, "value");
            break;
        case optProviderGuid:
            c.skip(16, "provider guid");
            break;
        case optLevel: {
            uint8_t level = 0;
            if (c.u8(level, "level"))
                out.level = level;
            break;
        }
        case optVersion: {
            uint8_t version = 0;
            if (c.u8(version, "version"))
                out.version = version;
            break;
        }
        default:
            return false;
        }
    }
    return static_cast<bool>(c);
}

QUARVEL_NAMESPACE_END

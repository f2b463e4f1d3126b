#include "ingest/class_name_cache.h"

#include "model/base_method_info.h"
#include "model/java_signature_parser.h"

QUARVEL_NAMESPACE_BEGIN

const std::string& ClassNameCache::stored(const std::string& written, bool java) {
    m_converted.clear();
    if (java && JavaSignatureParser::appendJoinedClassName(written, m_converted))
        return m_converted;
    std::unordered_map<std::string, std::string>& names = m_names[java ? 1 : 0];
    const auto found = names.find(written);
    if (found != names.end())
        return found->second;
    if (names.size() >= kMaxNames)
        names.clear();
    return names.emplace(written, convert(written, java)).first->second;
}

std::string ClassNameCache::convert(const std::string& written, bool java) {
    std::string joined;
    std::string readable = written;
    if (java && !written.empty() && !JavaSignatureParser::parseHiddenClassName(written, readable))
        readable = JavaSignatureParser::parseClassName(written);
    BaseMethodInfo::appendJoined(readable, joined);
    return joined;
}

QUARVEL_NAMESPACE_END

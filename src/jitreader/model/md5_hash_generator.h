#ifndef QUARVEL_MODEL_MD5_HASH_GENERATOR_H
#define QUARVEL_MODEL_MD5_HASH_GENERATOR_H

#include "model/base_method_id.h"
#include "model/jit_method.h"

#include <string>
#include <string_view>

QUARVEL_NAMESPACE_BEGIN

// Turns a raw id (or, without one, the method's names) into its 128-bit id.
class Md5HashGenerator {
public:
    // What the identity text of a raw id is made of: the id scoped by the
    // host and process of the method's first region and its module's architecture.
    struct RawIdKey {
        u32 rawId = 0;
        u32 host = 0;
        u32 pid = 0;
        int arch = 0;

        bool operator==(const RawIdKey& other) const {
            return rawId == other.rawId && host == other.host && pid == other.pid && arch == other.arch;
        }
    };

    // What follows the id in a raw id's identity text, ".<host>.<pid><arch>":
    // the same for every record of a file, so a reader writes it once.
    class RawIdScope {
    public:
        explicit RawIdScope(const RawIdKey& key);
        bool holds(const RawIdKey& key) const { return key.host == m_host && key.pid == m_pid && key.arch == m_arch; }
        std::string_view text() const { return std::string_view(m_text, m_length); }

    private:
        u32 m_host;
        u32 m_pid;
        int m_arch;
        char m_text[40]; // two u32 and an int with their separators need 33
        size_t m_length;
    };

    // rawId != 0: "<rawId>.<host>.<pid><arch>" of the first region and module.
    // rawId == 0: "<token><qualified name><class name><module path><arch>".
    static BaseMethodId getHashValue(u32 rawId, const JitMethod::Ptr& method);
    static RawIdKey rawIdKey(u32 rawId, const JitMethod& method);
    // The id of a raw id's key; getHashValue of a method with that key.
    static BaseMethodId hashRawId(const RawIdKey& key);
    // The same, the key's host, process and architecture given as scope.
    static BaseMethodId hashRawId(u32 rawId, const RawIdScope& scope);
    // The identity text getHashValue digests.
    static std::string identityText(u32 rawId, const JitMethod::Ptr& method);
    // MD5 of the text, as two little-endian 64-bit halves.
    static BaseMethodId hashText(std::string_view text);
};

QUARVEL_NAMESPACE_END

#endif

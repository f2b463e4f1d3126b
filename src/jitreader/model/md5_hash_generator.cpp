#include "model/md5_hash_generator.h"

#include "support/assertion.h"

// Every record read digests a text of a few dozen bytes, one MD5 block. The
// digest interface costs a third more than the digest on top of it (a context
// copy with an allocation and a free, a provider call, a cleanse), so the
// library's own MD5 functions are used where it still has them. They are
// marked deprecated since 3.0, but are neither removed nor slower.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/evp.h>
#include <openssl/md5.h>

#include <algorithm>
#include <charconv>
#include <memory>
#include <sstream>

QUARVEL_NAMESPACE_BEGIN

namespace {

int architectureOf(const JitMethod& method) {
    const IModule::Ptr& module = method.info()->module();
    QV_CHECK(module, (void)0);
    return module ? static_cast<int>(module->getArchitecture()) : 0;
}

template <typename T>
char* putNumber(char* at, char* end, T value) {
    return std::to_chars(at, end, value).ptr;
}

#ifdef OPENSSL_NO_DEPRECATED_3_0
// Fetched once: an implicit fetch on every digest costs more than the digest.
const EVP_MD* md5() {
    static const EVP_MD* const fetched = [] {
        const EVP_MD* md = EVP_MD_fetch(nullptr, "MD5", nullptr);
        return md ? md : EVP_md5();
    }();
    return fetched;
}

struct FreeContext {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
typedef std::unique_ptr<EVP_MD_CTX, FreeContext> ContextPtr;

// Per thread, a context set up for MD5 once and the one each digest copies it
// into: copying the set-up state costs less than setting a context up again,
// and a one-shot digest makes and frees a context every time.
struct Contexts {
    ContextPtr initialised{EVP_MD_CTX_new()};
    ContextPtr working{EVP_MD_CTX_new()};
    bool ready = initialised && working && EVP_DigestInit_ex2(initialised.get(), md5(), nullptr) == 1;
};

EVP_MD_CTX* freshContext() {
    thread_local const Contexts contexts;
    if (!contexts.ready || EVP_MD_CTX_copy_ex(contexts.working.get(), contexts.initialised.get()) != 1)
        return nullptr;
    return contexts.working.get();
}

bool digest(std::string_view text, unsigned char (&out)[16]) {
    unsigned char digest[EVP_MAX_MD_SIZE] = {};
    unsigned int length = 0;
    EVP_MD_CTX* const ctx = freshContext();
    if (!ctx || EVP_DigestUpdate(ctx, text.data(), text.size()) != 1 || EVP_DigestFinal_ex(ctx, digest, &length) != 1 ||
        length != 16)
        return false;
    std::copy(digest, digest + 16, out);
    return true;
}
#else
bool digest(std::string_view text, unsigned char (&out)[16]) {
    MD5_CTX context;
    return MD5_Init(&context) == 1 && MD5_Update(&context, text.data(), text.size()) == 1 &&
           MD5_Final(out, &context) == 1;
}

// The longest text whose padding and length fit its one block.
constexpr size_t kOneBlockText = 55;

// A text of one block (every raw id's is) padded here and compressed once:
// the context's buffering, its final pass and its cleansing cost a third of
// what the block itself does. The digest's bytes are the state's four words,
// each little-endian, whatever the host.
BaseMethodId oneBlockDigest(std::string_view text) {
    unsigned char block[64] = {};
    std::copy(text.begin(), text.end(), block);
    block[text.size()] = 0x80;
    const u64 bits = u64(text.size()) * 8;
    for (int i = 0; i < 8; ++i)
        block[56 + i] = static_cast<unsigned char>(bits >> (8 * i));
    MD5_CTX context;
    MD5_Init(&context);
    MD5_Transform(&context, block);
    return BaseMethodId(u64(context.A) | u64(context.B) << 32, u64(context.C) | u64(context.D) << 32);
}
#endif

} // namespace

Md5HashGenerator::RawIdKey Md5HashGenerator::rawIdKey(u32 rawId, const JitMethod& method) {
    RawIdKey key;
    key.rawId = rawId;
    if (method.regionCount()) {
        key.host = method.regions().front()->hostId();
        key.pid = method.regions().front()->processId();
    }
    key.arch = architectureOf(method);
    return key;
}

// No separator between the process id and the architecture: the ids depend on it.
Md5HashGenerator::RawIdScope::RawIdScope(const RawIdKey& key) : m_host(key.host), m_pid(key.pid), m_arch(key.arch) {
    char* const end = m_text + sizeof m_text;
    char* at = m_text;
    *at++ = '.';
    at = putNumber(at, end, key.host);
    *at++ = '.';
    at = putNumber(putNumber(at, end, key.pid), end, key.arch);
    m_length = static_cast<size_t>(at - m_text);
}

BaseMethodId Md5HashGenerator::hashRawId(const RawIdKey& key) {
    return hashRawId(key.rawId, RawIdScope(key));
}

// This runs for every record read: the text is written into a buffer.
BaseMethodId Md5HashGenerator::hashRawId(u32 rawId, const RawIdScope& scope) {
    char text[48];
    char* const end = putNumber(text, text + 16, rawId);
    const std::string_view rest = scope.text();
    std::copy(rest.begin(), rest.end(), end);
    return hashText(std::string_view(text, static_cast<size_t>(end - text) + rest.size()));
}

std::string Md5HashGenerator::identityText(u32 rawId, const JitMethod::Ptr& method) {
    if (!method)
        return std::string();
    if (rawId != 0)
        return std::to_string(rawId) + std::string(RawIdScope(rawIdKey(rawId, *method)).text());
    const IModule::Ptr& module = method->info()->module();
    std::ostringstream text;
    const BaseMethodInfo& info = *method->info();
    text << info.methodToken() << info.qualifiedMethodName() << info.className()
         << (module ? module->getFilePath() : "") << architectureOf(*method);
    return text.str();
}

BaseMethodId Md5HashGenerator::hashText(std::string_view text) {
#ifndef OPENSSL_NO_DEPRECATED_3_0
    if (text.size() <= kOneBlockText)
        return oneBlockDigest(text);
#endif
    unsigned char bytes[16] = {};
    if (!digest(text, bytes))
        return BaseMethodId();
    u64 halves[2] = {0, 0};
    for (int h = 0; h < 2; ++h)
        for (int i = 0; i < 8; ++i)
            halves[h] |= static_cast<u64>(bytes[h * 8 + i]) << (8 * i);
    return BaseMethodId(halves[0], halves[1]);
}

BaseMethodId Md5HashGenerator::getHashValue(u32 rawId, const JitMethod::Ptr& method) {
    if (rawId != 0 && method)
        return hashRawId(rawIdKey(rawId, *method));
    return hashText(identityText(rawId, method));
}

QUARVEL_NAMESPACE_END

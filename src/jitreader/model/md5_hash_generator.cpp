#include "model/md5_hash_generator.h"

#include "support/assertion.h"

#include <openssl/evp.h>

#include <memory>
#include <sstream>

QUARVEL_NAMESPACE_BEGIN

std::string Md5HashGenerator::identityText(u32 rawId, const JitMethod::Ptr& method) {
    if (!method)
        return std::string();
    const IModule::Ptr& module = method->info()->module();
    QV_CHECK(module, (void)0);
    const int arch = module ? static_cast<int>(module->getArchitecture()) : 0;
    if (rawId != 0) {
        u32 host = 0;
        u32 pid = 0;
        if (method->regionCount()) {
            host = method->regions().front()->hostId();
            pid = method->regions().front()->processId();
        }
        // No separator between the process id and the architecture: the ids depend on it.
        // Built without a stream: this runs for every record read.
        std::string text = std::to_string(rawId);
        text += '.';
        text += std::to_string(host);
        text += '.';
        text += std::to_string(pid);
        text += std::to_string(arch);
        return text;
    }
    std::ostringstream text;
    const BaseMethodInfo& info = *method->info();
    text << info.methodToken() << info.qualifiedMethodName() << info.className()
         << (module ? module->getFilePath() : "") << arch;
    return text.str();
}

namespace {

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

// One context per thread, reset for each digest: a one-shot digest makes and
// frees a context every time, and methods are hashed once or twice each.
EVP_MD_CTX* context() {
    thread_local const std::unique_ptr<EVP_MD_CTX, FreeContext> made(EVP_MD_CTX_new());
    return made.get();
}

} // namespace

BaseMethodId Md5HashGenerator::hashText(const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE] = {};
    unsigned int length = 0;
    EVP_MD_CTX* const ctx = context();
    if (!ctx || EVP_DigestInit_ex2(ctx, md5(), nullptr) != 1 || EVP_DigestUpdate(ctx, text.data(), text.size()) != 1 ||
        EVP_DigestFinal_ex(ctx, digest, &length) != 1 || length != 16)
        return BaseMethodId();
    u64 halves[2] = {0, 0};
    for (int h = 0; h < 2; ++h)
        for (int i = 0; i < 8; ++i)
            halves[h] |= static_cast<u64>(digest[h * 8 + i]) << (8 * i);
    return BaseMethodId(halves[0], halves[1]);
}

BaseMethodId Md5HashGenerator::getHashValue(u32 rawId, const JitMethod::Ptr& method) {
    return hashText(identityText(rawId, method));
}

QUARVEL_NAMESPACE_END

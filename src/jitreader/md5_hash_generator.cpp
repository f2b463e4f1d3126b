#include "md5_hash_generator.h"

#include "assertion.h"

#include <openssl/evp.h>

#include <memory>
#include <sstream>

namespace quarvel_3_13 {

std::string Md5HashGenerator::identityText(u32 rawId, const JitMethod::Ptr& method) {
    std::ostringstream text;
    if (!method)
        return text.str();
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
        text << rawId << "." << host << "." << pid << arch;
    } else {
        const BaseMethodInfo& info = *method->info();
        text << info.methodToken() << info.qualifiedMethodName() << info.className()
             << (module ? module->getFilePath() : "") << arch;
    }
    return text.str();
}

BaseMethodId Md5HashGenerator::hashText(const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE] = {};
    unsigned int length = 0;
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!context || EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) != 1 ||
        EVP_DigestUpdate(context.get(), text.data(), text.size()) != 1 ||
        EVP_DigestFinal_ex(context.get(), digest, &length) != 1 || length != 16)
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

} // namespace quarvel_3_13

#include "public/common/SHA1.h"

#include <openssl/evp.h>

#include <new>

namespace skein {

namespace {

/// Fetched once: `EVP_sha1()` would search the providers again on every digest.
const EVP_MD* sha1Method() {
    static EVP_MD* const method = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    if (method == nullptr) throw std::bad_alloc();
    return method;
}

}  // namespace

void SHA1Hasher::Free::operator()(evp_md_ctx_st* context) const noexcept { EVP_MD_CTX_free(context); }

SHA1Hasher::SHA1Hasher() : context_(EVP_MD_CTX_new()) {
    if (!context_ || EVP_DigestInit_ex2(context_.get(), sha1Method(), nullptr) != 1) throw std::bad_alloc();
}

void SHA1Hasher::update(ByteView bytes) { EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()); }

SHA1Digest SHA1Hasher::finish() {
    SHA1Digest digest{};
    EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr);
    EVP_DigestInit_ex2(context_.get(), sha1Method(), nullptr);
    return digest;
}

SHA1Digest sha1(ByteView bytes) {
    SHA1Hasher hasher;
    hasher.update(bytes);
    return hasher.finish();
}

}  // namespace skein

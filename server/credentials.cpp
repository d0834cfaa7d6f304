#include "server/credentials.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <vector>

namespace tellora::server {

std::optional<std::string> randomHexToken(std::size_t bytes) {
  std::vector<unsigned char> raw(bytes);
  if (RAND_bytes(raw.data(), static_cast<int>(raw.size())) != 1) return std::nullopt;
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes * 2);
  for (unsigned char b : raw) {
    text.push_back(kHex[b >> 4]);
    text.push_back(kHex[b & 15]);
  }
  OPENSSL_cleanse(raw.data(), raw.size());
  return text;
}

Sha256 sha256(std::string_view text) {
  Sha256 digest{};
  unsigned int length = 0;
  EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_sha256(), nullptr);
  return digest;
}

bool sameDigest(const Sha256& a, const Sha256& b) {
  return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace tellora::server

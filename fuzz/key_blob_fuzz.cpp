// A peer's public key: any bytes are refused, or are a key that encrypts an answer or says why not.
#include <vector>

#include "fuzz/fuzz_target.h"
#include "platform/crypto.h"

QX_FUZZ_TARGET(key_blob) {
  platform::CryptoProvider provider;
  qx::fuzz::Require(platform::CryptoProvider::AcquireContext(platform::kEnhancedProvider, platform::PROV_RSA_FULL,
                                                             platform::CRYPT_VERIFYCONTEXT, provider) == 0,
                    "the provider is there");
  platform::CryptoKey key;
  if (platform::CryptoKey::Import(provider, {data, size}, platform::CRYPT_EXPORTABLE, key) != 0) {
    qx::fuzz::Require(!key, "a refused blob leaves no key");
    return 0;
  }
  std::vector<std::uint8_t> block(256, 0x30);
  std::uint32_t length = 22;
  if (key.Encrypt(true, block, length) == 0) {
    qx::fuzz::Require(length == (key.Bits() + 7) / 8, "a block has the size of the modulus");
  } else {
    qx::fuzz::Require(length == 22, "a failure leaves the length");
  }
  std::uint32_t blobSize = 0;
  qx::fuzz::Require(key.ExportPublic({}, blobSize) == 0, "a key that was taken has a size");
  std::vector<std::uint8_t> blob(blobSize);
  qx::fuzz::Require(key.ExportPublic(blob, blobSize) == 0, "a key that was taken is given");
  platform::CryptoKey again;
  qx::fuzz::Require(platform::CryptoKey::Import(provider, blob, 0, again) == 0 && again.Bits() == key.Bits(),
                    "a key that was given is taken");
  return 0;
}

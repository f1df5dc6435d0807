#include "platform/crypto.h"

#include <gtest/gtest.h>
#include <openssl/decoder.h>
#include <openssl/encoder.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/testing/fault.h"

namespace platform {
namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr std::uint32_t kFlags = 2048u << 16 | CRYPT_EXPORTABLE;

const CryptoProvider& Provider() {
  static const CryptoProvider* const provider = [] {
    auto* const made = new CryptoProvider;
    EXPECT_EQ(CryptoProvider::AcquireContext(kEnhancedProvider, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT, *made), 0u);
    return made;
  }();
  return *provider;
}

// One pair for all tests: making one takes long.
const CryptoKey& Pair() {
  static const CryptoKey* const key = [] {
    auto* const made = new CryptoKey;
    EXPECT_EQ(CryptoKey::Generate(Provider(), CALG_RSA_KEYX, kFlags, *made), 0u);
    return made;
  }();
  return *key;
}

Bytes Blob() {
  std::uint32_t size = 0;
  EXPECT_EQ(Pair().ExportPublic({}, size), 0u);
  Bytes blob(size);
  EXPECT_EQ(Pair().ExportPublic(blob, size), 0u);
  return blob;
}

Bytes Encrypted(const CryptoKey& key, const std::string& text) {
  Bytes block(256);
  std::copy(text.begin(), text.end(), block.begin());
  auto length = static_cast<std::uint32_t>(text.size());
  EXPECT_EQ(key.Encrypt(true, block, length), 0u);
  block.resize(length);
  return block;
}

TEST(CryptoKey, ExportsTheBlobThatTheLibrarysOwnEncoderMakes) {
  // The library reads our blob and writes it back by its own code.
  const Bytes blob = Blob();
  ASSERT_EQ(blob.size(), 276u);
  EVP_PKEY* key = nullptr;
  OSSL_DECODER_CTX* decoder = OSSL_DECODER_CTX_new_for_pkey(&key, "MSBLOB", nullptr, "RSA", 0, nullptr, nullptr);
  const unsigned char* at = blob.data();
  std::size_t left = blob.size();
  ASSERT_EQ(OSSL_DECODER_from_data(decoder, &at, &left), 1);
  OSSL_DECODER_CTX_free(decoder);
  OSSL_ENCODER_CTX* encoder = OSSL_ENCODER_CTX_new_for_pkey(key, EVP_PKEY_PUBLIC_KEY, "MSBLOB", nullptr, nullptr);
  unsigned char* made = nullptr;
  std::size_t size = 0;
  ASSERT_EQ(OSSL_ENCODER_to_data(encoder, &made, &size), 1);
  EXPECT_EQ(Bytes(made, made + size), blob);
  OPENSSL_free(made);
  OSSL_ENCODER_CTX_free(encoder);
  EVP_PKEY_free(key);
}

TEST(CryptoKey, DecryptsWithThePairWhatWasEncryptedWithItsBlob) {
  CryptoKey peer;
  ASSERT_EQ(CryptoKey::Import(Provider(), Blob(), CRYPT_EXPORTABLE, peer), 0u);
  Bytes block = Encrypted(peer, "hello");
  ASSERT_EQ(block.size(), 256u);
  std::uint32_t length = 256;
  ASSERT_EQ(Pair().Decrypt(true, block, length), 0u);
  EXPECT_EQ(std::string(block.begin(), block.begin() + length), "hello");
}

TEST(CryptoKey, WritesABlockLeastSignificantByteFirst) {
  // The raw value of the block is below the modulus only when its last byte is the most significant one: decrypting by
  // the library, which takes the most significant byte first, works on the reversed block alone.
  EVP_PKEY* key = EVP_RSA_gen(2048);
  OSSL_ENCODER_CTX* encoder = OSSL_ENCODER_CTX_new_for_pkey(key, EVP_PKEY_PUBLIC_KEY, "MSBLOB", nullptr, nullptr);
  unsigned char* made = nullptr;
  std::size_t size = 0;
  ASSERT_EQ(OSSL_ENCODER_to_data(encoder, &made, &size), 1);
  CryptoKey peer;
  ASSERT_EQ(CryptoKey::Import(Provider(), {made, size}, 0, peer), 0u);
  Bytes block = Encrypted(peer, "order");
  EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(key, nullptr);
  ASSERT_EQ(EVP_PKEY_decrypt_init(context), 1);
  EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING);
  Bytes plain(256);
  std::size_t length = plain.size();
  EXPECT_NE(EVP_PKEY_decrypt(context, plain.data(), &length, block.data(), block.size()), 1);
  std::reverse(block.begin(), block.end());
  length = plain.size();
  ASSERT_EQ(EVP_PKEY_decrypt(context, plain.data(), &length, block.data(), block.size()), 1);
  EXPECT_EQ(std::string(plain.begin(), plain.begin() + static_cast<std::ptrdiff_t>(length)), "order");
  EVP_PKEY_CTX_free(context);
  OSSL_ENCODER_CTX_free(encoder);
  OPENSSL_free(made);
  EVP_PKEY_free(key);
}

TEST(CryptoKey, RefusesAShortLastBlock) {
  for (const std::uint32_t size : {0u, 1u, 44u, 255u}) {
    Bytes block(256);
    std::uint32_t length = size;
    EXPECT_EQ(Pair().Decrypt(true, block, length), NTE_BAD_LEN) << size;
    EXPECT_EQ(length, size);
  }
}

TEST(CryptoKey, RefusesWhatIsNoKeyOfABlob) {
  struct Case {
    const char* what;
    std::size_t at;
    std::uint8_t value;
  };
  const Case kCases[] = {{"an even modulus", 20, 0},   {"more bits than any key has", 15, 0xFF},
                         {"bits that are no bytes", 12, 1}, {"an even exponent", 16, 0}};
  for (const Case& c : kCases) {
    Bytes blob = Blob();
    blob[c.at] = c.value;
    CryptoKey key;
    EXPECT_EQ(CryptoKey::Import(Provider(), blob, 0, key), NTE_BAD_DATA) << c.what;
    EXPECT_FALSE(key) << c.what;
  }
  for (const std::uint8_t exponent : {0, 1}) {
    Bytes blob = Blob();
    blob[16] = exponent;
    blob[18] = 0;
    CryptoKey key;
    EXPECT_EQ(CryptoKey::Import(Provider(), blob, 0, key), NTE_BAD_DATA) << int{exponent};
  }
  Bytes zero = Blob();
  std::fill(zero.begin() + 20, zero.end(), std::uint8_t{0});
  CryptoKey key;
  EXPECT_EQ(CryptoKey::Import(Provider(), zero, 0, key), NTE_BAD_DATA);
  EXPECT_EQ(CryptoKey::Import(CryptoProvider(), Blob(), 0, key), ERROR_INVALID_PARAMETER);
}

TEST(CryptoKey, LetsBytesBehindTheModulusPass) {
  Bytes blob = Blob();
  blob.resize(blob.size() + 100, 0xAA);
  CryptoKey key;
  EXPECT_EQ(CryptoKey::Import(Provider(), blob, 0, key), 0u);
  EXPECT_EQ(key.Bits(), 2048u);
}

TEST(CryptoKey, TakesAGreaterKeyAndRefusesItsBlockInASmallBuffer) {
  Bytes blob = Blob();
  blob.resize(20 + 512);
  blob[12] = 0x00, blob[13] = 0x10;  // 4096 bits
  std::fill(blob.begin() + 20, blob.end(), std::uint8_t{0xFF});
  CryptoKey key;
  ASSERT_EQ(CryptoKey::Import(Provider(), blob, 0, key), 0u);
  Bytes block(256);
  std::uint32_t length = 22;
  EXPECT_EQ(key.Encrypt(true, block, length), ERROR_MORE_DATA);
  EXPECT_EQ(length, 22u);
}

TEST(CryptoKey, MakesOnlyKeysOfItsAlgorithmAndSizes) {
  CryptoKey key;
  EXPECT_EQ(CryptoKey::Generate(Provider(), 0x2400, kFlags, key), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(CryptoKey::Generate(CryptoProvider(), CALG_RSA_KEYX, kFlags, key), ERROR_INVALID_PARAMETER);
  for (const std::uint32_t flags : {1u, 512u << 16, 2047u << 16, 2048u << 16 | 2}) {
    EXPECT_EQ(CryptoKey::Generate(Provider(), CALG_RSA_KEYX, flags, key), NTE_BAD_FLAGS) << flags;
  }
  EXPECT_FALSE(key);
}

TEST(CryptoKey, IsUsedBySeveralThreadsAtOnce) {
  CryptoKey peer;
  ASSERT_EQ(CryptoKey::Import(Provider(), Blob(), 0, peer), 0u);
  std::vector<std::thread> threads;
  std::vector<int> good(4);
  for (std::size_t t = 0; t < good.size(); ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 10; ++i) {
        Bytes block = Encrypted(peer, "thread " + std::to_string(t));
        std::uint32_t length = 256;
        good[t] += Pair().Decrypt(true, block, length) == 0 && length == 8;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(good, std::vector<int>(4, 10));
}

TEST(CryptoKey, FailsByTheSeam) {
  CryptoProvider provider;
  CryptoKey key;
  Bytes block(256);
  std::uint32_t length = 0;
  const struct {
    Operation operation;
    std::function<ErrorCode()> call;
  } kCalls[] = {
      {Operation::kCryptAcquireContext,
       [&] { return CryptoProvider::AcquireContext(kEnhancedProvider, PROV_RSA_FULL, 0, provider); }},
      {Operation::kCryptGenKey, [&] { return CryptoKey::Generate(Provider(), CALG_RSA_KEYX, kFlags, key); }},
      {Operation::kCryptImportKey, [&] { return CryptoKey::Import(Provider(), Blob(), 0, key); }},
      {Operation::kCryptExportKey, [&] { return Pair().ExportPublic(block, length); }},
      {Operation::kCryptEncrypt, [&] { return Pair().Encrypt(true, block, length); }},
      {Operation::kCryptDecrypt, [&] { return Pair().Decrypt(true, block, length); }},
      {Operation::kCryptDestroyKey, [&] { return key.Destroy(); }},
  };
  for (const auto& c : kCalls) {
    (void)Blob();
    const FaultPlan plan = FaultPlan::FailCall(c.operation, 1, NTE_FAIL);
    EXPECT_EQ(c.call(), NTE_FAIL) << OperationName(c.operation);
  }
  EXPECT_FALSE(provider);
  EXPECT_FALSE(key);
}

}  // namespace
}  // namespace platform

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/crypto.h"
#include "tests/golden.h"

namespace platform {
namespace {

using Json = nlohmann::json;
using Bytes = std::vector<std::uint8_t>;

ErrorCode CodeOf(const Json& row) {
  return static_cast<ErrorCode>(std::stoul(row.at("error").get<std::string>(), nullptr, 16));
}

class golden_crypt : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    CryptoProvider provider;
    ASSERT_EQ(CryptoProvider::AcquireContext(kEnhancedProvider, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT, provider), 0u);
    s_provider = provider;
    ASSERT_EQ(CryptoKey::Generate(s_provider, CALG_RSA_KEYX, 0x08000001, s_pair), 0u);
    std::uint32_t size = 0;
    ASSERT_EQ(s_pair.ExportPublic({}, size), 0u);
    s_blob.resize(size);
    ASSERT_EQ(s_pair.ExportPublic(s_blob, size), 0u);
    ASSERT_EQ(CryptoKey::Import(s_provider, s_blob, 1, s_public), 0u);
  }
  static void TearDownTestSuite() {
    s_pair = {};
    s_public = {};
  }
  static inline CryptoProvider s_provider;
  static inline CryptoKey s_pair;
  static inline CryptoKey s_public;
  static inline Bytes s_blob;
};

TEST_F(golden_crypt, AcquiresAsRecorded) {
  CryptoProvider::ForgetContainer();
  const std::map<std::string, ErrorCode (*)(CryptoProvider&)> calls = {
      {"default container, missing",
       [](auto& p) { return CryptoProvider::AcquireContext(kEnhancedProvider, PROV_RSA_FULL, 0, p); }},
      {"default container, new key set",
       [](auto& p) { return CryptoProvider::AcquireContext(kEnhancedProvider, PROV_RSA_FULL, CRYPT_NEWKEYSET, p); }},
      {"default container, second time",
       [](auto& p) { return CryptoProvider::AcquireContext(kEnhancedProvider, PROV_RSA_FULL, 0, p); }},
      {"new key set where one exists",
       [](auto& p) { return CryptoProvider::AcquireContext(kEnhancedProvider, PROV_RSA_FULL, CRYPT_NEWKEYSET, p); }},
      {"unknown provider", [](auto& p) { return CryptoProvider::AcquireContext(u"No Provider", PROV_RSA_FULL, 0, p); }},
      {"wrong type", [](auto& p) { return CryptoProvider::AcquireContext(kEnhancedProvider, 13, 0, p); }},
      {"verify context",
       [](auto& p) { return CryptoProvider::AcquireContext(kEnhancedProvider, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT, p); }},
  };
  int used = 0;
  for (const Json& row : LoadGolden("crypt.json").value("acquire", Json::array())) {
    const std::string name = row.at("case");
    ASSERT_TRUE(calls.contains(name)) << name;
    CryptoProvider provider;
    const ErrorCode rc = calls.at(name)(provider);
    EXPECT_EQ(rc, CodeOf(row)) << name;
    EXPECT_EQ(static_cast<bool>(provider), row.at("ok").get<bool>()) << name;
    ++used;
  }
  EXPECT_EQ(used, 7);
  CryptoProvider::ForgetContainer();
}

TEST_F(golden_crypt, MakesAndExportsAKeyAsRecorded) {
  int used = 0;
  for (const Json& row : LoadGolden("crypt.json").value("key", Json::array())) {
    const std::string name = row.at("case");
    ++used;
    if (name == "CryptGenKey 0xA400, 0x08000001") {
      EXPECT_TRUE(s_pair);
    } else if (name == "parameters") {
      EXPECT_EQ(s_pair.Bits(), row.at("key_bits").get<std::uint32_t>());
      EXPECT_EQ(CALG_RSA_KEYX, row.at("algorithm").get<std::uint32_t>());
    } else if (name == "blob size query") {
      EXPECT_EQ(s_blob.size(), row.at("size").get<std::size_t>());
    } else if (name == "blob into 100 bytes") {
      Bytes small(100);
      std::uint32_t size = 0;
      EXPECT_EQ(s_pair.ExportPublic(small, size), CodeOf(row));
      EXPECT_EQ(size, row.at("size").get<std::uint32_t>());
    } else if (name == "blob") {
      const std::string header = row.at("header_20_bytes");
      for (std::size_t i = 0; i < 20; ++i) EXPECT_EQ(s_blob[i], std::stoul(header.substr(2 * i, 2), nullptr, 16)) << i;
      EXPECT_EQ(s_blob[20] % 2 == 1, row.at("first_modulus_byte_odd").get<bool>());
      EXPECT_EQ((s_blob[275] & 0x80) != 0, row.at("last_modulus_byte_has_top_bit").get<bool>());
    } else {
      ADD_FAILURE() << name;
    }
  }
  EXPECT_EQ(used, 5);
}

TEST_F(golden_crypt, EncryptsAsRecorded) {
  int used = 0;
  for (const Json& row : LoadGolden("crypt.json").value("encrypt", Json::array())) {
    if (!row.contains("length_in")) continue;
    ++used;
    Bytes buffer(row.at("buffer").get<std::size_t>(), 7);
    std::uint32_t length = row.at("length_in");
    EXPECT_EQ(s_public.Encrypt(row.at("final"), buffer, length), CodeOf(row)) << row;
    EXPECT_EQ(length, row.at("length_out").get<std::uint32_t>()) << row;
  }
  EXPECT_EQ(used, 10);
  Bytes one(256, 7), two(256, 7);
  std::uint32_t length = 22;
  ASSERT_EQ(s_public.Encrypt(true, one, length), 0u);
  length = 22;
  ASSERT_EQ(s_public.Encrypt(true, two, length), 0u);
  EXPECT_NE(one, two);
}

TEST_F(golden_crypt, DecryptsAsRecorded) {
  const Bytes plain = {'-', '2', '1', '4', '7', '2', '2', '0', '9', '7', '3', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  Bytes cipher(256);
  std::copy(plain.begin(), plain.end(), cipher.begin());
  std::uint32_t length = 22;
  ASSERT_EQ(s_public.Encrypt(true, cipher, length), 0u);
  int used = 0;
  for (const Json& row : LoadGolden("crypt.json").value("decrypt", Json::array())) {
    const std::string name = row.at("case");
    Bytes block = cipher;
    block.resize(row.at("length_in").get<std::size_t>(), 0x55);
    if (name == "bytes reversed") std::reverse(block.begin(), block.end());
    if (name == "44 bytes padded with zero") std::fill(block.begin() + 44, block.end(), std::uint8_t{0});
    if (name == "one bit changed") block[100] ^= 1;
    const CryptoKey& key = name == "with the public key only" ? s_public : s_pair;
    length = row.at("length_in");
    EXPECT_EQ(key.Decrypt(row.at("final"), block, length), CodeOf(row)) << name;
    EXPECT_EQ(length, row.at("length_out").get<std::uint32_t>()) << name;
    const bool same = length == plain.size() && std::equal(plain.begin(), plain.end(), block.begin());
    EXPECT_EQ(same, row.at("is_the_plain_text").get<bool>()) << name;
    ++used;
  }
  EXPECT_EQ(used, 7);
}

TEST_F(golden_crypt, ImportsAsRecorded) {
  int used = 0;
  for (const Json& row : LoadGolden("crypt.json").value("import", Json::array())) {
    const std::string name = row.at("case");
    ++used;
    if (name == "destroy again") {
      CryptoKey key;
      ASSERT_EQ(CryptoKey::Import(s_provider, s_blob, 1, key), 0u);
      EXPECT_EQ(key.Destroy(), 0u);
      EXPECT_EQ(key.Destroy(), CodeOf(row));
      continue;
    }
    Bytes blob = s_blob;
    blob.resize(row.at("size").get<std::size_t>());
    if (name == "type 7") blob[0] = 7;
    if (name == "version 3") blob[1] = 3;
    if (name == "reserved set") blob[2] = 1;
    if (name == "algorithm 0x2400 (signature)") blob[5] = 0x24;
    if (name == "magic RSA2") blob[11] = '2';
    if (name == "bit length 1024 of 2048 bytes") blob[13] = 4;
    if (name == "exponent 3") blob[16] = 3, blob[18] = 0;
    CryptoKey key;
    EXPECT_EQ(CryptoKey::Import(s_provider, blob, name == "good, flags 0" ? 0 : 1, key), CodeOf(row)) << name;
    EXPECT_EQ(static_cast<bool>(key), row.at("ok").get<bool>()) << name;
  }
  EXPECT_EQ(used, 13);
}

}  // namespace
}  // namespace platform

#include "platform/crypto.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <atomic>
#include <utility>
#include <vector>

#include "platform/fault_point.h"

namespace platform {
namespace {

template <auto Function>
struct Deleter {
  template <class T>
  void operator()(T* object) const {
    Function(object);
  }
};
using KeyHandle = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>>;
using BigNumber = std::unique_ptr<BIGNUM, Deleter<BN_free>>;
using ParamBuilder = std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM_free>>;

// The blob's layout (wincrypt.h: BLOBHEADER, RSAPUBKEY).
constexpr std::size_t kBlobHeaderBytes = 20;
constexpr std::uint8_t kBlobVersion = 2;
constexpr std::uint32_t kMagicRsa1 = 0x31415352;
constexpr std::uint32_t CALG_RSA_SIGN = 0x2400;
constexpr std::uint32_t kLeastBits = 384;  // of the published provider
constexpr std::uint32_t kLeastGeneratedBits = 1024;
constexpr std::uint32_t kMostBits = 16384;
constexpr std::uint32_t kLeastExponent = 3;

std::atomic<bool> g_containerExists{false};

// The library keeps a queue of errors per thread; nobody here reads it.
ErrorCode Failed(ErrorCode code) {
  ERR_clear_error();
  return code;
}

std::uint32_t ReadLittle32(const std::uint8_t* bytes) {
  return bytes[0] | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 | std::uint32_t{bytes[3]} << 24;
}

void WriteLittle32(std::uint32_t value, std::uint8_t* bytes) {
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

// Since 3.2 the library answers a wrong padding with random text unless told not to.
bool WantErrorsForWrongPadding(EVP_PKEY_CTX* context) {
  const OSSL_PARAM* const settable = EVP_PKEY_CTX_settable_params(context);
  if (settable == nullptr || OSSL_PARAM_locate_const(settable, "implicit-rejection") == nullptr) return true;
  unsigned int off = 0;
  const OSSL_PARAM params[] = {OSSL_PARAM_construct_uint("implicit-rejection", &off), OSSL_PARAM_construct_end()};
  return EVP_PKEY_CTX_set_params(context, params) > 0;
}

KeyHandle PublicKey(const BIGNUM* modulus, std::uint32_t exponent) {
  const BigNumber e(BN_new());
  if (!e || BN_set_word(e.get(), exponent) != 1) return nullptr;
  const ParamBuilder builder(OSSL_PARAM_BLD_new());
  if (!builder || OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, modulus) != 1 ||
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
    return nullptr;
  }
  const Params params(OSSL_PARAM_BLD_to_param(builder.get()));
  const KeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  if (!params || !context || EVP_PKEY_fromdata_init(context.get()) != 1) return nullptr;
  EVP_PKEY* key = nullptr;
  if (EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) return nullptr;
  return KeyHandle(key);
}

}  // namespace

struct CryptoKey::Key {
  KeyHandle handle;
  bool isPair = false;
  // Of a block.
  [[nodiscard]] std::uint32_t Bytes() const {
    return (static_cast<std::uint32_t>(EVP_PKEY_get_bits(handle.get())) + 7) / 8;
  }
};

ErrorCode CryptoProvider::AcquireContext(std::u16string_view provider, std::uint32_t type, std::uint32_t flags,
                                         CryptoProvider& out) {
  if (const ErrorCode fault = FaultAt(Operation::kCryptAcquireContext); fault != ERROR_SUCCESS) return fault;
  if (provider != kEnhancedProvider) return NTE_KEYSET_NOT_DEF;
  if (type != PROV_RSA_FULL) return NTE_PROV_TYPE_NO_MATCH;
  if (flags == CRYPT_NEWKEYSET) {
    if (g_containerExists.exchange(true)) return NTE_EXISTS;
  } else if (flags == 0) {
    if (!g_containerExists.load()) return NTE_BAD_KEYSET;
  } else if (flags != CRYPT_VERIFYCONTEXT) {
    return NTE_BAD_FLAGS;
  }
  out.m_acquired = true;
  return ERROR_SUCCESS;
}

void CryptoProvider::ForgetContainer() { g_containerExists.store(false); }

CryptoKey::CryptoKey() = default;
CryptoKey::CryptoKey(CryptoKey&&) noexcept = default;
CryptoKey& CryptoKey::operator=(CryptoKey&&) noexcept = default;
CryptoKey::~CryptoKey() = default;

ErrorCode CryptoKey::Generate(const CryptoProvider& provider, std::uint32_t algorithm, std::uint32_t flags,
                              CryptoKey& out) {
  if (const ErrorCode fault = FaultAt(Operation::kCryptGenKey); fault != ERROR_SUCCESS) return fault;
  if (!provider || algorithm != CALG_RSA_KEYX) return ERROR_INVALID_PARAMETER;
  const std::uint32_t bits = flags >> 16;
  if (bits < kLeastGeneratedBits || bits > kMostBits || bits % 8 != 0 || (flags & 0xFFFF & ~CRYPT_EXPORTABLE) != 0) {
    return NTE_BAD_FLAGS;
  }
  auto key = std::make_unique<Key>();
  key->handle.reset(EVP_RSA_gen(bits));
  key->isPair = true;
  if (!key->handle) return Failed(NTE_FAIL);
  out.m_key = std::move(key);
  return ERROR_SUCCESS;
}

ErrorCode CryptoKey::Import(const CryptoProvider& provider, std::span<const std::uint8_t> blob, std::uint32_t,
                            CryptoKey& out) {
  if (const ErrorCode fault = FaultAt(Operation::kCryptImportKey); fault != ERROR_SUCCESS) return fault;
  if (!provider || blob.empty()) return ERROR_INVALID_PARAMETER;
  if (blob.size() < kBlobHeaderBytes) return NTE_BAD_DATA;
  const std::uint32_t algorithm = ReadLittle32(&blob[4]);
  if (blob[0] != PUBLICKEYBLOB || blob[1] != kBlobVersion || blob[2] != 0 || blob[3] != 0 ||
      (algorithm != CALG_RSA_KEYX && algorithm != CALG_RSA_SIGN) || ReadLittle32(&blob[8]) != kMagicRsa1) {
    return NTE_BAD_DATA;
  }
  const std::uint32_t bits = ReadLittle32(&blob[12]);
  if (bits < kLeastBits || bits > kMostBits || bits % 8 != 0) return NTE_BAD_DATA;
  const std::size_t bytes = bits / 8;
  if (blob.size() - kBlobHeaderBytes < bytes) return NTE_BAD_DATA;
  const BigNumber modulus(BN_lebin2bn(&blob[kBlobHeaderBytes], static_cast<int>(bytes), nullptr));
  if (!modulus) return Failed(NTE_FAIL);
  const std::uint32_t exponent = ReadLittle32(&blob[16]);
  // Even numbers or a short modulus belong to no key; an exponent of 1 would leave the text as it is.
  if (BN_is_odd(modulus.get()) != 1 || static_cast<std::uint32_t>(BN_num_bits(modulus.get())) < kLeastBits ||
      exponent % 2 == 0 || exponent < kLeastExponent) {
    return NTE_BAD_DATA;
  }
  auto key = std::make_unique<Key>();
  key->handle = PublicKey(modulus.get(), exponent);
  if (!key->handle) return Failed(NTE_BAD_DATA);
  out.m_key = std::move(key);
  return ERROR_SUCCESS;
}

ErrorCode CryptoKey::ExportPublic(std::span<std::uint8_t> buffer, std::uint32_t& size) const {
  if (const ErrorCode fault = FaultAt(Operation::kCryptExportKey, buffer.empty() ? "size" : "blob");
      fault != ERROR_SUCCESS)
    return fault;
  if (!m_key) return ERROR_INVALID_PARAMETER;
  const std::uint32_t bytes = m_key->Bytes();
  size = static_cast<std::uint32_t>(kBlobHeaderBytes) + bytes;
  if (buffer.empty()) return ERROR_SUCCESS;
  if (buffer.size() < size) return ERROR_MORE_DATA;
  BIGNUM* n = nullptr;
  BIGNUM* e = nullptr;
  const bool found = EVP_PKEY_get_bn_param(m_key->handle.get(), OSSL_PKEY_PARAM_RSA_N, &n) == 1 &&
                     EVP_PKEY_get_bn_param(m_key->handle.get(), OSSL_PKEY_PARAM_RSA_E, &e) == 1;
  const BigNumber modulus(n), exponent(e);
  if (!found || BN_num_bits(e) > 32) return Failed(NTE_FAIL);
  std::uint8_t* const blob = buffer.data();
  blob[0] = PUBLICKEYBLOB;
  blob[1] = kBlobVersion;
  blob[2] = blob[3] = 0;
  WriteLittle32(CALG_RSA_KEYX, blob + 4);
  WriteLittle32(kMagicRsa1, blob + 8);
  WriteLittle32(bytes * 8, blob + 12);
  WriteLittle32(static_cast<std::uint32_t>(BN_get_word(e)), blob + 16);
  if (BN_bn2lebinpad(n, blob + kBlobHeaderBytes, static_cast<int>(bytes)) < 0) return Failed(NTE_FAIL);
  return ERROR_SUCCESS;
}

ErrorCode CryptoKey::Encrypt(bool, std::span<std::uint8_t> buffer, std::uint32_t& length) const {
  if (const ErrorCode fault = FaultAt(Operation::kCryptEncrypt); fault != ERROR_SUCCESS) return fault;
  if (!m_key) return ERROR_INVALID_PARAMETER;
  const std::uint32_t bytes = m_key->Bytes();
  if (length > bytes - kRsaPaddingBytes) return NTE_BAD_LEN;
  if (buffer.empty()) {
    length = bytes;
    return ERROR_SUCCESS;
  }
  if (buffer.size() < bytes || buffer.size() < length) return ERROR_MORE_DATA;
  const KeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, m_key->handle.get(), nullptr));
  if (!context || EVP_PKEY_encrypt_init(context.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1) {
    return Failed(NTE_FAIL);
  }
  std::vector<std::uint8_t> block(bytes);
  std::size_t written = block.size();
  if (EVP_PKEY_encrypt(context.get(), block.data(), &written, buffer.data(), length) != 1 || written != bytes) {
    return Failed(NTE_BAD_DATA);
  }
  std::reverse_copy(block.begin(), block.end(), buffer.begin());
  length = bytes;
  return ERROR_SUCCESS;
}

ErrorCode CryptoKey::Decrypt(bool, std::span<std::uint8_t> buffer, std::uint32_t& length) const {
  if (const ErrorCode fault = FaultAt(Operation::kCryptDecrypt); fault != ERROR_SUCCESS) return fault;
  if (!m_key) return ERROR_INVALID_PARAMETER;
  const std::uint32_t bytes = m_key->Bytes();
  if (length < bytes || buffer.size() < bytes) return NTE_BAD_LEN;
  if (!m_key->isPair) return NTE_BAD_DATA;
  const KeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, m_key->handle.get(), nullptr));
  if (!context || EVP_PKEY_decrypt_init(context.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1 ||
      !WantErrorsForWrongPadding(context.get())) {
    return Failed(NTE_FAIL);
  }
  std::vector<std::uint8_t> block(bytes), plain(bytes);
  std::reverse_copy(buffer.begin(), buffer.begin() + bytes, block.begin());
  std::size_t written = plain.size();
  if (EVP_PKEY_decrypt(context.get(), plain.data(), &written, block.data(), block.size()) != 1) {
    return Failed(NTE_BAD_DATA);
  }
  std::copy_n(plain.begin(), written, buffer.begin());
  length = static_cast<std::uint32_t>(written);
  return ERROR_SUCCESS;
}

ErrorCode CryptoKey::Destroy() {
  if (const ErrorCode fault = FaultAt(Operation::kCryptDestroyKey); fault != ERROR_SUCCESS) return fault;
  if (!m_key) return ERROR_INVALID_PARAMETER;
  m_key.reset();
  return ERROR_SUCCESS;
}

std::uint32_t CryptoKey::Bits() const {
  return m_key ? static_cast<std::uint32_t>(EVP_PKEY_get_bits(m_key->handle.get())) : 0;
}

}  // namespace platform

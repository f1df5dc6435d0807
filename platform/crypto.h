// platform/crypto.h: the RSA provider: a key pair, keys from blobs, encryption and decryption of single blocks.
//
// The calls keep the shape and the codes of the published provider calls (wincrypt.h, winerror.h). Keys travel as the
// published public-key blob (PUBLICKEYBLOB), padding is that of PKCS #1 v1.5, and a cipher block is written least
// significant byte first, so that nodes on different systems understand each other. No key material is kept in files.
// Threads: every function from any thread; a key that nobody changes may be used by several threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "platform/error_codes.h"

namespace platform {

inline constexpr std::u16string_view kEnhancedProvider = u"Microsoft Enhanced Cryptographic Provider v1.0";
inline constexpr std::uint32_t PROV_RSA_FULL = 1;
inline constexpr std::uint32_t CRYPT_NEWKEYSET = 0x8;
inline constexpr std::uint32_t CRYPT_VERIFYCONTEXT = 0xF0000000;
inline constexpr std::uint32_t CALG_RSA_KEYX = 0xA400;
inline constexpr std::uint32_t CRYPT_EXPORTABLE = 0x1;
inline constexpr std::uint32_t PUBLICKEYBLOB = 6;

inline constexpr ErrorCode NTE_BAD_LEN = 0x80090004;
inline constexpr ErrorCode NTE_BAD_DATA = 0x80090005;
inline constexpr ErrorCode NTE_BAD_FLAGS = 0x80090009;
inline constexpr ErrorCode NTE_EXISTS = 0x8009000F;
inline constexpr ErrorCode NTE_BAD_KEYSET = 0x80090016;
inline constexpr ErrorCode NTE_KEYSET_NOT_DEF = 0x80090019;
inline constexpr ErrorCode NTE_PROV_TYPE_NO_MATCH = 0x8009001B;
inline constexpr ErrorCode NTE_FAIL = 0x80090020;

inline constexpr std::size_t kRsaPaddingBytes = 11;  // PKCS #1 v1.5

// A provider that was acquired.
class CryptoProvider {
 public:
  // Acquires the provider with the default container, which exists for the life of the process once it was made.
  //   flags    0, CRYPT_NEWKEYSET to make the container, or CRYPT_VERIFYCONTEXT for none
  //   out      untouched on failure
  //   returns  0; NTE_BAD_KEYSET: there is no container yet; NTE_EXISTS: there is one already; NTE_KEYSET_NOT_DEF:
  //            unknown provider; NTE_PROV_TYPE_NO_MATCH: wrong type
  [[nodiscard]] static ErrorCode AcquireContext(std::u16string_view provider, std::uint32_t type, std::uint32_t flags,
                                                CryptoProvider& out);
  explicit operator bool() const { return m_acquired; }

  // For tests: the default container is gone, as in a new process.
  static void ForgetContainer();

 private:
  bool m_acquired = false;
};

// An RSA key: a pair, or the public half of somebody else's. Empty by default.
class CryptoKey {
 public:
  CryptoKey();
  CryptoKey(CryptoKey&&) noexcept;
  CryptoKey& operator=(CryptoKey&&) noexcept;
  ~CryptoKey();

  // Makes a pair, which takes a few tenths of a second.
  //   algorithm  CALG_RSA_KEYX
  //   flags      the bits of the key in the upper 16 bits (1024 to 16384, a multiple of 8), CRYPT_EXPORTABLE or 0 below
  //   out        untouched on failure
  //   returns    0; ERROR_INVALID_PARAMETER without a provider; NTE_BAD_FLAGS; NTE_FAIL
  [[nodiscard]] static ErrorCode Generate(const CryptoProvider& provider, std::uint32_t algorithm, std::uint32_t flags,
                                          CryptoKey& out);
  // Takes a public key from its blob: 06 02 00 00, the algorithm (key exchange or signature), "RSA1", bits, exponent
  // (all little-endian), then the modulus, least significant byte first. Bytes behind it are let pass.
  //   out      untouched on failure
  //   returns  0; ERROR_INVALID_PARAMETER without a provider or bytes; NTE_BAD_DATA for anything that is no such blob
  [[nodiscard]] static ErrorCode Import(const CryptoProvider& provider, std::span<const std::uint8_t> blob,
                                        std::uint32_t flags, CryptoKey& out);

  // Writes the public half as a blob: 276 bytes for 2048 bits.
  //   buffer   empty: only the size is asked for
  //   size     the blob's size, also when the buffer is too small
  //   returns  0; ERROR_MORE_DATA (234), the buffer untouched; ERROR_INVALID_PARAMETER on an empty key
  [[nodiscard]] ErrorCode ExportPublic(std::span<std::uint8_t> buffer, std::uint32_t& size) const;

  // Encrypts one block in place.
  //   final    has no effect with RSA, as published
  //   buffer   holds the plain text, receives the block; empty: only the length is asked for
  //   length   plain text in, cipher bytes out (as many as the modulus has); as it came on failure
  //   returns  0; NTE_BAD_LEN: more than modulus less 11 bytes; ERROR_MORE_DATA: the buffer is smaller than a block;
  //            NTE_BAD_DATA: a key that can't encrypt; ERROR_INVALID_PARAMETER on an empty key
  [[nodiscard]] ErrorCode Encrypt(bool final, std::span<std::uint8_t> buffer, std::uint32_t& length) const;

  // Decrypts the buffer's first block in place.
  //   length   cipher bytes in, of which only a block's are used; plain bytes out; as it came on failure
  //   returns  0; NTE_BAD_LEN: less than a block; NTE_BAD_DATA: wrong padding, or a key without its private half;
  //            ERROR_INVALID_PARAMETER on an empty key
  [[nodiscard]] ErrorCode Decrypt(bool final, std::span<std::uint8_t> buffer, std::uint32_t& length) const;

  // Gives the key up.
  //   returns  0; ERROR_INVALID_PARAMETER (87) on an empty one
  [[nodiscard]] ErrorCode Destroy();

  [[nodiscard]] std::uint32_t Bits() const;  // 0 on an empty key
  explicit operator bool() const { return m_key != nullptr; }

 private:
  struct Key;
  std::unique_ptr<Key> m_key;
};

}  // namespace platform

// replication/key_manager.h: CKeyManager, the key pair of this service and the public keys of its peers.
//
// Messages are encrypted directly with RSA, block by block: 245 bytes of plain text give 256 of cipher text. The pair
// is made at its first use and lives to the end of the process; nothing is kept in files. Each connection exchanges
// public keys anew. Functions that return an int give 1 for success and 0 for failure, which is logged.
// Threads: any. A first use from several threads makes one pair, the others wait for it; it takes a few tenths of a
// second, so no caller may hold g_JobListLock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "interface/records.h"
#include "platform/crypto.h"
#include "platform/mutex.h"
#include "platform/socket.h"

namespace qx {

inline constexpr std::size_t kCipherBlock = 256;  // bytes
inline constexpr std::size_t kPlainBlock = kCipherBlock - platform::kRsaPaddingBytes;
static_assert(kPlainBlock == 245, "what fits into one block");
inline constexpr std::u16string_view kLocalhost = u"localhost";  // this node, in node lists and among the keys
// Of a public key's blob no more than this is looked at: the header and the greatest modulus of the provider.
inline constexpr std::size_t kKeptBlobSize = 20 + 16384 / 8;

// A key's handle; empty for none.
using KeyCell = std::shared_ptr<platform::CryptoKey>;

class CKeyManager {
 public:
  CKeyManager() = default;
  CKeyManager(const CKeyManager&) = delete;
  CKeyManager& operator=(const CKeyManager&) = delete;

  // Makes a pair; the first one stays in use. Three tries for the provider, 100 ms apart.
  int GenerateKeyPair();
  // The blob of the pair's public half; makes the pair when there is none.
  [[nodiscard]] int ExportPublicKey(std::vector<std::uint8_t>& blob);
  // Takes a peer's key. A name keeps the newest key; with an empty name the caller alone has it.
  // Deliberate: a refused blob is told on standard output, not in the log.
  //   returns  the key, empty on failure
  [[nodiscard]] KeyCell ImportKey(std::span<const std::uint8_t> blob, std::u16string_view nodeName);
  // The key of that name: a peer's, or the pair for "localhost"; compared exactly.
  [[nodiscard]] KeyCell FindKey(std::u16string_view nodeName);
  // Gives the key up and empties the cell. Nobody else may be using it.
  static int DestroyKey(KeyCell& cell);

  //   out  the cipher text; undefined on failure
  [[nodiscard]] int EncryptMsg(std::u16string_view nodeName, std::span<const std::uint8_t> data,
                               std::vector<std::uint8_t>& out);
  [[nodiscard]] int EncryptMsg(const platform::CryptoKey& key, std::span<const std::uint8_t> data,
                               std::vector<std::uint8_t>& out);
  // By the pair. The input is whole blocks; a NUL is put behind the plain text and counted.
  [[nodiscard]] int DecryptMsg(std::span<const std::uint8_t> cipher, std::vector<std::uint8_t>& out);

  // The initiator's half of the exchange: sends the own key and takes the peer's under its name.
  //   returns  0, or 1. Deliberate: 0 also when the own key couldn't be sent, the reply's header couldn't be read or
  //            the peer's key was refused: the encryption that follows finds no key, not even that of an earlier
  //            exchange.
  [[nodiscard]] int exchangeKey(platform::IConnection& connection, std::u16string_view nodeName,
                                const ScheduleGuid& id);

 private:
  [[nodiscard]] int AcquireProvider() QX_REQUIRES(m_pairLock);
  int GeneratePairLocked() QX_REQUIRES(m_pairLock);
  // The pair, made when there is none; empty when it can't be.
  [[nodiscard]] KeyCell OwnPair();
  // The pair if there is one.
  [[nodiscard]] KeyCell MadePair();
  // Takes away what the map has of that name.
  void ForgetKey(std::u16string_view nodeName);

  // Neither lock is taken while the other is held.
  platform::Mutex m_pairLock;
  bool m_generated QX_GUARDED_BY(m_pairLock) = false;
  platform::CryptoProvider m_provider QX_GUARDED_BY(m_pairLock);
  KeyCell m_pair QX_GUARDED_BY(m_pairLock);  // what it holds never changes
  // Held while a key of the map is used.
  platform::Mutex m_mapLock;
  // A peer that is called "localhost" has its key here, beside the pair.
  std::map<std::u16string, KeyCell, std::less<>> m_nodes QX_GUARDED_BY(m_mapLock);
};

}  // namespace qx

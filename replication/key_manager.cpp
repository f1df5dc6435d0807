#include "replication/key_manager.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "foundation/include/zfclog.h"
#include "platform/host.h"
#include "platform/memory.h"
#include "platform/thread.h"
#include "replication/wire.h"

namespace qx {
namespace {

using platform::CryptoKey;
using platform::CryptoProvider;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::MutexLock;
using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

constexpr int kProviderTries = 3;
constexpr std::uint32_t kProviderPauseMs = 100;
constexpr std::uint32_t kKeyFlags = 0x08000001;  // 2048 bits in the upper half, exportable

ErrorCode Acquire(std::uint32_t flags, CryptoProvider& provider) {
  return CryptoProvider::AcquireContext(platform::kEnhancedProvider, platform::PROV_RSA_FULL, flags, provider);
}

}  // namespace

int CKeyManager::AcquireProvider() {
  for (int attempt = 0;; ++attempt) {
    ErrorCode code = Acquire(0, m_provider);
    if (code == platform::NTE_BAD_KEYSET) {
      ServiceLog(1, u"GenerateKeyPair:CyptAcquireContext failed with NTE_BAD_KEYSET, calling again");
      code = Acquire(platform::CRYPT_NEWKEYSET, m_provider);
    }
    if (code == ERROR_SUCCESS) return 1;
    ServiceLog(1, u"GenerateKeyPair:CyptAcquireContext failed with error : %x\n", code);
    if (attempt + 1 == kProviderTries) return 0;
    platform::PauseThread(kProviderPauseMs);
    ServiceLog(1, u"Retrying for CryptAcquireContext=%d", attempt);
  }
}

int CKeyManager::GeneratePairLocked() {
  if (AcquireProvider() == 0) return 0;
  auto pair = std::make_shared<CryptoKey>();
  if (const ErrorCode code = CryptoKey::Generate(m_provider, platform::CALG_RSA_KEYX, kKeyFlags, *pair);
      code != ERROR_SUCCESS) {
    ServiceLog(1, u"GenerateKeyPair:CryptGenKey failed with error : %x\n", code);
    return 0;
  }
  if (!m_pair) m_pair = std::move(pair);
  ServiceLog(3, u"Key successfully generated");
  m_generated = true;
  return 1;
}

int CKeyManager::GenerateKeyPair() {
  const MutexLock hold(m_pairLock);
  return GeneratePairLocked();
}

KeyCell CKeyManager::OwnPair() {
  const MutexLock hold(m_pairLock);
  if (!m_generated) (void)GeneratePairLocked();  // the use of the missing pair fails in words of its own
  return m_pair;
}

int CKeyManager::ExportPublicKey(std::vector<std::uint8_t>& blob) {
  const KeyCell own = OwnPair();
  const CryptoKey none;
  const CryptoKey& key = own ? *own : none;
  std::uint32_t size = 0;
  ErrorCode code = key.ExportPublic({}, size);
  if (code == ERROR_SUCCESS) {
    if (!platform::NamedBuffer<std::uint8_t>(size, "ExportPublicKey")) {
      ServiceLog(1, u"CKeyManager::CryptExportKey malloc failed with error : %x\n", platform::ERROR_NOT_ENOUGH_MEMORY);
      return 0;
    }
    blob.resize(size);
    code = key.ExportPublic(blob, size);
  }
  if (code == ERROR_SUCCESS) return 1;
  ServiceLog(1, u"CKeyManager::CryptExportKey failed with error : %x\n", code);
  return 0;
}

KeyCell CKeyManager::ImportKey(std::span<const std::uint8_t> blob, std::u16string_view nodeName) {
  (void)OwnPair();
  CryptoProvider provider;
  {
    const MutexLock hold(m_pairLock);
    provider = m_provider;
  }
  const MutexLock hold(m_mapLock);
  if (!nodeName.empty()) {
    if (const auto old = m_nodes.find(nodeName); old != m_nodes.end()) {
      ServiceLog(3, u"ImportKey::Deleting older key to import new Key for node : %s\n", ForLog(nodeName));
      if (const ErrorCode code = old->second->Destroy(); code != ERROR_SUCCESS) {
        ServiceLog(1, u"ImportKey::CryptDestroyKey failed with error : %x\n", code);
      }
      m_nodes.erase(old);
    }
    ServiceLog(3, u"Importing key for node %s", ForLog(nodeName));
  }
  auto cell = std::make_shared<CryptoKey>();
  if (const ErrorCode code = CryptoKey::Import(provider, blob, platform::CRYPT_EXPORTABLE, *cell);
      code != ERROR_SUCCESS) {
    char text[64];
    std::snprintf(text, sizeof text, "CyptImportKey failed with error : %x\n", code);
    platform::TellOnStandardOutput(text);
    return {};
  }
  if (!nodeName.empty()) m_nodes.emplace(nodeName, cell);
  ServiceLog(3, u"key Imported sucessfully %d", static_cast<std::uint32_t>(blob.size()));
  return cell;
}

KeyCell CKeyManager::MadePair() {
  const MutexLock hold(m_pairLock);
  return m_pair;
}

void CKeyManager::ForgetKey(std::u16string_view nodeName) {
  const MutexLock hold(m_mapLock);
  if (const auto old = m_nodes.find(nodeName); old != m_nodes.end()) m_nodes.erase(old);
}

KeyCell CKeyManager::FindKey(std::u16string_view nodeName) {
  {
    const MutexLock hold(m_mapLock);
    if (const auto found = m_nodes.find(nodeName); found != m_nodes.end()) return found->second;
  }
  return nodeName == kLocalhost ? MadePair() : KeyCell();
}

int CKeyManager::DestroyKey(KeyCell& cell) {
  if (!cell) return 0;
  const ErrorCode code = cell->Destroy();
  cell.reset();
  return code == ERROR_SUCCESS ? 1 : 0;
}

int CKeyManager::EncryptMsg(std::u16string_view nodeName, std::span<const std::uint8_t> data,
                            std::vector<std::uint8_t>& out) {
  {
    const MutexLock hold(m_mapLock);
    if (const auto found = m_nodes.find(nodeName); found != m_nodes.end()) return EncryptMsg(*found->second, data, out);
  }
  // The pair alone: a key that came into the map just now is used under its lock only.
  if (const KeyCell own = nodeName == kLocalhost ? MadePair() : KeyCell()) return EncryptMsg(*own, data, out);
  // Deliberate: the text lacks its "not".
  ServiceLog(1, u"EncryptMsg: Key Node found for Node:%S", ForLog(nodeName));
  return 0;
}

int CKeyManager::EncryptMsg(const CryptoKey& key, std::span<const std::uint8_t> data, std::vector<std::uint8_t>& out) {
  out.clear();
  // Deliberate: one block more than a multiple of 245 needs.
  if (!platform::NamedBuffer<std::uint8_t>((data.size() / kPlainBlock + 1) * kCipherBlock, "EncryptMsg")) {
    ServiceLog(1, u"EncryptMsg: Data allocation failed for BlockLength");
    return 0;
  }
  std::array<std::uint8_t, kCipherBlock> block{};
  while (!data.empty()) {
    const std::size_t taken = std::min(data.size(), kPlainBlock);
    block.fill(0);
    std::copy_n(data.begin(), taken, block.begin());
    auto length = static_cast<std::uint32_t>(taken);
    if (const ErrorCode code = key.Encrypt(data.size() <= kPlainBlock, block, length); code != ERROR_SUCCESS) {
      ServiceLog(1, u"CryptEncrypt failed with error : %x=\n", code);
      return 0;
    }
    out.insert(out.end(), block.begin(), block.begin() + length);
    data = data.subspan(taken);
  }
  ServiceLog(3, u"Data sucessfully encrypted = %d", static_cast<std::uint32_t>(out.size()));
  return 1;
}

int CKeyManager::DecryptMsg(std::span<const std::uint8_t> cipher, std::vector<std::uint8_t>& out) {
  out.clear();
  const KeyCell own = MadePair();
  if (!own) {
    ServiceLog(1, u"DecryptMsg: Key Node found for Node:");
    return 0;
  }
  if (!platform::NamedBuffer<std::uint8_t>(cipher.size(), "DecryptMsg data")) {
    ServiceLog(1, u"DecryptMsg: Data allocation failed for Data");
    return 0;
  }
  platform::NamedBuffer<std::uint8_t> block(kCipherBlock, "DecryptMsg block");
  if (!block) {
    ServiceLog(1, u"DecryptMsg: Data allocation failed for BlockLength");
    return 0;
  }
  while (!cipher.empty()) {
    const std::size_t taken = std::min(cipher.size(), kCipherBlock);
    std::fill(block.span().begin(), block.span().end(), std::uint8_t{0});
    std::copy_n(cipher.begin(), taken, block.get());
    auto length = static_cast<std::uint32_t>(taken);
    if (const ErrorCode code = own->Decrypt(cipher.size() <= kCipherBlock, block.span(), length);
        code != ERROR_SUCCESS) {
      ServiceLog(1, u"DecryptMsg: CryptDecrypt Failed =%x", code);
      return 0;
    }
    out.insert(out.end(), block.get(), block.get() + length);
    cipher = cipher.subspan(taken);
  }
  out.push_back(0);
  return 1;
}

int CKeyManager::exchangeKey(platform::IConnection& connection, std::u16string_view nodeName, const ScheduleGuid& id) {
  ServiceLog(4, u"exchangeKey: Entered");
  std::vector<std::uint8_t> blob;
  if (ExportPublicKey(blob) == 0) {
    ServiceLog(1, u"exchangeKey:ExportPublicKey failed");
    return 1;
  }
  MessageHeader header = {static_cast<std::uint32_t>(blob.size()), MSG_PUBLIC_KEY, 0, id};
  std::array<std::uint8_t, kWireHeaderSize> bytes{};
  if (EncodeHeader(header, bytes) == 0) {
    ServiceLog(1, u"exchangeKey:Failed to Encode Header to be send");
    return 1;
  }
  if (Send(connection, bytes) == 0) {
    ServiceLog(1, u"exchangeKey:Failed to send key header");
    return 1;
  }
  if (Send(connection, blob) == 0) {
    ServiceLog(1, u"exchangeKey: Failed to send public key %d", static_cast<std::uint32_t>(blob.size()));
    ForgetKey(nodeName);
    return 0;
  }
  ServiceLog(3, u"exchangeKey:receive key header from server");
  if (Receive(connection, bytes.data(), bytes.size()) == 0) {
    ServiceLog(1, u"exchangeKey: Receive Failed");
    return 1;
  }
  if (DecodeHeader(bytes, header) == 0) {
    ForgetKey(nodeName);
    return 0;
  }
  if (header.msgType != MSG_PUBLIC_KEY) {
    ServiceLog(1, u"exchangeKey: received header with wrong message type: 0x%x", header.msgType);
    return 1;
  }
  if (header.msgLen > kMaxKeyReply) {
    ServiceLog(1, u"exchangeKey: received header with wrong message length: %d", header.msgLen);
    return 1;
  }
  switch (ReceivePayload(connection, header.msgLen, "exchangeKey", kMaxKeyReply, blob)) {
    case PayloadResult::kDone:
      break;
    case PayloadResult::kNoMemory:
      ServiceLog(1, u"exchangeKey: memory allocation failed");
      return 1;
    case PayloadResult::kFailed:
      ServiceLog(1, u"exchangeKey: Receive contextFailed");
      return 1;
  }
  if (!ImportKey(blob, nodeName)) ServiceLog(1, u"exchangeKey: ImportKey Failed");
  ServiceLog(3, u"exchangeKey:public keys exchanged sucessfully");
  ServiceLog(4, u"exchangeKey: Exited");
  return 0;
}

}  // namespace qx

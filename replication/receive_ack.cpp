#include "replication/receive_ack.h"

#include <algorithm>
#include <array>
#include <new>
#include <string>

#include "foundation/include/zfclog.h"
#include "platform/clock.h"
#include "replication/wire.h"

namespace qx {
namespace {

using platform::Socket;
using platform::SocketError;
using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

constexpr std::uint32_t kAckPiece = 256 * kCipherBlock;  // bytes of an answer that are taken at once

// Whole seconds since `begun`; the count wraps, differences don't.
std::int64_t SecondsSince(std::uint32_t begun) {
  return (platform::TickCount() - begun) / 1000;
}

// Reads one node's answer; true when it told a failure. Where memory runs out the result stays.
bool TakeAnswer(CKeyManager& keys, Socket& socket, std::u16string_view name, std::int32_t& result) {
  const std::u16string shown = ForLog(name);
  std::array<std::uint8_t, kWireHeaderSize> bytes{};
  if (Receive(socket, bytes.data(), bytes.size()) == 0) {
    ServiceLog(1, u"ReceiveAck: Receive(Header_ACK) failed");
    return false;
  }
  MessageHeader header;
  if (DecodeHeader(bytes, header) == 0 || header.msgLen == 0) return false;
  // Piece by piece, so that a length which a node only claims costs no memory; of a longer answer the beginning counts.
  std::string text;
  for (std::uint32_t left = header.msgLen; left != 0;) {
    const std::uint32_t size = std::min(left, kAckPiece);
    std::vector<std::uint8_t> cipher, plain;
    switch (ReceivePayload(socket, size, "ReceiveAck", size, cipher)) {
      case PayloadResult::kDone:
        break;
      case PayloadResult::kNoMemory:
        ServiceLog(1, u"ReceiveAck: calloc(msgLen) failed, msgLen: %d", header.msgLen);
        return false;
      case PayloadResult::kFailed:
        ServiceLog(1, u"ReceiveAck: Failed to receive(ACK)");
        return false;
    }
    if (keys.DecryptMsg(cipher, plain) == 0) {
      ServiceLog(1, u"ReceiveAck: DecryptMsg from node: %s failed", shown);
      return false;
    }
    plain.pop_back();  // the NUL of the decryption
    if (text.size() < kAckPiece) text.append(plain.begin(), plain.end());
    left -= size;
  }
  result = static_cast<std::int32_t>(ParseDecimal(text));
  if (result == 0) return false;
  ServiceLog(1, u"ReceiveAck: ACK received is %x", result);
  ServiceLog(1, u"ReceiveAck: Failed to do the requested operation on node: %s", shown);
  return true;
}

std::vector<std::size_t> ValidSockets(const std::vector<Socket>& sockets) {
  std::vector<std::size_t> valid;
  for (std::size_t i = 0; i < sockets.size() && valid.size() < kMaxAwaitedSockets; ++i) {
    if (sockets[i]) valid.push_back(i);
  }
  return valid;
}

}  // namespace

int ReceiveAck(CKeyManager& keys, std::vector<Socket>& sockets, std::vector<std::size_t> waiting,
               std::span<std::int32_t> results, std::span<const std::u16string> names) {
  if (waiting.empty()) {
    ServiceLog(1, u"No valid sockets to receive the ACK");
    return 1;
  }
  bool failed = false;
  const std::uint32_t begun = platform::TickCount();
  std::int64_t elapsed = 0;
  do {
    std::vector<Socket*> watched;
    for (const std::size_t node : waiting) watched.push_back(&sockets[node]);
    std::vector<bool> ready;
    std::size_t count = 0;
    const SocketError error = platform::WaitForAnyReadable(watched, (kAckBudgetSeconds - elapsed) * 1000, ready, count);
    elapsed = SecondsSince(begun);
    if (error != 0) {
      ServiceLog(1, u"ReceiveAck: Select failed with error: %d\n", error);
      break;
    }
    if (count == 0) {
      ServiceLog(1, u"ReceiveAck: Select returned because time limit expired\n");
      break;
    }
    for (std::size_t i = 0; i < waiting.size(); ++i) {
      if (!ready[i]) continue;
      const std::size_t node = waiting[i];
      try {
        failed |= TakeAnswer(keys, sockets[node], names[node], results[node]);
      } catch (const std::bad_alloc&) {
        ServiceLog(1, u"ReceiveAck: no memory is left for the ACK");
      }
      sockets[node].Close();
    }
    waiting = ValidSockets(sockets);
    ServiceLog(3, u"ReceiveAck: Number of connections still remained to recv is: %d",
               static_cast<std::uint32_t>(waiting.size()));
  } while (!waiting.empty() && elapsed < kAckBudgetSeconds);
  ServiceLog(3, u"ReceivedAck: Total elapsed time in seconds is: %6.0f", static_cast<double>(elapsed));
  for (Socket& socket : sockets) socket.Close();
  return failed ? 1 : 0;
}

}  // namespace qx

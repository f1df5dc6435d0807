#include "replication/wire.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <string>

#include "foundation/include/zfclog.h"
#include "platform/memory.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "service/schedule_store.h"

namespace qx {
namespace {

using platform::IConnection;
using platform::KindOf;
using platform::SocketError;
using platform::SocketFailure;
using ZepFoundation::ServiceLog;

constexpr int kReceiveSeconds = 60;            // for each piece
constexpr int kPauseAtEvery = 100;             // pieces that weren't there
constexpr std::uint32_t kPauseMs = 500;
constexpr std::size_t kResetNumber = 10054;    // of a reset connection on the described system
constexpr std::size_t kPayloadStep = 64 * 1024;  // bytes that are asked for ahead of their arrival

void WriteBig32(std::uint32_t& value, std::uint8_t* bytes) {
  for (int i = 3; i >= 0; --i) {
    bytes[i] = static_cast<std::uint8_t>(value);
    value >>= 8;
  }
}

std::uint32_t ReadBig32(const std::uint8_t* bytes) {
  std::uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value = value << 8 | bytes[i];
  return value;
}

}  // namespace

int EncodeHeader(MessageHeader& header, WireHeader bytes) {
  const std::u16string id = platform::GuidText(header.scheduleId);
  std::fill(bytes.begin(), bytes.end(), std::uint8_t{0});
  WriteBig32(header.msgLen, &bytes[0]);
  WriteBig32(header.msgType, &bytes[4]);
  WriteBig32(header.reserved, &bytes[8]);
  platform::ErrorCode error = platform::ERROR_SUCCESS;
  const int written = platform::WideCharToMultiByte(platform::kCodePageUtf8, 0, id.c_str(), -1,
                                                    reinterpret_cast<char*>(&bytes[kWireGuidOffset]), kWireGuidSize,
                                                    nullptr, nullptr, error);
  if (written != 0) return 1;
  ServiceLog(1, u"WideCharToMultiByte(bstrScheduleID) failed with error %l", error);
  return 0;
}

int DecodeHeader(ConstWireHeader bytes, MessageHeader& header) {
  header = {};
  header.msgLen = ReadBig32(&bytes[0]);
  header.msgType = ReadBig32(&bytes[4]);
  header.reserved = ReadBig32(&bytes[8]);
  std::array<char, kWireGuidSize> narrow{};
  std::memcpy(narrow.data(), &bytes[kWireGuidOffset], platform::kGuidTextLength);
  std::array<char16_t, kWireGuidSize> wide{};
  platform::ErrorCode error = platform::ERROR_SUCCESS;
  const int units = platform::MultiByteToWideChar(platform::kCodePageSystem, 0, narrow.data(), -1, wide.data(),
                                                  static_cast<int>(wide.size()), error);
  const int length = std::max(units, 1) - 1;
  if (length != platform::kGuidTextLength) {
    ServiceLog(1, u"Invalid length of GUID String, is %d", length);
    return 0;
  }
  if (!StringToGUID(wide.data(), header.scheduleId)) {
    ServiceLog(1, u"DecodeHeader:Received invalid ScheduleID");
    return 0;
  }
  return 1;
}

int Receive(IConnection& connection, std::uint8_t* buffer, std::size_t length, std::uint32_t) {
  if (buffer == nullptr) {
    ServiceLog(1, u"Receive: Entered Receive with recvBuffer=NULL with recvBufferSize is %d",
               static_cast<std::uint32_t>(length));
    return 0;
  }
  int missed = 0;
  for (std::size_t taken = 0; taken < length;) {
    bool ready = false;
    if (const SocketError error = connection.WaitReadable(kReceiveSeconds * 1000, ready); error != 0) {
      ServiceLog(1, u"Receive: Select call failed, error: %d.", error);
      return 0;
    }
    if (!ready) {
      ServiceLog(1, u"Receive: Did not receive any message for %d secs, connection timed out.", kReceiveSeconds);
      return 0;
    }
    std::size_t count = 0;
    const SocketError error = connection.ReceiveSome({buffer + taken, length - taken}, count);
    if (KindOf(error) == SocketFailure::kWouldBlock) {
      if (++missed % kPauseAtEvery == 0) {
        ServiceLog(1, u"Receive: received WSAWOULDBLOCK error for %d time", missed);
        platform::PauseThread(kPauseMs);
      }
      continue;
    }
    if (error != 0) {
      ServiceLog(1, u"recv() failed with error %d", error);
      ServiceLog(1, u"terminating connection\n");
      return 0;
    }
    // Deliberate: the number of the reset error is compared with a count of bytes.
    if (count == 0 || count == kResetNumber) {
      ServiceLog(1, u"Connection closed by client");
      return 0;
    }
    taken += count;
  }
  return 1;
}

int Send(IConnection& connection, std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    std::size_t count = 0;
    const SocketError error = connection.SendSome(bytes, count);
    if (KindOf(error) == SocketFailure::kWouldBlock) continue;
    if (error != 0) {
      ServiceLog(1, u"Send() failed with error %d", error);
      return 0;
    }
    bytes = bytes.subspan(count);
  }
  return 1;
}

PayloadResult ReceivePayload(IConnection& connection, std::uint32_t length, std::string_view name, std::size_t keep,
                             std::vector<std::uint8_t>& out) {
  out.clear();
  platform::NamedBuffer<std::uint8_t> piece(std::min<std::size_t>(length, kPayloadStep), name);
  if (!piece) return PayloadResult::kNoMemory;
  try {
    for (std::size_t left = length; left != 0;) {
      const std::size_t wanted = std::min(left, piece.size());
      if (Receive(connection, piece.get(), wanted) == 0) return PayloadResult::kFailed;
      const std::size_t kept = std::min(wanted, keep - out.size());
      out.insert(out.end(), piece.get(), piece.get() + kept);
      left -= wanted;
    }
  } catch (const std::bad_alloc&) {
    return PayloadResult::kNoMemory;
  }
  return PayloadResult::kDone;
}

std::uint32_t ParseDecimal(std::string_view text) {
  std::size_t at = text.find_first_not_of(" \t\n\v\f\r");
  if (at == std::string_view::npos) return 0;
  const bool negative = text[at] == '-';
  if (negative || text[at] == '+') ++at;
  std::uint32_t value = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    value = value * 10 + static_cast<std::uint32_t>(text[at] - '0');
  }
  return negative ? 0 - value : value;
}

}  // namespace qx

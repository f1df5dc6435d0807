// replication/wire.h: what crosses between two nodes: the fixed header of every message, and the transfer of bytes.
//
// One TCP connection carries one operation to one node. A message is a header of 51 bytes and a payload of the length
// that the header states, each sent by itself; there is no other framing (docs/formats/wire.md). Integers are
// big-endian. Functions that return an int give 1 for success and 0 for failure, which is logged where it is found.
// Threads: any; one connection by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "interface/records.h"
#include "platform/guid.h"
#include "platform/socket.h"

namespace qx {

// Message types. An acknowledgement is the operation's type with ACK_FLAG added; its receiver doesn't check it.
inline constexpr std::uint32_t MSG_CREATE = 1;
inline constexpr std::uint32_t MSG_DELETE = 2;
inline constexpr std::uint32_t MSG_MODIFY = 4;
inline constexpr std::uint32_t MSG_PERFORM = 256;
inline constexpr std::uint32_t MSG_CONTEXT_REQUEST = 16;
inline constexpr std::uint32_t MSG_CONTEXT_REPLY = 32;
inline constexpr std::uint32_t MSG_PUBLIC_KEY = 512;
inline constexpr std::uint32_t ACK_FLAG = 8;

// Limits of the receivers, in payload bytes. The peer takes a public key of any length from 1 on.
inline constexpr std::uint32_t kMaxTokenSize = 12000;
inline constexpr std::uint32_t kMaxKeyReply = 12000;
inline constexpr std::uint32_t kMaxOperationSize = 5120;

// The plain text of an acknowledgement: the result as signed decimal text, filled up with NULs.
inline constexpr std::size_t kAckTextSize = 22;

struct MessageHeader {
  std::uint32_t msgLen = 0;    // payload bytes
  std::uint32_t msgType = 0;
  std::uint32_t reserved = 0;  // written as 0; the answer to a key bears it as it came
  ScheduleGuid scheduleId{};   // all zero for MSG_PERFORM
};

inline constexpr std::size_t kWireGuidOffset = 12;
inline constexpr std::size_t kWireGuidSize = platform::kGuidTextLength + 1;  // with its NUL
inline constexpr std::size_t kWireHeaderSize = kWireGuidOffset + kWireGuidSize;
static_assert(kWireHeaderSize == 51, "the header's size is fixed by the protocol");
using WireHeader = std::span<std::uint8_t, kWireHeaderSize>;
using ConstWireHeader = std::span<const std::uint8_t, kWireHeaderSize>;

// Deliberate: consumes the record: its three integers are 0 afterwards, so callers hand over a copy.
[[nodiscard]] int EncodeHeader(MessageHeader& header, WireHeader bytes);
// Letters beyond F pass in the identifier's text and read as the digit 0.
//   header  cleared first; as far as it was read on failure
[[nodiscard]] int DecodeHeader(ConstWireHeader bytes, MessageHeader& header);

// Takes exactly `length` bytes. Waits at most 60 seconds for each piece.
//   buffer   null is refused
//   ignored  has no effect
// Deliberate: a piece of exactly 10054 bytes ends the connection.
[[nodiscard]] int Receive(platform::IConnection& connection, std::uint8_t* buffer, std::size_t length,
                          std::uint32_t ignored = 0);
// Gives all bytes. Deliberate: where the host takes none at the moment it is asked again at once, without a limit.
[[nodiscard]] int Send(platform::IConnection& connection, std::span<const std::uint8_t> bytes);

enum class PayloadResult { kDone, kNoMemory, kFailed };
// Takes a payload of `length` bytes whose memory grows only as bytes arrive.
//   name  what the memory is for; a test makes the allocation of that name fail
//   keep  bytes beyond these are taken and dropped
//   out   the kept bytes
[[nodiscard]] PayloadResult ReceivePayload(platform::IConnection& connection, std::uint32_t length,
                                           std::string_view name, std::size_t keep, std::vector<std::uint8_t>& out);

// A 32-bit number of decimal text, as the runtime's parse reads it: blanks, a sign, digits up to the first other
// character; no digits are 0. A value beyond 32 bits keeps its low ones.
[[nodiscard]] std::uint32_t ParseDecimal(std::string_view text);

}  // namespace qx

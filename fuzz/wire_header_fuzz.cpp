// The header of a message between nodes: what is read is written and read again the same.
#include <algorithm>
#include <array>

#include "fuzz/fuzz_target.h"
#include "replication/wire.h"

using qx::fuzz::Require;

QX_FUZZ_TARGET(wire_header) {
  std::array<std::uint8_t, qx::kWireHeaderSize> bytes{};
  std::copy_n(data, std::min(size, bytes.size()), bytes.begin());
  qx::MessageHeader header;
  if (qx::DecodeHeader(bytes, header) == 0) return 0;
  qx::MessageHeader copy = header;
  std::array<std::uint8_t, qx::kWireHeaderSize> written{};
  Require(qx::EncodeHeader(copy, written) == 1, "a header that was read is written");
  Require(std::equal(bytes.begin(), bytes.begin() + qx::kWireGuidOffset, written.begin()), "the integers come back");
  qx::MessageHeader again;
  Require(qx::DecodeHeader(written, again) == 1, "a header that was written is read");
  Require(again.scheduleId == header.scheduleId, "the identifier comes back");
  return 0;
}

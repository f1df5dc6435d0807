#include <cstring>

#include "foundation/include/zfcbytes.h"

namespace ZepFoundation {

std::atomic<CByteOrder::ByteOrder> CByteOrder::m_sNativeByteOrder{kUndetermined};

CByteOrder::ByteOrder CByteOrder::Native() {
  ByteOrder order = m_sNativeByteOrder.load(std::memory_order_relaxed);
  if (order == kUndetermined) {
    // Every thread comes to the same value, so that it doesn't matter who stores it.
    const std::uint32_t probe = 0x41424344;
    order = std::memcmp(&probe, "DCBA", sizeof(probe)) <= 0 ? kLittleEndian : kBigEndian;
    m_sNativeByteOrder.store(order, std::memory_order_relaxed);
  }
  return order;
}

}  // namespace ZepFoundation

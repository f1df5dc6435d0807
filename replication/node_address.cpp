#include "replication/node_address.h"

#include <string>

#include "foundation/include/zfclog.h"
#include "platform/fault_point.h"
#include "platform/registry.h"
#include "platform/socket.h"
#include "service/schedule_store.h"

namespace qx {
namespace {

using platform::AddressFamily;
using platform::ERROR_SUCCESS;

bool CanOpen(AddressFamily family) {
  platform::Socket probe;
  return platform::Socket::Create(family, probe) == 0;
}

}  // namespace

int ProbeAddressFamilies() {
  // Sockets of this host need no start; only a test refuses it.
  if (platform::FaultAt(platform::Operation::kSocketStartup, "ProbeAddressFamilies") != ERROR_SUCCESS) return -1;
  const bool ipv4 = CanOpen(AddressFamily::kIpv4);
  const bool ipv6 = CanOpen(AddressFamily::kIpv6);
  if (ipv4 && ipv6) return 0;
  if (ipv4) return kFamilyIpv4;
  return ipv6 ? kFamilyIpv6 : -1;
}

int GetIpMode() {
  platform::RegistryKey key;
  std::uint32_t mode = 0;
  const std::u16string path = std::u16string(kVolumeManagerKey) + u"\\constants";
  if (platform::OpenKey(platform::Hive::kLocalMachine, path, platform::KEY_READ, key) != ERROR_SUCCESS ||
      platform::ReadRegistryDword(key, u"IP_MODE", mode) != ERROR_SUCCESS) {
    return kFamilyIpv4;
  }
  return mode == static_cast<std::uint32_t>(kFamilyIpv6) ? kFamilyIpv6 : kFamilyIpv4;
}

int ClassifyNodeAddress(const char* name) {
  if (name == nullptr) return -2;
  if (platform::IsIpv6Text(name)) return kFamilyIpv6;
  return platform::IsIpv4Text(name) ? kFamilyIpv4 : 0;
}

}  // namespace qx

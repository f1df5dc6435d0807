#include "replication/node_address.h"

#include <gtest/gtest.h>

#include "platform/socket.h"
#include "platform/testing/fault.h"
#include "service/tests/service_fixture.h"

namespace qx {
namespace {

using platform::FaultPlan;
using platform::Operation;

TEST(ProbeAddressFamilies, TellsWhichFamiliesCanBeOpened) {
  const auto without = [](const char* family) {
    return FaultPlan::FailCall(Operation::kSocketCreate, 1, EAFNOSUPPORT, platform::kFromThenOn, family);
  };
  const auto neither = [] {
    return FaultPlan::FailCall(Operation::kSocketCreate, 1, EAFNOSUPPORT, platform::kFromThenOn);
  };
  {
    const FaultPlan plan = without("IPv6");
    EXPECT_EQ(ProbeAddressFamilies(), 2);
  }
  {
    const FaultPlan plan = without("IPv4");
    EXPECT_EQ(ProbeAddressFamilies(), 23);
  }
  {
    const FaultPlan plan = neither();
    EXPECT_EQ(ProbeAddressFamilies(), -1);
  }
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kSocketStartup, 1, 10091);
    EXPECT_EQ(ProbeAddressFamilies(), -1);
  }
  platform::Socket both;
  const bool wide = platform::Socket::Create(platform::AddressFamily::kIpv6, both) == 0;
  EXPECT_EQ(ProbeAddressFamilies(), wide ? 0 : 2);
}

class IpMode : public testing::ServiceFixture {};

TEST_F(IpMode, IsIpv4UnlessTheSettingSays23) {
  EXPECT_EQ(GetIpMode(), 2);
  const std::u16string path = std::u16string(kVolumeManagerKey) + u"\\constants";
  MakeKey(path);
  EXPECT_EQ(GetIpMode(), 2);
  for (const auto& [value, mode] : {std::pair{23u, 23}, {2u, 2}, {0u, 2}, {24u, 2}, {0xFFFFFFFFu, 2}}) {
    platform::RegistryKey key;
    ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, path, platform::KEY_ALL_ACCESS, key), 0u);
    ASSERT_EQ(platform::SetDword(key, u"IP_MODE", value), 0u);
    ASSERT_EQ(key.Close(), 0u);
    EXPECT_EQ(GetIpMode(), mode) << value;
  }
}

TEST(ClassifyNodeAddress, TellsAddressesFromNames) {
  const struct {
    const char* name;
    int kind;
  } kCases[] = {{"10.0.0.1", 2},  {"::1", 23},         {"fe80::1", 23},      {"node-a", 0}, {"localhost", 0},
                {"10.0.0", 0},    {"10.0.0.256", 0},   {"", 0},              {"::g", 0},    {nullptr, -2},
                {" 10.0.0.1", 0}, {"::ffff:10.0.0.1", 23}};
  for (const auto& c : kCases) EXPECT_EQ(ClassifyNodeAddress(c.name), c.kind) << (c.name ? c.name : "null");
}

}  // namespace
}  // namespace qx

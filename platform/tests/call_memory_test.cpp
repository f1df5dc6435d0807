// Memory runs out at each allocation with which a call from the bus is answered. The caller is refused, and the next
// call is served.
#include <gtest/gtest.h>

#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "platform/apartment.h"
#include "platform/bus.h"
#include "platform/testing/refused_memory.h"

namespace platform {
namespace {

constexpr const char* kPath = "/test/Object";
constexpr const char* kInterface = "test.Interface";

class CallMemory : public ::testing::TestWithParam<FaultMode> {
 protected:
  void SetUp() override { ASSERT_EQ(BusConnection::OpenPair(m_server, m_client), ERROR_SUCCESS); }

  // Calls with memory that ends behind `ahead` allocations of the server; the error's name, empty for none.
  std::string Call(std::string_view interfaceName, std::string_view member, std::string_view argument, long ahead) {
    MessageWriter call;
    EXPECT_EQ(m_client.NewCall("", kPath, interfaceName, member, call), ERROR_SUCCESS);
    if (!argument.empty()) {
      call.AppendString(kInterface);
      call.AppendString(argument);
    }
    bool came = false;
    std::string name;
    EXPECT_EQ(m_client.CallAsync(std::move(call),
                                 [&](MessageReader&, const BusError& error) {
                                   came = true;
                                   name = error.name;
                                 }),
              ERROR_SUCCESS);
    m_ahead = ahead;
    for (int i = 0; i < 10000 && !came; ++i) {
      const bool served = m_server.Process();
      AllowMemory();
      if (!served && !m_client.Process() && !m_server.WaitForWork(0)) (void)m_client.WaitForWork(1);
    }
    EXPECT_TRUE(came) << "no answer behind " << ahead;
    return name;
  }
  void RunOut() {
    if (m_ahead >= 0) RefuseMemory(m_ahead, GetParam());
  }

  BusConnection m_server, m_client;
  long m_ahead = -1;
};

TEST_P(CallMemory, AMethodThatFindsNoneIsRefused) {
  BusInterface served;
  served.name = kInterface;
  served.methods.push_back({"Work", {}, {{"s", "text"}}, [this](MessageReader&, MessageWriter& reply) {
                              RunOut();
                              reply.AppendString(std::string(100, 'x'));
                              return BusError{};
                            }});
  ASSERT_EQ(m_server.Export(kPath, std::move(served)), ERROR_SUCCESS);
  for (long ahead = 0;; ++ahead) {
    (void)TakeRefusedCount();
    const std::string error = Call(kInterface, "Work", "", ahead);
    if (TakeRefusedCount() == 0) {
      EXPECT_GT(ahead, 0) << "the refusals met nobody";
      break;
    }
    EXPECT_NE(error, "") << ahead;
    EXPECT_EQ(Call(kInterface, "Work", "", -1), "") << ahead;
  }
}

TEST_P(CallMemory, AFailureWhoseWordsFindNoneIsAFailureAllTheSame) {
  BusInterface served;
  served.name = kInterface;
  served.methods.push_back({"Fail", {}, {}, [this](MessageReader&, MessageWriter&) -> BusError {
                              RunOut();
                              throw std::bad_alloc();
                            }});
  served.properties.push_back({"Value", "s", [this](std::string_view, MessageWriter&) {
                                 RunOut();
                                 throw std::bad_alloc();
                               }});
  ASSERT_EQ(m_server.Export(kPath, std::move(served)), ERROR_SUCCESS);
  // The service's own report makes texts, too.
  SetGuardReport([](std::string_view, std::string_view what) { (void)std::string(100 + what.size(), 'x'); });
  for (long ahead = 0; ahead < 10; ++ahead) {
    EXPECT_NE(Call(kInterface, "Fail", "", ahead), "") << ahead;
    EXPECT_NE(Call("org.freedesktop.DBus.Properties", "Get", "Value", ahead), "") << ahead;
  }
  SetGuardReport(nullptr);
}

INSTANTIATE_TEST_SUITE_P(OneOrAll, CallMemory, ::testing::Values(kOnce, kFromThenOn),
                         [](const auto& mode) { return mode.param == kOnce ? "One" : "AllFromThenOn"; });

}  // namespace
}  // namespace platform

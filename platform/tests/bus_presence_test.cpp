#include "platform/bus_presence.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "platform/testing/fault.h"
#include "platform/testing/private_bus.h"

namespace platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kPresentName = "test.Name";

class BusPresenceTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_THAT(bus.Address(), StartsWith("unix:")); }
  PrivateBus bus;
};

TEST_F(BusPresenceTest, ConnectsAgainAfterALossAndTellsEachWayOnce) {
  Apartment apartment;
  BusPresence presence(apartment);
  int setUps = 0;
  std::vector<std::string> told;
  BusPresence::Options options;
  options.address = bus.ForClients();
  options.setUp = [&](BusConnection& connection) {
    ++setUps;
    return connection.RequestName(kPresentName);
  };
  options.lost = [&](ErrorCode) { told.emplace_back("lost"); };
  options.restored = [&] { told.emplace_back("restored"); };
  options.firstPauseMs = 1;
  options.longestPauseMs = 4;
  ASSERT_EQ(presence.Start(std::move(options)), ERROR_SUCCESS);
  EXPECT_THAT(told, IsEmpty());

  bus.Kill();
  while (presence.Connection() != nullptr) apartment.Step(1000);
  {
    const FaultPlan attempts = FaultPlan::CountOnly();
    while (attempts.calls() < 3) apartment.Step(1000);  // the attempts go on meanwhile
  }
  EXPECT_THAT(told, ElementsAre("lost"));
  bus.Restart();
  while (presence.Connection() == nullptr) apartment.Step(1000);
  EXPECT_THAT(told, ElementsAre("lost", "restored"));
  EXPECT_EQ(setUps, 2);
}

TEST_F(BusPresenceTest, TriesAgainWithPausesThatDoubleUpToTheLongest) {
  Apartment apartment;
  BusPresence presence(apartment);
  BusPresence::Options options;
  options.address = bus.ForClients();
  options.setUp = [](BusConnection&) -> ErrorCode { return ERROR_SUCCESS; };
  options.firstPauseMs = 5;
  options.longestPauseMs = 20;
  ASSERT_EQ(presence.Start(std::move(options)), ERROR_SUCCESS);
  bus.Kill();
  while (presence.Connection() != nullptr) apartment.Step(1000);
  std::vector<std::chrono::steady_clock::time_point> moments = {std::chrono::steady_clock::now()};
  {
    const FaultPlan plan = FaultPlan::Ask([&](int, Operation operation, std::string_view) -> ErrorCode {
      if (operation == Operation::kBusConnect) moments.push_back(std::chrono::steady_clock::now());
      return ERROR_SUCCESS;
    });
    while (moments.size() < 6) apartment.Step(1000);
  }
  // Never earlier; how much later is the machine's. The first pause began with the loss, just before the first moment.
  static constexpr int kPauses[] = {5, 10, 20, 20, 20};
  for (std::size_t i = 1; i < std::size(kPauses); ++i) {
    EXPECT_GE(moments[i + 1] - moments[i], std::chrono::milliseconds(kPauses[i])) << i;
  }
}

TEST_F(BusPresenceTest, CountsAFailedSetUpAsAFailedAttempt) {
  Apartment apartment;
  BusPresence presence(apartment);
  ErrorCode lost = 0;
  BusPresence::Options options;
  options.address = bus.ForClients();
  options.setUp = [](BusConnection& connection) { return connection.RequestName(kPresentName); };
  options.lost = [&](ErrorCode code) { lost = code; };
  options.firstPauseMs = 1;
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kBusRequestName, 1, 5);
    EXPECT_EQ(presence.Start(std::move(options)), 5u);
  }
  EXPECT_EQ(lost, 5u);
  EXPECT_EQ(presence.Connection(), nullptr);
  while (presence.Connection() == nullptr) apartment.Step(1000);
  presence.Stop();
  EXPECT_EQ(presence.Connection(), nullptr);
}

}  // namespace
}  // namespace platform

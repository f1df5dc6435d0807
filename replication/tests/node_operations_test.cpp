#include "replication/node_operations.h"

#include <atomic>
#include <filesystem>
#include <thread>

#include "platform/event_log.h"
#include "platform/service_record.h"
#include "replication/node_channel.h"
#include "replication/tests/noting_service.h"
#include "replication/tests/replication_fixture.h"
#include "replication/tests/wire_tap.h"
#include "service/service_registration.h"

namespace qx {
namespace {

using platform::FaultPlan;
using platform::Operation;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

// Nobody takes a connection to it.
constexpr const char16_t* kDeadNode = u"255.255.255.255";

class NodeOperations : public testing::ReplicationFixture {
 protected:
  void SetUp() override {
    ReplicationFixture::SetUp();
    platform::InstallEventSink([this](const platform::LoggedEvent& event) { m_events.push_back(event); });
    SetAccount(u"cluster");
    Listen();
    m_operations.SetPort(m_listener.Port());
  }
  void TearDown() override {
    platform::InstallEventSink({});
    ReplicationFixture::TearDown();
  }
  static void SetAccount(std::u16string_view account) {
    (void)platform::DeleteServiceRecord(kServiceName);
    platform::ServiceRecord record;
    record.displayName = kServiceTitle;
    record.binaryPath = u"\"/x\"";
    record.account = account;
    ASSERT_EQ(platform::CreateServiceRecord(kServiceName, record), 0u);
  }
  // All four, each on a schedule of its own.
  enum class Which { kCreate, kDelete, kModify, kPerform };
  static constexpr Which kAll[] = {Which::kCreate, Which::kDelete, Which::kModify, Which::kPerform};
  static std::string Name(Which which) {
    static constexpr const char* kNames[] = {"CreateScheduleOnNodes", "DeleteScheduleOnNodes", "ModifyScheduleOnNodes",
                                             "PerformOperationOnNodes"};
    return kNames[static_cast<int>(which)];
  }
  Status Run(Which which, const NodeNames& names, std::uint32_t count) {
    m_results.assign(names.size(), 77);
    switch (which) {
      case Which::kCreate:
        return m_operations.CreateScheduleOnNodes(m_self, Daily(), m_id, count, names, m_results);
      case Which::kDelete:
        return m_operations.DeleteScheduleOnNodes(m_self, m_id, count, names, m_results);
      case Which::kModify:
        return m_operations.ModifyScheduleOnNodes(m_self, m_id, Daily(), count, names, m_results);
      case Which::kPerform:
        break;
    }
    return m_operations.PerformOperationOnNodes(u"/bin/true", count, names, m_results);
  }
  Status Run(Which which, const NodeNames& names) {
    return Run(which, names, static_cast<std::uint32_t>(names.size()));
  }

  testing::NotingService m_self;
  CNodeOperations m_operations{testing::OwnKeys()};
  ScheduleGuid m_id = platform::GuidConstant(u"{11111111-2222-3333-4444-555555555555}");
  NodeResults m_results;
  std::vector<platform::LoggedEvent> m_events;
};

TEST_F(NodeOperations, ACreationReachesEveryNodeAfterThisOne) {
  EXPECT_EQ(Run(Which::kCreate, {u"127.0.0.2", u"localhost", u"127.0.0.3"}), 0u);
  EXPECT_THAT(m_results, ElementsAre(0, 0, 0));
  EXPECT_THAT(m_self.calls, ElementsAre("create"));
  WaitForChildren();
  EXPECT_TRUE(HasKey(m_id));
  EXPECT_TRUE(m_log.Has(4, "Entered into CreateScheduleOnNodes"));
  EXPECT_TRUE(m_log.Has(3, "Successfully created the schedule on localhost"));
  EXPECT_TRUE(m_log.Has(3, "CreateScheduleOnNodes:Successfully sent Registry information to 2 clients "));
  EXPECT_TRUE(m_log.Has(4, "Exited from CreateScheduleOnNodes"));
}

TEST_F(NodeOperations, EachOfTheFourIsCarriedOut) {
  EXPECT_EQ(Run(Which::kCreate, {u"localhost", u"127.0.0.2"}), 0u);
  EXPECT_EQ(Run(Which::kModify, {u"localhost", u"127.0.0.2"}), 0u);
  EXPECT_EQ(Run(Which::kDelete, {u"localhost", u"127.0.0.2"}), 0u);
  EXPECT_EQ(Run(Which::kPerform, {u"localhost", u"127.0.0.2"}), 0u);
  EXPECT_THAT(m_results, ElementsAre(1, 0));  // no local step
  EXPECT_THAT(m_self.calls, ElementsAre("create", "modify", "delete"));
  EXPECT_TRUE(m_log.Has(3, "Successfully modified the schedule on localhost"));
  EXPECT_TRUE(m_log.Has(3, "Successfully deleted the schedule on localhost"));
  EXPECT_TRUE(m_log.Has(3, "PerformOperationOnNodes:encrypted data length: 256"));
  WaitForChildren();
  EXPECT_FALSE(HasKey(m_id));
}

TEST_F(NodeOperations, ANodesOwnResultComesBack) {
  ASSERT_EQ(Run(Which::kCreate, {u"localhost", u"127.0.0.2"}), 0u);
  SCHEDULE_OBJECT changed = Daily();
  changed.dwTaskOpCode = 99;
  m_results.assign(2, 77);
  EXPECT_EQ(m_operations.ModifyScheduleOnNodes(m_self, m_id, changed, 2, {u"localhost", u"127.0.0.2"}, m_results), 1u);
  EXPECT_THAT(m_results, ElementsAre(0, static_cast<std::int32_t>(kStatusImmutable)));
  EXPECT_TRUE(m_log.Has(1, "ModifyScheduleOnNodes:Failed ReceiveAck with error: 1"));
}

TEST_F(NodeOperations, SeveralCallsAtOnceAreEachServed) {
  constexpr int kCallers = 8, kCalls = 10;
  std::vector<std::thread> callers;
  std::atomic<int> done = 0;
  for (int caller = 0; caller < kCallers; ++caller) {
    callers.emplace_back([&, caller] {
      const NodeNames names = {u"localhost", testing::Wide("127.0.1." + std::to_string(caller + 1))};
      for (int call = 0; call < kCalls; ++call) {
        NodeResults results(2, 77);
        if (m_operations.PerformOperationOnNodes(u"/bin/true", 2, names, results) == 0 && results[1] == 0) ++done;
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(done, kCallers * kCalls);
}

TEST_F(NodeOperations, NoNodesAreRefusedAndTheArraysLeftAlone) {
  for (const Which which : kAll) {
    EXPECT_EQ(Run(which, {u"localhost"}, 0), kStatusNoNodes);
    EXPECT_THAT(m_results, ElementsAre(77));
    EXPECT_TRUE(m_log.Has(1, Name(which) + ":NodeCount is less than 1"));
  }
  EXPECT_TRUE(m_self.calls.empty());
}

TEST_F(NodeOperations, NamesWithoutLocalhostAreRefusedWithEveryEntryOne) {
  for (const Which which : kAll) {
    EXPECT_EQ(Run(which, {u"127.0.0.2", u"LOCALHOST"}), kStatusNoLocalhost);
    EXPECT_THAT(m_results, ElementsAre(1, 1));
    EXPECT_TRUE(m_log.Has(1, Name(which) + ":Invalid NodeNames: 'localhost' not exists in the list"));
  }
  EXPECT_TRUE(m_self.calls.empty());
}

TEST_F(NodeOperations, LocalhostInCapitalsIsARemoteName) {
  EXPECT_EQ(Run(Which::kDelete, {u"LOCALHOST", u"localhost"}), 0u);
  EXPECT_THAT(m_results, ElementsAre(0, 0));
  EXPECT_TRUE(m_log.Has(3, "Importing key for node LOCALHOST"));
}

TEST_F(NodeOperations, OfTwoLocalhostsTheLastIsThisNode) {
  EXPECT_EQ(Run(Which::kDelete, {u"localhost", u"localhost"}), 0u);
  EXPECT_THAT(m_results, ElementsAre(0, 0));
  EXPECT_THAT(m_self.calls, ElementsAre("delete"));
  EXPECT_TRUE(m_log.Has(3, "Importing key for node localhost"));
  // The own pair is still there for the next answer.
  EXPECT_EQ(Run(Which::kDelete, {u"127.0.0.2", u"localhost"}), 0u);
  // A command, which has no local step, tells which of them was reached.
  EXPECT_EQ(Run(Which::kPerform, {u"localhost", u"localhost"}), 0u);
  EXPECT_THAT(m_results, ElementsAre(0, 1));
}

TEST_F(NodeOperations, LocalhostAloneIsTheLocalStepAlone) {
  SetAccount(u"LocalSystem");
  EXPECT_EQ(Run(Which::kCreate, {u"localhost"}), 0u);
  EXPECT_THAT(m_results, ElementsAre(0));
  EXPECT_TRUE(m_events.empty());
  EXPECT_EQ(Run(Which::kPerform, {u"localhost"}), 0u);
  EXPECT_THAT(m_results, ElementsAre(1));
}

TEST_F(NodeOperations, AFailedLocalStepKeepsItFromThePeers) {
  m_self.answer = kStatusNoRunDay;
  const std::pair<Which, const char*> kVerbs[] = {
      {Which::kCreate, "create"}, {Which::kDelete, "delete"}, {Which::kModify, "modify"}};
  for (const auto& [which, verb] : kVerbs) {
    EXPECT_EQ(Run(which, {u"127.0.0.2", u"localhost"}), 1u);
    EXPECT_THAT(m_results, ElementsAre(1, static_cast<std::int32_t>(kStatusNoRunDay)));
    EXPECT_TRUE(m_log.Has(1, Name(which) + ":Failed to " + verb + " the schedule on localhost"));
  }
  EXPECT_THAT(m_log.texts(), Not(Contains(HasSubstr("createContext: Entered"))));
}

TEST_F(NodeOperations, UnderLocalSystemTheLocalChangeStandsAndNobodyElseHears) {
  SetAccount(u"LOCALSYSTEM");
  EXPECT_EQ(Run(Which::kCreate, {u"127.0.0.2", u"localhost"}), 1u);
  EXPECT_THAT(m_results, ElementsAre(1, 0));
  EXPECT_THAT(m_self.calls, ElementsAre("create"));
  ASSERT_EQ(m_events.size(), 1u);
  EXPECT_EQ(m_events[0].kind, platform::EventKind::kError);
  EXPECT_THAT(m_log.texts(), Contains(HasSubstr("Scheduler service is running in the localsystem account.")));
}

TEST_F(NodeOperations, WithoutTheSecurityLibraryTheLocalChangeStands) {
  platform::FreeSecurityPackage();
  for (const Which which : kAll) {
    EXPECT_EQ(Run(which, {u"localhost", u"127.0.0.2"}), 1u);
    EXPECT_THAT(m_results, ElementsAre(which == Which::kPerform ? 1 : 0, 1));
    EXPECT_TRUE(m_log.Has(1, Name(which) + ": secur32.dll has not been loaded"));
    EXPECT_TRUE(m_log.Has(1, Name(which) + ": failed to create schedule on far nodes"));
  }
}

TEST_F(NodeOperations, OneNodeDownLeavesTheOthersTheirResults) {
  EXPECT_EQ(Run(Which::kDelete, {u"127.0.0.2", kDeadNode, u"localhost", u"127.0.0.3"}), 1u);
  EXPECT_THAT(m_results, ElementsAre(0, 1, 0, 0));
  EXPECT_THAT(m_log.texts(), Contains(HasSubstr("DeleteScheduleOnNodes:Failed to create socket(), NodeName: "
                                                "255.255.255.255, Error: ")));
  EXPECT_TRUE(m_log.Has(3, "DeleteScheduleOnNodes:Successfully sent Registry information to 2 clients "));
}

TEST_F(NodeOperations, NoNodeReachedIsOneWithoutWaiting) {
  EXPECT_EQ(Run(Which::kDelete, {kDeadNode, u"localhost"}), 1u);
  EXPECT_THAT(m_results, ElementsAre(1, 0));
  EXPECT_TRUE(m_log.Has(3, "DeleteScheduleOnNodes:Successfully sent Registry information to 0 clients "));
  EXPECT_THAT(m_log.texts(), Not(Contains(HasSubstr("ReceiveAck"))));
}

TEST_F(NodeOperations, ALinkLocalAddressIsNeverTried) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kSocketConnect, 1, 99, platform::kFromThenOn);
  EXPECT_EQ(Run(Which::kDelete, {u"fe80::1", u"localhost"}), 1u);
  EXPECT_THAT(m_results, ElementsAre(1, 0));
  EXPECT_EQ(plan.calls(), 0);
  EXPECT_TRUE(m_log.Has(1, "DeleteScheduleOnNodes:Failed to create socket(), NodeName: fe80::1, Error: 0."));
  EXPECT_EQ(Run(Which::kDelete, {u"::1", u"localhost"}), 1u);
  EXPECT_EQ(plan.calls(), 1);
}

TEST_F(NodeOperations, ASilentNodeRaisesNoFailure) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kSocketSelectAny, 1, platform::ERROR_TIMEOUT);
  EXPECT_EQ(Run(Which::kDelete, {u"127.0.0.2", u"localhost"}), 0u);
  EXPECT_THAT(m_results, ElementsAre(1, 0));
}

TEST_F(NodeOperations, APeersDropLeavesTheEntryOneAndRaisesNoFailure) {
  // Values aren't escaped: the type that this one brings along stands ahead of the body's own.
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bstrParameters = u"<MSG_TYPE>2</MSG_TYPE>";
  m_results.assign(2, 77);
  EXPECT_EQ(m_operations.CreateScheduleOnNodes(m_self, schedule, m_id, 2, {u"localhost", u"127.0.0.2"}, m_results), 0u);
  EXPECT_THAT(m_results, ElementsAre(0, 1));
  WaitForChildren();
  EXPECT_TRUE(m_log.Has(1, "ChildSocketThread: Data modified, msgType in header: 1, in string: 2"));
  EXPECT_FALSE(HasKey(m_id));
}

TEST_F(NodeOperations, APeerThatRefusesTheTokensLeavesTheEntryOneAndIsAFailure) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kAcceptSecurityContext, 1, 0x80090304);
  EXPECT_EQ(Run(Which::kDelete, {u"localhost", u"127.0.0.2"}), 1u);
  EXPECT_THAT(m_results, ElementsAre(0, 1));
}

TEST_F(NodeOperations, EachFailureOnTheWayToANodeHasItsWords) {
  struct Case {
    Operation operation;
    const char* detail;
    int call;
    const char* texts[4];  // of the four operations
  };
  const Case kCases[] = {
      {Operation::kInitializeSecurityContext,
       "",
       1,
       {"CreateScheduleOnNodes: createContext failed",
        "DeleteScheduleOnNodes: createContext with node : 127.0.0.2 failed",
        "ModifyScheduleOnNodes: createContext with node: 127.0.0.2 failed",
        "PerformOperationOnNodes: createContext with node: 127.0.0.2 failed"}},
      // The exchange fails on this side: its first export is the initiator's.
      {Operation::kCryptExportKey,
       "",
       1,
       {"CreateScheduleOnNodes: exchange keys with node: 127.0.0.2 failed",
        "DeleteScheduleOnNodes: exchange keys with node: 127.0.0.2 failed",
        "DeleteScheduleOnNodes: exchange keys with node: 127.0.0.2 failed",
        "DeleteScheduleOnNodes: exchange keys with node: 127.0.0.2 failed"}},
      {Operation::kCryptEncrypt,
       "",
       1,
       {"CryptEncrypt failed with error : 80090020=\n", "CryptEncrypt failed with error : 80090020=\n",
        "CryptEncrypt failed with error : 80090020=\n", "CryptEncrypt failed with error : 80090020=\n"}},
  };
  for (const Case& c : kCases) {
    for (const Which which : kAll) {
      m_log.Clear();
      const FaultPlan plan = FaultPlan::FailCall(c.operation, c.call, 0x80090020, platform::kOnce, c.detail);
      EXPECT_EQ(Run(which, {u"127.0.0.2", u"localhost"}), 1u);
      EXPECT_EQ(m_results[0], 1);
      EXPECT_THAT(m_log.texts(), Contains(c.texts[static_cast<int>(which)]));
      WaitForChildren();
    }
  }
}

TEST_F(NodeOperations, EachFailureAheadOfTheNodesHasItsWords) {
  const struct {
    Operation operation;
    const char* detail;
    int call;
    const char* text;    // behind the operation's name
    const char* second;  // {verb} is the operation's; null for none
    const char* verbs[4];
  } kCases[] = {
      {Operation::kAcquireCredentials, "", 1, ": AcquireCredentialsHandle failed. Error 0x8.", nullptr, {}},
      {Operation::kAllocate,
       "m_socket",
       1,
       ":calloc(m_socket) failed",
       ":Failed to {verb} the registry on remote hosts",
       {"modify", "delete", "modify", "modify"}},
      {Operation::kAllocate, "OnNodes body", 1, ": Calloc failed", nullptr, {}},
      {Operation::kConvertText,
       "WideCharToMultiByte",
       1,
       ":Failed CreateXMLString",
       ":Failed to {verb} schedule on all remote hosts",
       {"create", "delete", "modify", "create"}},
  };
  for (const auto& c : kCases) {
    for (const Which which : kAll) {
      m_log.Clear();
      const FaultPlan plan = FaultPlan::FailCall(c.operation, c.call, 8, platform::kOnce, c.detail);
      EXPECT_EQ(Run(which, {u"127.0.0.2", u"localhost"}), 1u) << c.text;
      EXPECT_EQ(m_results[0], 1);
      EXPECT_THAT(m_log.texts(), Contains(Name(which) + c.text));
      if (c.second != nullptr) {
        std::string text = c.second;
        text.replace(text.find("{verb}"), 6, c.verbs[static_cast<int>(which)]);
        EXPECT_THAT(m_log.texts(), Contains(Name(which) + text));
      }
      EXPECT_TRUE(m_log.Has(4, "Exited from " + Name(which)));
    }
  }
}

// The words of a creation in full; the others put their own names in front.
TEST_F(NodeOperations, ACreationsWordsAreTheseToTheLetter) {
  const struct {
    Operation operation;
    const char* detail;
    int call;
    const char* text;
  } kFailures[] = {
      {Operation::kArrayAccessData, "ppsaHRESULT", 1,
       "CreateScheduleOnNodes:Failed SafeArrayAccessData(ppsaHRES) with error = 8"},
      {Operation::kArrayAccessData, "NodeNames", 1,
       "CreateScheduleOnNodes:Failed SafeArrayAccessData(ppsaNodeNames) with hr = 8"},
      {Operation::kAcquireCredentials, "", 1, "CreateScheduleOnNodes: AcquireCredentialsHandle failed. Error 0x8."},
      {Operation::kAllocate, "m_socket", 1, "CreateScheduleOnNodes:calloc(m_socket) failed"},
      {Operation::kAllocate, "m_socket", 1, "CreateScheduleOnNodes:Failed to modify the registry on remote hosts"},
      {Operation::kConvertText, "WideCharToMultiByte", 1, "CreateScheduleOnNodes:Failed CreateXMLString"},
      {Operation::kConvertText, "WideCharToMultiByte", 1,
       "CreateScheduleOnNodes:Failed to create schedule on all remote hosts"},
      {Operation::kAllocate, "OnNodes body", 1, "CreateScheduleOnNodes: Calloc failed"},
      {Operation::kConvertText, "WideCharToMultiByte", 2,
       "CreateScheduleOnNodes:Failed to convert BSTR(NodeName) To char*(NodeName)."},
      {Operation::kAllocate, "tempNodeName", 1, "CreateScheduleOnNodes:Failed calloc(tempNodeName)"},
      {Operation::kConvertText, "WideCharToMultiByte", 3,
       "CreateScheduleOnNodes:Failed to convert BSTR(NodeName) to char*(NodeName)."},
      {Operation::kResolveAddress, "127.0.0.2", 1,
       "CreateScheduleOnNodes:Failed to create socket(), NodeName: 127.0.0.2, Error: 8."},
      {Operation::kSocketConnect, "", 1,
       "CreateScheduleOnNodes:Failed to create socket(), NodeName: 127.0.0.2, Error: 8."},
      {Operation::kInitializeSecurityContext, "", 1, "CreateScheduleOnNodes: createContext failed"},
      {Operation::kCryptExportKey, "", 1, "CreateScheduleOnNodes: exchange keys with node: 127.0.0.2 failed"},
      // Behind two tokens and a key of each side, header and payload, comes the operation.
      {Operation::kSocketSend, "", 13, "CreateScheduleOnNodes: Failed to send the msg header to node 127.0.0.2"},
      {Operation::kSocketSend, "", 14, "CreateScheduleOnNodes: Failed to send the msg to node 127.0.0.2"},
      {Operation::kConvertText, "WideCharToMultiByte", 10, "CreateScheduleOnNodes:Failed to Encode Header to send"},
  };
  for (const auto& c : kFailures) {
    m_log.Clear();
    const bool refused =
        c.operation == Operation::kInitializeSecurityContext || c.operation == Operation::kCryptExportKey;
    const FaultPlan plan =
        FaultPlan::FailCall(c.operation, c.call, refused ? 0x80090020 : 8, platform::kOnce, c.detail);
    EXPECT_NE(Run(Which::kCreate, {u"127.0.0.2", u"localhost"}), 0u) << c.text;
    EXPECT_EQ(plan.hits(), 1) << c.text;
    EXPECT_THAT(m_log.texts(), Contains(c.text));
    WaitForChildren();
  }
  const struct {
    std::uint32_t level;
    const char* text;
  } kSteps[] = {
      {4, "Entered into CreateScheduleOnNodes"},
      {3, "Successfully created the schedule on localhost"},
      {3, "CreateScheduleOnNodes:original data length: 362"},
      {3, "CreateScheduleOnNodes:encrypted data length: 512"},
      {3, "CreateScheduleOnNodes:Successfully sent Registry information to 1 clients "},
      {4, "Exited from CreateScheduleOnNodes"},
  };
  m_log.Clear();
  SCHEDULE_OBJECT schedule;
  m_results.assign(2, 77);
  ASSERT_EQ(m_operations.CreateScheduleOnNodes(m_self, schedule, m_id, 2, {u"127.0.0.2", u"localhost"}, m_results), 0u);
  for (const auto& step : kSteps) EXPECT_EQ(m_log.Count(step.level, step.text), 1) << step.text;
  m_log.Clear();
  EXPECT_EQ(Run(Which::kCreate, {u"localhost"}, 0), kStatusNoNodes);
  EXPECT_TRUE(m_log.Has(1, "CreateScheduleOnNodes:NodeCount is less than 1"));
  EXPECT_EQ(Run(Which::kCreate, {u"a"}), kStatusNoLocalhost);
  EXPECT_TRUE(m_log.Has(1, "CreateScheduleOnNodes:Invalid NodeNames: 'localhost' not exists in the list"));
  m_self.answer = 1;
  EXPECT_EQ(Run(Which::kCreate, {u"a", u"localhost"}), 1u);
  EXPECT_TRUE(m_log.Has(1, "CreateScheduleOnNodes:Failed to create the schedule on localhost"));
  m_self.answer = 0;
  platform::FreeSecurityPackage();
  EXPECT_EQ(Run(Which::kCreate, {u"a", u"localhost"}), 1u);
  EXPECT_TRUE(m_log.Has(1, "CreateScheduleOnNodes: secur32.dll has not been loaded"));
  EXPECT_TRUE(m_log.Has(1, "CreateScheduleOnNodes: failed to create schedule on far nodes"));
}

TEST_F(NodeOperations, ANameThatCannotBeConvertedIsPassedOver) {
  const struct {
    Operation operation;
    const char* detail;
    int call;
    const char* text;
  } kCases[] = {
      {Operation::kConvertText, "WideCharToMultiByte", 2, ":Failed to convert BSTR(NodeName) To char*(NodeName)."},
      {Operation::kAllocate, "tempNodeName", 1, ":Failed calloc(tempNodeName)"},
      {Operation::kConvertText, "WideCharToMultiByte", 3, ":Failed to convert BSTR(NodeName) to char*(NodeName)."},
  };
  for (const auto& c : kCases) {
    const FaultPlan plan = FaultPlan::FailCall(c.operation, c.call, 1113, platform::kOnce, c.detail);
    EXPECT_EQ(Run(Which::kDelete, {u"127.0.0.2", u"localhost", u"127.0.0.3"}), 1u);
    EXPECT_THAT(m_results, ElementsAre(1, 0, 0));
    EXPECT_TRUE(m_log.Has(1, std::string("DeleteScheduleOnNodes") + c.text));
  }
}

TEST_F(NodeOperations, AnArrayThatCannotBeAccessedIsItsCode) {
  for (const Which which : kAll) {
    {
      const FaultPlan plan = FaultPlan::FailCall(Operation::kArrayAccessData, 1, 0x8002000D);
      EXPECT_EQ(Run(which, {u"localhost"}), 0x8002000Du);
      EXPECT_TRUE(m_log.Has(1, Name(which) + ":Failed SafeArrayAccessData(ppsaHRES) with error = 8002000d"));
    }
    const FaultPlan plan = FaultPlan::FailCall(Operation::kArrayAccessData, 2, 0x8002000D);
    EXPECT_EQ(Run(which, {u"localhost"}), 0x8002000Du);
    EXPECT_TRUE(m_log.Has(1, Name(which) + ":Failed SafeArrayAccessData(ppsaNodeNames) with hr = 8002000d"));
  }
  EXPECT_EQ(Run(Which::kDelete, {u"localhost"}, 2), 0x80070057u);
  m_results.clear();
  EXPECT_EQ(m_operations.PerformOperationOnNodes(u"x", 1, {u"localhost"}, m_results), 0x80070057u);
}

TEST_F(NodeOperations, APeerStartedAnewIsReachedByTheNextCall) {
  ASSERT_EQ(Run(Which::kDelete, {u"127.0.0.2", u"localhost"}), 0u);
  WaitForChildren();
  // Another service with keys of its own takes the peer's place.
  CKeyManager keys;
  CListener second(keys);
  platform::Thread thread;
  ASSERT_EQ(platform::Thread::Start(
                "SocketThread", [&] { (void)second.SocketThread(0); }, thread),
            0u);
  ASSERT_TRUE(second.WaitForPort(testing::kLongestWait));
  m_operations.SetPort(second.Port());
  EXPECT_EQ(Run(Which::kDelete, {u"127.0.0.2", u"localhost"}), 0u);
  EXPECT_TRUE(m_log.Has(3, "ImportKey::Deleting older key to import new Key for node : 127.0.0.2\n"));
  ASSERT_TRUE(second.WaitForChildCount(0, testing::kLongestWait));
  second.Close();
}

TEST_F(NodeOperations, ALongBodyIsSentAndRefusedByThePeer) {
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bstrParameters = std::u16string(6000, u'x');
  m_results.assign(2, 77);
  EXPECT_EQ(m_operations.CreateScheduleOnNodes(m_self, schedule, m_id, 2, {u"127.0.0.2", u"localhost"}, m_results), 0u);
  EXPECT_THAT(m_results, ElementsAre(1, 0));
  EXPECT_THAT(m_log.texts(), Contains(HasSubstr("Large invalid message length received: 6")));
}

TEST_F(NodeOperations, TheConversationIsTokensKeysOperationAndAnswer) {
  testing::WireTap tap(m_listener.Port());
  m_operations.SetPort(tap.Port());
  ASSERT_EQ(Run(Which::kDelete, {u"127.0.0.1", u"localhost"}), 0u);
  const std::vector<testing::TappedMessage> messages = tap.Messages();
  struct Expected {
    bool fromInitiator;
    std::uint32_t type;
    std::size_t least, most;  // payload bytes
  };
  const Expected kExpected[] = {
      {true, MSG_CONTEXT_REQUEST, 60, 100},  {false, MSG_CONTEXT_REPLY, 120, 250},
      {true, MSG_CONTEXT_REQUEST, 250, 400}, {false, MSG_CONTEXT_REPLY, 9, 60},
      {true, MSG_PUBLIC_KEY, 276, 276},      {false, MSG_PUBLIC_KEY, 276, 276},
      {true, MSG_DELETE, 256, 256},          {false, MSG_DELETE | ACK_FLAG, 256, 256},
  };
  ASSERT_EQ(messages.size(), std::size(kExpected));
  for (std::size_t i = 0; i < messages.size(); ++i) {
    const testing::TappedMessage& message = messages[i];
    EXPECT_EQ(message.fromInitiator, kExpected[i].fromInitiator) << i;
    EXPECT_EQ(message.decoded.msgType, kExpected[i].type) << i;
    EXPECT_GE(message.payload.size(), kExpected[i].least) << i;
    EXPECT_LE(message.payload.size(), kExpected[i].most) << i;
    EXPECT_EQ(message.decoded.scheduleId, m_id) << i;
    if (getenv("QX_SHOW_WIRE") != nullptr) {
      std::printf("%c %s\n  %s\n", message.fromInitiator ? '>' : '<', testing::Hex(message.header).c_str(),
                  testing::Hex(message.payload).c_str());
    }
  }
  // Nothing of the body or of the answer crosses readably.
  const std::string_view cipher(reinterpret_cast<const char*>(messages[6].payload.data()), 256);
  EXPECT_EQ(cipher.find("QxSched"), std::string_view::npos);
}

TEST_F(NodeOperations, TheChannelIsTheWayOfTheServicesObject) {
  CNodeChannel channel;
  channel.SetPort(m_listener.Port());
  m_service.SetNodes(&channel);
  m_results.assign(2, 77);
  ScheduleGuid id;
  ASSERT_EQ(m_service.CreateScheduleOnNodes(Daily(), id, 2, {u"localhost", u"127.0.0.2"}, m_results), 0u);
  EXPECT_THAT(m_results, ElementsAre(0, 0));
  EXPECT_THAT(ListedIds(), ElementsAre(Text(id)));
  WaitForChildren();
  ASSERT_EQ(m_service.DeleteScheduleOnNodes(id, 2, {u"localhost", u"127.0.0.2"}, m_results), 0u);
  EXPECT_FALSE(HasKey(id));
  m_service.SetNodes(nullptr);
  EXPECT_EQ(m_service.PerformOperationOnNodes(u"x", 1, {u"localhost"}, m_results), kStatusNotSupported);
}

TEST_F(NodeOperations, TheChannelRefusesACredentialsFileForAsLongAsOthersMayReadIt) {
  ASSERT_EQ(chmod(m_credentialsFile.c_str(), 0644), 0);
  unsetenv("NTLM_USER_FILE");
  CNodeChannel channel;
  platform::ErrorCode code = 0;
  EXPECT_EQ(channel.LoadSecurityLibrary(code), INodeChannel::Security::kLoaded);
  EXPECT_TRUE(m_log.Has(0, "LoadSecurityLibrary: the credentials file is not used: " + m_credentialsFile +
                               " can be read or written by others (its mode must be 0600)"));
  EXPECT_EQ(Run(Which::kDelete, {u"localhost", u"127.0.0.2"}), 1u);
  EXPECT_TRUE(m_log.Has(1, "DeleteScheduleOnNodes: AcquireCredentialsHandle failed. Error 0x8009030e."));
  EXPECT_TRUE(m_log.Has(1, "AcquireCredHandle: the security package says: " + m_credentialsFile +
                               " can be read or written by others (its mode must be 0600)"));
  EXPECT_TRUE(m_log.Has(1, "AcquireCredHandle: no credentials file and no keytab: NTLM_USER_FILE is " +
                               m_credentialsFile + ", KRB5_CLIENT_KTNAME is not set"));
  ASSERT_EQ(chmod(m_credentialsFile.c_str(), 0600), 0);
  EXPECT_EQ(Run(Which::kDelete, {u"localhost", u"127.0.0.2"}), 0u);
}

}  // namespace
}  // namespace qx

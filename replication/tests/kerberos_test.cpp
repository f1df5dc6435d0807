// The channel in a realm: a KDC of the test's own on loopback, thrown away at the end.
#include <sys/stat.h>

#include <cstdlib>
#include <memory>

#include "platform/process.h"
#include "platform/service_record.h"
#include "replication/node_operations.h"
#include "replication/tests/replication_fixture.h"
#include "replication/tests/throwaway_realm.h"
#include "replication/tests/wire_tap.h"
#include "service/service_registration.h"

namespace qx {
namespace {

using testing::Bytes;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class Realm : public testing::ReplicationFixture {
 protected:
  static void SetUpTestSuite() {
    if (!testing::ThrowawayRealm::WhyNot().empty()) return;
    s_realm = std::make_unique<testing::ThrowawayRealm>(
        testing::ThrowawayRealm::Place{"127.0.0.1", FreePort(), "", true}, [](const std::vector<std::string>& words) {
          std::string line;
          for (const std::string& word : words) line += (line.empty() ? "" : " ") + ("\"" + word + "\"");
          std::uint32_t code = 77;
          EXPECT_EQ(platform::RunAndWait(line, code), 0u);
          return static_cast<int>(code);
        });
  }
  static void TearDownTestSuite() { s_realm.reset(); }
  void SetUp() override {
    ASSERT_EQ(testing::ThrowawayRealm::WhyNot(), "");
    ASSERT_TRUE(s_realm && *s_realm);
    ReplicationFixture::SetUp();
    SetVariables();
    setenv("NTLM_USER_FILE", "/dev/null", 1);  // the realm alone
    (void)platform::DeleteServiceRecord(kServiceName);
    platform::ServiceRecord record;
    record.binaryPath = u"\"/x\"";
    record.account = u"qxsvc";
    ASSERT_EQ(platform::CreateServiceRecord(kServiceName, record), 0u);
    Listen();
  }
  void TearDown() override {
    if (!s_realm || !*s_realm) return;
    ReplicationFixture::TearDown();
    for (const char* name : {"KRB5_KTNAME", "KRB5_CLIENT_KTNAME", "KRB5RCACHEDIR"}) unsetenv(name);
  }
  static void SetVariables() {
    for (const std::string& assignment : s_realm->Variables(s_realm->Keytab(), s_realm->Folder())) {
      const std::size_t equals = assignment.find('=');
      setenv(assignment.substr(0, equals).c_str(), assignment.c_str() + equals + 1, 1);
    }
  }
  static std::uint16_t FreePort() {
    platform::ListeningSocket probe;
    std::vector<platform::SocketAddress> any;
    EXPECT_EQ(platform::ResolveAddress("127.0.0.1", "0", platform::AddressFamily::kIpv4, true, any), 0);
    EXPECT_EQ(probe.Create(platform::AddressFamily::kIpv4), 0);
    EXPECT_EQ(probe.Bind(any[0]), 0);
    return probe.Port();
  }
  static inline std::unique_ptr<testing::ThrowawayRealm> s_realm;
};

TEST_F(Realm, AnOperationIsCarriedWithTheRealmsTickets) {
  testing::WireTap tap(m_listener.Port());
  CNodeOperations operations(testing::OwnKeys());
  operations.SetPort(tap.Port());
  NodeResults results(2, 77);
  ASSERT_EQ(operations.PerformOperationOnNodes(u"/bin/true", 2, {u"localhost", u"127.0.0.1"}, results), 0u)
      << ::testing::PrintToString(m_log.texts(1));
  EXPECT_THAT(results, ElementsAre(1, 0));
  const auto messages = tap.Messages();
  ASSERT_EQ(messages.size(), 6u);  // one token each way
  EXPECT_EQ(messages[0].decoded.msgType, MSG_CONTEXT_REQUEST);
  EXPECT_GT(messages[0].payload.size(), 400u);
  EXPECT_EQ(messages[1].decoded.msgType, MSG_CONTEXT_REPLY);
  // The account has a full name here, and that is the target.
  EXPECT_FALSE(m_log.Has(1, "createContext: GetUserNameExW failed. Error 0x534."));
}

TEST_F(Realm, ACredentialsFileThatOthersMayReadKeepsNoCallerOfTheRealmOut) {
  setenv("NTLM_USER_FILE", m_credentialsFile.c_str(), 1);
  ASSERT_EQ(chmod(m_credentialsFile.c_str(), 0644), 0);
  CNodeOperations operations(testing::OwnKeys());
  operations.SetPort(m_listener.Port());
  NodeResults results(2, 77);
  ASSERT_EQ(operations.PerformOperationOnNodes(u"/bin/true", 2, {u"localhost", u"127.0.0.1"}, results), 0u)
      << ::testing::PrintToString(m_log.texts(1));
  EXPECT_THAT(results, ElementsAre(1, 0));
}

TEST_F(Realm, TheAccountIsThePrincipal) {
  platform::SecurityCredentials credentials;
  ASSERT_EQ(getLuidForProc(credentials, platform::CredentialsUse::kOutbound), 0u);
  EXPECT_TRUE(credentials.UsesRealm());
  std::u16string name;
  EXPECT_EQ(credentials.UserName(259, name), 0u);
  EXPECT_EQ(name, u"qxsvc@QX.TEST");
  EXPECT_EQ(credentials.UserName(5, name), platform::ERROR_MORE_DATA);
}

TEST_F(Realm, CredentialsAreKeptFromOneOperationToTheNext) {
  CNodeOperations operations(testing::OwnKeys());
  operations.SetPort(m_listener.Port());
  const platform::FaultPlan plan =
      platform::FaultPlan::FailCall(platform::Operation::kAcquireCredentials, 1 << 30, 1, platform::kOnce, "anew");
  for (int i = 0; i < 50; ++i) {
    NodeResults results(2, 77);
    ASSERT_EQ(operations.PerformOperationOnNodes(u"/bin/true", 2, {u"localhost", u"127.0.0.1"}, results), 0u) << i;
    WaitForChildren();
  }
  EXPECT_EQ(plan.calls(), 2);
}

TEST_F(Realm, ANodeWithAnotherKeyRefuses) {
  platform::SecurityCredentials outbound;
  ASSERT_EQ(getLuidForProc(outbound, platform::CredentialsUse::kOutbound), 0u);
  setenv("KRB5_KTNAME", s_realm->OldKeytab().c_str(), 1);
  Caller caller;
  Call(caller, NewId());
  EXPECT_EQ(createContext(caller.socket, outbound, caller.context, caller.id), 1);
  caller.socket.Close();
  WaitForChildren();
  EXPECT_THAT(m_log.texts(), Contains(HasSubstr("acceptContext: AcceptSecurityContext Failed with error : 0x8009030")));
}

TEST_F(Realm, AnAnonymousCallerPassesTheTokensAndIsRefusedAsANullSession) {
  const std::string cache = "FILE:" + s_realm->Folder() + "/anonymous";
  std::uint32_t code = 77;
  ASSERT_EQ(platform::RunAndWait("/usr/bin/kinit -n -c " + cache + " @QX.TEST", code), 0u);
  ASSERT_EQ(code, 0u) << "no anonymous ticket";
  setenv("KRB5CCNAME", cache.c_str(), 1);
  unsetenv("KRB5_CLIENT_KTNAME");
  Caller caller;
  Call(caller, NewId());
  ASSERT_EQ(getLuidForProc(caller.credentials, platform::CredentialsUse::kOutbound), 0u);
  Bytes token;
  ASSERT_EQ(caller.context.Initialize(caller.credentials, u"qxsvc@QX.TEST", platform::ISC_REQ_CONFIDENTIALITY, {},
                                      kMaxTokenSize, token),
            platform::SEC_I_CONTINUE_NEEDED)
      << testing::Narrow(platform::LastSecurityErrorText());
  caller.SendBytes(Message(MSG_CONTEXT_REQUEST, static_cast<std::uint32_t>(token.size()), caller.id));
  caller.SendBytes(token);
  Bytes header(kWireHeaderSize);
  ASSERT_EQ(Receive(caller.socket, header.data(), header.size()), 1) << "the tokens were refused";
  MessageHeader reply;
  ASSERT_EQ(DecodeHeader(ConstWireHeader(header), reply), 1);
  Bytes answer(reply.msgLen);
  ASSERT_EQ(Receive(caller.socket, answer.data(), answer.size()), 1);
  EXPECT_TRUE(caller.IsClosed());
  WaitForChildren();
  EXPECT_TRUE(m_log.Has(1, "acceptContext: NULL Session Logon"));
  EXPECT_TRUE(m_log.Has(1, "ChildSocketThread: acceptContext returned with error ox1"));
}

}  // namespace
}  // namespace qx

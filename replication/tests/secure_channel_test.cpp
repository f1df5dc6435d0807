#include "replication/secure_channel.h"

#include <cerrno>
#include <filesystem>
#include <optional>
#include <thread>

#include "replication/tests/replication_fixture.h"

namespace qx {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using platform::FaultPlan;
using platform::Operation;
using platform::SecurityContext;
using platform::SecurityCredentials;
using testing::Bytes;
using testing::BytesOf;
using testing::ScriptedConnection;

constexpr ScheduleGuid kChannelId = platform::GuidConstant(u"{0123ABCD-4567-89AB-CDEF-001122334455}");

class SecureChannel : public testing::ReplicationFixture {
 protected:
  static SecurityCredentials Credentials(platform::CredentialsUse use) {
    SecurityCredentials credentials;
    EXPECT_EQ(getLuidForProc(credentials, use), 0u);
    return credentials;
  }
  // Both sides over a real connection.
  void Exchange(int& initiator, int& acceptor, SecurityContext& mine, SecurityContext& theirs) {
    platform::ListeningSocket listener;
    std::vector<platform::SocketAddress> addresses;
    ASSERT_EQ(platform::ResolveAddress("127.0.0.1", "0", platform::AddressFamily::kIpv4, true, addresses), 0);
    ASSERT_EQ(listener.Create(platform::AddressFamily::kIpv4), 0);
    ASSERT_EQ(listener.Bind(addresses[0]), 0);
    ASSERT_EQ(listener.Listen(1), 0);
    platform::Socket client, server;
    Connect(listener.Port(), client);
    ASSERT_EQ(listener.Accept(server), 0);
    const SecurityCredentials inbound = Credentials(platform::CredentialsUse::kInbound);
    const SecurityCredentials outbound = Credentials(platform::CredentialsUse::kOutbound);
    std::thread peer([&] {
      acceptor = acceptContext(server, inbound, theirs);
      server.Close();
    });
    initiator = createContext(client, outbound, mine, kChannelId);
    client.Close();
    peer.join();
  }
};

TEST_F(SecureChannel, TwoServicesOfOneSecretAgree) {
  int initiator = 7, acceptor = 7;
  SecurityContext mine, theirs;
  Exchange(initiator, acceptor, mine, theirs);
  EXPECT_EQ(initiator, 0);
  EXPECT_EQ(acceptor, 0);
  EXPECT_TRUE(mine);
  EXPECT_EQ(theirs.PeerName(), u"CLUSTER\\qxsvc");
  for (const char* text : {"createContext: Entered", "createContext: Exited", "acceptContext: Entered",
                           "acceptContext: Exited"}) {
    EXPECT_EQ(m_log.Count(4, text), 1) << text;
  }
  // Credentials of a file have no distinguished name, and the target stays as it is.
  EXPECT_EQ(m_log.Count(1, "createContext: GetUserNameExW failed. Error 0x534."), 1);
}

TEST_F(SecureChannel, AFailureOfThePackageEndsBothSides) {
  const struct {
    Operation operation;
    int call;
    std::uint32_t code;
    const char* text;
    bool acceptorAlone;
  } kCases[] = {
      {Operation::kInitializeSecurityContext, 1, 0x80090304,
       "createContext: InitializeSecurityContext Failed with error : 0x80090304", false},
      {Operation::kInitializeSecurityContext, 2, 0x80090308,
       "createContext: InitializeSecurityContext Failed with error : 0x80090308", false},
      {Operation::kAcceptSecurityContext, 2, 0x8009030C,
       "acceptContext: AcceptSecurityContext Failed with error : 0x8009030c", false},
      {Operation::kImpersonateContext, 1, 0x80090301, "acceptContext: Impersonation failed 0x80090301", true},
      {Operation::kAllocateSid, 1, 5, "acceptContext: SID initialization failed. Error 0x5.", true},
      {Operation::kCheckTokenMembership, 1, 1008, "acceptContext: Cannot verify token membership. Error 0x3f0.", true},
  };
  for (const auto& c : kCases) {
    m_log.Clear();
    int initiator = 7, acceptor = 7;
    SecurityContext mine, theirs;
    {
      const FaultPlan plan = FaultPlan::FailCall(c.operation, c.call, c.code);
      Exchange(initiator, acceptor, mine, theirs);
    }
    EXPECT_EQ(initiator, c.acceptorAlone ? 0 : 1) << c.text;
    EXPECT_EQ(acceptor, 1) << c.text;
    EXPECT_FALSE(theirs) << c.text;
    EXPECT_EQ(static_cast<bool>(mine), c.acceptorAlone) << c.text;
    EXPECT_THAT(m_log.texts(), Contains(c.text));
    EXPECT_THAT(m_log.texts(), Contains("acceptContext: Exited"));
  }
}

// A status that this host's package never gives: it is told for one pass of either side.
TEST_F(SecureChannel, ATokenThatIsToBeCompletedIsCompletedOrFailsWithItsLine) {
  constexpr std::uint32_t kContinue = platform::SEC_I_COMPLETE_AND_CONTINUE;
  constexpr std::uint32_t kLast = platform::SEC_I_COMPLETE_NEEDED;
  const struct {
    int line;
    Operation operation;
    int pass;
    std::uint32_t status;
    const char* text;  // of a failed completion
  } kCases[] = {
      {__LINE__, Operation::kInitializeSecurityContext, 1, kContinue,
       "createContext: CompleteAuthToken failed. Error 0x80090308"},
      {__LINE__, Operation::kInitializeSecurityContext, 3, kLast,
       "createContext: CompleteAuthToken failed. Error 0x80090308"},
      {__LINE__, Operation::kAcceptSecurityContext, 1, kContinue,
       "acceptContext: CompleteAuthToken failed. Error 0x80090308"},
      {__LINE__, Operation::kAcceptSecurityContext, 2, kLast,
       "acceptContext: CompleteAuthToken failed. Error 0x80090308"},
  };
  for (const auto& c : kCases) {
    for (const bool fails : {false, true}) {
      m_log.Clear();
      int initiator = 7, acceptor = 7, passes = 0, completions = 0;
      SecurityContext mine, theirs;
      {
        const FaultPlan plan = FaultPlan::Ask([&](int, Operation operation, std::string_view) -> platform::ErrorCode {
          if (operation == c.operation && ++passes == c.pass) return c.status;
          if (operation != Operation::kCompleteAuthToken) return 0;
          ++completions;
          return fails ? platform::SEC_E_INVALID_TOKEN : 0;
        });
        Exchange(initiator, acceptor, mine, theirs);
      }
      EXPECT_EQ(completions, 1) << c.line;
      const bool failsHere = fails && c.operation == Operation::kInitializeSecurityContext;
      const bool failsThere = fails && c.operation == Operation::kAcceptSecurityContext;
      if (!fails) {
        EXPECT_EQ(initiator, 0) << c.line;
        EXPECT_EQ(acceptor, 0) << c.line;
      }
      if (failsHere) {
        EXPECT_EQ(initiator, 1) << c.line;
        EXPECT_FALSE(mine) << c.line;
      }
      if (failsThere) {
        EXPECT_EQ(acceptor, 1) << c.line;
        EXPECT_FALSE(theirs) << c.line;
      }
      EXPECT_EQ(m_log.Count(1, c.text), fails ? 1 : 0) << c.line;
    }
  }
}

TEST_F(SecureChannel, AWrongSecretIsRefusedByThePeer) {
  platform::SecurityCredentials outbound = Credentials(platform::CredentialsUse::kOutbound);
  // The acceptor alone reads its secret during the exchange; the initiator's stays in its credentials.
  ASSERT_TRUE(std::filesystem::remove(m_credentialsFile));
  ASSERT_EQ(platform::MakeCredentialsFile(m_credentialsFile, "CLUSTER", "qxsvc"), 0u);
  Listen();
  Caller caller;
  Call(caller, kChannelId);
  EXPECT_EQ(createContext(caller.socket, outbound, caller.context, kChannelId), 1);
  caller.socket.Close();
  WaitForChildren();
  EXPECT_THAT(m_log.texts(), Contains("acceptContext: AcceptSecurityContext Failed with error : 0x8009030c"));
  EXPECT_THAT(m_log.texts(), Contains(HasSubstr("acceptContext: the security package says: ")));
  EXPECT_THAT(m_log.texts(), Contains("ChildSocketThread: acceptContext returned with error ox1"));
}

TEST_F(SecureChannel, AnEmptyFirstTokenGoesToThePackage) {
  ScriptedConnection connection;
  connection.Gives(Message(MSG_CONTEXT_REQUEST, 0, kChannelId));
  SecurityContext context;
  EXPECT_EQ(acceptContext(connection, Credentials(platform::CredentialsUse::kInbound), context), 1);  // no second one
  ASSERT_GT(connection.sent.size(), kWireHeaderSize);
  MessageHeader header;
  ASSERT_EQ(DecodeHeader(ConstWireHeader(std::span(connection.sent).first(kWireHeaderSize)), header), 1);
  EXPECT_EQ(header.msgType, MSG_CONTEXT_REPLY);
  EXPECT_EQ(header.msgLen, connection.sent.size() - kWireHeaderSize);
  EXPECT_EQ(header.scheduleId, kChannelId);
}

TEST_F(SecureChannel, AReplyWhoseTokenCannotBeSentFailsAndOneWithoutItsHeaderGoesUnnoticed) {
  for (const bool header : {true, false}) {
    m_log.Clear();
    ScriptedConnection connection;
    connection.Gives(Message(MSG_CONTEXT_REQUEST, 0, kChannelId));
    connection.sendErrors = {header ? EPIPE : 0, EPIPE};
    SecurityContext context;
    EXPECT_EQ(acceptContext(connection, Credentials(platform::CredentialsUse::kInbound), context), 1);
    EXPECT_FALSE(context);
    EXPECT_EQ(m_log.Count(1, "acceptContext: Failed sendMessage"), header ? 0 : 1);
    // The next request is waited for, and the token of a header that wasn't sent stays.
    EXPECT_EQ(m_log.Count(1, "acceptContext: Failed to receive header of context"), header ? 1 : 0);
    EXPECT_EQ(connection.sends, header ? 1 : 2);
  }
}

TEST_F(SecureChannel, TheAcceptorRefusesWhatIsNoToken) {
  Bytes badHeader = Message(MSG_CONTEXT_REQUEST, 3);
  badHeader[12] = 'x';
  const struct {
    const char* text;
    std::function<void(ScriptedConnection&)> script;
  } kCases[] = {
      {"acceptContext: Failed to receive header of context", [](auto& c) { c.Gives(BytesOf("short")); }},
      {"acceptContext: Decode Header failed", [&](auto& c) { c.Gives(badHeader); }},
      {"acceptContext: Invalid message type : 32", [](auto& c) { c.Gives(Message(32, 3)).Gives(BytesOf("abc")); }},
      {"acceptContext: Invalid message type : 1", [](auto& c) { c.Gives(Message(1, 3)); }},
      {"acceptContext: Invalid message length : 12001", [](auto& c) { c.Gives(Message(16, 12001)).Gives(Bytes(12001)); }},
      {"acceptContext: Invalid message length : -1", [](auto& c) { c.Gives(Message(16, 0xFFFFFFFF)); }},
      {"acceptContext: Receive context information failed", [](auto& c) { c.Gives(Message(16, 3)).Gives(BytesOf("ab")); }},
      {"acceptContext: AcceptSecurityContext Failed with error : 0x80090308",
       [](auto& c) { c.Gives(Message(16, 12000)).Gives(Bytes(12000, 'A')); }},
  };
  for (const auto& c : kCases) {
    m_log.Clear();
    ScriptedConnection connection;
    c.script(connection);
    SecurityContext context;
    EXPECT_EQ(acceptContext(connection, Credentials(platform::CredentialsUse::kInbound), context), 1) << c.text;
    EXPECT_FALSE(context);
    EXPECT_TRUE(connection.sent.empty()) << c.text;
    EXPECT_THAT(m_log.texts(), Contains(c.text));
  }
}

TEST_F(SecureChannel, ATokenTooLongIsRefusedBeforeItIsRead) {
  ScriptedConnection connection;
  connection.Gives(Message(16, 12001)).Gives(BytesOf("unread"));
  SecurityContext context;
  EXPECT_EQ(acceptContext(connection, Credentials(platform::CredentialsUse::kInbound), context), 1);
  EXPECT_EQ(connection.steps.size(), 1u);
  ScriptedConnection reply;
  reply.Gives(Message(32, 12001)).Gives(BytesOf("unread"));
  EXPECT_EQ(createContext(reply, Credentials(platform::CredentialsUse::kOutbound), context, kChannelId), 1);
  EXPECT_EQ(reply.steps.size(), 1u);
  EXPECT_THAT(m_log.texts(), Contains("createContext: received header with wrong message length: 12001"));
}

TEST_F(SecureChannel, TheInitiatorRefusesWhatIsNoReply) {
  Bytes badHeader = Message(MSG_CONTEXT_REPLY, 3);
  badHeader[12] = 'x';
  const struct {
    const char* text;
    std::function<void(ScriptedConnection&)> script;
  } kCases[] = {
      {"createContext: Receive Failed", [](auto&) {}},
      {"createContext: DecodeHeader Failed", [&](auto& c) { c.Gives(badHeader); }},
      {"createContext: received header with wrong message type: 0x200", [](auto& c) { c.Gives(Message(512, 3)); }},
      {"createContext: Receive contextFailed", [](auto& c) { c.Gives(Message(32, 3)).Gives(BytesOf("ab")); }},
      {"createContext: InitializeSecurityContext Failed with error : 0x80090308",
       [](auto& c) { c.Gives(Message(32, 3)).Gives(BytesOf("abc")); }},
      {"createContext: Failed sendMessage", [](auto& c) { c.sendErrors = {0, EPIPE}; }},
      // A header that can't be sent goes unnoticed: the wait for the reply ends it.
      {"createContext: Receive Failed", [](auto& c) { c.sendErrors = {EPIPE}; }},
  };
  for (const auto& c : kCases) {
    m_log.Clear();
    ScriptedConnection connection;
    c.script(connection);
    SecurityContext context;
    EXPECT_EQ(createContext(connection, Credentials(platform::CredentialsUse::kOutbound), context, kChannelId), 1)
        << c.text;
    EXPECT_FALSE(context) << c.text;
    EXPECT_THAT(m_log.texts(), Contains(c.text));
    EXPECT_EQ(m_log.Count(4, "createContext: Exited"), 1);
  }
}

TEST_F(SecureChannel, RefusedMemoryAndHeadersAreTold) {
  const struct {
    Operation operation;
    const char* detail;
    const char* text;
    bool initiator;
  } kCases[] = {
      {Operation::kAllocate, "createContext token", "createContext: memory allocation failed", true},
      {Operation::kAllocate, "createContext output", nullptr, true},
      {Operation::kConvertText, "WideCharToMultiByte", "createContext:Failed to Encode Header to be send", true},
      {Operation::kAllocate, "acceptContext token", "acceptContext: Failed to allocate memory", false},
      {Operation::kAllocate, "acceptContext output", "acceptContext: Failed to allocate memory", false},
      {Operation::kConvertText, "WideCharToMultiByte", "acceptContext:Failed to Encode Header to be send", false},
  };
  for (const auto& c : kCases) {
    m_log.Clear();
    ScriptedConnection connection;
    const bool encodes = c.operation == Operation::kConvertText;
    connection.Gives(Message(c.initiator ? 32u : 16u, encodes ? 0 : 3)).Gives(BytesOf("abc"));
    const SecurityCredentials credentials =
        Credentials(c.initiator ? platform::CredentialsUse::kOutbound : platform::CredentialsUse::kInbound);
    SecurityContext context;
    const FaultPlan plan = FaultPlan::FailCall(c.operation, 1, 8, platform::kOnce, c.detail);
    EXPECT_EQ(c.initiator ? createContext(connection, credentials, context, kChannelId)
                          : acceptContext(connection, credentials, context),
              1);
    EXPECT_EQ(plan.hits(), 1) << c.detail;
    if (c.text != nullptr) {
      EXPECT_THAT(m_log.texts(), Contains(c.text));
    }
  }
}

TEST_F(SecureChannel, CredentialsFailWithTheirReason) {
  const struct {
    Operation operation;
    int call;
    const char* detail;
    const char* text;
    std::uint32_t result;
  } kCases[] = {
      {Operation::kOpenProcessToken, 1, "",
       "getLuidForProc: Couldn't retrieve handle for the process's access token: 0x00000005", 0x80090304},
      {Operation::kGetTokenInformation, 1, "",
       "getLuidForProc: Couldn't get the required buffer size value for token privileges: 0x00000005", 0x80090304},
      {Operation::kAllocate, 1, "getLuidForProc", "getLuidForProc: Failed to allocate memory", 0x80090304},
      {Operation::kGetTokenInformation, 2, "",
       "getLuidForProc: Couldn't retrieve the token privileges: 0x00000005", 0x80090304},
      {Operation::kAcquireCredentials, 1, "", "AcquireCredHandle: AcquireCredentialsHandle failed. Error 0x5.", 5},
  };
  for (const auto& c : kCases) {
    m_log.Clear();
    SecurityCredentials credentials;
    const FaultPlan plan = FaultPlan::FailCall(c.operation, c.call, 5, platform::kOnce, c.detail);
    EXPECT_EQ(getLuidForProc(credentials, platform::CredentialsUse::kInbound), c.result) << c.text;
    EXPECT_THAT(m_log.texts(), Contains(c.text));
    EXPECT_EQ(m_log.Count(1, "acquireCredentialHandle: Failed to get LUID"), c.result == 5 ? 0 : 1);
    EXPECT_FALSE(credentials);
  }
}

}  // namespace
}  // namespace qx

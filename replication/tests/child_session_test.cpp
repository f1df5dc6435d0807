#include "replication/child_session.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <thread>

#include "replication/tests/replication_fixture.h"

namespace qx {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using platform::FaultPlan;
using platform::Operation;
using testing::Bytes;
using testing::BytesOf;

// What a child does on this node, without a wire.
class CarryOut : public testing::ReplicationFixture {
 protected:
  std::u16string Body(std::uint32_t type, const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule = {}) {
    std::u16string xml;
    EXPECT_NE(type == MSG_DELETE ? CreateXMLString(id, type, xml) : CreateXMLString(schedule, id, type, xml), 0u);
    return xml;
  }
  static MessageHeader Header(std::uint32_t type, const ScheduleGuid& id) { return {0, type, 0, id}; }
};

TEST_F(CarryOut, ACreationWritesTheRegistryPartAlone) {
  const ScheduleGuid id = NewId();
  const SCHEDULE_OBJECT schedule = Daily();
  std::uint32_t result = 7;
  ASSERT_TRUE(CarryOutOperation(Header(MSG_CREATE, id), Body(MSG_CREATE, id, schedule), result));
  EXPECT_EQ(result, 0u);
  SCHEDULE_OBJECT stored;
  ASSERT_EQ(ReadRegistry(id, stored), 0u);
  EXPECT_EQ(stored.bstrWrapperBinaryName, schedule.bstrWrapperBinaryName);
  EXPECT_EQ(stored.bstrObjectID, schedule.bstrObjectID);
  EXPECT_EQ(stored.dwTaskOpCode, schedule.dwTaskOpCode);
  EXPECT_TRUE(m_sink->heard.empty());
  EXPECT_TRUE(ListedIds().empty());
  EXPECT_FALSE(std::filesystem::exists(IniFile(id)));
  EXPECT_TRUE(m_log.Has(3, "ChildSocketThread: Requested to create the registry entries of the schedule " + Text(id)));
}

TEST_F(CarryOut, ACreationOfWhatIsThereWritesNothing) {
  const ScheduleGuid id = NewId();
  std::uint32_t result = 7;
  ASSERT_TRUE(CarryOutOperation(Header(MSG_CREATE, id), Body(MSG_CREATE, id, Daily()), result));
  SCHEDULE_OBJECT other = Daily();
  other.bstrParameters = u"other";
  ASSERT_TRUE(CarryOutOperation(Header(MSG_CREATE, id), Body(MSG_CREATE, id, other), result));
  EXPECT_EQ(result, 0u);
  SCHEDULE_OBJECT stored;
  ASSERT_EQ(ReadRegistry(id, stored), 0u);
  EXPECT_EQ(stored.bstrParameters, u"");
}

TEST_F(CarryOut, AModificationAndADeletionChangeTheRegistry) {
  const ScheduleGuid id = NewId();
  std::uint32_t result = 7;
  ASSERT_TRUE(CarryOutOperation(Header(MSG_CREATE, id), Body(MSG_CREATE, id, Daily()), result));
  SCHEDULE_OBJECT other = Daily();
  other.bstrParameters = u"other";
  ASSERT_TRUE(CarryOutOperation(Header(MSG_MODIFY, id), Body(MSG_MODIFY, id, other), result));
  EXPECT_EQ(result, 0u);
  SCHEDULE_OBJECT stored;
  ASSERT_EQ(ReadRegistry(id, stored), 0u);
  EXPECT_EQ(stored.bstrParameters, u"other");
  EXPECT_TRUE(m_log.Has(3, "SocketThread: Requested to modify the registry entries of the schedule " + Text(id)));
  other.dwTaskOpCode = 99;  // never changes
  ASSERT_TRUE(CarryOutOperation(Header(MSG_MODIFY, id), Body(MSG_MODIFY, id, other), result));
  EXPECT_EQ(result, kStatusImmutable);
  ASSERT_TRUE(CarryOutOperation(Header(MSG_DELETE, id), Body(MSG_DELETE, id), result));
  EXPECT_EQ(result, 0u);
  EXPECT_FALSE(HasKey(id));
  EXPECT_TRUE(m_log.Has(3, "ChildSocketThread: Requested to deleted the registry entries of the schedule " + Text(id)));
}

TEST_F(CarryOut, AModificationOrDeletionOfAnUnknownScheduleIsDone) {
  const ScheduleGuid id = NewId();
  for (const std::uint32_t type : {MSG_DELETE, MSG_MODIFY}) {
    std::uint32_t result = 7;
    ASSERT_TRUE(CarryOutOperation(Header(type, id), Body(type, id, Daily()), result));
    EXPECT_EQ(result, 0u) << type;
    EXPECT_FALSE(HasKey(id));
  }
}

TEST_F(CarryOut, AnExistenceThatCannotBeSeenIsAFailure) {
  const ScheduleGuid id = NewId();
  for (const std::uint32_t type : {MSG_CREATE, MSG_DELETE, MSG_MODIFY}) {
    std::uint32_t result = 7;
    const FaultPlan plan = FaultPlan::FailCall(Operation::kRegOpenKey, 1, 5);
    ASSERT_TRUE(CarryOutOperation(Header(type, id), Body(type, id, Daily()), result));
    EXPECT_EQ(result, 1u) << type;
  }
}

TEST_F(CarryOut, AFailedStoreIsTheResult) {
  const ScheduleGuid id = NewId();
  std::uint32_t result = 7;
  const FaultPlan plan = FaultPlan::FailCall(Operation::kRegSetValue, 3, 112);
  ASSERT_TRUE(CarryOutOperation(Header(MSG_CREATE, id), Body(MSG_CREATE, id, Daily()), result));
  EXPECT_EQ(result, kStatusRegistryWrite);
}

TEST_F(CarryOut, ABodyThatDiffersFromItsHeaderIsDropped) {
  const ScheduleGuid id = NewId(), other = NewId();
  std::uint32_t result = 7;
  EXPECT_FALSE(CarryOutOperation(Header(MSG_CREATE, id), Body(MSG_CREATE, other, Daily()), result));
  EXPECT_FALSE(CarryOutOperation(Header(MSG_CREATE, id), Body(MSG_MODIFY, id, Daily()), result));
  EXPECT_FALSE(HasKey(id));
  EXPECT_FALSE(HasKey(other));
  EXPECT_TRUE(m_log.Has(1, "ChildSocketThread: Data modified, ID in header: " + Text(id) + ", in string: " + Text(other)));
  EXPECT_TRUE(m_log.Has(1, "ChildSocketThread: Data modified, msgType in header: 1, in string: 4"));
}

TEST_F(CarryOut, AnIdentifierInSmallLettersDiffers) {
  const ScheduleGuid id = platform::GuidConstant(u"{ABCDEF01-0000-0000-0000-000000000000}");
  std::u16string body = Body(MSG_DELETE, id);
  body.replace(body.find(u"ABCDEF01"), 8, u"abcdef01");
  std::uint32_t result = 7;
  EXPECT_FALSE(CarryOutOperation(Header(MSG_DELETE, id), body, result));
}

TEST_F(CarryOut, ABodyThatNoParserTakesIsAFailure) {
  const ScheduleGuid id = NewId();
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bstrXMLFilePathName = u"/tmp/a&b.xml";
  std::uint32_t result = 7;
  EXPECT_TRUE(CarryOutOperation(Header(MSG_CREATE, id), Body(MSG_CREATE, id, schedule), result));
  EXPECT_EQ(result, 1u);
  EXPECT_TRUE(CarryOutOperation(Header(MSG_DELETE, id), u"<Q></Q>", result));
  EXPECT_EQ(result, 1u);
  EXPECT_FALSE(HasKey(id));
}

TEST_F(CarryOut, ACommandRunsAndItsExitCodeIsOnlyLogged) {
  std::uint32_t result = 7;
  const std::string mark = m_folder + "/mark";
  ASSERT_TRUE(CarryOutOperation(Header(MSG_PERFORM, {}), u"<Q><OpData>/usr/bin/touch " + testing::Wide(mark) + u"/<OpData>",
                                result));
  EXPECT_EQ(result, 0u);
  EXPECT_TRUE(std::filesystem::exists(mark));
  ASSERT_TRUE(CarryOutOperation(Header(MSG_PERFORM, {}), u"<OpData>/bin/sh -c \"exit 5\"/<OpData>", result));
  EXPECT_EQ(result, 0u);
  EXPECT_TRUE(m_log.Has(3, "ChildSocketThread: RunCommand return code : 0x5"));
  EXPECT_TRUE(m_log.Has(3, "ChildSocketThread: wsData Command size : 19 "));
  ASSERT_TRUE(CarryOutOperation(Header(MSG_PERFORM, {}), u"<OpData>/no/such/program/<OpData>", result));
  EXPECT_EQ(result, 0x80070002u);
}

TEST_F(CarryOut, ABodyWithoutACommandIsAFailure) {
  std::uint32_t result = 7;
  ASSERT_TRUE(CarryOutOperation(Header(MSG_PERFORM, {}), u"<Q>%s</Q>", result));
  EXPECT_EQ(result, 1u);
  EXPECT_TRUE(m_log.Has(1, "ChildSocketThread: Did not find <OpData> in XML : <Q>%s</Q>"));
}

TEST(AckText, IsSignedDecimalFilledUpWithZeros) {
  EXPECT_EQ(testing::Hex(AckText(0)), "30" + std::string(42, '0'));
  Bytes expected = BytesOf("-2147220973");
  expected.resize(22);
  EXPECT_EQ(AckText(0x80040213), expected);
}

// A child at the end of a wire.
class ChildSession : public testing::ReplicationFixture {
 protected:
  void SetUp() override {
    ReplicationFixture::SetUp();
    Listen();
  }
};

TEST_F(ChildSession, CarriesOutAnOperationAndAnswers) {
  const ScheduleGuid id = NewId();
  const auto answer = Perform(MSG_CREATE, id, CreateBody(Daily(), id));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->type, MSG_CREATE | ACK_FLAG);
  EXPECT_EQ(answer->id, id);
  EXPECT_EQ(answer->result, 0u);
  EXPECT_EQ(answer->cipherSize, 256u);
  Bytes plain = BytesOf("0");
  plain.resize(kAckTextSize + 1);  // and the NUL of the decryption
  EXPECT_EQ(answer->text, plain);
  EXPECT_TRUE(HasKey(id));
  for (const char* text : {"ChildSocketThread: public key recevied from client",
                           "ChildSocketThread: Key exchanged sucesfully. Receiveing actual data header",
                           "Successfully sent the header of ACK", "ChildSocketThread: Successfully sent the ACK",
                           "Received FD_CLOSE event"}) {
    EXPECT_EQ(m_log.Count(3, text), 1) << text;
  }
  EXPECT_EQ(m_log.Count(6, "ChildSocketThread: closing the socket"), 1);
}

TEST_F(ChildSession, AnswersEachOperationWithItsType) {
  const ScheduleGuid id = NewId();
  ASSERT_TRUE(Perform(MSG_CREATE, id, CreateBody(Daily(), id)));
  EXPECT_EQ(Perform(MSG_MODIFY, id, CreateBody(Daily(), id, MSG_MODIFY))->type, 12u);
  EXPECT_EQ(Perform(MSG_DELETE, id, DeleteBody(id))->type, 10u);
  EXPECT_EQ(Perform(MSG_PERFORM, {}, PerformBody("/bin/true"))->type, 264u);
  EXPECT_FALSE(HasKey(id));
}

TEST_F(ChildSession, ACommandThatFailsIsAnsweredWithZero) {
  EXPECT_EQ(Perform(MSG_PERFORM, {}, PerformBody("/bin/sh -c \"exit 5\""))->result, 0u);
}

TEST_F(ChildSession, AnAmpersandIsAnsweredWithAFailedOperation) {
  const ScheduleGuid id = NewId();
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bstrXMLFilePathName = u"/tmp/a&b.xml";
  EXPECT_EQ(Perform(MSG_CREATE, id, CreateBody(schedule, id))->result, 1u);
}

TEST_F(ChildSession, ABodyOfAnotherScheduleGetsNoAnswer) {
  const ScheduleGuid id = NewId();
  EXPECT_FALSE(Perform(MSG_CREATE, id, CreateBody(Daily(), NewId())));
}

TEST_F(ChildSession, IllFormedUtf8IsWidenedBeforeItIsParsed) {
  const ScheduleGuid id = NewId();
  Bytes body = CreateBody(Daily(), id);
  const std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
  body[text.find("snapshot")] = 0xFF;
  EXPECT_EQ(Perform(MSG_CREATE, id, body)->result, 0u);
  SCHEDULE_OBJECT stored;
  ASSERT_EQ(ReadRegistry(id, stored), 0u);
  EXPECT_EQ(stored.bstrApplication, u"\uFFFDnapshot");
}

TEST_F(ChildSession, TakesAnOperationOf5120BytesAndRefuses5121) {
  for (const std::uint32_t size : {5120u, 5121u}) {
    m_log.Clear();
    Caller caller;
    Call(caller, NewId());
    caller.Authenticate();
    caller.ExchangeKeys();
    if (size == 5120) {
      Bytes body = CreateBody(Daily(), caller.id);
      body.resize(4900, ' ');
      caller.SendOperation(MSG_CREATE, body);
      ASSERT_EQ(m_log.Count(3, "Data sucessfully encrypted = 5120"), 1);
      EXPECT_EQ(caller.ReceiveAnswer()->result, 0u);
    } else {
      caller.SendBytes(Message(MSG_CREATE, size, caller.id));
      EXPECT_TRUE(caller.IsClosed());
      EXPECT_TRUE(m_log.Has(1, "ChildSocketThread: Large invalid message length received: 5121"));
    }
    caller.socket.Close();
    WaitForChildren();
  }
}

TEST_F(ChildSession, EndsAConnectionThatSaysSomethingElse) {
  const struct {
    const char* text;
    std::function<Bytes(const ScheduleGuid&)> afterKeys;
  } kCases[] = {
      {"ChildSocketThread: Invalid Message Type : 3", [](const auto& id) { return Message(3, 256, id); }},
      {"ChildSocketThread: Invalid Message Type : 512", [](const auto& id) { return Message(512, 276, id); }},
      {"ChildSocketThread: Invalid Message Type : 16", [](const auto& id) { return Message(16, 0, id); }},
      {"ChildSocketThread: Large invalid message length received: -1",
       [](const auto& id) { return Message(MSG_DELETE, 0xFFFFFFFF, id); }},
      {"ChildSocketThread: Decode Header failed",
       [](const auto& id) {
         Bytes bytes = Message(MSG_DELETE, 256, id);
         bytes[12] = '(';
         return bytes;
       }},
      {"ChildSocketThread:DecryptMsg failed",
       [](const auto& id) {
         Bytes bytes = Message(MSG_DELETE, 256, id);
         bytes.resize(bytes.size() + 256, 0x11);
         return bytes;
       }},
  };
  for (const auto& c : kCases) {
    m_log.Clear();
    Caller caller;
    Call(caller, NewId());
    caller.Authenticate();
    caller.ExchangeKeys();
    caller.SendBytes(c.afterKeys(caller.id));
    EXPECT_TRUE(caller.IsClosed()) << c.text;
    WaitForChildren();
    EXPECT_THAT(m_log.texts(), Contains(c.text));
  }
}

TEST_F(ChildSession, EndsAConnectionThatBreaksOff) {
  const struct {
    const char* text;
    std::function<void(Caller&)> act;
  } kCases[] = {
      {"ChildSocketThread: acceptContext returned with error ox1", [](Caller&) {}},
      {"ChildSocketThread: Failed to receive header", [](Caller& c) { c.Authenticate(); }},
      {"ChildSocketThread: Failed to receive header",
       [](Caller& c) {
         c.Authenticate();
         c.ExchangeKeys();
         c.SendBytes(BytesOf("half a header"));
       }},
      {"ChildSocketThread: Failed to receive data message",
       [](Caller& c) {
         c.Authenticate();
         c.ExchangeKeys();
         c.SendBytes(Message(MSG_DELETE, 256, c.id));
         c.SendBytes(BytesOf("part"));
       }},
  };
  for (const auto& c : kCases) {
    m_log.Clear();
    {
      Caller caller;
      Call(caller, NewId());
      c.act(caller);
    }
    EXPECT_TRUE(m_log.WaitFor(6, "ChildSocketThread: closing the socket"));
    WaitForChildren();
    EXPECT_THAT(m_log.texts(), Contains(c.text));
    EXPECT_EQ(m_log.Count(6, "ChildSocketThread: closing the socket"), 1) << c.text;
  }
}

TEST_F(ChildSession, APeerThatFallsSilentInAMessageIsGivenUpAfterSixtySeconds) {
  // Header and payload of two tokens, then the half of a header: the wait for the rest runs out at once.
  constexpr int kWaitForTheRest = 6;
  const std::thread::id caller = std::this_thread::get_id();
  int waits = 0;
  const FaultPlan plan = FaultPlan::Ask([&](int, Operation operation, std::string_view detail) -> platform::ErrorCode {
    if (operation != Operation::kSocketSelect || detail != "one" || std::this_thread::get_id() == caller) return 0;
    return ++waits == kWaitForTheRest ? platform::ERROR_TIMEOUT : 0;
  });
  Caller silent;
  Call(silent, NewId());
  silent.Authenticate();
  silent.SendBytes(BytesOf("half a header"));
  EXPECT_TRUE(silent.IsClosed());
  WaitForChildren();
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_TRUE(m_log.Has(1, "Receive: Did not receive any message for 60 secs, connection timed out."));
  EXPECT_TRUE(m_log.Has(1, "ChildSocketThread: Failed to receive header"));
}

// Fails a call of the child alone: the initiator's stand on the test's own thread.
FaultPlan FailTheChilds(Operation wanted, int call, platform::ErrorCode code) {
  return FaultPlan::Ask([=, caller = std::this_thread::get_id(), calls = 0](
                            int, Operation operation, std::string_view) mutable -> platform::ErrorCode {
    if (operation != wanted || std::this_thread::get_id() == caller) return 0;
    return ++calls == call ? code : 0;
  });
}

TEST_F(ChildSession, AKeyThatCannotBeSentIsLoggedAndTheOperationIsWaitedFor) {
  Caller earlier;
  Call(earlier, NewId());
  earlier.Authenticate();
  earlier.ExchangeKeys();  // for the peer's key
  earlier.socket.Close();
  WaitForChildren();
  Bytes blob;
  ASSERT_EQ(testing::OwnKeys().ExportPublicKey(blob), 1);
  // Behind header and payload of two tokens.
  const struct {
    int send;
    const char* text;
    std::size_t arrives;
  } kCases[] = {{5, "ChildSocketThread: Failed to send keyheader msgLen: 276", 0},
                {6, "ChildSocketThread: Failed to send key data msgLen: 276", kWireHeaderSize}};
  for (const auto& c : kCases) {
    m_log.Clear();
    const ScheduleGuid id = NewId();
    Caller caller;
    Call(caller, id);
    const FaultPlan plan = FailTheChilds(Operation::kSocketSend, c.send, EPIPE);
    caller.Authenticate();
    caller.SendBytes(Message(MSG_PUBLIC_KEY, static_cast<std::uint32_t>(blob.size()), id));
    caller.SendBytes(blob);
    Bytes reply(kWireHeaderSize);
    ASSERT_EQ(Receive(caller.socket, reply.data(), c.arrives), 1);
    caller.SendOperation(MSG_CREATE, CreateBody(Daily(), id));
    const auto answer = caller.ReceiveAnswer();
    ASSERT_TRUE(answer) << c.text;
    EXPECT_EQ(answer->result, 0u);
    EXPECT_TRUE(m_log.Has(1, c.text)) << c.text;
    caller.socket.Close();
    WaitForChildren();
  }
}

TEST_F(ChildSession, AnOwnKeyThatCannotBeHadEndsTheConnection) {
  Bytes blob;
  ASSERT_EQ(testing::OwnKeys().ExportPublicKey(blob), 1);
  Caller caller;
  Call(caller, NewId());
  const FaultPlan plan = FailTheChilds(Operation::kCryptExportKey, 1, 0x80090020);
  caller.Authenticate();
  caller.SendBytes(Message(MSG_PUBLIC_KEY, static_cast<std::uint32_t>(blob.size()), caller.id));
  caller.SendBytes(blob);
  EXPECT_TRUE(caller.IsClosed());
  WaitForChildren();
  EXPECT_TRUE(m_log.Has(1, "ChildSocketThread :Failed ExportPublicKey"));
}

TEST_F(ChildSession, AFirstHeaderThatCannotBeReadEndsTheConnectionWithoutAWordOfItsOwn) {
  Caller caller;
  Call(caller, NewId());
  caller.Authenticate();
  Bytes bytes = Message(MSG_PUBLIC_KEY, 276, caller.id);
  bytes[12] = '(';
  caller.SendBytes(bytes);
  EXPECT_TRUE(caller.IsClosed());
  WaitForChildren();
  EXPECT_TRUE(m_log.Has(1, "DecodeHeader:Received invalid ScheduleID"));
  EXPECT_THAT(m_log.texts(), Not(Contains(HasSubstr("ChildSocketThread: Decode Header failed"))));
  EXPECT_THAT(m_log.texts(), Not(Contains(HasSubstr("ChildSocketThread: Failed to receive header"))));
}

TEST_F(ChildSession, AnAnswerThatCannotBeSentEndsTheConnectionAtOnce) {
  // Behind header and payload of two tokens and of the key.
  for (const int send : {7, 8}) {
    m_log.Clear();
    const ScheduleGuid id = NewId();
    Caller caller;
    Call(caller, id);
    const FaultPlan plan = FailTheChilds(Operation::kSocketSend, send, EPIPE);
    caller.Authenticate();
    caller.ExchangeKeys();
    caller.SendOperation(MSG_CREATE, CreateBody(Daily(), id));
    EXPECT_FALSE(caller.ReceiveAnswer());
    WaitForChildren();
    EXPECT_TRUE(HasKey(id)) << "what was done stays";
    EXPECT_EQ(m_log.Count(3, "Successfully sent the header of ACK"), send == 8 ? 1 : 0);
    EXPECT_EQ(m_log.Count(3, "ChildSocketThread: Successfully sent the ACK"), 0);
    EXPECT_EQ(m_log.Count(3, "Received FD_CLOSE event"), 0);
    EXPECT_EQ(m_log.Count(3, "WSAWaitForMultipleEvents returned with WSA_WAIT_TIMEOUT"), 0);
  }
}

TEST_F(ChildSession, TheReplyWithTheKeyBearsReservedAndIdentifierAsTheyCame) {
  Bytes blob;
  ASSERT_EQ(testing::OwnKeys().ExportPublicKey(blob), 1);
  const ScheduleGuid id = NewId();
  Caller caller;
  Call(caller, NewId());
  caller.Authenticate();
  Bytes request = Message(MSG_PUBLIC_KEY, static_cast<std::uint32_t>(blob.size()), id);
  const std::array<std::uint8_t, 4> reserved = {0xDE, 0xAD, 0xBE, 0xEF};
  std::copy(reserved.begin(), reserved.end(), request.begin() + 8);
  caller.SendBytes(request);
  caller.SendBytes(blob);
  Bytes reply(kWireHeaderSize);
  ASSERT_EQ(Receive(caller.socket, reply.data(), reply.size()), 1);
  EXPECT_EQ(testing::Hex(reply), testing::Hex(request));  // both blobs are of one length
}

TEST_F(ChildSession, AKeyOfLengthZeroIsPassedOverAndTheOperationIsDoneWithoutAnAnswer) {
  const ScheduleGuid id = NewId();
  Caller caller;
  Call(caller, id);
  caller.Authenticate();
  caller.ExchangeKeys();  // for the peer's key
  caller.socket.Close();
  WaitForChildren();
  Caller keyless;
  Call(keyless, id);
  keyless.Authenticate();
  keyless.SendBytes(Message(MSG_PUBLIC_KEY, 0, id));
  keyless.SendOperation(MSG_CREATE, CreateBody(Daily(), id));
  EXPECT_FALSE(keyless.ReceiveAnswer());
  WaitForChildren();
  EXPECT_TRUE(HasKey(id));
  EXPECT_TRUE(m_log.Has(1, "ChildSocketThread: Large invalid message length received: 0"));
}

TEST_F(ChildSession, AnOperationWithoutAKeyIsDoneWithoutAnAnswer) {
  const ScheduleGuid id = NewId();
  Caller first;
  Call(first, id);
  first.Authenticate();
  first.ExchangeKeys();
  first.socket.Close();
  WaitForChildren();
  Caller caller;
  Call(caller, id);
  caller.Authenticate();
  caller.SendOperation(MSG_CREATE, CreateBody(Daily(), id));
  EXPECT_FALSE(caller.ReceiveAnswer());
  WaitForChildren();
  EXPECT_TRUE(HasKey(id));
  EXPECT_TRUE(m_log.Has(1, "ChildSocketThread: there is no key of the caller to answer with"));
}

TEST_F(ChildSession, AKeyThatIsNoneEndsTheConnection) {
  Caller caller;
  Call(caller, NewId());
  caller.Authenticate();
  caller.SendBytes(Message(MSG_PUBLIC_KEY, 5, caller.id));
  caller.SendBytes(BytesOf("nokey"));
  EXPECT_TRUE(caller.IsClosed());
  WaitForChildren();
  EXPECT_TRUE(m_log.Has(1, "ChildSocketThread: ImportKey Failed"));
}

TEST_F(ChildSession, AGreatKeyIsTakenWithItsEndDropped) {
  const ScheduleGuid id = NewId();
  Caller caller;
  Call(caller, id);
  caller.Authenticate();
  Bytes blob;
  ASSERT_EQ(testing::OwnKeys().ExportPublicKey(blob), 1);
  blob.resize(1000000, 0xAA);
  caller.SendBytes(Message(MSG_PUBLIC_KEY, static_cast<std::uint32_t>(blob.size()), id));
  caller.SendBytes(blob);
  Bytes reply(kWireHeaderSize + 276);
  ASSERT_EQ(Receive(caller.socket, reply.data(), reply.size()), 1);
  ASSERT_TRUE(testing::OwnKeys().ImportKey(std::span(reply).subspan(kWireHeaderSize), u"peer"));
  caller.SendOperation(MSG_CREATE, CreateBody(Daily(), id));
  EXPECT_EQ(caller.ReceiveAnswer()->result, 0u);
}

TEST_F(ChildSession, ExtraDataBehindTheAnswerIsWaitedOut) {
  const ScheduleGuid id = NewId();
  Caller caller;
  Call(caller, id);
  caller.Authenticate();
  caller.ExchangeKeys();
  caller.SendOperation(MSG_CREATE, CreateBody(Daily(), id));
  caller.SendBytes(BytesOf("more"));
  ASSERT_TRUE(caller.ReceiveAnswer());
  EXPECT_TRUE(caller.IsClosed());
  WaitForChildren();
  EXPECT_TRUE(m_log.Has(3, "Some Extra data has been received"));
}

TEST_F(ChildSession, AnAnswerThatNobodyTakesIsWaitedForAndNamed) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kSocketEvents, 1, platform::ERROR_TIMEOUT);
  ASSERT_TRUE(Perform(MSG_PERFORM, {}, PerformBody("/bin/true")));
  EXPECT_TRUE(m_log.Has(3, "WSAWaitForMultipleEvents returned with WSA_WAIT_TIMEOUT"));
  EXPECT_TRUE(m_log.Has(3, "Seems like the Ack is not reached to the other end"));
}

TEST_F(ChildSession, PlatformFailuresEndTheConnectionWithTheirLine) {
  const struct {
    Operation operation;
    const char* detail;
    int call;
    const char* text;
  } kCases[] = {
      {Operation::kAcquireCredentials, "", 2, "ChildSocketThread: AcquireCredentialsHandle failed. Error 0x8."},
      {Operation::kAllocate, "ChildSocketThread body", 1, "ChildSocketThread: Failed to receive data message"},
      {Operation::kConvertText, "MultiByteToWideChar", 0, "ChildSocketThread, MultiByteToWideChar failed with error: 8"},
  };
  for (const auto& c : kCases) {
    m_log.Clear();
    const ScheduleGuid id = NewId();
    Caller caller;
    if (c.call == 2) {
      const FaultPlan plan = FaultPlan::FailCall(c.operation, 1, 8);
      Caller refused;
      Call(refused, id);
      EXPECT_TRUE(refused.IsClosed());
      WaitForChildren();
    } else {
      Call(caller, id);
      caller.Authenticate();
      caller.ExchangeKeys();
      const Bytes body = DeleteBody(id);
      // The first conversion is that of the header.
      const FaultPlan plan = FaultPlan::FailCall(c.operation, c.call == 0 ? 2 : 1, 8, platform::kOnce, c.detail);
      caller.SendOperation(MSG_DELETE, body);
      EXPECT_TRUE(caller.IsClosed());
      WaitForChildren();
    }
    EXPECT_THAT(m_log.texts(), Contains(c.text));
  }
}

}  // namespace
}  // namespace qx

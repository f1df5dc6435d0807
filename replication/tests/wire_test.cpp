#include "replication/wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/testing/captured_log.h"
#include "platform/clock.h"
#include "platform/testing/fault.h"
#include "platform/testing/virtual_clock.h"
#include "platform/text.h"
#include "replication/tests/scripted_connection.h"

namespace qx {
namespace {

using ::testing::ElementsAre;
using testing::Bytes;
using testing::BytesOf;
using testing::FromHex;
using testing::Hex;
using testing::ScriptedConnection;
using ZepFoundation::CapturedServiceLog;

constexpr ScheduleGuid kWireId = platform::GuidConstant(u"{0123ABCD-4567-89AB-CDEF-001122334455}");

// Typed by hand: 256 bytes of an operation that creates a schedule.
constexpr const char* kCreateFrame =
    "00 00 01 00  00 00 00 01  00 00 00 00 "
    "7b 30 31 32 33 41 42 43 44 2d 34 35 36 37 2d 38 39 41 42 2d 43 44 45 46 2d 30 30 31 31 32 32 33 33 34 34 35 35 7d "
    "00";
// The key of an operation that performs a command: 276 bytes, no schedule.
constexpr const char* kKeyFrame =
    "00 00 01 14  00 00 02 00  00 00 00 00 "
    "7b 30 30 30 30 30 30 30 30 2d 30 30 30 30 2d 30 30 30 30 2d 30 30 30 30 2d 30 30 30 30 30 30 30 30 30 30 30 30 7d "
    "00";

Bytes Frame(const std::string& guid, std::uint32_t type = 1) {
  Bytes bytes = {0, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(type >> 8), static_cast<std::uint8_t>(type), 0, 0, 0, 0};
  bytes.insert(bytes.end(), guid.begin(), guid.end());
  bytes.resize(kWireHeaderSize);
  return bytes;
}

int Decode(const Bytes& bytes, MessageHeader& header) { return DecodeHeader(ConstWireHeader(bytes), header); }

TEST(WireHeader, IsWrittenAsTypedByHand) {
  const struct {
    MessageHeader header;
    const char* frame;
  } kCases[] = {{{256, MSG_CREATE, 0, kWireId}, kCreateFrame}, {{276, MSG_PUBLIC_KEY, 0, {}}, kKeyFrame}};
  for (const auto& c : kCases) {
    MessageHeader header = c.header;
    Bytes bytes(kWireHeaderSize, 0xEE);
    ASSERT_EQ(EncodeHeader(header, WireHeader(bytes)), 1);
    EXPECT_EQ(Hex(bytes), Hex(FromHex(c.frame)));
    MessageHeader read = {1, 2, 3, kWireId};
    ASSERT_EQ(Decode(bytes, read), 1);
    EXPECT_EQ(read.msgLen, c.header.msgLen);
    EXPECT_EQ(read.msgType, c.header.msgType);
    EXPECT_EQ(read.reserved, 0u);
    EXPECT_EQ(read.scheduleId, c.header.scheduleId);
  }
}

TEST(WireHeader, WritingConsumesTheRecord) {
  MessageHeader header = {0xFFFFFFFF, 0x12345678, 7, kWireId};
  Bytes bytes(kWireHeaderSize);
  ASSERT_EQ(EncodeHeader(header, WireHeader(bytes)), 1);
  EXPECT_EQ(Hex(std::span(bytes).first(12)), "ffffffff1234567800000007");
  EXPECT_EQ(header.msgLen + header.msgType + header.reserved, 0u);
  EXPECT_EQ(header.scheduleId, kWireId);
}

TEST(WireHeader, AFailedConversionOfTheIdentifierIsLogged) {
  CapturedServiceLog log;
  MessageHeader header = {1, 1, 0, kWireId};
  Bytes bytes(kWireHeaderSize);
  const auto plan = platform::FaultPlan::FailCall(platform::Operation::kConvertText, 1, 1113);
  EXPECT_EQ(EncodeHeader(header, WireHeader(bytes)), 0);
  ASSERT_EQ(log.texts().size(), 1u);
  EXPECT_TRUE(log.texts()[0].starts_with("WideCharToMultiByte(bstrScheduleID) failed with error ")) << log.texts()[0];
}

TEST(WireHeader, AnIdentifierOf37CharactersIsRefusedByItsLength) {
  CapturedServiceLog log;
  MessageHeader header;
  EXPECT_EQ(Decode(Frame("{0123ABCD-4567-89AB-CDEF-00112233445}"), header), 0);
  EXPECT_THAT(log.texts(), ElementsAre("Invalid length of GUID String, is 37"));
  EXPECT_EQ(header.msgType, 1u);  // the integers were read
}

TEST(WireHeader, LettersBeyondFPassAndReadAsZero) {
  CapturedServiceLog log;
  MessageHeader header;
  ASSERT_EQ(Decode(Frame("{GGGGGGGG-0000-0000-0000-0000000000zA}"), header), 1);
  EXPECT_EQ(header.scheduleId, platform::GuidConstant(u"{00000000-0000-0000-0000-00000000000A}"));
  EXPECT_THAT(log.texts(), ElementsAre());
}

TEST(WireHeader, OnlyThe38CharactersOfTheIdentifierAreLookedAt) {
  Bytes bytes = FromHex(kCreateFrame);
  bytes[50] = 'X';  // in the place of the NUL
  MessageHeader header;
  EXPECT_EQ(Decode(bytes, header), 1);
}

TEST(WireHeader, RefusesOtherTextsWithTheirReason) {
  const struct {
    const char* guid;
    const char* first;
  } kCases[] = {
      {"", "Invalid length of GUID String, is 0"},
      {"{", "Invalid length of GUID String, is 1"},
      {"{0123ABCD-4567-89AB-CDEF-0011223344\xC3\xA9}", "Invalid length of GUID String, is 37"},
      {"(0123ABCD-4567-89AB-CDEF-001122334455)", "IsValidGUIDString:Invalid character in GUIDString"},
      {"{0123ABCD+4567-89AB-CDEF-001122334455}", "IsValidGUIDString:Invalid character in GUIDString"},
      {"{0123ABC!-4567-89AB-CDEF-001122334455}", "IsValidGUIDString:Invalid character ! at 8 in GUIDString"},
      {"{0123ABC%-4567-89AB-CDEF-001122334455}", "IsValidGUIDString:Invalid character % at 8 in GUIDString"},
  };
  for (const auto& c : kCases) {
    CapturedServiceLog log;
    MessageHeader header;
    EXPECT_EQ(Decode(Frame(c.guid), header), 0) << c.guid;
    ASSERT_FALSE(log.texts().empty()) << c.guid;
    EXPECT_EQ(log.texts()[0], c.first);
    const bool byLength = std::string_view(c.first).starts_with("Invalid length");
    EXPECT_EQ(log.texts().back() == "DecodeHeader:Received invalid ScheduleID", !byLength) << c.guid;
  }
}

TEST(Receive, CollectsPiecesAndWaitsSixtySecondsForEach) {
  ScriptedConnection connection;
  connection.Gives(BytesOf("ab")).Gives(BytesOf("c")).Gives(BytesOf("defg"));
  Bytes buffer(6);
  EXPECT_EQ(Receive(connection, buffer.data(), buffer.size()), 1);
  EXPECT_EQ(buffer, BytesOf("abcdef"));
  EXPECT_THAT(connection.limits, ElementsAre(60000, 60000, 60000));
}

TEST(Receive, EndsWithAReasonInTheLog) {
  struct Case {
    std::function<void(ScriptedConnection&)> script;
    std::vector<std::string> texts;
  };
  const Case kCases[] = {
      {[](auto& c) { c.Gives(BytesOf("a")).TimesOut(); },
       {"Receive: Did not receive any message for 60 secs, connection timed out."}},
      {[](auto& c) { c.WaitFails(EBADF); }, {"Receive: Select call failed, error: 9."}},
      {[](auto& c) { c.Fails(ECONNRESET); }, {"recv() failed with error 104", "terminating connection\n"}},
      {[](auto& c) { c.Gives(BytesOf("a")); }, {"Connection closed by client"}},
  };
  for (const Case& c : kCases) {
    CapturedServiceLog log;
    ScriptedConnection connection;
    c.script(connection);
    Bytes buffer(2);
    EXPECT_EQ(Receive(connection, buffer.data(), buffer.size()), 0);
    EXPECT_EQ(log.texts(), c.texts);
  }
}

TEST(Receive, ANullBufferIsRefused) {
  CapturedServiceLog log;
  ScriptedConnection connection;
  EXPECT_EQ(Receive(connection, nullptr, 51), 0);
  EXPECT_THAT(log.texts(), ElementsAre("Receive: Entered Receive with recvBuffer=NULL with recvBufferSize is 51"));
}

TEST(Receive, APieceOf10054BytesEndsTheConnection) {
  for (const std::size_t size : {10053u, 10054u, 10055u}) {
    CapturedServiceLog log;
    ScriptedConnection connection;
    connection.Gives(Bytes(size, 1)).Gives(Bytes(20000 - size, 1));
    Bytes buffer(20000);
    EXPECT_EQ(Receive(connection, buffer.data(), buffer.size()), size == 10054 ? 0 : 1) << size;
    EXPECT_EQ(log.Count(1, "Connection closed by client"), size == 10054 ? 1 : 0);
  }
}

TEST(Receive, RestsAtEveryHundredthPieceThatWasNotThere) {
  platform::VirtualClock clock(1000);
  CapturedServiceLog log;
  ScriptedConnection connection;
  connection.Fails(EAGAIN, 250).Gives(BytesOf("x"));
  Bytes buffer(1);
  EXPECT_EQ(Receive(connection, buffer.data(), 1), 1);
  EXPECT_THAT(log.texts(), ElementsAre("Receive: received WSAWOULDBLOCK error for 100 time",
                                       "Receive: received WSAWOULDBLOCK error for 200 time"));
  EXPECT_EQ(platform::NowSeconds(), 1001);
}

TEST(Send, GivesAllBytesInPiecesAndAsksAgainAtOnce) {
  CapturedServiceLog log;
  ScriptedConnection connection;
  connection.sendAtMost = 3;
  connection.sendErrors = {EAGAIN, 0, EAGAIN, EAGAIN, 0};
  EXPECT_EQ(Send(connection, BytesOf("abcdefgh")), 1);
  EXPECT_EQ(connection.sent, BytesOf("abcdefgh"));
  EXPECT_EQ(connection.sends, 6);
  EXPECT_THAT(log.texts(), ElementsAre());
}

TEST(Send, AFailureIsLogged) {
  CapturedServiceLog log;
  ScriptedConnection connection;
  connection.sendErrors = {EPIPE};
  EXPECT_EQ(Send(connection, BytesOf("abc")), 0);
  EXPECT_THAT(log.texts(), ElementsAre("Send() failed with error 32"));
}

TEST(ReceivePayload, AClaimedLengthTakesNoMemoryAheadOfItsBytes) {
  ScriptedConnection connection;
  connection.Gives(Bytes(1000, 5));
  Bytes out;
  EXPECT_EQ(ReceivePayload(connection, 0xFFFFFFFF, "test", 0xFFFFFFFF, out), PayloadResult::kFailed);
  EXPECT_LE(out.capacity(), 70000u);
}

TEST(ReceivePayload, KeepsWhatItIsToldAndDropsTheRest) {
  ScriptedConnection connection;
  connection.Gives(Bytes(150000, 5)).Gives(BytesOf("next"));
  Bytes out;
  EXPECT_EQ(ReceivePayload(connection, 150000, "test", 100, out), PayloadResult::kDone);
  EXPECT_EQ(out, Bytes(100, 5));
  Bytes next(4);
  EXPECT_EQ(Receive(connection, next.data(), next.size()), 1);
  EXPECT_EQ(next, BytesOf("next"));
}

TEST(ReceivePayload, ARefusedAllocationIsToldApart) {
  ScriptedConnection connection;
  connection.Gives(BytesOf("abc"));
  Bytes out;
  const auto plan = platform::FaultPlan::FailCall(platform::Operation::kAllocate, 1, 8, platform::kOnce, "test");
  EXPECT_EQ(ReceivePayload(connection, 3, "test", 3, out), PayloadResult::kNoMemory);
}

TEST(ParseDecimal, ReadsAsTheRuntimeDoes) {
  const struct {
    const char* text;
    std::uint32_t value;
  } kCases[] = {{"0", 0},          {"-2147220973", 0x80040213}, {" 12x", 12},        {"+7", 7},          {"", 0},
                {"x", 0},          {"4294967295", 0xFFFFFFFF},  {"-1", 0xFFFFFFFF}, {"4294967297", 1}, {"- 1", 0}};
  for (const auto& c : kCases) EXPECT_EQ(ParseDecimal(c.text), c.value) << c.text;
}

}  // namespace
}  // namespace qx

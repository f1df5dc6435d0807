#include "replication/key_manager.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "foundation/testing/captured_log.h"
#include "platform/guid.h"
#include "platform/testing/fault.h"
#include "platform/testing/virtual_clock.h"
#include "platform/text.h"
#include "replication/tests/scripted_connection.h"
#include "replication/wire.h"

namespace qx {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using platform::FaultPlan;
using platform::Operation;
using testing::Bytes;
using testing::BytesOf;
using testing::ScriptedConnection;
using ZepFoundation::CapturedServiceLog;

constexpr ScheduleGuid kId = platform::GuidConstant(u"{0123ABCD-4567-89AB-CDEF-001122334455}");

// Making a pair takes long: two services for all tests that don't look at the making.
CKeyManager& Here() {
  static auto* const keys = new CKeyManager;
  return *keys;
}
CKeyManager& There() {
  static auto* const keys = new CKeyManager;
  return *keys;
}

Bytes BlobOf(CKeyManager& keys) {
  Bytes blob;
  EXPECT_EQ(keys.ExportPublicKey(blob), 1);
  return blob;
}

TEST(KeyManager, MessagesCrossBlockByBlock) {
  ASSERT_TRUE(Here().ImportKey(BlobOf(There()), u"node-b"));
  for (const std::size_t size : {0u, 1u, 22u, 244u, 245u, 246u, 490u, 491u, 4900u}) {
    const Bytes plain(size, 'x');
    Bytes cipher, back;
    ASSERT_EQ(Here().EncryptMsg(u"node-b", plain, cipher), 1);
    EXPECT_EQ(cipher.size(), (size + 244) / 245 * 256) << size;
    ASSERT_EQ(There().DecryptMsg(cipher, back), 1);
    Bytes expected = plain;
    expected.push_back(0);  // the NUL that is put behind it
    EXPECT_EQ(back, expected) << size;
  }
}

TEST(KeyManager, AnAcknowledgementIsOneBlock) {
  const KeyCell key = Here().ImportKey(BlobOf(There()), u"");
  ASSERT_TRUE(key);
  Bytes cipher;
  ASSERT_EQ(Here().EncryptMsg(*key, Bytes(kAckTextSize), cipher), 1);
  EXPECT_EQ(cipher.size(), 256u);
}

TEST(KeyManager, AMessageOf300BytesFailsBehindItsFirstBlock) {
  CapturedServiceLog log;
  ASSERT_TRUE(Here().ImportKey(BlobOf(There()), u"node-b"));
  Bytes cipher, back;
  ASSERT_EQ(Here().EncryptMsg(u"node-b", BytesOf("first"), cipher), 1);
  cipher.resize(300, 0x33);
  EXPECT_EQ(There().DecryptMsg(cipher, back), 0);
  EXPECT_EQ(log.texts().back(), "DecryptMsg: CryptDecrypt Failed =80090004");
  cipher[0] ^= 1;
  EXPECT_EQ(There().DecryptMsg(cipher, back), 0);
  EXPECT_EQ(log.texts().back(), "DecryptMsg: CryptDecrypt Failed =80090005");
}

TEST(KeyManager, AnUnknownNodeHasNoKey) {
  CapturedServiceLog log;
  Bytes cipher;
  EXPECT_EQ(Here().EncryptMsg(u"nobod\u00e4", BytesOf("x"), cipher), 0);
  EXPECT_TRUE(cipher.empty());
  ASSERT_EQ(platform::SetSystemCodePage(platform::kCodePageWestern), 0u);
  EXPECT_EQ(Here().EncryptMsg(u"nobod\u00e4", BytesOf("x"), cipher), 0);
  EXPECT_EQ(platform::SetSystemCodePage(platform::kCodePageUtf8), 0u);
  using Line = ZepFoundation::CapturedLogLine;
  EXPECT_THAT(log.lines(), ElementsAre(Line{1, "EncryptMsg: Key Node found for Node:nobod\u00e4"},
                                       Line{1, "EncryptMsg: Key Node found for Node:nobod\xE4"}));
}

TEST(KeyManager, NamesCompareExactly) {
  ASSERT_TRUE(Here().ImportKey(BlobOf(There()), u"Node"));
  EXPECT_TRUE(Here().FindKey(u"Node"));
  EXPECT_FALSE(Here().FindKey(u"node"));
  EXPECT_FALSE(Here().FindKey(u""));
}

TEST(KeyManager, ANameKeepsTheNewestKey) {
  CapturedServiceLog log;
  CKeyManager other;
  ASSERT_TRUE(Here().ImportKey(BlobOf(There()), u"again"));
  EXPECT_THAT(log.texts(), Not(Contains(HasSubstr("Deleting older key"))));
  ASSERT_TRUE(Here().ImportKey(BlobOf(other), u"again"));
  EXPECT_THAT(log.texts(), Contains("ImportKey::Deleting older key to import new Key for node : again\n"));
  EXPECT_EQ(log.Count(3, "Importing key for node again"), 2);
  Bytes cipher, back;
  ASSERT_EQ(Here().EncryptMsg(u"again", BytesOf("new"), cipher), 1);
  EXPECT_EQ(There().DecryptMsg(cipher, back), 0);
  EXPECT_EQ(other.DecryptMsg(cipher, back), 1);
}

TEST(KeyManager, AKeyThatCannotBeDestroyedIsReplacedAllTheSame) {
  CapturedServiceLog log;
  ASSERT_TRUE(Here().ImportKey(BlobOf(There()), u"stuck"));
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kCryptDestroyKey, 1, 0x80090020);
    ASSERT_TRUE(Here().ImportKey(BlobOf(There()), u"stuck"));
  }
  EXPECT_THAT(log.texts(), Contains("ImportKey::CryptDestroyKey failed with error : 80090020\n"));
  EXPECT_TRUE(Here().FindKey(u"stuck"));
}

TEST(KeyManager, ARefusedKeyLeavesItsNameWithoutOne) {
  ASSERT_TRUE(Here().ImportKey(BlobOf(There()), u"broken"));
  Bytes blob = BlobOf(There());
  blob[0] = 7;
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(Here().ImportKey(blob, u"broken"));
  std::fflush(stdout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "CyptImportKey failed with error : 80090005\n");
  EXPECT_FALSE(Here().FindKey(u"broken"));
}

TEST(KeyManager, ARefusedKeyIsToldAtOnceAndHoldsNobodyUpWhereNobodyReadsIt) {
  Bytes blob = BlobOf(There());
  blob[0] = 7;
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  std::fflush(stdout);
  const int output = dup(STDOUT_FILENO);
  dup2(ends[1], STDOUT_FILENO);
  EXPECT_FALSE(Here().ImportKey(blob, u""));
  int told = 0;
  EXPECT_EQ(ioctl(ends[0], FIONREAD, &told), 0);
  EXPECT_EQ(told, 43);
  const std::string room(static_cast<std::size_t>(fcntl(ends[1], F_GETPIPE_SZ) - told), ' ');
  EXPECT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
  while (write(ends[1], room.data(), room.size()) > 0) {
  }
  EXPECT_EQ(fcntl(ends[1], F_SETFL, 0), 0);
  for (int i = 0; i < 1000; ++i) EXPECT_FALSE(Here().ImportKey(blob, u""));  // ten times what the C library holds back
  dup2(output, STDOUT_FILENO);
  for (const int descriptor : {output, ends[0], ends[1]}) close(descriptor);
}

TEST(KeyManager, APeerCalledLocalhostLeavesTheOwnPairInPlace) {
  CKeyManager keys;
  const Bytes own = BlobOf(keys);
  ASSERT_TRUE(keys.FindKey(u"localhost"));
  ASSERT_TRUE(keys.ImportKey(BlobOf(There()), u"localhost"));
  Bytes cipher, back;
  ASSERT_EQ(keys.EncryptMsg(u"localhost", BytesOf("for the peer"), cipher), 1);
  EXPECT_EQ(There().DecryptMsg(cipher, back), 1);
  EXPECT_EQ(BlobOf(keys), own);
  const KeyCell mine = Here().ImportKey(own, u"");
  ASSERT_EQ(Here().EncryptMsg(*mine, BytesOf("for me"), cipher), 1);
  EXPECT_EQ(keys.DecryptMsg(cipher, back), 1);
}

TEST(KeyManager, SeveralFirstUsesMakeOnePair) {
  CapturedServiceLog log;
  CKeyManager keys;
  std::vector<Bytes> blobs(4);
  std::vector<std::thread> threads;
  for (Bytes& blob : blobs) threads.emplace_back([&] { EXPECT_EQ(keys.ExportPublicKey(blob), 1); });
  for (std::thread& thread : threads) thread.join();
  for (const Bytes& blob : blobs) EXPECT_EQ(blob, blobs[0]);
  EXPECT_EQ(log.Count(3, "Key successfully generated"), 1);
}

TEST(KeyManager, TheFirstPairStaysInUse) {
  CKeyManager keys;
  const Bytes first = BlobOf(keys);
  EXPECT_EQ(keys.GenerateKeyPair(), 1);
  EXPECT_EQ(BlobOf(keys), first);
}

TEST(KeyManager, NothingIsDecryptedBeforeThereIsAPair) {
  CapturedServiceLog log;
  CKeyManager keys;
  Bytes back;
  EXPECT_EQ(keys.DecryptMsg(Bytes(256), back), 0);
  EXPECT_THAT(log.texts(), ElementsAre("DecryptMsg: Key Node found for Node:"));
}

TEST(KeyManager, AFirstStartMakesTheContainer) {
  platform::CryptoProvider::ForgetContainer();
  CapturedServiceLog log;
  CKeyManager keys;
  EXPECT_EQ(keys.GenerateKeyPair(), 1);
  EXPECT_THAT(log.texts(), ElementsAre("GenerateKeyPair:CyptAcquireContext failed with NTE_BAD_KEYSET, calling again",
                                       "Key successfully generated"));
}

TEST(KeyManager, TriesThreeTimesForTheProvider) {
  platform::VirtualClock clock(1000);
  CapturedServiceLog log;
  CKeyManager keys;
  const FaultPlan plan = FaultPlan::FailCall(Operation::kCryptAcquireContext, 1, 0x80090020, platform::kFromThenOn);
  EXPECT_EQ(keys.GenerateKeyPair(), 0);
  EXPECT_THAT(log.texts(), ElementsAre("GenerateKeyPair:CyptAcquireContext failed with error : 80090020\n",
                                       "Retrying for CryptAcquireContext=0",
                                       "GenerateKeyPair:CyptAcquireContext failed with error : 80090020\n",
                                       "Retrying for CryptAcquireContext=1",
                                       "GenerateKeyPair:CyptAcquireContext failed with error : 80090020\n"));
  EXPECT_EQ(plan.calls(), 3);
  EXPECT_EQ(platform::NowWithMilliseconds().milliseconds, 200u);
}

TEST(KeyManager, AFailedPairIsTriedAgainAtTheNextUse) {
  CapturedServiceLog log;
  CKeyManager keys;
  Bytes blob;
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kCryptGenKey, 1, 0x80090020);
    EXPECT_EQ(keys.ExportPublicKey(blob), 0);
  }
  EXPECT_THAT(log.texts(), Contains("GenerateKeyPair:CryptGenKey failed with error : 80090020\n"));
  EXPECT_EQ(log.texts().back(), "CKeyManager::CryptExportKey failed with error : 57\n");
  EXPECT_EQ(keys.ExportPublicKey(blob), 1);
}

TEST(KeyManager, EachFailureHasItsLine) {
  ASSERT_TRUE(Here().ImportKey(BlobOf(There()), u"node-b"));
  Bytes cipher, out;
  ASSERT_EQ(Here().EncryptMsg(u"node-b", BytesOf("x"), cipher), 1);
  const auto allocation = [](std::string_view name) {
    return FaultPlan::FailCall(Operation::kAllocate, 1, 8, platform::kOnce, name);
  };
  const struct {
    std::function<FaultPlan()> plan;
    std::function<int()> call;
    const char* text;
  } kCases[] = {
      {[&] { return FaultPlan::FailCall(Operation::kCryptExportKey, 1, 0x80090020); },
       [&] { return Here().ExportPublicKey(out); }, "CKeyManager::CryptExportKey failed with error : 80090020\n"},
      {[&] { return FaultPlan::FailCall(Operation::kCryptExportKey, 2, 0x80090020); },
       [&] { return Here().ExportPublicKey(out); }, "CKeyManager::CryptExportKey failed with error : 80090020\n"},
      {[&] { return allocation("ExportPublicKey"); }, [&] { return Here().ExportPublicKey(out); },
       "CKeyManager::CryptExportKey malloc failed with error : 8\n"},
      {[&] { return allocation("EncryptMsg"); }, [&] { return Here().EncryptMsg(u"node-b", BytesOf("x"), out); },
       "EncryptMsg: Data allocation failed for BlockLength"},
      {[&] { return FaultPlan::FailCall(Operation::kCryptEncrypt, 1, 0x80090020); },
       [&] { return Here().EncryptMsg(u"node-b", BytesOf("x"), out); }, "CryptEncrypt failed with error : 80090020=\n"},
      {[&] { return allocation("DecryptMsg data"); }, [&] { return There().DecryptMsg(cipher, out); },
       "DecryptMsg: Data allocation failed for Data"},
      {[&] { return allocation("DecryptMsg block"); }, [&] { return There().DecryptMsg(cipher, out); },
       "DecryptMsg: Data allocation failed for BlockLength"},
      {[&] { return FaultPlan::FailCall(Operation::kCryptDecrypt, 1, 0x80090020); },
       [&] { return There().DecryptMsg(cipher, out); }, "DecryptMsg: CryptDecrypt Failed =80090020"},
  };
  for (const auto& c : kCases) {
    CapturedServiceLog log;
    const FaultPlan plan = c.plan();
    EXPECT_EQ(c.call(), 0) << c.text;
    EXPECT_THAT(log.texts(), ElementsAre(c.text));
  }
}

TEST(KeyManager, DestroyingEmptiesTheCell) {
  KeyCell cell = Here().ImportKey(BlobOf(There()), u"");
  EXPECT_EQ(CKeyManager::DestroyKey(cell), 1);
  EXPECT_FALSE(cell);
  EXPECT_EQ(CKeyManager::DestroyKey(cell), 0);
  cell = Here().ImportKey(BlobOf(There()), u"");
  const FaultPlan plan = FaultPlan::FailCall(Operation::kCryptDestroyKey, 1, 87);
  EXPECT_EQ(CKeyManager::DestroyKey(cell), 0);
  EXPECT_FALSE(cell);
}

TEST(ExchangeKey, SendsTheOwnKeyAndTakesThePeers) {
  (void)BlobOf(Here());
  (void)BlobOf(There());
  CapturedServiceLog log;
  ScriptedConnection connection;
  connection.GivesMessage(MSG_PUBLIC_KEY, BlobOf(There()), kId);
  ASSERT_EQ(Here().exchangeKey(connection, u"peer", kId), 0);
  ASSERT_EQ(connection.sent.size(), kWireHeaderSize + 276);
  MessageHeader header;
  ASSERT_EQ(DecodeHeader(ConstWireHeader(std::span(connection.sent).first(kWireHeaderSize)), header), 1);
  EXPECT_EQ(header.msgLen, 276u);
  EXPECT_EQ(header.msgType, MSG_PUBLIC_KEY);
  EXPECT_EQ(header.scheduleId, kId);
  EXPECT_EQ(Bytes(connection.sent.begin() + kWireHeaderSize, connection.sent.end()), BlobOf(Here()));
  EXPECT_THAT(log.texts(), ElementsAre("exchangeKey: Entered", "exchangeKey:receive key header from server",
                                       "Importing key for node peer", "key Imported sucessfully 276",
                                       "exchangeKey:public keys exchanged sucessfully", "exchangeKey: Exited"));
  Bytes cipher, back;
  ASSERT_EQ(Here().EncryptMsg(u"peer", BytesOf("x"), cipher), 1);
  EXPECT_EQ(There().DecryptMsg(cipher, back), 1);
}

// A node's earlier key may be another service's by now: an exchange that gives none takes it away.
TEST(ExchangeKey, ThatGivesNoKeyLeavesNoneOfAnEarlierExchange) {
  (void)BlobOf(Here());
  const Bytes blob = BlobOf(There());
  const struct {
    const char* text;
    std::function<void(ScriptedConnection&)> script;
  } kCases[] = {
      {"exchangeKey: Failed to send public key 276", [](auto& c) { c.sendErrors = {0, EPIPE}; }},
      {"Invalid length of GUID String, is 0", [](auto& c) { c.Gives(Bytes(kWireHeaderSize)); }},
      {"exchangeKey: ImportKey Failed", [](auto& c) { c.GivesMessage(MSG_PUBLIC_KEY, BytesOf("bad"), kId); }},
  };
  for (const auto& c : kCases) {
    CapturedServiceLog log;
    ASSERT_TRUE(Here().ImportKey(blob, u"earlier"));
    ScriptedConnection connection;
    c.script(connection);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(Here().exchangeKey(connection, u"earlier", kId), 0) << c.text;
    std::fflush(stdout);
    (void)::testing::internal::GetCapturedStdout();
    EXPECT_THAT(log.texts(), Contains(c.text));
    Bytes cipher;
    EXPECT_EQ(Here().EncryptMsg(u"earlier", BytesOf("x"), cipher), 0) << c.text;
    EXPECT_EQ(log.texts().back(), "EncryptMsg: Key Node found for Node:earlier") << c.text;
  }
}

TEST(ExchangeKey, EndsOrGoesOnAsEachFailureSays) {
  (void)BlobOf(Here());
  const Bytes blob = BlobOf(There());
  const auto header = [](std::uint32_t type, std::uint32_t length) {
    MessageHeader record = {length, type, 0, kId};
    Bytes bytes(kWireHeaderSize);
    EXPECT_EQ(EncodeHeader(record, WireHeader(bytes)), 1);
    return bytes;
  };
  Bytes badHeader = header(MSG_PUBLIC_KEY, 276);
  badHeader[12] = '(';
  const struct {
    const char* text;
    int result;
    std::function<void(ScriptedConnection&)> script;
    std::optional<std::pair<Operation, const char*>> fault;
  } kCases[] = {
      {"exchangeKey:ExportPublicKey failed", 1, [](auto&) {}, std::pair{Operation::kCryptExportKey, ""}},
      {"exchangeKey:Failed to Encode Header to be send", 1, [](auto&) {}, std::pair{Operation::kConvertText, ""}},
      {"exchangeKey:Failed to send key header", 1, [](auto& c) { c.sendErrors = {EPIPE}; }, std::nullopt},
      {"exchangeKey: Failed to send public key 276", 0, [](auto& c) { c.sendErrors = {0, EPIPE}; }, std::nullopt},
      {"exchangeKey: Receive Failed", 1, [](auto& c) { c.Gives(BytesOf("short")); }, std::nullopt},
      {"DecodeHeader:Received invalid ScheduleID", 0, [&](auto& c) { c.Gives(badHeader); }, std::nullopt},
      {"exchangeKey: received header with wrong message type: 0x20", 1, [&](auto& c) { c.Gives(header(32, 276)); },
       std::nullopt},
      {"exchangeKey: received header with wrong message length: 12001", 1,
       [&](auto& c) { c.Gives(header(512, 12001)); }, std::nullopt},
      {"exchangeKey: memory allocation failed", 1, [&](auto& c) { c.Gives(header(512, 276)).Gives(blob); },
       std::pair{Operation::kAllocate, "exchangeKey"}},
      {"exchangeKey: Receive contextFailed", 1, [&](auto& c) { c.Gives(header(512, 276)).Gives(BytesOf("x")); },
       std::nullopt},
      {"exchangeKey: ImportKey Failed", 0, [&](auto& c) { c.Gives(header(512, 3)).Gives(BytesOf("bad")); },
       std::nullopt},
      {"exchangeKey: ImportKey Failed", 0, [&](auto& c) { c.Gives(header(512, 0)); }, std::nullopt},
  };
  for (const auto& c : kCases) {
    CapturedServiceLog log;
    ScriptedConnection connection;
    c.script(connection);
    std::optional<FaultPlan> plan;
    if (c.fault) plan.emplace(FaultPlan::FailCall(c.fault->first, 1, 8, platform::kOnce, c.fault->second));
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(Here().exchangeKey(connection, u"failing", kId), c.result) << c.text;
    std::fflush(stdout);
    (void)::testing::internal::GetCapturedStdout();
    EXPECT_THAT(log.texts(), Contains(c.text));
    Bytes cipher;
    EXPECT_EQ(Here().EncryptMsg(u"failing", BytesOf("x"), cipher), 0) << c.text;
  }
}

}  // namespace
}  // namespace qx

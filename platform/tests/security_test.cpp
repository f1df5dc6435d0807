#include "platform/security.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "platform/process.h"
#include "platform/testing/fault.h"
#include "platform/testing/judges_memory.h"
#include "platform/testing/virtual_clock.h"
#include "platform/text.h"

namespace platform {
namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr std::size_t kMax = 12000;

// A credentials file of its own and no realm.
class Security : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "qxsecurity_XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    m_folder = pattern;
    m_file = m_folder + "/nodes.key";
    ASSERT_EQ(MakeCredentialsFile(m_file, "CLUSTER", "qxsvc"), 0u);
    setenv("NTLM_USER_FILE", m_file.c_str(), 1);
    setenv("KRB5CCNAME", "MEMORY:none", 1);
    setenv("KRB5_CONFIG", "/dev/null", 1);
    ErrorCode code = 0;
    ASSERT_EQ(LoadSecurityPackage(code), SecurityLoad::kLoaded) << code;
  }
  void TearDown() override {
    FreeSecurityPackage();
    for (const char* name : {"NTLM_USER_FILE", "KRB5CCNAME", "KRB5_CONFIG"}) unsetenv(name);
    std::filesystem::remove_all(m_folder);
  }
  std::string m_folder;
  std::string m_file;
};

struct Side {
  SecurityCredentials credentials;
  SecurityContext context;
  SecurityStatus status = SEC_I_CONTINUE_NEEDED;
  Bytes token;
};

// Both sides up to the end or the first refusal.
void Exchange(Side& initiator, Side& acceptor) {
  std::uint32_t attributes = 0;
  initiator.token.clear();
  Bytes reply;
  for (int pass = 0; pass < 10; ++pass) {
    initiator.status = initiator.context.Initialize(initiator.credentials, u"Client", ISC_REQ_CONFIDENTIALITY, reply,
                                                    kMax, initiator.token);
    if (SecurityFailed(initiator.status) || initiator.token.empty()) return;
    acceptor.status = acceptor.context.Accept(acceptor.credentials, initiator.token, attributes, kMax, reply, attributes);
    if (SecurityFailed(acceptor.status)) return;
  }
}

void Acquire(Side& initiator, Side& acceptor) {
  ASSERT_EQ(SecurityCredentials::Acquire(CredentialsUse::kOutbound, 1, initiator.credentials), SEC_E_OK)
      << Utf8FromWide(LastSecurityErrorText());
  ASSERT_EQ(SecurityCredentials::Acquire(CredentialsUse::kInbound, 1, acceptor.credentials), SEC_E_OK);
}

TEST_F(Security, TwoSidesOfOneCredentialsFileAgree) {
  Side initiator, acceptor;
  Acquire(initiator, acceptor);
  EXPECT_FALSE(initiator.credentials.UsesRealm());
  Exchange(initiator, acceptor);
  EXPECT_EQ(initiator.status, SEC_E_OK) << Utf8FromWide(LastSecurityErrorText());
  EXPECT_EQ(acceptor.status, SEC_E_OK);
  EXPECT_EQ(acceptor.context.PeerName(), u"CLUSTER\\qxsvc");
  EXPECT_EQ(acceptor.context.Impersonate(), SEC_E_OK);
  AnonymousSid anonymous;
  bool member = true;
  ASSERT_EQ(AnonymousSid::Allocate(anonymous), 0u);
  ASSERT_EQ(anonymous.IsMember(acceptor.context, member), 0u);
  EXPECT_FALSE(member);
}

TEST_F(Security, AWrongSecretIsRefusedByTheAcceptingSide) {
  Side initiator, acceptor;
  Acquire(initiator, acceptor);
  Bytes reply;
  std::uint32_t attributes = 0;
  const auto initiate = [&] {
    return initiator.context.Initialize(initiator.credentials, u"Client", ISC_REQ_CONFIDENTIALITY, reply, kMax,
                                        initiator.token);
  };
  ASSERT_EQ(initiate(), SEC_I_CONTINUE_NEEDED);
  ASSERT_EQ(acceptor.context.Accept(acceptor.credentials, initiator.token, 0, kMax, reply, attributes),
            SEC_I_CONTINUE_NEEDED);
  ASSERT_EQ(initiate(), SEC_I_CONTINUE_NEEDED);
  // The accepting side's file has another secret by now: the library reads it at each exchange.
  std::filesystem::remove(m_file);
  ASSERT_EQ(MakeCredentialsFile(m_file, "CLUSTER", "qxsvc"), 0u);
  EXPECT_EQ(acceptor.context.Accept(acceptor.credentials, initiator.token, 0, kMax, reply, attributes),
            SEC_E_LOGON_DENIED);
  EXPECT_TRUE(reply.empty());
  EXPECT_FALSE(LastSecurityErrorText().empty());
}

TEST_F(Security, WithoutSecretsOnlyTheAcceptingSideGetsCredentials) {
  std::filesystem::remove(m_file);
  SecurityCredentials credentials;
  EXPECT_EQ(SecurityCredentials::Acquire(CredentialsUse::kOutbound, 1, credentials), SEC_E_NO_CREDENTIALS);
  EXPECT_FALSE(LastSecurityErrorText().empty());
  EXPECT_EQ(SecurityCredentials::Acquire(CredentialsUse::kInbound, 1, credentials), SEC_E_OK);
}

TEST_F(Security, GarbageIsAnInvalidToken) {
  for (const std::size_t size : {1u, 40u, 600u, 12000u}) {
    Side initiator, acceptor;
    Acquire(initiator, acceptor);
    Bytes reply = {1};
    std::uint32_t attributes = 0;
    EXPECT_EQ(acceptor.context.Accept(acceptor.credentials, Bytes(size, 0x41), 0, kMax, reply, attributes),
              SEC_E_INVALID_TOKEN)
        << size;
    EXPECT_TRUE(reply.empty());
    EXPECT_FALSE(acceptor.context);
  }
}

TEST_F(Security, AnEmptyFirstTokenIsAnsweredWithHints) {
  Side initiator, acceptor;
  Acquire(initiator, acceptor);
  Bytes reply;
  std::uint32_t attributes = 0;
  ASSERT_EQ(acceptor.context.Accept(acceptor.credentials, {}, 0, kMax, reply, attributes), SEC_I_CONTINUE_NEEDED);
  EXPECT_FALSE(reply.empty());
  Exchange(initiator, acceptor);
  EXPECT_EQ(acceptor.status, SEC_E_OK);
}

TEST_F(Security, AnEmptyReplyIsAnInvalidToken) {
  Side initiator, acceptor;
  Acquire(initiator, acceptor);
  ASSERT_EQ(initiator.context.Initialize(initiator.credentials, u"Client", 0, {}, kMax, initiator.token),
            SEC_I_CONTINUE_NEEDED);
  EXPECT_EQ(initiator.context.Initialize(initiator.credentials, u"Client", 0, {}, kMax, initiator.token),
            SEC_E_INVALID_TOKEN);
  EXPECT_TRUE(initiator.token.empty());
}

TEST_F(Security, ATokenLongerThanTheBufferIsAFailure) {
  Side initiator, acceptor;
  Acquire(initiator, acceptor);
  EXPECT_EQ(initiator.context.Initialize(initiator.credentials, u"Client", 0, {}, 10, initiator.token),
            SEC_E_BUFFER_TOO_SMALL);
  EXPECT_TRUE(initiator.token.empty());
}

TEST_F(Security, AnUnfinishedContextHasNobody) {
  SecurityContext context;
  EXPECT_EQ(context.Impersonate(), SEC_E_INVALID_HANDLE);
  bool member = false;
  EXPECT_EQ(AnonymousSid().IsMember(context, member), ERROR_NO_TOKEN);
  EXPECT_TRUE(context.PeerName().empty());
}

TEST_F(Security, CredentialsOfAFileHaveNoFullName) {
  Side initiator, acceptor;
  Acquire(initiator, acceptor);
  std::u16string name = u"as before";
  EXPECT_EQ(initiator.credentials.UserName(259, name), ERROR_NONE_MAPPED);
  EXPECT_EQ(name, u"as before");
}

TEST_F(Security, WithoutTheLibraryNothingIsAcquired) {
  FreeSecurityPackage();
  EXPECT_FALSE(IsSecurityPackageLoaded());
  SecurityCredentials credentials;
  EXPECT_EQ(SecurityCredentials::Acquire(CredentialsUse::kOutbound, 1, credentials), SEC_E_SECPKG_NOT_FOUND);
  ErrorCode code = 0;
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kLoadLibrary, 1, ERROR_MOD_NOT_FOUND);
    EXPECT_EQ(LoadSecurityPackage(code), SecurityLoad::kNoLibrary);
    EXPECT_EQ(code, ERROR_MOD_NOT_FOUND);
  }
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kGetProcAddress, 3, ERROR_PROC_NOT_FOUND);
    EXPECT_EQ(LoadSecurityPackage(code), SecurityLoad::kNoEntry);
    EXPECT_EQ(code, ERROR_PROC_NOT_FOUND);
  }
  EXPECT_FALSE(IsSecurityPackageLoaded());
}

TEST_F(Security, WhatLivesKeepsTheLibrary) {
  Side initiator, acceptor;
  Acquire(initiator, acceptor);
  FreeSecurityPackage();
  Exchange(initiator, acceptor);
  EXPECT_EQ(acceptor.status, SEC_E_OK);
}

// Credentials that are kept between two uses. The clock stands years off the files' times, so that a change of theirs
// can't be missed.
class KeptCredentials : public Security {
 protected:
  // Acquisitions from the library, from now on.
  static FaultPlan CountAcquisitions() {
    return FaultPlan::FailCall(Operation::kAcquireCredentials, 1 << 30, 1, kOnce, "anew");
  }
  static void AcquireAndGiveBack() {
    Side initiator, acceptor;
    Acquire(initiator, acceptor);
  }
  VirtualClock m_clock{1000};
};

TEST_F(KeptCredentials, AThousandExchangesAcquireOnceForEachSide) {
  const FaultPlan plan = CountAcquisitions();
  for (int i = 0; i < 1000; ++i) {
    Side initiator, acceptor;
    Acquire(initiator, acceptor);
    Exchange(initiator, acceptor);
    ASSERT_EQ(initiator.status, SEC_E_OK) << i;
    ASSERT_EQ(acceptor.status, SEC_E_OK) << i;
  }
  EXPECT_EQ(plan.calls(), 2);
}

TEST_F(KeptCredentials, AThousandExchangesLeaveNothingAllocated) {
  const auto exchange = [](int count) {
    for (int i = 0; i < count; ++i) {
      Side initiator, acceptor;
      Acquire(initiator, acceptor);
      Exchange(initiator, acceptor);
      ASSERT_EQ(acceptor.status, SEC_E_OK);
    }
  };
  exchange(4000);  // the libraries' own tables have grown by then
  const std::size_t before = HeldBytes();
  exchange(1000);
  // An acquisition leaves more than 50 bytes, which would be 50000.
  EXPECT_LT(static_cast<std::ptrdiff_t>(HeldBytes()) - static_cast<std::ptrdiff_t>(before), 10000);
}

TEST_F(KeptCredentials, ThoseInUseAtOnceAreEachTheirOwn) {
  const FaultPlan plan = CountAcquisitions();
  for (int round = 0; round < 3; ++round) {
    std::vector<SecurityCredentials> several(8);
    for (SecurityCredentials& credentials : several) {
      ASSERT_EQ(SecurityCredentials::Acquire(CredentialsUse::kInbound, 1, credentials), SEC_E_OK);
    }
    EXPECT_EQ(plan.calls(), 8) << round;
  }
}

TEST_F(KeptCredentials, AnotherSecretCountsAtOnce) {
  AcquireAndGiveBack();
  std::filesystem::remove(m_file);
  ASSERT_EQ(MakeCredentialsFile(m_file, "OTHER", "account"), 0u);
  const FaultPlan plan = CountAcquisitions();
  Side initiator, acceptor;
  Acquire(initiator, acceptor);
  EXPECT_EQ(plan.calls(), 2);
  Exchange(initiator, acceptor);
  EXPECT_EQ(acceptor.status, SEC_E_OK);
  EXPECT_EQ(acceptor.context.PeerName(), u"OTHER\\account");
}

TEST_F(KeptCredentials, ASecretThatIsTakenAwayIsGone) {
  AcquireAndGiveBack();
  std::filesystem::remove(m_file);
  SecurityCredentials credentials;
  EXPECT_EQ(SecurityCredentials::Acquire(CredentialsUse::kOutbound, 1, credentials), SEC_E_NO_CREDENTIALS);
}

TEST_F(KeptCredentials, AreGivenUpAfterTenMinutes) {
  AcquireAndGiveBack();
  const FaultPlan plan = CountAcquisitions();
  m_clock.Advance(599'999);
  AcquireAndGiveBack();
  EXPECT_EQ(plan.calls(), 0);
  m_clock.Advance(1);
  AcquireAndGiveBack();
  EXPECT_EQ(plan.calls(), 2);
}

TEST_F(KeptCredentials, ThatFailedToMakeATokenAreGivenUp) {
  AcquireAndGiveBack();
  const FaultPlan plan = CountAcquisitions();
  {
    Side initiator, acceptor;
    Acquire(initiator, acceptor);
    const Bytes garbage(100, 0x41);
    for (const bool first : {true, false}) {
      const SecurityStatus status = initiator.context.Initialize(initiator.credentials, u"Client", 0,
                                                                 first ? Bytes() : garbage, kMax, initiator.token);
      EXPECT_EQ(SecurityFailed(status), !first);
    }
    Bytes reply;
    std::uint32_t attributes = 0;
    EXPECT_TRUE(SecurityFailed(acceptor.context.Accept(acceptor.credentials, garbage, 0, kMax, reply, attributes)));
  }
  EXPECT_EQ(plan.calls(), 0);
  AcquireAndGiveBack();
  EXPECT_EQ(plan.calls(), 1);  // the accepting side's stay: what a caller says is no failure of theirs
}

TEST_F(KeptCredentials, AreFreedWithThePackage) {
  AcquireAndGiveBack();
  const FaultPlan plan = CountAcquisitions();
  {
    Side initiator, acceptor;
    Acquire(initiator, acceptor);
    FreeSecurityPackage();
  }
  ErrorCode code = 0;
  ASSERT_EQ(LoadSecurityPackage(code), SecurityLoad::kLoaded);
  AcquireAndGiveBack();
  EXPECT_EQ(plan.calls(), 2);
}

TEST_F(Security, CredentialsOfAFileThatWasWrittenJustNowAreNotKept) {
  struct stat info {};
  ASSERT_EQ(stat(m_file.c_str(), &info), 0);
  VirtualClock clock(info.st_ctim.tv_sec, static_cast<std::uint32_t>(info.st_ctim.tv_nsec / 1'000'000));
  const FaultPlan plan = FaultPlan::FailCall(Operation::kAcquireCredentials, 1 << 30, 1, kOnce, "anew");
  for (int i = 0; i < 3; ++i) {
    SecurityCredentials credentials;
    ASSERT_EQ(SecurityCredentials::Acquire(CredentialsUse::kInbound, 1, credentials), SEC_E_OK);
  }
  EXPECT_EQ(plan.calls(), 3);
}

TEST_F(Security, AFailedAcquisitionLeavesWhatWasThere) {
  Side initiator, acceptor;
  Acquire(initiator, acceptor);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kAcquireCredentials, 1, SEC_E_INTERNAL_ERROR, kOnce, "anew");
  EXPECT_EQ(SecurityCredentials::Acquire(CredentialsUse::kOutbound, 1, initiator.credentials), SEC_E_INTERNAL_ERROR);
  Exchange(initiator, acceptor);
  EXPECT_EQ(acceptor.status, SEC_E_OK);
}

// What a child of this process gets as a variable; nothing when it gets none.
std::optional<std::string> InAChild(const std::string& folder, const std::string& variable) {
  const std::string out = folder + "/child.out";
  std::uint32_t code = 77;
  EXPECT_EQ(RunAndWait("/bin/sh -c \"env > " + out + "\"", code), 0u);
  EXPECT_EQ(code, 0u);
  std::ifstream in(out);
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with(variable + "=")) return line.substr(variable.size() + 1);
  }
  return std::nullopt;
}

TEST_F(Security, TheNameOfTheCredentialsFileIsNoJobsBusinessUnlessTheServiceWasGivenIt) {
  std::string file, why;
  unsetenv("NTLM_USER_FILE");
  for (const char* standard : {m_file.c_str(), "/nonexistent/nodes.key", m_file.c_str()}) {
    (void)UseCredentialsFile(standard, file, why);
    EXPECT_STREQ(getenv("NTLM_USER_FILE"), file.c_str());
    EXPECT_EQ(InAChild(m_folder, "NTLM_USER_FILE"), std::nullopt);
  }
  // A name that it was given is everybody's, also when its file isn't used.
  const std::string given = m_folder + "/given.key";
  ASSERT_EQ(MakeCredentialsFile(given, "CLUSTER", "qxsvc"), 0u);
  setenv("NTLM_USER_FILE", given.c_str(), 1);
  ASSERT_EQ(UseCredentialsFile("", file, why), 0u);
  EXPECT_EQ(InAChild(m_folder, "NTLM_USER_FILE"), given);
  ASSERT_EQ(chmod(given.c_str(), 0644), 0);
  ASSERT_EQ(UseCredentialsFile("", file, why), ERROR_ACCESS_DENIED);
  EXPECT_STREQ(getenv("NTLM_USER_FILE"), given.c_str());
  EXPECT_EQ(InAChild(m_folder, "NTLM_USER_FILE"), given);
}

TEST_F(Security, TheTokenOfTheProcessNamesItsSession) {
  ProcessToken token;
  std::uint32_t size = 0;
  EXPECT_EQ(token.Statistics({}, size), ERROR_INVALID_HANDLE);
  ASSERT_EQ(ProcessToken::Open(token), 0u);
  EXPECT_EQ(token.Statistics({}, size), ERROR_INSUFFICIENT_BUFFER);
  ASSERT_EQ(size, kTokenStatisticsSize);
  Bytes buffer(size);
  EXPECT_EQ(token.Statistics(buffer, size), 0u);
}

TEST_F(Security, FailsByTheSeam) {
  Side initiator, acceptor;
  Acquire(initiator, acceptor);
  ProcessToken token;
  AnonymousSid sid;
  SecurityCredentials credentials;
  std::uint32_t number = 0;
  std::u16string name;
  bool member = false;
  const struct {
    Operation operation;
    std::function<std::uint32_t()> call;
  } kCalls[] = {
      {Operation::kOpenProcessToken, [&] { return ProcessToken::Open(token); }},
      {Operation::kGetTokenInformation, [&] { return token.Statistics({}, number); }},
      {Operation::kAcquireCredentials,
       [&] { return SecurityCredentials::Acquire(CredentialsUse::kInbound, 1, credentials); }},
      {Operation::kGetUserName, [&] { return initiator.credentials.UserName(259, name); }},
      {Operation::kInitializeSecurityContext,
       [&] { return initiator.context.Initialize(initiator.credentials, u"Client", 0, {}, kMax, initiator.token); }},
      {Operation::kAcceptSecurityContext,
       [&] { return acceptor.context.Accept(acceptor.credentials, {}, 0, kMax, acceptor.token, number); }},
      {Operation::kCompleteAuthToken, [&] { return acceptor.context.CompleteToken(); }},
      {Operation::kImpersonateContext, [&] { return acceptor.context.Impersonate(); }},
      {Operation::kAllocateSid, [&] { return AnonymousSid::Allocate(sid); }},
      {Operation::kCheckTokenMembership, [&] { return sid.IsMember(acceptor.context, member); }},
  };
  for (const auto& c : kCalls) {
    const FaultPlan plan = FaultPlan::FailCall(c.operation, 1, SEC_E_INTERNAL_ERROR);
    EXPECT_EQ(c.call(), SEC_E_INTERNAL_ERROR) << OperationName(c.operation);
  }
  // A status that is no failure takes the place of the call's own.
  const FaultPlan plan = FaultPlan::FailCall(Operation::kInitializeSecurityContext, 1, SEC_I_COMPLETE_AND_CONTINUE);
  EXPECT_EQ(initiator.context.Initialize(initiator.credentials, u"Client", 0, {}, kMax, initiator.token),
            SEC_I_COMPLETE_AND_CONTINUE);
  EXPECT_FALSE(initiator.token.empty());
}

TEST_F(Security, ACredentialsFileHoldsARandomSecretForItsOwnerAlone) {
  struct stat info {};
  ASSERT_EQ(stat(m_file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  const auto text = [](const std::string& file) {
    std::ifstream in(file);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  };
  const std::string begin = "CLUSTER\\qxsvc:0:" + std::string(32, 'X') + ":";
  const std::string first = text(m_file);
  ASSERT_EQ(first.size(), begin.size() + 32 + 2);
  EXPECT_EQ(first.substr(0, begin.size()), begin);
  EXPECT_EQ(first.find_first_not_of("0123456789ABCDEF", begin.size()), begin.size() + 32);
  EXPECT_EQ(first.substr(begin.size() + 32), ":\n");
  EXPECT_EQ(MakeCredentialsFile(m_file, "CLUSTER", "qxsvc"), ERROR_FILE_EXISTS);
  EXPECT_EQ(text(m_file), first);
  const std::string other = m_folder + "/other.key";
  ASSERT_EQ(MakeCredentialsFile(other, "CLUSTER", "qxsvc"), 0u);
  EXPECT_NE(text(other), first);
  EXPECT_EQ(MakeCredentialsFile(m_folder + "/none/x", "a", "b"), ERROR_FILE_NOT_FOUND);
}

TEST_F(Security, ACredentialsFileThatOthersMayReadIsRefused) {
  unsetenv("NTLM_USER_FILE");
  std::string file, why;
  EXPECT_EQ(UseCredentialsFile(m_file, file, why), 0u);
  EXPECT_EQ(file, m_file);
  EXPECT_STREQ(getenv("NTLM_USER_FILE"), m_file.c_str());
  for (const mode_t mode : {0640u, 0604u, 0620u, 0666u}) {
    ASSERT_EQ(chmod(m_file.c_str(), mode), 0);
    setenv("NTLM_USER_FILE", m_file.c_str(), 1);
    EXPECT_EQ(UseCredentialsFile("", file, why), ERROR_ACCESS_DENIED) << mode;
    EXPECT_EQ(why, m_file + " can be read or written by others (its mode must be 0600)");
    SecurityCredentials credentials;
    EXPECT_EQ(SecurityCredentials::Acquire(CredentialsUse::kOutbound, 1, credentials), SEC_E_NO_CREDENTIALS);
  }
  unsetenv("NTLM_USER_FILE");
  EXPECT_EQ(UseCredentialsFile(m_folder, file, why), ERROR_ACCESS_DENIED);
  EXPECT_EQ(why, m_folder + " is not a regular file");
  EXPECT_STREQ(getenv("NTLM_USER_FILE"), "/dev/null");
  unsetenv("NTLM_USER_FILE");
  EXPECT_EQ(UseCredentialsFile(m_folder + "/none", file, why), ERROR_FILE_NOT_FOUND);
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kFileExists, 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(UseCredentialsFile(m_file, file, why), ERROR_ACCESS_DENIED);
    EXPECT_EQ(why, m_folder + "/none can't be looked at by this account");  // the name in force goes on
  }
  if (geteuid() != 0) return;
  ASSERT_EQ(chmod(m_file.c_str(), 0600), 0);
  ASSERT_EQ(chown(m_file.c_str(), 65534, 65534), 0);
  setenv("NTLM_USER_FILE", m_file.c_str(), 1);
  EXPECT_EQ(UseCredentialsFile("", file, why), ERROR_ACCESS_DENIED);
  EXPECT_EQ(why, m_file + " belongs to another account (user 65534)");
}

TEST_F(Security, ACredentialsFileThatWasRefusedCountsOnceItIsOfThisAccountAlone) {
  const std::u16string why = WideFromUtf8(m_file + " can be read or written by others (its mode must be 0600)");
  unsetenv("NTLM_USER_FILE");
  std::string file, reason;
  ASSERT_EQ(chmod(m_file.c_str(), 0644), 0);
  ASSERT_EQ(UseCredentialsFile(m_file, file, reason), ERROR_ACCESS_DENIED);
  Side refused, late;
  EXPECT_EQ(SecurityCredentials::Acquire(CredentialsUse::kOutbound, 1, refused.credentials), SEC_E_NO_CREDENTIALS);
  EXPECT_NE(LastSecurityErrorText().find(why), std::u16string::npos) << Utf8FromWide(LastSecurityErrorText());
  ASSERT_EQ(SecurityCredentials::Acquire(CredentialsUse::kInbound, 1, late.credentials), SEC_E_OK);
  ASSERT_EQ(chmod(m_file.c_str(), 0600), 0);
  Side initiator, acceptor;
  Acquire(initiator, acceptor);
  // Whoever was served with the file refused is served without its secrets to the end.
  Exchange(initiator, late);
  EXPECT_TRUE(SecurityFailed(late.status)) << std::hex << late.status;
  Side first, second;
  Acquire(first, second);
  Exchange(first, second);
  EXPECT_EQ(second.status, SEC_E_OK) << Utf8FromWide(LastSecurityErrorText());
}

TEST_F(Security, ACredentialsFileThatIsOpenedToOthersLaterIsNotUsedEither) {
  const std::u16string why = WideFromUtf8(m_file + " can be read or written by others (its mode must be 0600)");
  Side initiator, acceptor, late;
  Acquire(initiator, acceptor);
  Side refused;
  ASSERT_EQ(chmod(m_file.c_str(), 0640), 0);
  EXPECT_EQ(SecurityCredentials::Acquire(CredentialsUse::kOutbound, 1, refused.credentials), SEC_E_NO_CREDENTIALS);
  EXPECT_NE(LastSecurityErrorText().find(why), std::u16string::npos) << Utf8FromWide(LastSecurityErrorText());
  // The accepting side still serves a realm's callers, where there is one.
  ASSERT_EQ(SecurityCredentials::Acquire(CredentialsUse::kInbound, 1, late.credentials), SEC_E_OK);
  Exchange(initiator, late);
  EXPECT_TRUE(SecurityFailed(late.status)) << std::hex << late.status;
  EXPECT_NE(LastSecurityErrorText().find(why), std::u16string::npos) << Utf8FromWide(LastSecurityErrorText());
  EXPECT_EQ(late.context.Impersonate(), SEC_E_INVALID_HANDLE);
  // Closed to others again it counts at once.
  ASSERT_EQ(chmod(m_file.c_str(), 0600), 0);
  Side first, second;
  Acquire(first, second);
  Exchange(first, second);
  EXPECT_EQ(second.status, SEC_E_OK) << Utf8FromWide(LastSecurityErrorText());
}

}  // namespace
}  // namespace platform

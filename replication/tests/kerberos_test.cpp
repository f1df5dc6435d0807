// The channel in a realm: a KDC of the test's own on loopback, thrown away at the end.
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/process.h"
#include "platform/service_record.h"
#include "replication/node_operations.h"
#include "replication/tests/replication_fixture.h"
#include "replication/tests/wire_tap.h"
#include "service/service_registration.h"

namespace qx {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::Bytes;

constexpr const char* kKdc = "/usr/sbin/krb5kdc";

// Makes the realm QX.TEST: data base, the service's principal, its keytab, and what anonymous tickets need.
constexpr const char* kMakeRealm = R"(set -e
cd "$1"
cat > krb5.conf <<END
[libdefaults]
 default_realm = QX.TEST
 dns_lookup_kdc = false
 dns_lookup_realm = false
 dns_canonicalize_hostname = false
 rdns = false
 udp_preference_limit = 1
[realms]
 QX.TEST = {
  kdc = 127.0.0.1:$2
  pkinit_anchors = FILE:$1/ca.pem
 }
END
cat > kdc.conf <<END
[kdcdefaults]
 kdc_listen = 127.0.0.1:$2
 kdc_tcp_listen = 127.0.0.1:$2
[realms]
 QX.TEST = {
  database_name = $1/principal
  key_stash_file = $1/stash
  max_life = 10h
  pkinit_identity = FILE:$1/kdc.pem,$1/kdckey.pem
  pkinit_anchors = FILE:$1/ca.pem
 }
END
cat > kdc.ext <<END
[kdc]
keyUsage = digitalSignature,keyEncipherment,keyAgreement
extendedKeyUsage = 1.3.6.1.5.2.3.5
subjectAltName = otherName:1.3.6.1.5.2.2;SEQUENCE:principal
[principal]
realm = EXP:0,GeneralString:QX.TEST
name = EXP:1,SEQUENCE:sequence
[sequence]
type = EXP:0,INTEGER:1
string = EXP:1,SEQUENCE:parts
[parts]
a = GeneralString:krbtgt
b = GeneralString:QX.TEST
END
openssl req -x509 -newkey rsa:2048 -nodes -keyout cakey.pem -out ca.pem -subj /CN=ca -days 2 2>/dev/null
openssl req -newkey rsa:2048 -nodes -keyout kdckey.pem -out kdc.csr -subj /CN=kdc 2>/dev/null
openssl x509 -req -in kdc.csr -CA ca.pem -CAkey cakey.pem -CAcreateserial -out kdc.pem -days 2 -extfile kdc.ext -extensions kdc 2>/dev/null
kdb5_util -r QX.TEST create -s -P master
kadmin.local -q "addprinc -randkey qxsvc" 
kadmin.local -q "addprinc -randkey WELLKNOWN/ANONYMOUS"
kadmin.local -q "ktadd -k $1/keytab qxsvc"
)";

class Realm : public testing::ReplicationFixture {
 protected:
  static void SetUpTestSuite() {
    if (access(kKdc, X_OK) != 0) return;
    s_folder = (std::filesystem::temp_directory_path() / "qxrealm_XXXXXX").string();
    ASSERT_NE(mkdtemp(s_folder.data()), nullptr);
    s_port = FreePort();
    SetVariables();
    std::ofstream(s_folder + "/make.sh") << kMakeRealm;
    std::uint32_t code = 77;
    ASSERT_EQ(platform::RunAndWait("/bin/sh -c \"PATH=$PATH:/usr/sbin:/sbin /bin/sh " + s_folder + "/make.sh " + s_folder + " " +
                                       std::to_string(s_port) + " > " + s_folder + "/make.log 2>&1\"",
                                   code),
              0u);
    std::ifstream log(s_folder + "/make.log");
    ASSERT_EQ(code, 0u) << std::string(std::istreambuf_iterator<char>(log), {});
    ASSERT_EQ(platform::RunAndWait(std::string(kKdc) + " -P " + s_folder + "/kdc.pid", code), 0u);  // goes its own way
    ASSERT_EQ(code, 0u);
    s_made = true;
  }
  static void TearDownTestSuite() {
    if (s_folder.empty()) return;
    std::ifstream file(s_folder + "/kdc.pid");
    if (pid_t process = 0; file >> process && process > 1) (void)kill(process, SIGTERM);
    std::filesystem::remove_all(s_folder);
  }
  void SetUp() override {
    if (!s_made) GTEST_SKIP() << "NO REALM HERE: the package krb5-kdc is missing";
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
    if (!s_made) return;
    ReplicationFixture::TearDown();
    for (const char* name : {"KRB5_KDC_PROFILE", "KRB5_KTNAME", "KRB5_CLIENT_KTNAME", "KRB5RCACHEDIR"}) unsetenv(name);
  }
  static void SetVariables() {
    setenv("KRB5_CONFIG", (s_folder + "/krb5.conf").c_str(), 1);
    setenv("KRB5_KDC_PROFILE", (s_folder + "/kdc.conf").c_str(), 1);
    setenv("KRB5_KTNAME", (s_folder + "/keytab").c_str(), 1);
    setenv("KRB5_CLIENT_KTNAME", (s_folder + "/keytab").c_str(), 1);
    setenv("KRB5CCNAME", "MEMORY:qxrealm", 1);
    setenv("KRB5RCACHEDIR", s_folder.c_str(), 1);
  }
  static std::uint16_t FreePort() {
    platform::ListeningSocket probe;
    std::vector<platform::SocketAddress> any;
    EXPECT_EQ(platform::ResolveAddress("127.0.0.1", "0", platform::AddressFamily::kIpv4, true, any), 0);
    EXPECT_EQ(probe.Create(platform::AddressFamily::kIpv4), 0);
    EXPECT_EQ(probe.Bind(any[0]), 0);
    return probe.Port();
  }
  static inline std::string s_folder;
  static inline std::uint16_t s_port = 0;
  static inline bool s_made = false;
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

TEST_F(Realm, TheAccountIsThePrincipal) {
  platform::SecurityCredentials credentials;
  ASSERT_EQ(getLuidForProc(credentials, platform::CredentialsUse::kOutbound), 0u);
  EXPECT_TRUE(credentials.UsesRealm());
  std::u16string name;
  EXPECT_EQ(credentials.UserName(259, name), 0u);
  EXPECT_EQ(name, u"qxsvc@QX.TEST");
  EXPECT_EQ(credentials.UserName(5, name), platform::ERROR_MORE_DATA);
}

TEST_F(Realm, ANodeWithAnotherKeyRefuses) {
  platform::SecurityCredentials outbound;
  ASSERT_EQ(getLuidForProc(outbound, platform::CredentialsUse::kOutbound), 0u);
  std::ofstream(s_folder + "/empty");
  setenv("KRB5_KTNAME", (s_folder + "/empty").c_str(), 1);
  Caller caller;
  Call(caller, NewId());
  EXPECT_EQ(createContext(caller.socket, outbound, caller.context, caller.id), 1);
  caller.socket.Close();
  WaitForChildren();
  EXPECT_THAT(m_log.texts(), Contains(HasSubstr("acceptContext: AcceptSecurityContext Failed with error : 0x8009030")));
}

TEST_F(Realm, AnAnonymousCallerPassesTheTokensAndIsRefusedAsANullSession) {
  const std::string cache = "FILE:" + s_folder + "/anonymous";
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

// replication/tests/throwaway_realm.h: a Kerberos realm of a test's own, QX.TEST, with principal and keytabs.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "platform/testing/temporary_folder.h"

namespace qx::testing {

// Thrown away at destruction. Threads: one object from one thread.
class ThrowawayRealm {
 public:
  // Where the key distribution centre listens, and what it is to have.
  struct Place {
    std::string address;
    std::uint16_t port;
    std::string launcher;  // words that start a program in its place, as "ip netns exec NAME"; empty for none
    bool givesAnonymousTickets = false;  // takes seconds longer
  };
  // Runs a program with its arguments to its end; its exit code.
  using Runner = std::function<int(const std::vector<std::string>& words)>;

  // Why this host can't have one; empty when it can.
  static std::string WhyNot() {
    for (const char* program : {"/usr/sbin/krb5kdc", "/usr/sbin/kadmin.local", "/usr/sbin/kdb5_util"}) {
      if (access(program, X_OK) != 0) return std::string(program) + " is missing (krb5-kdc, krb5-admin-server)";
    }
    return "";
  }

  ThrowawayRealm(const Place& place, const Runner& run) {
    std::ofstream(m_folder + "/make.sh") << kScript;
    const std::string log = m_folder + "/make.log";
    const int code = run({"/bin/sh", m_folder + "/make.sh", m_folder, place.address, std::to_string(place.port),
                          place.givesAnonymousTickets ? "anonymous" : "", place.launcher});
    std::ifstream text(log);
    EXPECT_EQ(code, 0) << std::string(std::istreambuf_iterator<char>(text), {});
    m_made = code == 0;
  }
  ThrowawayRealm(const ThrowawayRealm&) = delete;
  ThrowawayRealm& operator=(const ThrowawayRealm&) = delete;
  ~ThrowawayRealm() {
    std::ifstream file(m_folder + "/kdc.pid");
    if (pid_t process = 0; file >> process && process > 1) (void)kill(process, SIGTERM);
  }

  // False when it couldn't be made; the test has failed then.
  explicit operator bool() const { return m_made; }
  [[nodiscard]] const std::string& Folder() const { return m_folder; }
  // The key of qxsvc@QX.TEST, and one that it had before.
  [[nodiscard]] std::string Keytab() const { return m_folder + "/keytab"; }
  [[nodiscard]] std::string OldKeytab() const { return m_folder + "/old-keytab"; }
  // What a service of the realm has in its environment, as assignments.
  //   keytab   its key
  //   scratch  a folder that it may write to
  [[nodiscard]] std::vector<std::string> Variables(const std::string& keytab, const std::string& scratch) const {
    return {"KRB5_CONFIG=" + m_folder + "/krb5.conf", "KRB5_KTNAME=" + keytab, "KRB5_CLIENT_KTNAME=" + keytab,
            "KRB5CCNAME=MEMORY:qxrealm", "KRB5RCACHEDIR=" + scratch};
  }

 private:
  // Arguments: folder, address, port, "anonymous" or nothing, launcher.
  static constexpr const char* kScript = R"(set -e
exec > "$1/make.log" 2>&1
cd "$1"
PATH=$PATH:/usr/sbin:/sbin
export KRB5_CONFIG="$1/krb5.conf" KRB5_KDC_PROFILE="$1/kdc.conf"
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
  kdc = $2:$3
  pkinit_anchors = FILE:$1/ca.pem
 }
END
cat > kdc.conf <<END
[kdcdefaults]
 kdc_listen = $2:$3
 kdc_tcp_listen = $2:$3
[realms]
 QX.TEST = {
  database_name = $1/principal
  key_stash_file = $1/stash
  max_life = 10h
  pkinit_identity = FILE:$1/kdc.pem,$1/kdckey.pem
  pkinit_anchors = FILE:$1/ca.pem
 }
END
if [ "$4" = anonymous ]; then
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
openssl req -x509 -newkey rsa:2048 -nodes -keyout cakey.pem -out ca.pem -subj /CN=ca -days 2
openssl req -newkey rsa:2048 -nodes -keyout kdckey.pem -out kdc.csr -subj /CN=kdc
openssl x509 -req -in kdc.csr -CA ca.pem -CAkey cakey.pem -CAcreateserial -out kdc.pem -days 2 -extfile kdc.ext -extensions kdc
fi
kdb5_util -r QX.TEST create -s -P master
kadmin.local -q "addprinc -randkey qxsvc"
kadmin.local -q "ktadd -k $1/old-keytab -norandkey qxsvc"
kadmin.local -q "ktadd -k $1/keytab qxsvc"
[ "$4" != anonymous ] || kadmin.local -q "addprinc -randkey WELLKNOWN/ANONYMOUS"
[ -s keytab ] && [ -s old-keytab ]
# It listens when it goes into the background.
$5 krb5kdc -P "$1/kdc.pid"
)";

  const platform::TemporaryFolder m_temporary{"qxrealm"};
  const std::string m_folder = m_temporary.Path();
  bool m_made = false;
};

}  // namespace qx::testing

// What a caller that isn't known yet may send: the accepting side's exchange of tokens on any stream of bytes.
#include <stdlib.h>

#include <algorithm>
#include <span>

#include "fuzz/fuzz_target.h"
#include "platform/security.h"
#include "replication/secure_channel.h"

namespace {

class MemoryConnection final : public platform::IConnection {
 public:
  explicit MemoryConnection(std::span<const std::uint8_t> bytes) : m_bytes(bytes) {}
  platform::SocketError WaitReadable(std::int64_t, bool& ready) override {
    ready = true;
    return 0;
  }
  platform::SocketError ReceiveSome(std::span<std::uint8_t> buffer, std::size_t& count) override {
    count = std::min(buffer.size(), m_bytes.size());
    std::copy_n(m_bytes.begin(), count, buffer.begin());
    m_bytes = m_bytes.subspan(count);
    return 0;
  }
  platform::SocketError SendSome(std::span<const std::uint8_t> bytes, std::size_t& count) override {
    count = bytes.size();
    return 0;
  }

 private:
  std::span<const std::uint8_t> m_bytes;
};

bool LoadOnce() {
  setenv("NTLM_USER_FILE", "/dev/null", 1);
  setenv("KRB5_CONFIG", "/dev/null", 1);
  platform::ErrorCode code = 0;
  return platform::LoadSecurityPackage(code) == platform::SecurityLoad::kLoaded;
}

}  // namespace

QX_FUZZ_TARGET(security_token) {
  static const bool loaded = LoadOnce();
  qx::fuzz::Require(loaded, "the security package is installed");
  platform::SecurityCredentials credentials;
  qx::fuzz::Require(qx::getLuidForProc(credentials, platform::CredentialsUse::kInbound) == platform::SEC_E_OK,
                    "the accepting side gets credentials");
  MemoryConnection connection({data, size});
  platform::SecurityContext context;
  qx::fuzz::Require(qx::acceptContext(connection, credentials, context) != 0, "nobody is known by bytes alone");
  qx::fuzz::Require(!context, "a refused context is deleted");
  return 0;
}

// platform/security.h: the security package "Negotiate": two accounts prove to each other who they are, by tokens.
//
// The calls keep the shape of the published package interface (sspi.h); the statuses are its own (winerror.h). On this
// host the package is SPNEGO of the GSSAPI library (RFC 4178): with Kerberos (RFC 4121) where a realm can be reached
// when credentials are acquired, else with NTLM from a credentials file. The accepting side takes both.
// Threads: every function from any thread after LoadSecurityPackage(); one object by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error_codes.h"

namespace platform {

// A status of the package: negative (top bit set) for a failure.
using SecurityStatus = std::uint32_t;
inline constexpr SecurityStatus SEC_E_OK = 0;
inline constexpr SecurityStatus SEC_I_CONTINUE_NEEDED = 0x00090312;
inline constexpr SecurityStatus SEC_I_COMPLETE_NEEDED = 0x00090313;        // never given on this host
inline constexpr SecurityStatus SEC_I_COMPLETE_AND_CONTINUE = 0x00090314;  // never given on this host
inline constexpr SecurityStatus SEC_E_INVALID_HANDLE = 0x80090301;
inline constexpr SecurityStatus SEC_E_TARGET_UNKNOWN = 0x80090303;
inline constexpr SecurityStatus SEC_E_INTERNAL_ERROR = 0x80090304;
inline constexpr SecurityStatus SEC_E_SECPKG_NOT_FOUND = 0x80090305;
inline constexpr SecurityStatus SEC_E_INVALID_TOKEN = 0x80090308;
inline constexpr SecurityStatus SEC_E_LOGON_DENIED = 0x8009030C;
inline constexpr SecurityStatus SEC_E_UNKNOWN_CREDENTIALS = 0x8009030D;
inline constexpr SecurityStatus SEC_E_NO_CREDENTIALS = 0x8009030E;
inline constexpr SecurityStatus SEC_E_BUFFER_TOO_SMALL = 0x80090321;
[[nodiscard]] constexpr bool SecurityFailed(SecurityStatus status) { return static_cast<std::int32_t>(status) < 0; }

inline constexpr std::uint32_t ISC_REQ_CONFIDENTIALITY = 0x10;
inline constexpr ErrorCode ERROR_NONE_MAPPED = 1332;  // the account has no name of the wanted form

enum class SecurityLoad {
  kLoaded,
  kNoLibrary,  // it can't be loaded
  kNoEntry,    // it lacks an entry or the mechanisms
};

// Loads the library and its table of functions, once; a second call while it is loaded is kLoaded.
//   code  the system's code of a failure; nothing stays loaded then
[[nodiscard]] SecurityLoad LoadSecurityPackage(ErrorCode& code);
// Takes the table away, and what credentials are kept. Credentials and contexts in use keep the library to their end.
void FreeSecurityPackage();
[[nodiscard]] bool IsSecurityPackageLoaded();

// What the library said about the calling thread's last failed call; may quote names. Empty for none.
[[nodiscard]] std::u16string LastSecurityErrorText();

// --- the process's own token ---

// The process's token, which on this host is the process itself.
class ProcessToken {
 public:
  [[nodiscard]] static ErrorCode Open(ProcessToken& out);
  // The token's statistics (information class 10).
  //   buffer   empty: only the size is asked for
  //   size     bytes needed
  //   returns  0; ERROR_INSUFFICIENT_BUFFER (122) for a buffer that is smaller
  [[nodiscard]] ErrorCode Statistics(std::span<std::uint8_t> buffer, std::uint32_t& size) const;

 private:
  bool m_open = false;
};
// Of the statistics: 56 bytes, the 64-bit logon session at offset 8 (winnt.h, TOKEN_STATISTICS).
inline constexpr std::uint32_t kTokenStatisticsSize = 56;
inline constexpr std::size_t kLogonIdOffset = 8;

// --- credentials and contexts ---

enum class CredentialsUse : std::uint32_t { kInbound = 1, kOutbound = 2 };

class SecurityCredentials {
 public:
  SecurityCredentials();
  SecurityCredentials(SecurityCredentials&&) noexcept;
  SecurityCredentials& operator=(SecurityCredentials&&) noexcept;
  ~SecurityCredentials();

  // Acquires the process's own credentials. Those for outbound use choose their mechanism here, once. What nobody uses
  // any more is kept for the next acquisition, at most ten minutes long, until the realm's ticket ends, or until one of
  // the files behind it changes (credentials_stamp.h).
  //   out      untouched on failure
  //   returns  0; SEC_E_NO_CREDENTIALS: neither a realm nor a credentials file (for outbound use; inbound ones are
  //            always given); SEC_E_SECPKG_NOT_FOUND: no package is loaded; other statuses
  [[nodiscard]] static SecurityStatus Acquire(CredentialsUse use, std::uint64_t logonId, SecurityCredentials& out);

  // The account's full name, as GetUserNameEx gives it: the principal in a realm.
  //   returns  0; ERROR_NONE_MAPPED (1332): credentials of a file have none; ERROR_MORE_DATA (234) above maxUnits
  [[nodiscard]] ErrorCode UserName(std::size_t maxUnits, std::u16string& out) const;

  // Whether the tokens will be Kerberos's.
  [[nodiscard]] bool UsesRealm() const;
  explicit operator bool() const { return m_state != nullptr; }

 private:
  friend class SecurityContext;
  friend void FreeSecurityPackage();
  struct State;
  class IdlePool;
  std::unique_ptr<State> m_state;
};

// One side of an exchange of tokens.
class SecurityContext {
 public:
  SecurityContext();
  SecurityContext(SecurityContext&&) noexcept;
  SecurityContext& operator=(SecurityContext&&) noexcept;
  ~SecurityContext();

  // The initiating side's next pass.
  //   target   whom the tokens are for
  //   request  ISC_REQ_CONFIDENTIALITY or 0
  //   input    the other side's token; empty in the first pass
  //   output   the token to send; empty for none
  //   returns  SEC_E_OK, SEC_I_CONTINUE_NEEDED or a failure: SEC_E_BUFFER_TOO_SMALL for a token above maxOutput bytes
  [[nodiscard]] SecurityStatus Initialize(const SecurityCredentials& credentials, std::u16string_view target,
                                          std::uint32_t request, std::span<const std::uint8_t> input,
                                          std::size_t maxOutput, std::vector<std::uint8_t>& output);
  // The accepting side's next pass; an empty first token is handed on.
  //   request     without effect on this host
  //   attributes  of the context, as far as it has come
  [[nodiscard]] SecurityStatus Accept(const SecurityCredentials& credentials, std::span<const std::uint8_t> input,
                                      std::uint32_t request, std::size_t maxOutput, std::vector<std::uint8_t>& output,
                                      std::uint32_t& attributes);
  // Never needed on this host.
  [[nodiscard]] SecurityStatus CompleteToken();

  // Whether the other side's account is known; this host doesn't change identities.
  //   returns  SEC_E_OK; SEC_E_INVALID_HANDLE when the exchange isn't complete
  [[nodiscard]] SecurityStatus Impersonate();
  SecurityStatus Revert();
  // The other side's account as the package names it; empty when it isn't known.
  [[nodiscard]] std::u16string PeerName() const;

  // Whether tokens have been exchanged.
  explicit operator bool() const { return m_state != nullptr; }
  void Delete();

 private:
  friend class AnonymousSid;
  struct State;
  std::unique_ptr<State> m_state;
};

// The identifier of anonymous logons, S-1-5-7.
class AnonymousSid {
 public:
  [[nodiscard]] static ErrorCode Allocate(AnonymousSid& out);
  // Whether the impersonated account of `context` is a member of it: it is anonymous.
  [[nodiscard]] ErrorCode IsMember(const SecurityContext& context, bool& member) const;
};

// --- the credentials file ---

// The file that NTLM takes its secrets from. The library reads it anew at each exchange and looks at no mode; so
// SecurityCredentials::Acquire() looks too, at a file that is made or opened to others later: outbound it fails then,
// inbound it gives what serves callers of a realm alone.
// What stands in the environment (NTLM_USER_FILE) wins over `standard`; the name is put there, for this process and not
// for its children. Called before threads.
//   file     the file's name, also when there is none or it is refused
//   why      when it is refused: a sentence
//   returns  0; ERROR_FILE_NOT_FOUND (2): there is none; ERROR_ACCESS_DENIED (5): it isn't a file of this account's
//            alone: owned by another one, readable or writable by others, or out of this account's sight. It isn't used
//            for as long as that is so; one that is no regular file isn't until the next call
[[nodiscard]] ErrorCode UseCredentialsFile(const std::string& standard, std::string& file, std::string& why);

// Writes a new credentials file with a random secret, of the account `domain`\`user`, mode 0600.
//   returns  0; ERROR_FILE_EXISTS (80): there is one already, unchanged; the code of a failed call: none is left
[[nodiscard]] ErrorCode MakeCredentialsFile(const std::string& file, std::string_view domain, std::string_view user);

}  // namespace platform

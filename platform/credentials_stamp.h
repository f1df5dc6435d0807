// platform/credentials_stamp.h: the state of all that credentials are made from, so that kept ones are told from stale
// ones.
//
// That is the environment's names of the credentials file, the realm's configuration, keytabs and ticket cache (gssapi,
// krb5.conf(5)), or the places that the library takes without them, and the files of those names. A file that one of
// them names in its turn isn't looked at.
// Threads: any.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

class CredentialsStamp {
 public:
  // Looks at the environment and the files as they are now.
  [[nodiscard]] static CredentialsStamp Take();

  // Whether a change from now on is bound to show in the next stamp: no file was changed within the last 50 ms, so that
  // a change to come can't bear the same time, and every ticket cache can be looked at.
  [[nodiscard]] bool IsSettled() const { return m_settled; }

  friend bool operator==(const CredentialsStamp& a, const CredentialsStamp& b) { return a.m_places == b.m_places; }

 private:
  struct Place {
    std::string name;  // as the environment gives it
    std::uint64_t device = 0, inode = 0;
    std::int64_t size = -1;                  // bytes; -1 for no file
    std::int64_t modified = 0, changed = 0;  // nanoseconds since 1970
    friend bool operator==(const Place&, const Place&) = default;
  };
  void Add(const char* variable, const std::string& standard);
  void LookAt(const std::string& name);

  std::vector<Place> m_places;
  bool m_settled = true;
};

}  // namespace platform

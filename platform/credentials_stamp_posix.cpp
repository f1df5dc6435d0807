#include "platform/credentials_stamp.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "platform/clock.h"
#include "platform/file_state.h"

namespace platform {
namespace {

constexpr std::int64_t kNanoseconds = 1'000'000'000;
constexpr std::int64_t kSettleNanoseconds = 50'000'000;  // the coarsest tick of file times is far shorter

std::int64_t Now() {
  const auto ticks = static_cast<std::int64_t>(TicksFromFileTime(SystemTimeAsFileTime()));
  return (ticks - kEpochDistanceSeconds * kTicksPerSecond) * (kNanoseconds / kTicksPerSecond);
}

// The file of a keytab's or cache's name, which may say its kind ahead of a colon.
std::string_view FileOf(std::string_view name) {
  for (const std::string_view kind : {"FILE:", "WRFILE:"}) {
    if (name.starts_with(kind)) return name.substr(kind.size());
  }
  return name;
}

}  // namespace

CredentialsStamp CredentialsStamp::Take() {
  const std::string user = std::to_string(geteuid());
  CredentialsStamp stamp;
  stamp.Add("NTLM_USER_FILE", "");
  stamp.Add("KRB5_CONFIG", "/etc/krb5.conf");
  stamp.Add("KRB5_KTNAME", "/etc/krb5.keytab");
  stamp.Add("KRB5_CLIENT_KTNAME", "/etc/krb5/user/" + user + "/client.keytab");
  stamp.Add("KRB5CCNAME", "/tmp/krb5cc_" + user);
  return stamp;
}

void CredentialsStamp::Add(const char* variable, const std::string& standard) {
  const char* const set = std::getenv(variable);
  LookAt(set != nullptr ? set : standard);
}

void CredentialsStamp::LookAt(const std::string& name) {
  Place place{name};
  const std::string file(FileOf(name));
  // A cache in this process's memory changes by this process alone; one of another kind can't be looked at.
  if (file.find(':') != std::string::npos && !file.starts_with("MEMORY:")) m_settled = false;
  struct stat info {};
  if (!file.empty() && stat(file.c_str(), &info) == 0) {
    place.device = info.st_dev;
    place.inode = info.st_ino;
    place.size = info.st_size;
    place.modified = detail::NanosecondsOf(info.st_mtim);
    place.changed = detail::NanosecondsOf(info.st_ctim);
    // A change of a time to come differs by it from a later change as well.
    const auto age = static_cast<std::int64_t>(static_cast<std::uint64_t>(Now()) -
                                               static_cast<std::uint64_t>(place.changed));
    if (S_ISREG(info.st_mode) && age > -kSettleNanoseconds && age < kSettleNanoseconds) m_settled = false;
  }
  m_places.push_back(std::move(place));
}

}  // namespace platform

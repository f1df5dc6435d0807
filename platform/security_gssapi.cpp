#include "platform/security.h"

#include <fcntl.h>
#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "platform/clock.h"
#include "platform/credentials_stamp.h"
#include "platform/fault_point.h"
#include "platform/file.h"
#include "platform/library.h"
#include "platform/mutex.h"
#include "platform/process.h"
#include "platform/sanitizer.h"
#include "platform/text.h"

#if QX_ADDRESS_SANITIZER
// The NTLM module of the host's packages reads one byte behind a name of its own when it copies it, and forgets 32
// bytes at each acquisition of credentials; both are reported for whatever program loads it. The host's GSSAPI library
// forgets at the process's end what it kept of a loaded module, eight bytes.
extern "C" const char* __asan_default_suppressions();
extern "C" const char* __asan_default_suppressions() { return "interceptor_via_lib:gssntlmssp.so\n"; }
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() { return "leak:gssntlmssp.so\nleak:krb5int_open_plugin\n"; }
#endif

namespace platform {
namespace {

constexpr std::u16string_view kLibrary = u"libgssapi_krb5.so.2";

// Object identifiers: SPNEGO (RFC 4178), Kerberos (RFC 1964), NTLM (MS-NLMP), name forms (RFC 2743, RFC 1964).
char g_spnegoBytes[] = "\x2b\x06\x01\x05\x05\x02";
char g_krb5Bytes[] = "\x2a\x86\x48\x86\xf7\x12\x01\x02\x02";
char g_ntlmBytes[] = "\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a";
char g_hostServiceBytes[] = "\x2a\x86\x48\x86\xf7\x12\x01\x02\x01\x04";
char g_principalBytes[] = "\x2a\x86\x48\x86\xf7\x12\x01\x02\x02\x01";
char g_anonymousBytes[] = "\x2b\x06\x01\x05\x06\x03";
gss_OID_desc g_spnego = {6, g_spnegoBytes};
gss_OID_desc g_krb5 = {9, g_krb5Bytes};
gss_OID_desc g_ntlm = {10, g_ntlmBytes};
gss_OID_desc g_hostService = {10, g_hostServiceBytes};
gss_OID_desc g_principal = {10, g_principalBytes};
gss_OID_desc g_anonymous = {6, g_anonymousBytes};

bool SameOid(gss_OID a, const gss_OID_desc& b) {
  return a != GSS_C_NO_OID && a->length == b.length && std::memcmp(a->elements, b.elements, b.length) == 0;
}

// What an anonymous principal's text begins with (RFC 8062).
constexpr std::u16string_view kAnonymousPrincipal = u"WELLKNOWN/ANONYMOUS@";

// The longest time for which credentials are kept: it bounds what no look at a file tells, as a keytab that the realm's
// configuration names.
constexpr std::uint64_t kLongestKeptSeconds = 600;

std::uint64_t SteadyMilliseconds() {
  ClockSource* const clock = InstalledClockSource();
  if (clock != nullptr) return clock->SteadyMilliseconds();
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

// The library and its entries.
struct Table {
  Library library;
#define QX_GSS_ENTRIES(X)                                                                                     \
  X(gss_indicate_mechs) X(gss_acquire_cred) X(gss_set_neg_mechs) X(gss_inquire_cred) X(gss_init_sec_context)  \
  X(gss_accept_sec_context) X(gss_delete_sec_context) X(gss_release_cred) X(gss_release_name)                 \
  X(gss_release_buffer) X(gss_release_oid_set) X(gss_import_name) X(gss_display_name) X(gss_display_status)   \
  X(gss_test_oid_set_member)
#define QX_GSS_POINTER(name) decltype(&::name) name = nullptr;
  QX_GSS_ENTRIES(QX_GSS_POINTER)
#undef QX_GSS_POINTER
};
using TablePointer = std::shared_ptr<const Table>;

Mutex g_tableLock;
TablePointer g_table QX_GUARDED_BY(g_tableLock);

TablePointer CurrentTable() {
  const MutexLock hold(g_tableLock);
  return g_table;
}

thread_local std::u16string t_lastError;

ErrorCode FindEntries(Table& table) {
  ErrorCode rc = ERROR_SUCCESS;
#define QX_GSS_FIND(name) \
  if (rc == ERROR_SUCCESS) rc = table.library.FindFunction(#name, table.name);
  QX_GSS_ENTRIES(QX_GSS_FIND)
#undef QX_GSS_FIND
  return rc;
}

bool HasMechanisms(const Table& table) {
  OM_uint32 minor = 0;
  gss_OID_set found = GSS_C_NO_OID_SET;
  if (table.gss_indicate_mechs(&minor, &found) != GSS_S_COMPLETE) return false;
  const auto has = [&](gss_OID_desc& oid) {
    int present = 0;
    return table.gss_test_oid_set_member(&minor, &oid, found, &present) == GSS_S_COMPLETE && present != 0;
  };
  const bool enough = has(g_spnego) && (has(g_krb5) || has(g_ntlm));
  (void)table.gss_release_oid_set(&minor, &found);
  return enough;
}

gss_OID_set_desc SetOf(gss_OID_desc& oid) { return {1, &oid}; }

// A buffer that the library has filled.
class OwnedBuffer {
 public:
  explicit OwnedBuffer(const Table& table) : m_table(table) {}
  OwnedBuffer(const OwnedBuffer&) = delete;
  OwnedBuffer& operator=(const OwnedBuffer&) = delete;
  ~OwnedBuffer() {
    OM_uint32 minor = 0;
    (void)m_table.gss_release_buffer(&minor, &m_buffer);
  }
  gss_buffer_t Receive() { return &m_buffer; }
  [[nodiscard]] std::size_t size() const { return m_buffer.length; }
  [[nodiscard]] std::vector<std::uint8_t> Bytes() const {
    const auto* const from = static_cast<const std::uint8_t*>(m_buffer.value);
    return m_buffer.length == 0 ? std::vector<std::uint8_t>() : std::vector<std::uint8_t>(from, from + m_buffer.length);
  }
  // NTLM counts the final NUL of its names.
  [[nodiscard]] std::u16string Text() const {
    const std::string_view all(static_cast<const char*>(m_buffer.value), m_buffer.length);
    return WideFromUtf8(all.substr(0, all.find('\0')));
  }

 private:
  const Table& m_table;
  gss_buffer_desc m_buffer = GSS_C_EMPTY_BUFFER;
};

// A name of the library.
class OwnedName {
 public:
  explicit OwnedName(const Table& table) : m_table(table) {}
  OwnedName(const OwnedName&) = delete;
  OwnedName& operator=(const OwnedName&) = delete;
  ~OwnedName() { Release(); }
  gss_name_t* Receive() {
    Release();
    return &m_name;
  }
  [[nodiscard]] gss_name_t get() const { return m_name; }

 private:
  void Release() {
    OM_uint32 minor = 0;
    if (m_name != GSS_C_NO_NAME) (void)m_table.gss_release_name(&minor, &m_name);
    m_name = GSS_C_NO_NAME;
  }
  const Table& m_table;
  gss_name_t m_name = GSS_C_NO_NAME;
};

std::u16string StatusText(const Table& table, OM_uint32 value, int type, gss_OID mechanism) {
  std::u16string text;
  OM_uint32 more = 0;
  do {
    OM_uint32 minor = 0;
    OwnedBuffer part(table);
    if (table.gss_display_status(&minor, value, type, mechanism, &more, part.Receive()) != GSS_S_COMPLETE) break;
    if (!text.empty()) text += u", ";
    text += part.Text();
  } while (more != 0);
  return text;
}

enum class Side { kInitiator, kAcceptor };

SecurityStatus StatusOf(OM_uint32 major, Side side) {
  struct Row {
    OM_uint32 routine;
    SecurityStatus status;
  };
  static constexpr Row kRows[] = {
      {GSS_S_NO_CRED, SEC_E_NO_CREDENTIALS},
      {GSS_S_DEFECTIVE_TOKEN, SEC_E_INVALID_TOKEN},
      {GSS_S_BAD_MECH, SEC_E_SECPKG_NOT_FOUND},
      {GSS_S_BAD_NAME, SEC_E_TARGET_UNKNOWN},
      {GSS_S_BAD_NAMETYPE, SEC_E_TARGET_UNKNOWN},
      {GSS_S_DEFECTIVE_CREDENTIAL, SEC_E_UNKNOWN_CREDENTIALS},
      {GSS_S_CREDENTIALS_EXPIRED, SEC_E_UNKNOWN_CREDENTIALS},
      {GSS_S_NO_CONTEXT, SEC_E_INVALID_HANDLE},
  };
  for (const Row& row : kRows) {
    if (GSS_ROUTINE_ERROR(major) == row.routine) return row.status;
  }
  return GSS_ROUTINE_ERROR(major) == GSS_S_FAILURE && side == Side::kAcceptor ? SEC_E_LOGON_DENIED
                                                                               : SEC_E_INTERNAL_ERROR;
}

// Keeps the library's words and gives the status of its failure.
SecurityStatus Refused(const Table& table, OM_uint32 major, OM_uint32 minor, Side side) {
  t_lastError = StatusText(table, major, GSS_C_GSS_CODE, GSS_C_NO_OID);
  if (const std::u16string detail = StatusText(table, minor, GSS_C_MECH_CODE, &g_spnego); !detail.empty()) {
    t_lastError += u" (" + detail + u")";
  }
  return StatusOf(major, side);
}

// Credentials of one mechanism below SPNEGO.
class OwnedCredentials {
 public:
  explicit OwnedCredentials(TablePointer table) : m_table(std::move(table)) {}
  OwnedCredentials(const OwnedCredentials&) = delete;
  OwnedCredentials& operator=(const OwnedCredentials&) = delete;
  ~OwnedCredentials() {
    OM_uint32 minor = 0;
    if (m_handle != GSS_C_NO_CREDENTIAL) (void)m_table->gss_release_cred(&minor, &m_handle);
  }
  OM_uint32 Acquire(gss_OID_desc& mechanism, gss_cred_usage_t usage, OM_uint32& minor) {
    gss_OID_set_desc wanted = SetOf(mechanism);
    return m_table->gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &wanted, usage, &m_handle, nullptr,
                                     nullptr);
  }
  [[nodiscard]] gss_cred_id_t get() const { return m_handle; }
  gss_cred_id_t Release() { return std::exchange(m_handle, GSS_C_NO_CREDENTIAL); }

 private:
  TablePointer m_table;
  gss_cred_id_t m_handle = GSS_C_NO_CREDENTIAL;
};

// What a realm gives this process: its principal, and for how long.
struct Ticket {
  std::u16string principal;
  OM_uint32 seconds = 0;
};
bool FindTicket(const TablePointer& table, Ticket& ticket) {
  OM_uint32 minor = 0;
  OwnedCredentials credentials(table);
  if (credentials.Acquire(g_krb5, GSS_C_INITIATE, minor) != GSS_S_COMPLETE) return false;
  OwnedName name(*table);
  // Acquiring looks at files only; this asks the realm.
  if (table->gss_inquire_cred(&minor, credentials.get(), name.Receive(), &ticket.seconds, nullptr, nullptr) !=
      GSS_S_COMPLETE) {
    return false;
  }
  OwnedBuffer text(*table);
  if (table->gss_display_name(&minor, name.get(), text.Receive(), nullptr) != GSS_S_COMPLETE) return false;
  ticket.principal = text.Text();
  return true;
}

// --- the credentials file's mode and owner ---

constexpr const char* kUserFileVariable = "NTLM_USER_FILE";
constexpr const char* kNoFile = "/dev/null";

std::string ReasonToRefuse(const struct stat& info) {
  if (!S_ISREG(info.st_mode)) return "is not a regular file";
  if (info.st_uid != geteuid()) return "belongs to another account (user " + std::to_string(info.st_uid) + ")";
  if ((info.st_mode & 077) != 0) return "can be read or written by others (its mode must be 0600)";
  return {};
}

// Why the file that the library would take its secrets from now isn't one of this account alone: a sentence. Empty where
// it is, and where there is none.
std::u16string WhySecretsAreRefused() {
  const char* const file = std::getenv(kUserFileVariable);
  struct stat info {};
  if (file == nullptr || std::strcmp(file, kNoFile) == 0 || stat(file, &info) != 0) return {};
  const std::string reason = ReasonToRefuse(info);
  return reason.empty() ? std::u16string() : WideFromUtf8(std::string(file) + " " + reason);
}

}  // namespace

SecurityLoad LoadSecurityPackage(ErrorCode& code) {
  const MutexLock hold(g_tableLock);
  code = ERROR_SUCCESS;
  if (g_table) return SecurityLoad::kLoaded;
  auto table = std::make_shared<Table>();
  code = Library::Load(kLibrary, table->library);
  if (code != ERROR_SUCCESS) return SecurityLoad::kNoLibrary;
  code = FindEntries(*table);
  if (code == ERROR_SUCCESS && !HasMechanisms(*table)) code = ERROR_PROC_NOT_FOUND;
  if (code != ERROR_SUCCESS) return SecurityLoad::kNoEntry;
  g_table = std::move(table);
  return SecurityLoad::kLoaded;
}

bool IsSecurityPackageLoaded() { return CurrentTable() != nullptr; }

std::u16string LastSecurityErrorText() { return t_lastError; }

// --- the process's own token ---

ErrorCode ProcessToken::Open(ProcessToken& out) {
  if (const ErrorCode fault = FaultAt(Operation::kOpenProcessToken); fault != ERROR_SUCCESS) return fault;
  out.m_open = true;
  return ERROR_SUCCESS;
}

ErrorCode ProcessToken::Statistics(std::span<std::uint8_t> buffer, std::uint32_t& size) const {
  if (const ErrorCode fault = FaultAt(Operation::kGetTokenInformation, buffer.empty() ? "size" : "data");
      fault != ERROR_SUCCESS) {
    return fault;
  }
  if (!m_open) return ERROR_INVALID_HANDLE;
  size = kTokenStatisticsSize;
  if (buffer.size() < size) return ERROR_INSUFFICIENT_BUFFER;
  // There is one logon session to choose from: that of the process, named by its account.
  std::fill(buffer.begin(), buffer.end(), std::uint8_t{0});
  const std::uint64_t session = geteuid();
  std::memcpy(buffer.data() + kLogonIdOffset, &session, sizeof session);
  return ERROR_SUCCESS;
}

// --- credentials ---

struct SecurityCredentials::State {
  TablePointer table;
  gss_cred_id_t handle = GSS_C_NO_CREDENTIAL;
  CredentialsUse use = CredentialsUse::kInbound;
  bool usesRealm = false;
  std::u16string principal;
  std::u16string refusal;       // why it takes no secrets from the credentials file; empty when it does
  CredentialsStamp stamp;       // of the moment ahead of the acquisition
  std::uint64_t keptUntil = 0;  // of the steady clock, in milliseconds
  bool spoiled = false;         // it failed to make a token: the next one is acquired anew
  // Whether this one, which was acquired, can stand for another that would be acquired now.
  [[nodiscard]] bool IsAsGoodAs(const State& wanted) const {
    return table == wanted.table && usesRealm == wanted.usesRealm && principal == wanted.principal &&
           refusal == wanted.refusal && stamp == wanted.stamp && SteadyMilliseconds() < keptUntil;
  }
  ~State() {
    OM_uint32 minor = 0;
    if (handle != GSS_C_NO_CREDENTIAL) (void)table->gss_release_cred(&minor, &handle);
  }
};

// Credentials outlive their connections: the NTLM module forgets some bytes at each acquisition. Each has one user at a
// time, so that there are as many as were ever in use at once. Threads: any.
class SecurityCredentials::IdlePool {
 public:
  static IdlePool& Instance() {
    static auto* const pool = new IdlePool;
    return *pool;
  }
  // One that is as good as one acquired now, empty for none; what isn't any more is given up.
  std::unique_ptr<State> Take(const State& wanted) {
    std::vector<std::unique_ptr<State>> stale;  // released behind the lock
    const MutexLock hold(m_lock);
    for (std::size_t i = m_idle.size(); i-- > 0;) {
      if (m_idle[i]->use != wanted.use) continue;
      std::unique_ptr<State> found = std::move(m_idle[i]);
      m_idle.erase(m_idle.begin() + static_cast<std::ptrdiff_t>(i));
      if (found->IsAsGoodAs(wanted)) return found;
      stale.push_back(std::move(found));
    }
    return nullptr;
  }
  // Keeps it for the next one. Where no memory is left for that it is given up: destructors come here.
  static void Return(std::unique_ptr<State> state) noexcept {
    try {
      Instance().GiveBack(std::move(state));
    } catch (const std::bad_alloc&) {
    }
  }
  void Drop() {
    std::vector<std::unique_ptr<State>> dropped;
    const MutexLock hold(m_lock);
    dropped.swap(m_idle);
  }

 private:
  void GiveBack(std::unique_ptr<State> state) {
    if (!state || state->spoiled || !state->stamp.IsSettled()) return;
    // Freed in between, the package isn't kept for them.
    const MutexLock hold(m_lock);
    if (CurrentTable() == state->table) m_idle.push_back(std::move(state));
  }

  Mutex m_lock;  // g_tableLock is taken while it is held, never the other way
  std::vector<std::unique_ptr<State>> m_idle QX_GUARDED_BY(m_lock);
};

SecurityCredentials::SecurityCredentials() = default;
SecurityCredentials::SecurityCredentials(SecurityCredentials&&) noexcept = default;
SecurityCredentials& SecurityCredentials::operator=(SecurityCredentials&& other) noexcept {
  if (this == &other) return *this;
  IdlePool::Return(std::move(m_state));
  m_state = std::move(other.m_state);
  return *this;
}
SecurityCredentials::~SecurityCredentials() {
  IdlePool::Return(std::move(m_state));
}

void FreeSecurityPackage() {
  {
    const MutexLock hold(g_tableLock);
    g_table.reset();
  }
  SecurityCredentials::IdlePool::Instance().Drop();
}

SecurityStatus SecurityCredentials::Acquire(CredentialsUse use, std::uint64_t, SecurityCredentials& out) {
  if (const ErrorCode fault = FaultAt(Operation::kAcquireCredentials); fault != ERROR_SUCCESS) return fault;
  auto state = std::make_unique<State>();
  state->table = CurrentTable();
  state->use = use;
  t_lastError.clear();
  if (!state->table) return SEC_E_SECPKG_NOT_FOUND;
  const Table& table = *state->table;
  const bool outbound = use == CredentialsUse::kOutbound;
  state->stamp = CredentialsStamp::Take();
  std::uint64_t seconds = kLongestKeptSeconds;
  // One mechanism is offered, not both: the target's name is of the form that the chosen one takes.
  if (Ticket ticket; outbound && FindTicket(state->table, ticket)) {
    state->usesRealm = true;
    state->principal = ticket.principal;
    seconds = std::min<std::uint64_t>(seconds, ticket.seconds);
  }
  state->refusal = WhySecretsAreRefused();
  if (outbound && !state->usesRealm && !state->refusal.empty()) {
    t_lastError = state->refusal;
    return SEC_E_NO_CREDENTIALS;
  }
  if (auto kept = IdlePool::Instance().Take(*state)) {
    out = {};
    out.m_state = std::move(kept);
    return SEC_E_OK;
  }
  if (const ErrorCode fault = FaultAt(Operation::kAcquireCredentials, "anew"); fault != ERROR_SUCCESS) return fault;
  OwnedCredentials credentials(state->table);
  OM_uint32 minor = 0;
  OM_uint32 major = credentials.Acquire(g_spnego, outbound ? GSS_C_INITIATE : GSS_C_ACCEPT, minor);
  if (major == GSS_S_COMPLETE && (outbound || !state->refusal.empty())) {
    gss_OID_set_desc chosen = SetOf(state->usesRealm || !outbound ? g_krb5 : g_ntlm);
    major = table.gss_set_neg_mechs(&minor, credentials.get(), &chosen);
  }
  if (major != GSS_S_COMPLETE) return Refused(table, major, minor, outbound ? Side::kInitiator : Side::kAcceptor);
  state->handle = credentials.Release();
  state->keptUntil = SteadyMilliseconds() + seconds * 1000;
  out = {};
  out.m_state = std::move(state);
  return SEC_E_OK;
}

ErrorCode SecurityCredentials::UserName(std::size_t maxUnits, std::u16string& out) const {
  if (const ErrorCode fault = FaultAt(Operation::kGetUserName); fault != ERROR_SUCCESS) return fault;
  if (!m_state || !m_state->usesRealm) return ERROR_NONE_MAPPED;
  if (m_state->principal.size() > maxUnits) return ERROR_MORE_DATA;
  out = m_state->principal;
  return ERROR_SUCCESS;
}

bool SecurityCredentials::UsesRealm() const { return m_state && m_state->usesRealm; }

// --- contexts ---

struct SecurityContext::State {
  TablePointer table;
  gss_ctx_id_t handle = GSS_C_NO_CONTEXT;
  bool complete = false;
  bool anonymous = false;
  std::u16string peer;
  ~State() {
    OM_uint32 minor = 0;
    if (handle != GSS_C_NO_CONTEXT) (void)table->gss_delete_sec_context(&minor, &handle, GSS_C_NO_BUFFER);
  }
};

SecurityContext::SecurityContext() = default;
SecurityContext::SecurityContext(SecurityContext&&) noexcept = default;
SecurityContext& SecurityContext::operator=(SecurityContext&&) noexcept = default;
SecurityContext::~SecurityContext() = default;

void SecurityContext::Delete() { m_state.reset(); }

namespace {

// A told status that is a failure takes the call's place; another one takes the place of its success.
bool IsToldFailure(ErrorCode fault) { return fault != ERROR_SUCCESS && SecurityFailed(fault); }

gss_buffer_desc InputBuffer(std::span<const std::uint8_t> input) {
  static std::uint8_t nothing = 0;  // an empty token is told from no token by its address
  return {input.size(), input.empty() ? &nothing : const_cast<std::uint8_t*>(input.data())};
}

// What a pass that the library didn't refuse means.
SecurityStatus PassStatus(OM_uint32 major, ErrorCode told) {
  if (told != ERROR_SUCCESS) return told;
  return (major & GSS_S_CONTINUE_NEEDED) != 0 ? SEC_I_CONTINUE_NEEDED : SEC_E_OK;
}

}  // namespace

SecurityStatus SecurityContext::Initialize(const SecurityCredentials& credentials, std::u16string_view target,
                                           std::uint32_t request, std::span<const std::uint8_t> input,
                                           std::size_t maxOutput, std::vector<std::uint8_t>& output) {
  output.clear();
  t_lastError.clear();
  const ErrorCode told = FaultAt(Operation::kInitializeSecurityContext);
  if (IsToldFailure(told)) return told;
  if (!credentials.m_state) return SEC_E_INVALID_HANDLE;
  const TablePointer table = credentials.m_state->table;
  OM_uint32 minor = 0;
  OwnedName name(*table);
  // A principal of the realm; to NTLM any service of any host is one name.
  std::string narrow = Utf8FromWide(target);
  gss_buffer_desc text = {narrow.size(), narrow.data()};
  OM_uint32 major = table->gss_import_name(&minor, &text, credentials.UsesRealm() ? &g_principal : &g_hostService,
                                           name.Receive());
  if (major != GSS_S_COMPLETE) return Refused(*table, major, minor, Side::kInitiator);
  auto state = m_state ? std::move(m_state) : std::make_unique<State>();
  state->table = table;
  gss_buffer_desc token = InputBuffer(input);
  OwnedBuffer made(*table);
  // Behind the first pass the library looks into the token without asking whether there is one.
  const bool first = state->handle == GSS_C_NO_CONTEXT && input.empty();
  major = table->gss_init_sec_context(&minor, credentials.m_state->handle, &state->handle, name.get(), &g_spnego,
                                      (request & ISC_REQ_CONFIDENTIALITY) != 0 ? GSS_C_CONF_FLAG : 0, 0,
                                      GSS_C_NO_CHANNEL_BINDINGS, first ? GSS_C_NO_BUFFER : &token, nullptr,
                                      made.Receive(), nullptr, nullptr);
  if (GSS_ERROR(major)) {
    credentials.m_state->spoiled = true;
    return Refused(*table, major, minor, Side::kInitiator);
  }
  if (made.size() > maxOutput) return SEC_E_BUFFER_TOO_SMALL;
  output = made.Bytes();
  state->complete = major == GSS_S_COMPLETE;
  m_state = std::move(state);
  return PassStatus(major, told);
}

SecurityStatus SecurityContext::Accept(const SecurityCredentials& credentials, std::span<const std::uint8_t> input,
                                       std::uint32_t, std::size_t maxOutput, std::vector<std::uint8_t>& output,
                                       std::uint32_t& attributes) {
  output.clear();
  t_lastError.clear();
  const ErrorCode told = FaultAt(Operation::kAcceptSecurityContext);
  if (IsToldFailure(told)) return told;
  if (!credentials.m_state) return SEC_E_INVALID_HANDLE;
  const TablePointer table = credentials.m_state->table;
  auto state = m_state ? std::move(m_state) : std::make_unique<State>();
  state->table = table;
  gss_buffer_desc token = InputBuffer(input);
  OM_uint32 minor = 0, flags = 0;
  OwnedBuffer made(*table);
  OwnedName name(*table);
  const OM_uint32 major = table->gss_accept_sec_context(&minor, &state->handle, credentials.m_state->handle, &token,
                                                        GSS_C_NO_CHANNEL_BINDINGS, name.Receive(), nullptr,
                                                        made.Receive(), &flags, nullptr, nullptr);
  // A token that comes with a refusal isn't sent.
  if (GSS_ERROR(major)) {
    const SecurityStatus refused = Refused(*table, major, minor, Side::kAcceptor);
    if (const std::u16string& why = credentials.m_state->refusal; !why.empty()) t_lastError += u"; " + why;
    return refused;
  }
  if (made.size() > maxOutput) return SEC_E_BUFFER_TOO_SMALL;
  output = made.Bytes();
  attributes = flags;
  state->complete = major == GSS_S_COMPLETE;
  if (state->complete && name.get() != GSS_C_NO_NAME) {
    OwnedBuffer display(*table);
    gss_OID form = GSS_C_NO_OID;
    if (table->gss_display_name(&minor, name.get(), display.Receive(), &form) == GSS_S_COMPLETE) {
      state->peer = display.Text();
    }
    // The library doesn't set the flag for an anonymous principal: its name form or its text tells.
    state->anonymous = SameOid(form, g_anonymous) || (flags & GSS_C_ANON_FLAG) != 0 || state->peer.empty() ||
                       state->peer.starts_with(kAnonymousPrincipal);
  }
  m_state = std::move(state);
  return PassStatus(major, told);
}

SecurityStatus SecurityContext::CompleteToken() {
  if (const ErrorCode fault = FaultAt(Operation::kCompleteAuthToken); fault != ERROR_SUCCESS) return fault;
  return SEC_E_OK;
}

SecurityStatus SecurityContext::Impersonate() {
  if (const ErrorCode fault = FaultAt(Operation::kImpersonateContext); fault != ERROR_SUCCESS) return fault;
  return m_state && m_state->complete ? SEC_E_OK : SEC_E_INVALID_HANDLE;
}

SecurityStatus SecurityContext::Revert() { return SEC_E_OK; }

std::u16string SecurityContext::PeerName() const { return m_state ? m_state->peer : std::u16string(); }

ErrorCode AnonymousSid::Allocate(AnonymousSid&) { return FaultAt(Operation::kAllocateSid); }

ErrorCode AnonymousSid::IsMember(const SecurityContext& context, bool& member) const {
  if (const ErrorCode fault = FaultAt(Operation::kCheckTokenMembership); fault != ERROR_SUCCESS) return fault;
  if (!context.m_state || !context.m_state->complete) return ERROR_NO_TOKEN;
  member = context.m_state->anonymous || context.m_state->peer.empty();
  return ERROR_SUCCESS;
}

// --- the credentials file ---

namespace {

constexpr std::size_t kSecretBytes = 16;  // an NT hash: no password exists that gives it
// The form of a line that names hashes: user number 0, no LM hash, the NT hash, no flags.
constexpr std::string_view kNoLmHash = "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXX";

}  // namespace

ErrorCode UseCredentialsFile(const std::string& standard, std::string& file, std::string& why) {
  const char* const set = std::getenv(kUserFileVariable);
  file = set != nullptr && *set != '\0' ? set : standard;
  ErrorCode rc = FaultAt(Operation::kFileExists, file);
  struct stat info {};
  if (rc == ERROR_SUCCESS && stat(file.c_str(), &info) != 0) rc = ErrorCodeFromErrno(errno);
  if (rc != ERROR_SUCCESS) {
    if (rc == ERROR_ACCESS_DENIED) why = file + " can't be looked at by this account";
    SetForThisProcess(kUserFileVariable, file);  // one that is made later counts at once
    return rc;
  }
  // A refused one, too: Acquire() refuses it for as long as it is so, and takes it once it is this account's alone. But
  // no pipe: whoever opened it would wait.
  SetForThisProcess(kUserFileVariable, S_ISREG(info.st_mode) ? file : kNoFile);
  const std::string reason = ReasonToRefuse(info);
  if (reason.empty()) return ERROR_SUCCESS;
  why = file + " " + reason;
  return ERROR_ACCESS_DENIED;
}

ErrorCode MakeCredentialsFile(const std::string& file, std::string_view domain, std::string_view user) {
  if (const ErrorCode fault = FaultAt(Operation::kCreateFile, file); fault != ERROR_SUCCESS) return fault;
  std::array<std::uint8_t, kSecretBytes> secret{};
  if (getrandom(secret.data(), secret.size(), 0) != static_cast<ssize_t>(secret.size())) {
    return ErrorCodeFromErrno(errno);
  }
  std::string line = std::string(domain) + "\\" + std::string(user) + ":0:" + std::string(kNoLmHash) + ":";
  for (const std::uint8_t byte : secret) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    line += kDigits[byte >> 4];
    line += kDigits[byte & 15];
  }
  line += ":\n";
  const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) return errno == EEXIST ? ERROR_FILE_EXISTS : ErrorCodeFromErrno(errno);
  int error = fchmod(descriptor, 0600) == 0 ? 0 : errno;
  if (error == 0 && write(descriptor, line.data(), line.size()) != static_cast<ssize_t>(line.size())) error = ENOSPC;
  if (error == 0 && fsync(descriptor) != 0) error = errno;
  if (close(descriptor) != 0 && error == 0) error = errno;
  ErrorCode rc = ErrorCodeFromErrno(error);
  if (rc == ERROR_SUCCESS) rc = SyncDirectory(DirectoryOf(file));
  if (rc != ERROR_SUCCESS) (void)unlink(file.c_str());
  return rc;
}

}  // namespace platform

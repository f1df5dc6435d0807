#include "platform/profile.h"

#include <sys/stat.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "platform/fault_point.h"
#include "platform/file.h"
#include "platform/mutex.h"
#include "platform/profile_text.h"
#include "platform/text.h"

namespace platform {
namespace {

using detail::ProfileText;
using Line = detail::ProfileLine;
using Section = detail::ProfileSection;
using Edit = detail::ProfileEdit;

constexpr std::size_t kUsualEdits = 64;         // of a batch: those of a schedule's save
constexpr std::uint32_t kWholeSectionTail = 2;  // NULs behind the last line: its own and the end's

std::string_view Trim(std::string_view text) { return detail::TrimProfile(text); }

template <typename Char>
std::basic_string_view<Char> UntilNul(std::basic_string_view<Char> text) {
  return text.substr(0, text.find(Char{}));
}

bool IsNull(std::u16string_view text) { return text.data() == nullptr; }

// The bytes of a file. A missing file is a text too: the empty one.
struct ReadText {
  std::string bytes;
  bool exists = false;
};

// --- the file and the batches ---

bool IsMissing(ErrorCode rc) { return rc == ERROR_FILE_NOT_FOUND || rc == ERROR_PATH_NOT_FOUND; }

ErrorCode ReadFileText(const std::string& name, ReadText& out) {
  out = {};
  if (name.empty()) return ERROR_ACCESS_DENIED;
  struct stat info {};
  if (::stat(name.c_str(), &info) == 0 && static_cast<std::uint64_t>(info.st_size) > kMostProfileBytes) {
    return ERROR_FILE_TOO_LARGE;
  }
  const ErrorCode rc = ReadWholeFile(name, out.bytes);
  out.exists = rc == ERROR_SUCCESS;
  return rc;
}

// Writers of this process take turns: the new file beside the old one has one name.
Mutex g_writers;

ErrorCode AskFault(Operation operation, std::u16string_view what) {
  if (!detail::g_faultSeamArmed.load(std::memory_order_relaxed)) return ERROR_SUCCESS;
  return FaultAt(operation, Utf8FromWide(what));
}

}  // namespace

struct detail::ProfileBatchState {
  std::u16string path;
  std::string name;
  ProfileBatch::Purpose purpose = ProfileBatch::kSave;
  std::thread::id owner = std::this_thread::get_id();
  ProfileBatchState* older = nullptr;
  bool isRead = false;
  ErrorCode readResult = ERROR_SUCCESS;  // of the one read: success, or how the file is missing
  ReadText original;
  bool isParsed = false;
  ProfileText text;
  std::vector<Edit> edits;
  bool changed = false;
  bool isUnsafe = false;  // a commit failed: the text may be in place, but not yet safe from a power cut
  bool isPrepared = false;
  std::string preparedBytes;
  ErrorCode preparedResult = ERROR_SUCCESS;
  FileReplacement prepared;
  ErrorCode firstFailure = ERROR_SUCCESS;      // of the writes
  ErrorCode firstReadFailure = ERROR_SUCCESS;  // of the reads

  // Reads the file, once it can be read.
  ErrorCode Read() {
    if (isRead) return readResult;
    const ErrorCode rc = ReadFileText(name, original);
    if (rc != ERROR_SUCCESS && !IsMissing(rc)) return rc;
    isRead = true;
    return readResult = rc;
  }

  // The text of what was read.
  ProfileText& Text() {
    if (!isParsed) text = ProfileText(original.bytes);
    isParsed = true;
    return text;
  }

  ErrorCode Add(Edit edit) {
    if (purpose == ProfileBatch::kLoad) return ERROR_ACCESS_DENIED;
    if (const ErrorCode rc = Read(); rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) return rc;
    changed = Text().Apply(edit) || changed || !original.exists;
    if (edits.empty()) edits.reserve(kUsualEdits);
    edits.push_back(std::move(edit));
    DropPrepared();
    return ERROR_SUCCESS;
  }

  void DropPrepared() {
    isPrepared = false;
    prepared.Discard();
  }

  void Prepare() {
    if (purpose == ProfileBatch::kLoad || firstFailure != ERROR_SUCCESS || !changed || isPrepared) return;
    const MutexLock lock(g_writers);
    isPrepared = true;
    preparedBytes = Text().Serialize();
    preparedResult = prepared.Begin(name, preparedBytes, Durable::kYes);
    prepared.HaveDiskBegin();
  }

  // Puts the text in place, from the prepared file where there is one.
  ErrorCode Replace(const std::string& bytes) {
    if (isPrepared && preparedResult != ERROR_SUCCESS) return preparedResult;
    if (isPrepared && prepared.IsBegun()) return prepared.Finish();
    prepared.Discard();
    return ReplaceWholeFile(name, bytes, Durable::kYes);
  }

  // When the file isn't the one that was read, the writes are made on what it is now.
  ErrorCode CatchUp() {
    ReadText present;
    const ErrorCode rc = ReadFileText(name, present);
    if (rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) return rc;
    if (present.exists == original.exists && present.bytes == original.bytes) return ERROR_SUCCESS;
    DropPrepared();
    ProfileText replayed(present.bytes);
    changed = !present.exists && !edits.empty();
    for (const Edit& edit : edits) changed = replayed.Apply(edit) || changed;
    text = std::move(replayed);
    isParsed = true;
    original = std::move(present);
    return ERROR_SUCCESS;
  }

  ErrorCode Commit() {
    if (purpose == ProfileBatch::kLoad) return ERROR_INVALID_FUNCTION;
    if (firstFailure != ERROR_SUCCESS) return firstFailure;
    if (edits.empty()) return ERROR_SUCCESS;
    const MutexLock lock(g_writers);
    if (const ErrorCode rc = CatchUp(); rc != ERROR_SUCCESS) return rc;
    if (changed || isUnsafe) {
      std::string bytes = isPrepared ? std::move(preparedBytes) : Text().Serialize();
      const ErrorCode rc = Replace(bytes);
      DropPrepared();
      isUnsafe = rc != ERROR_SUCCESS;
      if (isUnsafe) return rc;
      original = {std::move(bytes), true};
      isParsed = false;
      readResult = ERROR_SUCCESS;
    }
    edits.clear();
    changed = false;
    return ERROR_SUCCESS;
  }
};

namespace {

thread_local detail::ProfileBatchState* t_youngest = nullptr;

// A path is compared for every key: by its bytes, not unit by unit.
bool IsSameText(std::u16string_view a, std::u16string_view b) {
  return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(char16_t)) == 0);
}

// The thread's batch of a path; null when there is none, with the kernel's name of the path in `name`.
detail::ProfileBatchState* BatchOn(std::u16string_view path, std::string& name) {
  // The words of the last batch are the usual ones, and are cheaper to compare than to translate.
  if (t_youngest != nullptr && IsSameText(t_youngest->path, path)) return t_youngest;
  name = NativePath(path);
  detail::ProfileBatchState* batch = t_youngest;
  while (batch != nullptr && batch->name != name) batch = batch->older;
  return batch;
}

// Gives the text of a path to `use`, from the thread's batch where there is one.
//   fault  of the call itself: it is made only without one
template <typename Use>
ErrorCode WithText(std::u16string_view path, ErrorCode fault, Use use) {
  std::string name;
  if (detail::ProfileBatchState* batch = BatchOn(path, name)) {
    const ErrorCode rc = fault != ERROR_SUCCESS ? fault : batch->Read();
    if (fault == ERROR_SUCCESS && (rc == ERROR_SUCCESS || batch->isRead)) use(batch->Text());
    const bool isMissing = fault == ERROR_SUCCESS && IsMissing(rc);
    if (batch->firstReadFailure == ERROR_SUCCESS && !isMissing) batch->firstReadFailure = rc;
    return rc;
  }
  if (fault != ERROR_SUCCESS) return fault;
  ReadText read;
  const ErrorCode rc = ReadFileText(name, read);
  if (rc == ERROR_SUCCESS) use(ProfileText(std::move(read.bytes)));
  return rc;
}

// The line with the value of a key; null for a missing one.
const Line* LineOf(const ProfileText& text, std::u16string_view section, std::u16string_view key) {
  const Line* line = text.Find(UntilNul(section), UntilNul(key));
  return line != nullptr && line->hasEquals ? line : nullptr;
}

// The value of a line as a caller sees it.
std::u16string ValueOf(const ProfileText& text, const Line& line) {
  return text.Decode(UntilNul<char>(Trim(line.value)));
}

bool IsQuoted(std::u16string_view text) {
  return text.size() >= 2 && text.front() == text.back() && (text.front() == u'"' || text.front() == u'\'');
}

std::uint32_t CopyText(std::u16string_view text, std::span<char16_t> buffer) {
  if (buffer.empty()) return 0;
  const std::u16string_view plain = WithoutQuotes(text);
  const std::size_t length = std::min(plain.size(), buffer.size() - 1);
  std::copy_n(plain.begin(), length, buffer.begin());
  buffer[length] = u'\0';
  // The place of the closing quote is cleared as well, where the buffer reached that far.
  if (IsQuoted(text) && length == plain.size() && length + 1 < buffer.size()) buffer[length + 1] = u'\0';
  return static_cast<std::uint32_t>(length);
}

struct NumberBase {
  char16_t letter;
  std::uint32_t base;
};
constexpr NumberBase kNumberBases[] = {{u'x', 16}, {u'o', 8}, {u'b', 2}};

std::uint32_t DigitOf(char16_t c) {
  if (c >= u'0' && c <= u'9') return static_cast<std::uint32_t>(c - u'0');
  if (c >= u'a' && c <= u'f') return static_cast<std::uint32_t>(c - u'a' + 10);
  if (c >= u'A' && c <= u'F') return static_cast<std::uint32_t>(c - u'A' + 10);
  return 99;
}

std::uint32_t ParseInteger(std::u16string_view text) {
  while (!text.empty() && text.front() <= u' ') text.remove_prefix(1);
  const bool negative = text.starts_with(u'-');
  if (negative || text.starts_with(u'+')) text.remove_prefix(1);
  std::uint32_t base = 10;
  for (const NumberBase& row : kNumberBases) {
    if (text.size() >= 2 && text[0] == u'0' && text[1] == row.letter) base = row.base;
  }
  if (base != 10) text.remove_prefix(2);
  std::uint32_t result = 0;  // unsigned: overflow wraps
  for (const char16_t c : text) {
    const std::uint32_t digit = DigitOf(c);
    if (digit >= base) break;
    result = result * base + digit;
  }
  return negative ? 0u - result : result;
}

// The integer of a value that is decimal digits behind at most one "-": the same bytes in every encoding, so that
// nothing has to be decoded. Nothing for all else, which ParseInteger() knows.
std::optional<std::uint32_t> PlainInteger(std::string_view bytes) {
  const bool negative = bytes.starts_with('-');
  if (negative) bytes.remove_prefix(1);
  if (bytes.empty()) return std::nullopt;
  std::uint32_t result = 0;  // unsigned: overflow wraps
  for (const char c : bytes) {
    if (c < '0' || c > '9') return std::nullopt;
    result = result * 10 + static_cast<std::uint32_t>(c - '0');
  }
  return negative ? 0u - result : result;
}

std::u16string LinesOf(const ProfileText& text, const Section& section) {
  std::string bytes;
  for (const Line& line : section.lines) {
    if (line.removed || line.IsComment()) continue;
    const std::size_t begin = bytes.size();
    bytes.append(line.key);
    if (line.hasEquals) bytes.append("=").append(Trim(line.value));
    bytes.resize(std::min(bytes.find('\0', begin), bytes.size()));
    bytes += '\0';
  }
  return text.Decode(bytes);
}

std::uint32_t CountLines(std::u16string_view text) {
  return static_cast<std::uint32_t>(std::count(text.begin(), text.end(), u'\0'));
}

ProfileSectionText CopyLines(std::u16string_view lines, std::span<char16_t> buffer) {
  ProfileSectionText out;
  const std::size_t size = buffer.size();
  if (size == 0) return out;
  buffer[0] = u'\0';
  if (size < kWholeSectionTail) return out;
  const bool fits = size >= lines.size() + kWholeSectionTail;
  const std::u16string_view copied = lines.substr(0, fits ? lines.size() : size - kWholeSectionTail);
  std::copy(copied.begin(), copied.end(), buffer.begin());
  out.length = static_cast<std::uint32_t>(copied.size());
  buffer[copied.size()] = u'\0';
  out.completeLines = CountLines(copied);
  if (copied.empty() || copied.back() == u'\0') return out;
  // Cut: the line gets a NUL of its own, and is a whole one where the cut fell on its end.
  buffer[copied.size() + 1] = u'\0';
  if (lines[copied.size()] == u'\0') ++out.completeLines;
  return out;
}

ErrorCode WriteAlone(const std::string& name, const Edit& edit) {
  const MutexLock lock(g_writers);
  ReadText read;
  if (const ErrorCode rc = ReadFileText(name, read); rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) return rc;
  ProfileText text(read.bytes);
  if (!text.Apply(edit) && read.exists) return ERROR_SUCCESS;
  return ReplaceWholeFile(name, text.Serialize(), Durable::kNo);
}

ErrorCode MakeEdit(std::u16string_view section, std::u16string_view key, const char16_t* value, Edit& edit) {
  const bool removesSection = IsNull(key);
  section = UntilNul(section);
  key = UntilNul(key);
  if (section.empty() || (key.empty() && !removesSection)) return ERROR_INVALID_PARAMETER;
  edit.section = section;
  if (!removesSection) edit.key = key;
  if (value != nullptr) edit.value = value;
  return ERROR_SUCCESS;
}

}  // namespace

// --- the calls ---

ErrorCode GetProfileInt(std::u16string_view path, std::u16string_view section, std::u16string_view key,
                        std::int32_t defaultValue, std::int32_t& value) {
  const bool missingName = IsNull(section) || IsNull(key);
  value = missingName ? 0 : defaultValue;
  const ErrorCode fault = AskFault(Operation::kGetProfileInt, key);
  if (missingName) return fault;
  return WithText(path, fault, [&](const ProfileText& text) {
    const Line* line = LineOf(text, section, key);
    if (line == nullptr) return;
    if (const std::optional<std::uint32_t> number = PlainInteger(Trim(line->value))) {
      value = static_cast<std::int32_t>(*number);
      return;
    }
    const std::u16string decoded = ValueOf(text, *line);
    const std::u16string_view plain = WithoutQuotes(decoded);
    if (!plain.empty()) value = static_cast<std::int32_t>(ParseInteger(plain));
  });
}

std::u16string_view WithoutQuotes(std::u16string_view text) {
  return IsQuoted(text) ? text.substr(1, text.size() - 2) : text;
}

ErrorCode GetProfileString(std::u16string_view path, std::u16string_view section, std::u16string_view key,
                           std::u16string_view defaultText, std::span<char16_t> buffer, std::uint32_t& length) {
  std::u16string_view fallback = UntilNul(defaultText);
  fallback = fallback.substr(0, fallback.find_last_not_of(u' ') + 1);
  ErrorCode rc = AskFault(Operation::kGetProfileString, key);
  std::optional<std::u16string> found;
  if (!IsNull(section) && !IsNull(key)) {
    rc = WithText(path, rc, [&](const ProfileText& text) {
      if (const Line* line = LineOf(text, section, key)) found = ValueOf(text, *line);
    });
  }
  length = CopyText(found ? std::u16string_view(*found) : fallback, buffer);
  return rc;
}

ErrorCode GetProfileSection(std::u16string_view path, std::u16string_view section, std::span<char16_t> buffer,
                            ProfileSectionText& out) {
  bool isThere = false;
  std::u16string lines;
  ErrorCode rc = AskFault(Operation::kGetProfileSection, section);
  if (!IsNull(section)) {
    rc = WithText(path, rc, [&](const ProfileText& text) {
      const Section* found = text.FindSection(UntilNul(section));
      if (found == nullptr) return;
      isThere = true;
      lines = LinesOf(text, *found);
    });
  }
  out = CopyLines(lines, buffer);
  if (!isThere && buffer.size() >= kWholeSectionTail) buffer[1] = u'\0';
  return rc;
}

ErrorCode WriteProfileString(std::u16string_view path, std::u16string_view section, std::u16string_view key,
                             const char16_t* value) {
  std::string name;
  detail::ProfileBatchState* batch = BatchOn(path, name);
  Edit edit;
  ErrorCode rc = AskFault(Operation::kWriteProfileString, key);
  if (rc == ERROR_SUCCESS) rc = MakeEdit(section, key, value, edit);
  if (batch == nullptr) return rc == ERROR_SUCCESS ? WriteAlone(name, edit) : rc;
  if (rc == ERROR_SUCCESS) rc = batch->Add(std::move(edit));
  if (batch->firstFailure == ERROR_SUCCESS) batch->firstFailure = rc;
  return rc;
}

ErrorCode WriteProfileStringNarrow(std::string_view path, std::string_view section, std::string_view key,
                                   const char* value) {
  const std::u16string widePath = WideFromSystem(path);
  const std::u16string wideSection = WideFromSystem(section);
  const std::u16string wideKey = WideFromSystem(key);
  const std::u16string wideValue = value == nullptr ? std::u16string() : WideFromSystem(value);
  return WriteProfileString(widePath, section.data() == nullptr ? std::u16string_view() : wideSection,
                            key.data() == nullptr ? std::u16string_view() : wideKey,
                            value == nullptr ? nullptr : wideValue.c_str());
}

ProfileBatch::ProfileBatch(std::u16string_view path, Purpose purpose)
    : m_state(std::make_unique<detail::ProfileBatchState>()) {
  m_state->path = path;
  m_state->name = NativePath(path);
  m_state->purpose = purpose;
  m_state->older = std::exchange(t_youngest, m_state.get());
}

ProfileBatch::~ProfileBatch() {
  assert(m_state->owner == std::this_thread::get_id());
  detail::ProfileBatchState** link = &t_youngest;
  while (*link != nullptr && *link != m_state.get()) link = &(*link)->older;
  if (*link != nullptr) *link = m_state->older;
}

ErrorCode ProfileBatch::Read() {
  const ErrorCode rc = m_state->Read();
  return IsMissing(rc) ? ErrorCode{ERROR_SUCCESS} : rc;
}

std::string_view ProfileBatch::Bytes() const { return m_state->original.bytes; }

ErrorCode ProfileBatch::FirstFailure() const {
  return m_state->firstFailure != ERROR_SUCCESS ? m_state->firstFailure : m_state->firstReadFailure;
}

void ProfileBatch::Prepare() { m_state->Prepare(); }

ErrorCode ProfileBatch::Commit() {
  if (const ErrorCode rc = FaultAt(Operation::kCommitProfiles, m_state->name); rc != ERROR_SUCCESS) return rc;
  return m_state->Commit();
}

ErrorCode CommitProfiles() {
  if (const ErrorCode rc = FaultAt(Operation::kCommitProfiles); rc != ERROR_SUCCESS) return rc;
  detail::ProfileBatchState* batch = t_youngest;
  while (batch != nullptr && batch->purpose != ProfileBatch::kSave) batch = batch->older;
  return batch == nullptr ? ERROR_INVALID_FUNCTION : batch->Commit();
}

}  // namespace platform

#include "platform/profile.h"

#include <algorithm>
#include <cassert>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/fault_point.h"
#include "platform/file.h"
#include "platform/text.h"

namespace platform {
namespace {

constexpr std::string_view kWideMark = "\xFF\xFE";
constexpr std::string_view kLineEnds = "\r\n";
constexpr std::size_t kUsualSections = 8;
constexpr std::uint32_t kWholeSectionTail = 2;  // NULs behind the last line: its own and the end's

bool IsBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::string_view TrimFront(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  return text;
}

std::string_view Trim(std::string_view text) {
  text = TrimFront(text);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

template <typename Char>
std::basic_string_view<Char> UntilNul(std::basic_string_view<Char> text) {
  return text.substr(0, text.find(Char{}));
}

bool IsNull(std::u16string_view text) { return text.data() == nullptr; }

// --- the text of a file ------------------------------------------------------------------------------------------------

// Lines are kept as bytes, since bytes that the code page doesn't know must survive an edit of their neighbours. A
// UTF-16 file is kept in UTF-8 with lone surrogates in the three-byte form, which loses nothing either.
enum class Encoding { kSystem, kWide };

void AppendUnit(std::string& out, char16_t unit) {
  if (unit < 0x80) {
    out += static_cast<char>(unit);
    return;
  }
  if (unit < 0x800) {
    out += static_cast<char>(0xC0 | (unit >> 6));
  } else {
    out += static_cast<char>(0xE0 | (unit >> 12));
    out += static_cast<char>(0x80 | ((unit >> 6) & 0x3F));
  }
  out += static_cast<char>(0x80 | (unit & 0x3F));
}

// Each unit for itself, pairs too: the form exists in memory only, and is read back by UnitsFromBytes alone.
std::string BytesFromUnits(std::u16string_view units) {
  std::string out;
  out.reserve(units.size());
  for (const char16_t unit : units) AppendUnit(out, unit);
  return out;
}

std::u16string UnitsFromBytes(std::string_view bytes) {
  std::u16string out;
  out.reserve(bytes.size());
  const auto tail = [&](std::size_t i) {
    return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) & 0x3Fu : 0u;
  };
  for (std::size_t i = 0; i < bytes.size();) {
    const auto lead = static_cast<unsigned char>(bytes[i]);
    if (lead < 0x80) {
      out += static_cast<char16_t>(lead);
      i += 1;
    } else if (lead < 0xE0) {
      out += static_cast<char16_t>(((lead & 0x1Fu) << 6) | tail(i + 1));
      i += 2;
    } else {
      out += static_cast<char16_t>(((lead & 0x0Fu) << 12) | (tail(i + 1) << 6) | tail(i + 2));
      i += 3;
    }
  }
  return out;
}

// Views of the text that holds them.
struct Line {
  std::string_view key;    // the whole line where it has no "="
  std::string_view value;  // without blanks around it when it came from a file
  std::string_view raw;    // a comment as it stood; empty once it was written to
  bool hasEquals = false;
  bool removed = false;

  [[nodiscard]] bool IsComment() const { return key.starts_with(';'); }
};

struct Section {
  std::string_view name;
  std::string_view behind;  // what a hand wrote behind the closing bracket
  bool removed = false;
  std::vector<Line> lines;
  // Of a section of many lines that was searched: folded key to the first line that bears it.
  mutable std::unordered_map<std::string, std::size_t> index;
  mutable std::size_t indexed = 0;  // lines that the index knows
};

// One write, as it was asked for.
struct Edit {
  std::u16string section;
  std::optional<std::u16string> key;
  std::optional<std::u16string> value;
};

// What is the same byte in every encoding, and has no other case than the ASCII one.
bool IsPlain(char32_t c) {
  return (c >= U'a' && c <= U'z') || (c >= U'A' && c <= U'Z') || (c >= U'0' && c <= U'9') || c == U'_' || c == U' ';
}

char UpperAscii(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

// A name that is searched for. Stays where it was made: `bytes` may lie inside.
struct WantedName {
  static constexpr std::size_t kSmall = 64;
  std::string_view bytes;  // as the file would have it, without blanks around it
  bool isPlain = false;
  std::string folded;  // empty for a plain one
  char small[kSmall];
  std::string large;

  WantedName() = default;
  WantedName(const WantedName&) = delete;
  WantedName& operator=(const WantedName&) = delete;
};

class ProfileText {
 public:
  ProfileText() : ProfileText(std::string()) {}
  explicit ProfileText(std::string file) { Parse(m_texts.emplace_back(std::move(file))); }
  ProfileText(ProfileText&&) = default;
  ProfileText& operator=(ProfileText&&) = default;

  [[nodiscard]] std::string Serialize() const;

  // The section and the line that count, null where there is none.
  [[nodiscard]] const Section* FindSection(std::u16string_view name) const;
  [[nodiscard]] const Line* Find(std::u16string_view section, std::u16string_view key) const;

  [[nodiscard]] std::u16string Decode(std::string_view bytes) const {
    return m_encoding == Encoding::kWide ? UnitsFromBytes(bytes) : WideFromSystem(bytes);
  }

  // Carries a write out; true when the text is another one afterwards.
  bool Apply(const Edit& edit);

 private:
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  static constexpr std::size_t kManyLines = 48;  // from here on an index pays

  void Parse(std::string_view file);
  void ParseLine(std::string_view line);
  Section& BeginSection(std::string_view name, std::string_view behind);
  [[nodiscard]] std::string Encode(std::u16string_view text) const {
    return m_encoding == Encoding::kWide ? BytesFromUnits(text) : SystemFromWide(text);
  }
  [[nodiscard]] std::string Fold(std::string_view bytes) const;
  void Want(std::u16string_view name, WantedName& out) const;
  [[nodiscard]] bool IsThatName(std::string_view bytes, const WantedName& wanted) const;
  [[nodiscard]] std::size_t SectionAt(const WantedName& name) const;
  [[nodiscard]] std::size_t LineAt(const Section& section, const WantedName& key) const;
  bool RemoveLine(Section& section, std::size_t at);
  bool SetValue(Section& section, const WantedName& key, std::string value);

  // Keeps a text for the views of it.
  std::string_view Keep(std::string_view text) { return m_texts.emplace_back(text); }
  void ReadAgain();

  Encoding m_encoding = Encoding::kSystem;
  std::deque<std::string> m_texts;  // the file, and what was written since: lines are views of it
  std::string m_verbatim;           // the text as written, where the lines as understood differ; until the next change
  std::vector<Section> m_sections;  // the first one holds the lines in front of any header
};

void ProfileText::Parse(std::string_view file) {
  if (file.starts_with(kWideMark)) {
    m_encoding = Encoding::kWide;
    std::u16string units;
    units.reserve(file.size() / 2);
    for (std::size_t i = kWideMark.size(); i + 1 < file.size(); i += 2) {
      units += static_cast<char16_t>(static_cast<unsigned char>(file[i]) |
                                     (static_cast<unsigned char>(file[i + 1]) << 8));
    }
    file = m_texts.emplace_back(BytesFromUnits(units));
  }
  m_sections.reserve(kUsualSections);
  m_sections.emplace_back();
  for (std::size_t begin = 0; begin < file.size();) {
    std::size_t end = begin;
    while (end < file.size() && file[end] != '\r' && file[end] != '\n') ++end;
    ParseLine(Trim(file.substr(begin, end - begin)));
    begin = end + 1;
  }
}

void ProfileText::ParseLine(std::string_view line) {
  if (line.empty()) return;
  const std::size_t closing = line.front() == '[' ? line.rfind(']') : std::string_view::npos;
  if (closing != std::string_view::npos) {
    BeginSection(Trim(line.substr(1, closing - 1)), line.substr(closing + 1));
    return;
  }
  Line parsed;
  const std::size_t equals = line.find('=');
  parsed.key = Trim(line.substr(0, equals));
  if (equals != std::string_view::npos) {
    parsed.hasEquals = true;
    parsed.value = Trim(line.substr(equals + 1));
  }
  if (parsed.IsComment()) parsed.raw = line;
  m_sections.back().lines.push_back(parsed);
}

Section& ProfileText::BeginSection(std::string_view name, std::string_view behind) {
  Section& section = m_sections.emplace_back();
  section.name = name;
  section.behind = behind;
  return section;
}

std::string ProfileText::Serialize() const {
  if (!m_verbatim.empty()) return m_verbatim;
  std::string out;
  for (std::size_t i = 0; i < m_sections.size(); ++i) {
    const Section& section = m_sections[i];
    if (section.removed) continue;
    if (i != 0) out.append("[").append(section.name).append("]").append(section.behind).append(kLineEnds);
    for (const Line& line : section.lines) {
      if (line.removed) continue;
      if (!line.raw.empty()) {
        out.append(line.raw);
      } else {
        out.append(line.key);
        if (line.hasEquals) out.append("=").append(line.value);
      }
      out.append(kLineEnds);
    }
  }
  if (m_encoding == Encoding::kSystem) return out;
  std::string wide(kWideMark);
  for (const char16_t unit : UnitsFromBytes(out)) {
    wide += static_cast<char>(unit & 0xFF);
    wide += static_cast<char>(unit >> 8);
  }
  return wide;
}

std::string ProfileText::Fold(std::string_view bytes) const {
  std::string folded(bytes);
  bool ascii = true;
  for (char& c : folded) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    ascii = ascii && static_cast<unsigned char>(c) < 0x80;
  }
  if (ascii) return folded;
  std::u16string wide = Decode(bytes);
  for (char16_t& unit : wide) {
    // The two that would fall on the ASCII letters I and S are names of their own.
    if (unit != u'\u0131' && unit != u'\u017F') unit = ToUpperSimple(unit);
  }
  return BytesFromUnits(wide);
}

void ProfileText::Want(std::u16string_view name, WantedName& out) const {
  const auto isPlain = [](auto text) {
    return std::all_of(text.begin(), text.end(), [](auto c) { return IsPlain(static_cast<char32_t>(c)); });
  };
  if (name.size() <= WantedName::kSmall && isPlain(name)) {
    std::transform(name.begin(), name.end(), out.small, [](char16_t c) { return static_cast<char>(c); });
    out.bytes = Trim({out.small, name.size()});
    out.isPlain = true;
    return;
  }
  out.large = Encode(name);
  out.bytes = Trim(out.large);
  out.folded = Fold(out.bytes);
}

bool ProfileText::IsThatName(std::string_view bytes, const WantedName& wanted) const {
  if (!wanted.isPlain) return Fold(bytes) == wanted.folded;
  return bytes.size() == wanted.bytes.size() &&
         std::equal(bytes.begin(), bytes.end(), wanted.bytes.begin(),
                    [](char a, char b) { return UpperAscii(a) == UpperAscii(b); });
}

// Of equal names the first counts.
std::size_t ProfileText::SectionAt(const WantedName& name) const {
  for (std::size_t i = 1; i < m_sections.size(); ++i) {
    if (!m_sections[i].removed && IsThatName(m_sections[i].name, name)) return i;
  }
  return kNone;
}

std::size_t ProfileText::LineAt(const Section& section, const WantedName& key) const {
  const std::vector<Line>& lines = section.lines;
  if (lines.size() < kManyLines) {
    for (std::size_t i = 0; i < lines.size(); ++i) {
      if (!lines[i].removed && IsThatName(lines[i].key, key)) return i;
    }
    return kNone;
  }
  for (; section.indexed < lines.size(); ++section.indexed) {
    const Line& line = lines[section.indexed];
    if (!line.removed) section.index.try_emplace(Fold(line.key), section.indexed);
  }
  const auto found = section.index.find(key.isPlain ? Fold(key.bytes) : key.folded);
  return found == section.index.end() ? kNone : found->second;
}

const Section* ProfileText::FindSection(std::u16string_view name) const {
  WantedName wanted;
  Want(name, wanted);
  const std::size_t at = SectionAt(wanted);
  return at == kNone ? nullptr : &m_sections[at];
}

const Line* ProfileText::Find(std::u16string_view section, std::u16string_view key) const {
  const Section* found = FindSection(section);
  if (found == nullptr) return nullptr;
  WantedName wanted;
  Want(key, wanted);
  const std::size_t at = LineAt(*found, wanted);
  return at == kNone ? nullptr : &found->lines[at];
}

bool ProfileText::Apply(const Edit& edit) {
  WantedName name;
  Want(edit.section, name);
  const std::size_t at = SectionAt(name);
  if (!edit.key) {
    if (at == kNone) return false;
    m_verbatim.clear();
    m_sections[at] = Section();
    m_sections[at].removed = true;  // a later one of that name counts from now on
    return true;
  }
  WantedName key;
  Want(*edit.key, key);
  if (!edit.value) return at != kNone && RemoveLine(m_sections[at], LineAt(m_sections[at], key));
  std::string value(TrimFront(Encode(*edit.value)));
  // What the next reader of the file would understand in another way is understood so at once: the bytes of a batch are
  // those of single calls.
  const bool trailingBlank = Trim(value).size() != value.size();
  const bool otherwise = trailingBlank || value.find_first_of(kLineEnds) != std::string::npos ||
                         key.bytes.find_first_of("=\r\n") != std::string::npos || key.bytes.starts_with('[') ||
                         name.bytes.find_first_of("]\r\n") != std::string::npos;
  if (at == kNone) m_verbatim.clear();
  Section& section = at == kNone ? BeginSection(Keep(name.bytes), {}) : m_sections[at];
  const bool changed = SetValue(section, key, std::move(value)) || at == kNone;
  if (changed && otherwise) ReadAgain();
  return changed;
}

void ProfileText::ReadAgain() {
  std::string verbatim = Serialize();
  *this = ProfileText(verbatim);
  m_verbatim = std::move(verbatim);
}

bool ProfileText::RemoveLine(Section& section, std::size_t at) {
  if (at == kNone) return false;
  m_verbatim.clear();
  section.lines[at].removed = true;
  section.index.clear();  // a later line of that key counts from now on
  section.indexed = 0;
  return true;
}

bool ProfileText::SetValue(Section& section, const WantedName& key, std::string value) {
  const std::size_t at = LineAt(section, key);
  if (at == kNone) {
    Line line;
    line.key = Keep(key.bytes);
    line.value = Keep(value);
    line.hasEquals = true;
    m_verbatim.clear();
    section.lines.push_back(line);
    return true;
  }
  Line& line = section.lines[at];
  if (line.hasEquals && line.value == value) return false;
  m_verbatim.clear();
  line.value = Keep(value);
  line.hasEquals = true;
  line.raw = {};
  return true;
}

// --- the file and the batches --------------------------------------------------------------------------------------------

// A missing file is a text too: the empty one.
struct ReadText {
  std::string bytes;
  bool exists = false;
};

bool IsMissing(ErrorCode rc) { return rc == ERROR_FILE_NOT_FOUND || rc == ERROR_PATH_NOT_FOUND; }

ErrorCode ReadFileText(const std::string& name, ReadText& out) {
  out = {};
  if (name.empty()) return ERROR_ACCESS_DENIED;
  const ErrorCode rc = ReadWholeFile(name, out.bytes);
  out.exists = rc == ERROR_SUCCESS;
  return rc;
}

// Writers of this process take turns: the new file beside the old one has one name.
std::mutex g_writers;

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
  ProfileText text;
  std::vector<Edit> edits;
  bool changed = false;
  ErrorCode firstFailure = ERROR_SUCCESS;      // of the writes
  ErrorCode firstReadFailure = ERROR_SUCCESS;  // of the reads

  // Reads and parses the file, once it can be read.
  ErrorCode Read() {
    if (isRead) return readResult;
    const ErrorCode rc = ReadFileText(name, original);
    if (rc != ERROR_SUCCESS && !IsMissing(rc)) return rc;
    text = ProfileText(original.bytes);
    isRead = true;
    return readResult = rc;
  }

  ErrorCode Add(Edit edit) {
    if (purpose == ProfileBatch::kLoad) return ERROR_ACCESS_DENIED;
    if (const ErrorCode rc = Read(); rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) return rc;
    changed = text.Apply(edit) || changed || !original.exists;
    edits.push_back(std::move(edit));
    return ERROR_SUCCESS;
  }

  // When the file isn't the one that was read, the writes are made on what it is now.
  ErrorCode CatchUp() {
    ReadText present;
    const ErrorCode rc = ReadFileText(name, present);
    if (rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) return rc;
    if (present.exists == original.exists && present.bytes == original.bytes) return ERROR_SUCCESS;
    ProfileText replayed(present.bytes);
    changed = !present.exists && !edits.empty();
    for (const Edit& edit : edits) changed = replayed.Apply(edit) || changed;
    text = std::move(replayed);
    original = std::move(present);
    return ERROR_SUCCESS;
  }

  ErrorCode Commit() {
    if (purpose == ProfileBatch::kLoad) return ERROR_INVALID_FUNCTION;
    if (firstFailure != ERROR_SUCCESS) return firstFailure;
    if (edits.empty()) return ERROR_SUCCESS;
    const std::lock_guard lock(g_writers);
    if (const ErrorCode rc = CatchUp(); rc != ERROR_SUCCESS) return rc;
    if (changed) {
      std::string bytes = text.Serialize();
      if (const ErrorCode rc = ReplaceWholeFile(name, bytes, Durable::kYes); rc != ERROR_SUCCESS) return rc;
      original = {std::move(bytes), true};
      text = ProfileText(original.bytes);
      readResult = ERROR_SUCCESS;
    }
    edits.clear();
    changed = false;
    return ERROR_SUCCESS;
  }
};

namespace {

thread_local detail::ProfileBatchState* t_youngest = nullptr;

// The thread's batch of a path; null when there is none, with the kernel's name of the path in `name`.
detail::ProfileBatchState* BatchOn(std::u16string_view path, std::string& name) {
  // The words of the last batch are the usual ones, and are cheaper to compare than to translate.
  if (t_youngest != nullptr && t_youngest->path == path) return t_youngest;
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
    if (fault == ERROR_SUCCESS && (rc == ERROR_SUCCESS || batch->isRead)) use(batch->text);
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

// The value of a line as a caller sees it; nothing for a missing one.
std::optional<std::u16string> ValueOf(const ProfileText& text, std::u16string_view section, std::u16string_view key) {
  const Line* line = text.Find(UntilNul(section), UntilNul(key));
  if (line == nullptr || !line->hasEquals) return std::nullopt;
  return text.Decode(UntilNul<char>(Trim(line->value)));
}

bool IsQuoted(std::u16string_view text) {
  return text.size() >= 2 && text.front() == text.back() && (text.front() == u'"' || text.front() == u'\'');
}

std::u16string_view WithoutQuotes(std::u16string_view text) {
  return IsQuoted(text) ? text.substr(1, text.size() - 2) : text;
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
  const std::lock_guard lock(g_writers);
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

// --- the calls -------------------------------------------------------------------------------------------------------------

ErrorCode GetProfileInt(std::u16string_view path, std::u16string_view section, std::u16string_view key,
                        std::int32_t defaultValue, std::int32_t& value) {
  const bool missingName = IsNull(section) || IsNull(key);
  value = missingName ? 0 : defaultValue;
  const ErrorCode fault = AskFault(Operation::kGetProfileInt, key);
  if (missingName) return fault;
  return WithText(path, fault, [&](const ProfileText& text) {
    const std::optional<std::u16string> found = ValueOf(text, section, key);
    if (!found) return;
    const std::u16string_view plain = WithoutQuotes(*found);
    if (!plain.empty()) value = static_cast<std::int32_t>(ParseInteger(plain));
  });
}

ErrorCode GetProfileString(std::u16string_view path, std::u16string_view section, std::u16string_view key,
                           std::u16string_view defaultText, std::span<char16_t> buffer, std::uint32_t& length) {
  std::u16string_view fallback = UntilNul(defaultText);
  fallback = fallback.substr(0, fallback.find_last_not_of(u' ') + 1);
  ErrorCode rc = AskFault(Operation::kGetProfileString, key);
  std::optional<std::u16string> found;
  if (!IsNull(section) && !IsNull(key)) {
    rc = WithText(path, rc, [&](const ProfileText& text) { found = ValueOf(text, section, key); });
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

ErrorCode ProfileBatch::FirstFailure() const {
  return m_state->firstFailure != ERROR_SUCCESS ? m_state->firstFailure : m_state->firstReadFailure;
}

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

#include "platform/profile_text.h"

#include <algorithm>
#include <array>
#include <utility>

#include "platform/text.h"

namespace platform::detail {
namespace {

constexpr std::string_view kWideMark = "\xFF\xFE";
constexpr std::string_view kLineEnds = "\r\n";
constexpr std::size_t kUsualSections = 8;
constexpr std::size_t kBlock = 2048;  // bytes: what a schedule's save writes
constexpr std::size_t kUsualLines = 16;  // of a section

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

// What is the same byte in every encoding, and has no other case than the ASCII one.
constexpr auto kPlain = [] {
  std::array<bool, 128> plain{};
  for (const char c : std::string_view("_ 0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ")) {
    plain[static_cast<std::size_t>(c)] = true;
  }
  return plain;
}();
bool IsPlain(char16_t c) { return c < kPlain.size() && kPlain[c]; }

bool HasLineEnd(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) { return c == '\r' || c == '\n'; });
}

char UpperAscii(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

}  // namespace

std::string_view TrimProfile(std::string_view text) { return Trim(text); }

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

std::u16string ProfileText::Decode(std::string_view bytes) const {
  return m_encoding == Encoding::kWide ? UnitsFromBytes(bytes) : WideFromSystem(bytes);
}

std::string ProfileText::Encode(std::u16string_view text) const {
  return m_encoding == Encoding::kWide ? BytesFromUnits(text) : SystemFromWide(text);
}

void ProfileText::Parse(std::string_view file) {
  if (file.starts_with(kWideMark)) {
    m_encoding = Encoding::kWide;
    std::u16string units;
    units.reserve(file.size() / 2);
    for (std::size_t i = kWideMark.size(); i + 1 < file.size(); i += 2) {
      units += static_cast<char16_t>(static_cast<unsigned char>(file[i]) |
                                     (static_cast<unsigned char>(file[i + 1]) << 8));
    }
    file = m_texts.emplace_front(BytesFromUnits(units));
  }
  m_sections.reserve(kUsualSections);
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
  ProfileLine parsed;
  const std::size_t equals = line.find('=');
  parsed.key = Trim(line.substr(0, equals));
  if (equals != std::string_view::npos) {
    parsed.hasEquals = true;
    parsed.value = Trim(line.substr(equals + 1));
  }
  if (parsed.IsComment()) parsed.raw = line;
  m_sections.back().lines.push_back(parsed);
}

ProfileSection& ProfileText::BeginSection(std::string_view name, std::string_view behind) {
  ProfileSection& section = m_sections.emplace_back();
  section.name = name;
  section.behind = behind;
  section.lines.reserve(kUsualLines);
  return section;
}

std::string ProfileText::Serialize() const {
  if (!m_verbatim.empty()) return m_verbatim;
  std::string out;
  for (std::size_t i = 0; i < m_sections.size(); ++i) {
    const ProfileSection& section = m_sections[i];
    if (section.removed) continue;
    if (i != 0) out.append("[").append(section.name).append("]").append(section.behind).append(kLineEnds);
    for (const ProfileLine& line : section.lines) {
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
  if (m_encoding == Encoding::kSystem) {
    // Bytes that stood behind a blank or a line, at the beginning now, would make the next reader take all for UTF-16.
    if (out.starts_with(kWideMark)) out.insert(out.begin(), ' ');
    return out;
  }
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
  if (name.size() <= WantedName::kSmall && std::all_of(name.begin(), name.end(), IsPlain)) {
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

std::size_t ProfileText::LineAt(const ProfileSection& section, const WantedName& key) const {
  const std::vector<ProfileLine>& lines = section.lines;
  if (lines.size() < kManyLines) {
    for (std::size_t i = 0; i < lines.size(); ++i) {
      if (!lines[i].removed && IsThatName(lines[i].key, key)) return i;
    }
    return kNone;
  }
  for (; section.indexed < lines.size(); ++section.indexed) {
    const ProfileLine& line = lines[section.indexed];
    if (!line.removed) section.index.try_emplace(Fold(line.key), section.indexed);
  }
  const auto found = section.index.find(key.isPlain ? Fold(key.bytes) : key.folded);
  return found == section.index.end() ? kNone : found->second;
}

const ProfileSection* ProfileText::FindSection(std::u16string_view name) const {
  WantedName wanted;
  Want(name, wanted);
  const std::size_t at = SectionAt(wanted);
  return at == kNone ? nullptr : &m_sections[at];
}

const ProfileLine* ProfileText::Find(std::u16string_view section, std::u16string_view key) const {
  const ProfileSection* found = FindSection(section);
  if (found == nullptr) return nullptr;
  WantedName wanted;
  Want(key, wanted);
  const std::size_t at = LineAt(*found, wanted);
  return at == kNone ? nullptr : &found->lines[at];
}

bool ProfileText::Apply(const ProfileEdit& edit) {
  WantedName name;
  Want(edit.section, name);
  const std::size_t at = SectionAt(name);
  if (!edit.key) {
    if (at == kNone) return false;
    m_verbatim.clear();
    m_sections[at] = ProfileSection();
    m_sections[at].removed = true;  // a later one of that name counts from now on
    return true;
  }
  WantedName key;
  Want(*edit.key, key);
  if (!edit.value) return at != kNone && RemoveLine(m_sections[at], LineAt(m_sections[at], key));
  std::string value = Encode(*edit.value);
  value.erase(0, value.size() - TrimFront(value).size());
  // What the next reader of the file would understand in another way is understood so at once: the bytes of a batch are
  // those of single calls.
  const bool trailingBlank = Trim(value).size() != value.size();
  const bool otherwise = trailingBlank || HasLineEnd(value) || HasLineEnd(key.bytes) || HasLineEnd(name.bytes) ||
                         key.bytes.find('=') != std::string_view::npos || key.bytes.starts_with('[') ||
                         name.bytes.find(']') != std::string_view::npos;
  if (at == kNone) m_verbatim.clear();
  ProfileSection& section = at == kNone ? BeginSection(Keep(name.bytes), {}) : m_sections[at];
  const bool changed = SetValue(section, key, std::move(value)) || at == kNone;
  if (changed && otherwise) ReadAgain();
  return changed;
}

std::string_view ProfileText::Keep(std::string_view text) {
  if (m_texts.empty() || m_texts.front().capacity() - m_texts.front().size() < text.size()) {
    m_texts.emplace_front().reserve(std::max(text.size(), kBlock));
  }
  std::string& block = m_texts.front();
  const std::size_t at = block.size();
  block.append(text);
  return std::string_view(block).substr(at);
}

void ProfileText::ReadAgain() {
  std::string verbatim = Serialize();
  *this = ProfileText(verbatim);
  m_verbatim = std::move(verbatim);
}

bool ProfileText::RemoveLine(ProfileSection& section, std::size_t at) {
  if (at == kNone) return false;
  m_verbatim.clear();
  section.lines[at].removed = true;
  section.index.clear();  // a later line of that key counts from now on
  section.indexed = 0;
  return true;
}

bool ProfileText::SetValue(ProfileSection& section, const WantedName& key, std::string value) {
  const std::size_t at = LineAt(section, key);
  if (at == kNone) {
    ProfileLine line;
    line.key = Keep(key.bytes);
    line.value = Keep(value);
    line.hasEquals = true;
    m_verbatim.clear();
    section.lines.push_back(line);
    return true;
  }
  ProfileLine& line = section.lines[at];
  if (line.hasEquals && line.value == value) return false;
  m_verbatim.clear();
  line.value = Keep(value);
  line.hasEquals = true;
  line.raw = {};
  return true;
}

}  // namespace platform::detail

// platform/profile_text.h: the text of a private-profile file in memory, as the profile calls understand it.
//
// Lines are kept as bytes, since bytes that the code page doesn't know must survive an edit of their neighbours. A
// UTF-16 file is kept in UTF-8 with lone surrogates in the three-byte form, which loses nothing either.
// Threads: a value; one thread at a time. Included by the profile calls alone.
#pragma once

#include <cstddef>
#include <forward_list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace platform::detail {

// Without the blanks at its ends.
[[nodiscard]] std::string_view TrimProfile(std::string_view text);

// Views of the text that holds them.
struct ProfileLine {
  std::string_view key;    // the whole line where it has no "="
  std::string_view value;  // without blanks around it when it came from a file
  std::string_view raw;    // a comment as it stood; empty once it was written to
  bool hasEquals = false;
  bool removed = false;

  [[nodiscard]] bool IsComment() const { return key.starts_with(';'); }
};

struct ProfileSection {
  std::string_view name;
  std::string_view behind;  // what a hand wrote behind the closing bracket
  bool removed = false;
  std::vector<ProfileLine> lines;
  // Of a section of many lines that was searched: folded key to the first line that bears it.
  mutable std::unordered_map<std::string, std::size_t> index;
  mutable std::size_t indexed = 0;  // lines that the index knows
};

// One write, as it was asked for.
struct ProfileEdit {
  std::u16string section;
  std::optional<std::u16string> key;
  std::optional<std::u16string> value;
};

struct WantedName;

class ProfileText {
 public:
  ProfileText() : m_sections(1) {}
  explicit ProfileText(std::string file) : m_sections(1) { Parse(m_texts.emplace_front(std::move(file))); }
  ProfileText(ProfileText&&) = default;
  ProfileText& operator=(ProfileText&&) = default;

  [[nodiscard]] std::string Serialize() const;

  // The section and the line that count, null where there is none.
  [[nodiscard]] const ProfileSection* FindSection(std::u16string_view name) const;
  [[nodiscard]] const ProfileLine* Find(std::u16string_view section, std::u16string_view key) const;

  [[nodiscard]] std::u16string Decode(std::string_view bytes) const;

  // Carries a write out; true when the text is another one afterwards.
  bool Apply(const ProfileEdit& edit);

 private:
  enum class Encoding { kSystem, kWide };
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  static constexpr std::size_t kManyLines = 48;  // from here on an index pays

  void Parse(std::string_view file);
  void ParseLine(std::string_view line);
  ProfileSection& BeginSection(std::string_view name, std::string_view behind);
  [[nodiscard]] std::string Encode(std::u16string_view text) const;
  [[nodiscard]] std::string Fold(std::string_view bytes) const;
  void Want(std::u16string_view name, WantedName& out) const;
  [[nodiscard]] bool IsThatName(std::string_view bytes, const WantedName& wanted) const;
  [[nodiscard]] std::size_t SectionAt(const WantedName& name) const;
  [[nodiscard]] std::size_t LineAt(const ProfileSection& section, const WantedName& key) const;
  bool RemoveLine(ProfileSection& section, std::size_t at);
  bool SetValue(ProfileSection& section, const WantedName& key, std::string value);

  // Keeps a text for the views of it.
  std::string_view Keep(std::string_view text);
  void ReadAgain();

  Encoding m_encoding = Encoding::kSystem;
  std::forward_list<std::string> m_texts;  // the file, and what was written since, piece behind piece in blocks that
                                           // never grow beyond their room: lines are views of it
  std::string m_verbatim;           // the text as written, where the lines as understood differ; until the next change
  std::vector<ProfileSection> m_sections;  // the first one holds the lines in front of any header
};

}  // namespace platform::detail

// The .ini reader and writer over any file: what is written is read back, and a batch leaves the same bytes.
#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <iterator>

#include "fuzz/fuzz_target.h"
#include "platform/profile.h"
#include "platform/text.h"

using qx::fuzz::Require;

namespace {

constexpr std::u16string_view kSections[] = {u"General", u"Run Day Rules", u"x", u""};
constexpr std::u16string_view kKeys[] = {u"m_Name", u"Item01", u"Count", u"k"};

std::string Contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::u16string Value(std::u16string_view path, std::u16string_view section, std::u16string_view key, std::size_t room) {
  std::u16string buffer(room, u'#');
  std::uint32_t length = 0;
  (void)platform::GetProfileString(path, section, key, u"none", buffer, length);
  Require(length < room && buffer[length] == u'\0', "a text ends inside its buffer");
  buffer.resize(length);
  return buffer;
}

void Read(std::u16string_view path) {
  for (const std::u16string_view section : kSections) {
    std::array<char16_t, 64> room{};
    platform::ProfileSectionText text;
    (void)platform::GetProfileSection(path, section, room, text);
    Require(text.length <= room.size() - 2, "a section ends inside its buffer");
    for (const std::u16string_view key : kKeys) {
      std::int32_t number = 0;
      (void)platform::GetProfileInt(path, section, key, 7, number);
      (void)Value(path, section, key, 256);
      (void)Value(path, section, key, 1);
    }
  }
}

}  // namespace

QX_FUZZ_TARGET(ini) {
  const std::string_view text = qx::fuzz::Text(data, size);
  const std::string single = qx::fuzz::WriteScratch("single.ini", text);
  const std::string batched = qx::fuzz::WriteScratch("batched.ini", text);
  const std::u16string path = platform::WideFromUtf8(single);
  const std::u16string batchPath = platform::WideFromUtf8(batched);
  Read(path);

  const auto write = [](std::u16string_view to) {
    Require(platform::WriteProfileString(to, u"x", u"k", u"night run") == 0, "a value can be written");
    Require(platform::WriteProfileString(to, u"General", u"m_Name", nullptr) == 0, "a key can be removed");
  };
  write(path);
  Require(Value(path, u"x", u"k", 256) == u"night run", "what was written is read");
  // Of a key that stands there twice, in whatever case, the second one counts from now on.
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  Require(Value(path, u"General", u"m_Name", 256) == u"none" || lower.find("m_name") != lower.rfind("m_name") ||
              text.starts_with("\xFF\xFE"),
          "what was removed is gone");
  {
    platform::ProfileBatch batch(batchPath, platform::ProfileBatch::kSave);
    write(batchPath);
    Require(batch.Commit() == 0, "a batch can be committed");
  }
  Require(Contents(single) == Contents(batched), "a batch leaves the bytes of the single calls");
  Read(path);
  return 0;
}

#include "platform/registry_save.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>
#include <vector>

#include "platform/fault_point.h"
#include "platform/file.h"
#include "platform/text.h"

namespace platform {
namespace {

using Bytes = std::vector<std::byte>;

struct TypeRow {
  std::uint32_t type;
  std::string_view name;
};
constexpr TypeRow kTypes[] = {
    {REG_SZ, "REG_SZ"},       {REG_EXPAND_SZ, "REG_EXPAND_SZ"}, {REG_MULTI_SZ, "REG_MULTI_SZ"},
    {REG_DWORD, "REG_DWORD"}, {REG_BINARY, "REG_BINARY"},
};
constexpr char kHexDigits[] = "0123456789abcdef";

// A JSON text. A lone surrogate reads as U+FFFD and clears `isWhole`.
std::string Text(std::u16string_view text, bool& isWhole) {
  const std::string utf8 = Utf8FromWide(text);
  if (WideFromUtf8(utf8) != text) isWhole = false;
  std::string out = "\"";
  for (const char c : utf8) {
    const auto code = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out.append({'\\', c});
    } else if (code < 0x20) {
      out.append("\\u00").append({kHexDigits[code >> 4], kHexDigits[code & 15]});
    } else {
      out += c;
    }
  }
  return out += '"';
}

std::string Name(std::u16string_view name) {
  bool isWhole = true;  // a lone surrogate in a name shows as U+FFFD
  return Text(name, isWhole);
}

std::string Hex(const Bytes& data) {
  std::string out = "\"";
  for (const std::byte b : data) {
    out.append({kHexDigits[std::to_integer<unsigned>(b) >> 4], kHexDigits[std::to_integer<unsigned>(b) & 15]});
  }
  return out += '"';
}

std::string TypeName(std::uint32_t type) {
  const auto* row =
      std::find_if(std::begin(kTypes), std::end(kTypes), [&](const TypeRow& r) { return r.type == type; });
  return '"' + (row == std::end(kTypes) ? std::to_string(type) : std::string(row->name)) + '"';
}

std::string TextData(std::uint32_t type, const Bytes& bytes, bool& isWhole) {
  std::u16string text(bytes.size() / sizeof(char16_t), u'\0');
  if (!text.empty()) std::memcpy(text.data(), bytes.data(), text.size() * sizeof(char16_t));
  const std::u16string_view view = text;
  const bool isMulti = type == REG_MULTI_SZ;
  isWhole = bytes.size() % sizeof(char16_t) == 0 && view.ends_with(std::u16string_view(u"\0\0", isMulti ? 2 : 1));
  if (!isMulti) {
    const std::size_t end = std::min(view.find(u'\0'), view.size());
    isWhole = isWhole && end + 1 == view.size();
    return Text(view.substr(0, end), isWhole);
  }
  std::string texts;
  std::size_t begin = 0;
  while (begin < view.size() && view[begin] != u'\0') {
    const std::size_t end = std::min(view.find(u'\0', begin), view.size());
    texts += (begin == 0 ? "" : ",") + Text(view.substr(begin, end - begin), isWhole);
    begin = end + 1;
  }
  // Nothing may stand behind the last terminator; an empty list is the two of them.
  isWhole = isWhole && (texts.empty() ? view.size() == 2 : begin + 1 == view.size());
  return '[' + texts + ']';
}

std::string Value(std::u16string_view name, std::uint32_t type, const Bytes& bytes) {
  bool isWhole = true;
  std::string data;
  if (type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ) {
    data = TextData(type, bytes, isWhole);
  } else if (type == REG_DWORD && bytes.size() == sizeof(std::uint32_t)) {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data(), sizeof number);
    data = std::to_string(number);
  } else {
    data = Hex(bytes);
    isWhole = type != REG_DWORD;
  }
  return "{\"name\":" + Name(name) + ",\"type\":" + TypeName(type) + ",\"data\":" + data +
         (isWhole ? "" : ",\"raw\":" + Hex(bytes)) + '}';
}

// Appends "keys" and "values" of a key. Keys nest kMaxKeyDepth deep at most, and so does this.
ErrorCode AppendListing(const RegistryKey& key, std::string& out) {
  out += "\"keys\":[";
  std::u16string name;
  ErrorCode code = ERROR_SUCCESS;
  for (std::uint32_t i = 0; (code = EnumKey(key, i, name)) == ERROR_SUCCESS; ++i) {
    RegistryKey child;
    code = OpenKey(key, name, KEY_READ, child);
    if (code != ERROR_SUCCESS) return code;
    out += (i == 0 ? "{\"name\":" : ",{\"name\":") + Name(name) + ',';
    code = AppendListing(child, out);
    if (code != ERROR_SUCCESS) return code;
    out += '}';
  }
  if (code != ERROR_NO_MORE_ITEMS) return code;
  out += "],\"values\":[";
  std::uint32_t type = 0;
  Bytes data;
  for (std::uint32_t i = 0; (code = EnumValue(key, i, name, type, data)) == ERROR_SUCCESS; ++i) {
    out += (i == 0 ? "" : ",") + Value(name, type, data);
  }
  if (code != ERROR_NO_MORE_ITEMS) return code;
  out += ']';
  return ERROR_SUCCESS;
}

}  // namespace

ErrorCode SaveKey(const RegistryKey& key, const std::string& nativePath) {
  if (const ErrorCode fault = FaultAt(Operation::kRegSaveKey, nativePath); fault != ERROR_SUCCESS) return fault;
  if (FileExists(nativePath) || DirectoryExists(nativePath)) return ERROR_ALREADY_EXISTS;
  std::string contents = "{";
  if (const ErrorCode code = AppendListing(key, contents); code != ERROR_SUCCESS) return code;
  const ErrorCode code = ReplaceWholeFile(nativePath, contents += "}\n", Durable::kYes);
  if (code != ERROR_SUCCESS) (void)DeleteFile(nativePath);  // there where only its directory couldn't be synced
  return code;
}

}  // namespace platform

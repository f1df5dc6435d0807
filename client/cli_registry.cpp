#include "client/cli_registry.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <ostream>
#include <span>
#include <vector>

#include "client/cli_key_store.h"
#include "client/json_text.h"
#include "platform/registry.h"
#include "platform/registry_sub_keys.h"
#include "platform/text.h"

namespace qx {
namespace {

using platform::ErrorCode;
using platform::Hive;
using platform::RegistryKey;

struct TypeRow {
  std::uint32_t type;
  std::string_view name;
};
constexpr TypeRow kTypes[] = {
    {platform::REG_SZ, "REG_SZ"},
    {platform::REG_EXPAND_SZ, "REG_EXPAND_SZ"},
    {platform::REG_MULTI_SZ, "REG_MULTI_SZ"},
    {platform::REG_DWORD, "REG_DWORD"},
    {platform::REG_BINARY, "REG_BINARY"},
};
constexpr std::string_view kTypeNames = "REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_DWORD or REG_BINARY";
constexpr std::size_t kAllKeys = std::numeric_limits<std::int64_t>::max();
constexpr std::string_view kRootNames = "HKLM, HKCR, HKCU, HKU or HKCC";

constexpr bool IsText(std::uint32_t type) {
  return type == platform::REG_SZ || type == platform::REG_EXPAND_SZ || type == platform::REG_MULTI_SZ;
}

// --- Text ---

// A lone surrogate becomes U+FFFD and clears `isWhole`.
std::string ToUtf8(std::u16string_view text, bool& isWhole) {
  std::string out = platform::Utf8FromWide(text);
  isWhole = isWhole && platform::WideFromUtf8(out) == text;
  return out;
}

// False for text that isn't UTF-8.
bool FromUtf8(std::string_view text, std::u16string& out) {
  if (!platform::IsValidUtf8(text)) return false;
  out = platform::WideFromUtf8(text);
  return true;
}

std::string HexBytes(std::span<const std::byte> data) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(data.size() * 2);
  for (const std::byte b : data) {
    out += kDigits[std::to_integer<unsigned>(b) >> 4];
    out += kDigits[std::to_integer<unsigned>(b) & 15];
  }
  return out;
}

// One line of a terminal stays one line, and nothing in it drives the terminal.
std::string OneLine(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (byte < 0x20 || byte == 0x7F) {
          const std::array<std::byte, 1> one{std::byte{byte}};
          out += "\\x" + HexBytes(one);
        } else {
          out += c;
        }
    }
  }
  return out;
}

bool EqualsIgnoringCase(std::string_view left, std::string_view right) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [&](char a, char b) { return lower(a) == lower(b); });
}

// --- Messages ---

int Complain(std::ostream& err, std::string_view message, int exitCode) {
  err << "qxsched: " << message << '\n';
  return exitCode;
}

// `text` belongs to `what` of the message: the key, or the value and the key.
int ComplainOfCode(std::ostream& err, std::string_view what, ErrorCode code) {
  const int exitCode = code == platform::ERROR_FILE_NOT_FOUND      ? kExitNotFound
                       : code == platform::ERROR_BAD_PATHNAME      ? kExitUsage
                       : code == platform::ERROR_INVALID_PARAMETER ? kExitUsage
                       : code == platform::ERROR_ACCESS_DENIED     ? kExitPermission
                                                                   : kExitFailed;
  err << "qxsched: " << what << ": error " << code << ": " << RegistryErrorSentence(code) << '\n';
  return exitCode;
}

// --- Arguments ---

struct KeyPath {
  Hive hive = Hive::kLocalMachine;
  std::u16string subKey;
};

int ReadKeyText(std::string_view text, std::ostream& err, KeyPath& out) {
  std::u16string wide;
  if (!FromUtf8(text, wide)) return Complain(err, "the key's name is not UTF-8 text", kExitUsage);
  if (!platform::ParseKeyPath(wide, out.hive, out.subKey)) {
    return Complain(
        err, "\"" + OneLine(text) + "\" is no key: it begins with " + std::string(kRootNames) + " and a backslash",
        kExitUsage);
  }
  return kExitDone;
}

// Whether it is a key that only a new store makes: without it the service can't be registered again.
bool IsFixedKey(const KeyPath& path) {
  if (path.hive != Hive::kLocalMachine && path.hive != Hive::kUsers) return false;
  const std::size_t end = path.subKey.find_last_not_of(u'\\');
  return end != std::u16string::npos && path.subKey.find(u'\\') > end;
}

int ReadName(std::string_view text, std::ostream& err, std::u16string& out) {
  return FromUtf8(text, out) ? kExitDone : Complain(err, "the value's name is not UTF-8 text", kExitUsage);
}

std::string QuotedLine(std::string_view text) {
  return "\"" + OneLine(text) + "\"";
}

using Bytes = std::vector<std::byte>;

void AppendTerminated(std::u16string_view text, Bytes& out) {
  for (const char16_t unit : text) {
    out.push_back(static_cast<std::byte>(unit & 0xFF));
    out.push_back(static_cast<std::byte>(unit >> 8));
  }
  out.resize(out.size() + sizeof(char16_t));
}

// Each reader fills `out` or gives what is allowed.
using DataReader = const char* (*)(std::string_view text, Bytes& out);

const char* ReadText(std::string_view text, Bytes& out) {
  std::u16string wide;
  if (!FromUtf8(text, wide) || wide.find(u'\0') != wide.npos) return "text is UTF-8 without NUL characters";
  AppendTerminated(wide, out);
  return nullptr;
}

const char* ReadTexts(std::string_view text, Bytes& out) {
  constexpr const char* kAllowed = "REG_MULTI_SZ is one text a line, none of them empty, UTF-8 without NUL characters";
  std::u16string wide;
  if (!FromUtf8(text, wide) || wide.find(u'\0') != wide.npos) return kAllowed;
  if (wide.ends_with(u'\n')) wide.pop_back();
  for (std::size_t begin = 0; begin < wide.size();) {
    const std::size_t end = std::min(wide.find(u'\n', begin), wide.size());
    if (end == begin) return kAllowed;
    AppendTerminated(std::u16string_view(wide).substr(begin, end - begin), out);
    begin = end + 1;
  }
  if (out.empty()) out.resize(sizeof(char16_t));  // no text at all: both terminators stand alone
  out.resize(out.size() + sizeof(char16_t));
  return nullptr;
}

const char* ReadDword(std::string_view text, Bytes& out) {
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  const std::string_view digits = isHex ? text.substr(2) : text;
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, isHex ? 16 : 10);
  if (digits.empty() || error != std::errc() || end != digits.data() + digits.size()) {
    return "REG_DWORD is a number from 0 to 4294967295, decimal or 0x and hexadecimal digits";
  }
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<std::byte>(value >> shift));
  return nullptr;
}

const char* ReadBinary(std::string_view text, Bytes& out) {
  for (std::size_t i = 0; i < text.size(); i += 2) {
    unsigned value = 0;
    const std::string_view pair = text.substr(i, 2);
    const auto [end, error] = std::from_chars(pair.data(), pair.data() + pair.size(), value, 16);
    if (pair.size() != 2 || error != std::errc() || end != pair.data() + 2) {
      return "REG_BINARY is pairs of hexadecimal digits, as in 00ff7a";
    }
    out.push_back(static_cast<std::byte>(value));
  }
  return nullptr;
}

struct ReaderRow {
  std::uint32_t type;
  DataReader read;
};
constexpr ReaderRow kReaders[] = {
    {platform::REG_SZ, ReadText},     {platform::REG_EXPAND_SZ, ReadText}, {platform::REG_MULTI_SZ, ReadTexts},
    {platform::REG_DWORD, ReadDword}, {platform::REG_BINARY, ReadBinary},
};

// --- What a value shows ---

std::string TypeName(std::uint32_t type) {
  const auto* row =
      std::find_if(std::begin(kTypes), std::end(kTypes), [&](const TypeRow& r) { return r.type == type; });
  return row == std::end(kTypes) ? std::to_string(type) : std::string(row->name);
}

nlohmann::json TextData(std::uint32_t type, const Bytes& bytes, bool& isWhole) {
  std::u16string text(bytes.size() / sizeof(char16_t), u'\0');
  if (!text.empty()) std::memcpy(text.data(), bytes.data(), text.size() * sizeof(char16_t));
  const bool isMulti = type == platform::REG_MULTI_SZ;
  const std::u16string_view terminator(u"\0\0", isMulti ? 2 : 1);
  isWhole = bytes.size() % sizeof(char16_t) == 0 && text.ends_with(terminator);
  if (!isMulti) {
    const std::size_t end = std::min(text.find(u'\0'), text.size());
    isWhole = isWhole && end + 1 == text.size();
    return ToUtf8(std::u16string_view(text).substr(0, end), isWhole);
  }
  nlohmann::json texts = nlohmann::json::array();
  std::size_t begin = 0;
  while (begin < text.size() && text[begin] != u'\0') {
    const std::size_t end = std::min(text.find(u'\0', begin), text.size());
    texts.push_back(ToUtf8(std::u16string_view(text).substr(begin, end - begin), isWhole));
    begin = end + 1;
  }
  // Nothing may stand behind the last terminator; an empty list is the two of them.
  isWhole = isWhole && (texts.empty() ? text.size() == 2 : begin + 1 == text.size());
  return texts;
}

nlohmann::ordered_json ShowValue(std::u16string_view name, std::uint32_t type, const Bytes& bytes) {
  nlohmann::ordered_json out;
  bool isNameWhole = true;
  bool isWhole = true;
  out["name"] = ToUtf8(name, isNameWhole);
  out["type"] = TypeName(type);
  if (IsText(type)) {
    out["data"] = TextData(type, bytes, isWhole);
  } else if (type == platform::REG_DWORD && bytes.size() == sizeof(std::uint32_t)) {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data(), sizeof(number));
    out["data"] = number;
  } else {
    out["data"] = HexBytes(bytes);
    isWhole = type != platform::REG_DWORD;
  }
  if (!isWhole) out["raw"] = HexBytes(bytes);
  return out;
}

std::string PlainData(const nlohmann::ordered_json& value) {
  const auto& data = value["data"];
  std::string out;
  if (data.is_array()) {
    for (const auto& text : data) out += (out.empty() ? "" : " ") + QuotedLine(text.get<std::string>());
  } else {
    out = data.is_string() ? OneLine(data.get<std::string>()) : data.dump();
  }
  if (value.contains("raw")) out += "\t(damaged: " + value["raw"].get<std::string>() + ")";
  return out;
}

void PrintPlain(const nlohmann::ordered_json& listing, std::ostream& out) {
  for (const auto& key : listing["keys"]) out << OneLine(key.get<std::string>()) << "\\\n";
  for (const auto& value : listing["values"]) {
    const auto name = value["name"].get<std::string>();
    out << (name.empty() ? "(default)" : OneLine(name)) << '\t' << value["type"].get<std::string>() << '\t'
        << PlainData(value) << '\n';
  }
}

// The keys as they are at one moment, and the values likewise: the service may write meanwhile.
ErrorCode Collect(const RegistryKey& key, nlohmann::ordered_json& listing) {
  listing["keys"] = nlohmann::ordered_json::array();
  listing["values"] = nlohmann::ordered_json::array();
  ErrorCode code = platform::ReadSubKeys(key, u"", kAllKeys, {}, [&](const platform::SubKeyValues& subKey) {
    bool isWhole = true;
    listing["keys"].push_back(ToUtf8(subKey.Name(), isWhole));
  });
  std::vector<platform::RegistryValue> values;
  if (code == platform::ERROR_SUCCESS) code = platform::ReadRegistryValues(key, values);
  for (const platform::RegistryValue& value : values) {
    listing["values"].push_back(ShowValue(value.name, value.type, value.data));
  }
  return code;
}

}  // namespace

int RegList(std::string_view keyText, bool json, std::ostream& out, std::ostream& err) {
  KeyPath path;
  if (const int exitCode = ReadKeyText(keyText, err, path); exitCode != kExitDone) return exitCode;
  RegistryKey key;
  nlohmann::ordered_json listing;
  ErrorCode code = platform::OpenKey(path.hive, path.subKey, platform::KEY_READ, key);
  if (code == platform::ERROR_SUCCESS) code = Collect(key, listing);
  if (code != platform::ERROR_SUCCESS) return ComplainOfCode(err, QuotedLine(keyText), code);
  if (json) {
    WriteJson(out, listing);
  } else {
    PrintPlain(listing, out);
  }
  return kExitDone;
}

int RegGet(std::string_view keyText, std::string_view name, bool json, std::ostream& out, std::ostream& err) {
  KeyPath path;
  std::u16string wideName;
  if (const int exitCode = ReadKeyText(keyText, err, path); exitCode != kExitDone) return exitCode;
  if (const int exitCode = ReadName(name, err, wideName); exitCode != kExitDone) return exitCode;
  RegistryKey key;
  std::uint32_t type = 0;
  Bytes bytes;
  ErrorCode code = platform::OpenKey(path.hive, path.subKey, platform::KEY_READ, key);
  if (code != platform::ERROR_SUCCESS) return ComplainOfCode(err, QuotedLine(keyText), code);
  code = platform::QueryValueBytes(key, wideName, type, bytes);
  if (code != platform::ERROR_SUCCESS) return ComplainOfCode(err, QuotedLine(keyText) + " " + QuotedLine(name), code);
  const nlohmann::ordered_json value = ShowValue(wideName, type, bytes);
  if (json) {
    WriteJson(out, value);
    return kExitDone;
  }
  const auto& data = value["data"];
  if (data.is_array()) {
    for (const auto& text : data) out << text.get<std::string>() << '\n';
  } else {
    out << (data.is_string() ? data.get<std::string>() : data.dump()) << '\n';
  }
  if (value.contains("raw")) {
    err << "qxsched: " << QuotedLine(name) << " is damaged: its bytes are " << value["raw"].get<std::string>() << '\n';
  }
  return kExitDone;
}

int RegSet(std::string_view keyText, std::string_view name, std::string_view data, std::string_view typeText,
           std::ostream& err) {
  KeyPath path;
  std::u16string wideName;
  if (const int exitCode = ReadKeyText(keyText, err, path); exitCode != kExitDone) return exitCode;
  if (const int exitCode = ReadName(name, err, wideName); exitCode != kExitDone) return exitCode;
  if (wideName.size() > platform::kMaxValueNameLength || wideName.find(u'\0') != wideName.npos) {
    return Complain(err, "a value's name has at most 16383 characters, none of them NUL", kExitUsage);
  }
  const auto* type = std::find_if(std::begin(kTypes), std::end(kTypes),
                                  [&](const TypeRow& row) { return EqualsIgnoringCase(row.name, typeText); });
  if (type == std::end(kTypes)) {
    return Complain(err, QuotedLine(typeText) + " is no type: it is " + std::string(kTypeNames), kExitUsage);
  }
  const auto* reader = std::find_if(std::begin(kReaders), std::end(kReaders),
                                    [&](const ReaderRow& row) { return row.type == type->type; });
  Bytes bytes;
  if (const char* allowed = reader->read(data, bytes); allowed != nullptr) {
    return Complain(err, QuotedLine(data) + " can't be set: " + allowed, kExitUsage);
  }
  const std::string what = QuotedLine(keyText) + " " + QuotedLine(name);
  RegistryKey key;
  ErrorCode code = platform::CreateKey(path.hive, path.subKey, platform::KEY_WRITE, key);
  if (code != platform::ERROR_SUCCESS) return ComplainOfCode(err, QuotedLine(keyText), code);
  code = platform::SetRawValue(key, wideName, type->type, bytes);
  const ErrorCode closing = key.Close();
  if (code == platform::ERROR_SUCCESS) code = closing;
  return code == platform::ERROR_SUCCESS ? kExitDone : ComplainOfCode(err, what, code);
}

int RegDelete(std::string_view keyText, const std::optional<std::string>& name, std::ostream& err) {
  KeyPath path;
  if (const int exitCode = ReadKeyText(keyText, err, path); exitCode != kExitDone) return exitCode;
  if (!name) {
    if (IsFixedKey(path)) return ComplainOfCode(err, QuotedLine(keyText), platform::ERROR_ACCESS_DENIED);
    const ErrorCode code = platform::DeleteTree(path.hive, path.subKey);
    return code == platform::ERROR_SUCCESS ? kExitDone : ComplainOfCode(err, QuotedLine(keyText), code);
  }
  std::u16string wideName;
  if (const int exitCode = ReadName(*name, err, wideName); exitCode != kExitDone) return exitCode;
  RegistryKey key;
  ErrorCode code = platform::OpenKey(path.hive, path.subKey, platform::KEY_WRITE, key);
  if (code != platform::ERROR_SUCCESS) return ComplainOfCode(err, QuotedLine(keyText), code);
  code = platform::DeleteValue(key, wideName);
  const ErrorCode closing = key.Close();
  if (code == platform::ERROR_SUCCESS) code = closing;
  return code == platform::ERROR_SUCCESS ? kExitDone
                                         : ComplainOfCode(err, QuotedLine(keyText) + " " + QuotedLine(*name), code);
}

}  // namespace qx

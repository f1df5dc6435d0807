// Names are stored as they were written and, beside that, folded to one case with their characters big end first, so
// that the order of the bytes is the order of the names.
#include "platform/registry_names.h"

#include <locale.h>
#include <wctype.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <new>
#include <optional>

namespace platform {
namespace registry {
namespace {

// Upper case of each 16-bit unit, by the C library's Unicode table. The length never changes.
class FoldTable {
 public:
  FoldTable() {
    const locale_t unicode = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    for (std::uint32_t unit = 0; unit < m_upper.size(); ++unit) {
      std::uint32_t upper = unit;
      // The dotless i and the long s would fall together with the ASCII letters I and S.
      if (unit != 0x131 && unit != 0x17F) {
        upper = unicode != nullptr ? ::towupper_l(unit, unicode) : (unit >= 'a' && unit <= 'z' ? unit - 32 : unit);
      }
      m_upper[unit] = static_cast<std::uint16_t>(upper <= 0xFFFF ? upper : unit);
    }
    if (unicode != nullptr) ::freelocale(unicode);
  }
  [[nodiscard]] std::uint16_t Upper(char16_t unit) const { return m_upper[unit]; }

 private:
  std::array<std::uint16_t, 0x10000> m_upper{};
};

// For the details of the fault seam and for messages; a lone surrogate becomes "?".
[[maybe_unused]] std::string Narrow(std::u16string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t code = text[i];
    if (code >= 0xD800 && code < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
      code = 0x10000 + ((code - 0xD800) << 10) + (text[++i] - 0xDC00u);
    } else if (code >= 0xD800 && code < 0xE000) {
      code = '?';
    }
    if (code < 0x80) {
      out += static_cast<char>(code);
    } else if (code < 0x800) {
      out += static_cast<char>(0xC0 | (code >> 6));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      out += static_cast<char>(0xE0 | (code >> 12));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (code >> 18));
      out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }
  return out;
}

}  // namespace

Bytes Fold(std::u16string_view name) {
  static const FoldTable table;
  Bytes out;
  out.reserve(name.size() * 2);
  for (const char16_t unit : name) {
    const std::uint16_t upper = table.Upper(unit);
    out.push_back(static_cast<unsigned char>(upper >> 8));
    out.push_back(static_cast<unsigned char>(upper));
  }
  return out;
}

// Narrows only when a plan is installed; a name for which there's no memory is left out.
ErrorCode AskFault([[maybe_unused]] Operation operation, [[maybe_unused]] std::u16string_view name) {
#ifdef QX_FAULT_SEAM
  if (detail::g_faultSeamArmed.load(std::memory_order_relaxed)) {
    try {
      return FaultAt(operation, Narrow(name));
    } catch (const std::bad_alloc&) {
      return FaultAt(operation);
    }
  }
#endif
  return ERROR_SUCCESS;
}

ErrorCode SplitPath(std::u16string_view path, std::vector<std::u16string_view>& elements) {
  if (!path.empty() && path.front() == u'\\') return ERROR_BAD_PATHNAME;
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t end = std::min(path.find(u'\\', begin), path.size());
    const std::u16string_view element = path.substr(begin, end - begin);
    if (element.size() > kMaxKeyNameLength || element.find(u'\0') != element.npos) return ERROR_INVALID_PARAMETER;
    if (!element.empty()) elements.push_back(element);
    begin = end + 1;
  }
  return ERROR_SUCCESS;
}

ErrorCode CheckValueName(std::u16string_view name) {
  return name.size() > kMaxValueNameLength || name.find(u'\0') != name.npos ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS;
}

const Root* FindRoot(Hive hive) {
  const auto* root = std::find_if(std::begin(kRoots), std::end(kRoots), [&](const Root& r) { return r.hive == hive; });
  return root == std::end(kRoots) ? nullptr : root;
}

bool RefusesNewChildren(std::int64_t id) {
  return std::any_of(std::begin(kRoots), std::end(kRoots),
                     [&](const Root& root) { return root.id == id && !root.takesNewChildren; });
}

}  // namespace registry

bool ParseKeyPath(std::u16string_view text, Hive& hive, std::u16string& subKey) {
  const std::size_t end = std::min(text.find(u'\\'), text.size());
  const registry::Bytes name = registry::Fold(text.substr(0, end));
  struct Extra {
    Hive hive;
    std::u16string_view name;
  };
  // Roots that have a name, though they are never there.
  static constexpr Extra kNamesOnly[] = {{Hive::kPerformanceData, u"HKEY_PERFORMANCE_DATA"},
                                         {Hive::kDynData, u"HKEY_DYN_DATA"}};
  std::optional<Hive> found;
  for (const registry::Root& root : registry::kRoots) {
    if (name == registry::Fold(root.shortName) || name == registry::Fold(root.longName)) found = root.hive;
  }
  for (const Extra& extra : kNamesOnly) {
    if (name == registry::Fold(extra.name)) found = extra.hive;
  }
  if (!found) return false;
  hive = *found;
  subKey = end < text.size() ? text.substr(end + 1) : std::u16string_view();
  return true;
}

}  // namespace platform

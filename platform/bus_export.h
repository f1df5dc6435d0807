// platform/bus_export.h: an interface as the library serves it: its table, its calls, its properties.
// Included by bus_*_sdbus.cpp alone. Threads: the connection's.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "platform/bus.h"
#include "platform/bus_inside.h"
#include "platform/error_codes.h"

namespace platform::detail {

// What a callback of the library is about: exactly one of the two is set.
struct ExportedMember {
  const BusMethod* method = nullptr;
  const BusProperty* property = nullptr;
  std::string result;  // the type text of a method's reply
};

// An interface as the library wants it: a table whose texts live here. Doesn't move once it is exported.
class ExportedInterface {
 public:
  explicit ExportedInterface(BusInterface served) : m_interface(std::move(served)) {}
  ErrorCode Add(sd_bus* bus, const std::string& path);

 private:
  sd_bus_vtable Entry(char type) {
    sd_bus_vtable entry;
    std::memset(&entry, 0, sizeof entry);  // the library reads fields of the union that we don't name
    entry.type = static_cast<std::uint8_t>(type);
    return entry;
  }
  const char* Keep(std::string text) { return m_texts.emplace_back(std::move(text)).c_str(); }
  static std::string Types(const std::vector<BusArgument>& arguments) {
    std::string types;
    for (const BusArgument& argument : arguments) types += argument.type;
    return types;
  }
  static void AddNames(const std::vector<BusArgument>& arguments, std::string& names) {
    for (const BusArgument& argument : arguments) names.append(argument.name).push_back('\0');
  }
  // The library adds an entry's offset to the address it was given with the table.
  std::size_t AddMember(ExportedMember member) {
    m_members.push_back(std::move(member));
    return (m_members.size() - 1) * sizeof(ExportedMember);
  }

  BusInterface m_interface;
  std::list<std::string> m_texts;
  std::vector<ExportedMember> m_members;
  std::vector<sd_bus_vtable> m_table;
  Slot m_slot;
};

}  // namespace platform::detail

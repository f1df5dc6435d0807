// docs/bus.md beside the service: what it tells by introspection, its records and its statuses.
#include <gmock/gmock.h>

#include <map>
#include <regex>

#include "client/status_text.h"
#include "common/bus_records.h"
#include "tests/running_service.h"

namespace {

using platform::BusValue;
using platform::ERROR_SUCCESS;
using qx::testing::RunningService;

using Row = std::vector<std::string>;  // cells, without the marks of code

// The rows of the table under a heading that begins with `head`; the part under a heading of the page ends at the next.
std::vector<Row> Table(const std::string& section, const std::string& head) {
  std::vector<Row> rows;
  std::istringstream page(RunningService::ReadFile(test_paths::Source() + "/docs/bus.md"));
  bool inSection = false;
  bool inTable = false;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with("## ")) inSection = line == section;
    if (line.starts_with("| " + head + " |")) {
      inTable = inSection;
      (void)std::getline(page, line);  // the ruler
      continue;
    }
    if (!line.starts_with("|")) inTable = false;
    if (!inTable) continue;
    Row row;
    std::string cell;
    for (const char c : line.substr(1)) {
      if (c == '|') {
        const auto begin = cell.find_first_not_of(' ');
        row.push_back(begin == std::string::npos ? "" : cell.substr(begin, cell.find_last_not_of(' ') - begin + 1));
        cell.clear();
      } else if (c != '`') {
        cell += c;
      }
    }
    rows.push_back(row);
  }
  return rows;
}

// The elements of an interface, each as the page writes it: "Name(in) -> out", "Name: type".
using Interface = std::map<std::string, std::string>;

Interface OfPage(const std::string& name) {
  const std::string section = "## `" + name + "`";
  Interface elements;
  for (const Row& row : Table(section, "Method")) elements[row.at(0)] = "(" + row.at(1) + ") -> " + row.at(2);
  for (const Row& row : Table(section, "Signal")) elements[row.at(0)] = "signal " + row.at(1);
  for (const Row& row : Table(section, "Property")) elements[row.at(0)] = "property " + row.at(1);
  return elements;
}

// An attribute of a tag; empty for none.
std::string Attribute(const std::string& tag, const std::string& name) {
  const std::size_t at = tag.find(" " + name + "=\"");
  if (at == std::string::npos) return {};
  const std::size_t begin = at + name.size() + 3;
  return tag.substr(begin, tag.find('"', begin) - begin);
}

std::map<std::string, Interface> OfIntrospection(const std::string& xml) {
  std::map<std::string, Interface> interfaces;
  std::string interface, kind, element, in, out;
  const auto add = [](std::string& list, const std::string& argument) { list += (list.empty() ? "" : ", ") + argument; };
  static const std::regex kTag("<[^>]*>");
  for (std::sregex_iterator it(xml.begin(), xml.end(), kTag), end; it != end; ++it) {
    const std::string tag = it->str();
    if (tag.starts_with("<interface ")) {
      interface = Attribute(tag, "name");
    } else if (tag.starts_with("<method ") || tag.starts_with("<signal ")) {
      kind = tag.substr(1, 6);
      element = Attribute(tag, "name");
      in.clear();
      out.clear();
    } else if (tag.starts_with("<property ")) {
      interfaces[interface][Attribute(tag, "name")] = "property " + Attribute(tag, "type");
    } else if (tag.starts_with("<arg ")) {
      add(Attribute(tag, "direction") == "out" ? out : in, Attribute(tag, "name") + " " + Attribute(tag, "type"));
    }
    if (!element.empty() && (tag == "</method>" || tag == "</signal>" || (tag.ends_with("/>") && !tag.starts_with("<arg ")))) {
      interfaces[interface][element] = kind == "signal" ? "signal " + (in.empty() ? out : in) : "(" + in + ") -> " + out;
      element.clear();
    }
  }
  return interfaces;
}

class BusReference : public testing::Test {
 protected:
  void SetUp() override {
    service.Register();
    service.Start();
    ASSERT_EQ(connection.Open(service.Bus().ForClients()), ERROR_SUCCESS);
  }
  RunningService service;
  platform::BusConnection connection;
};

TEST_F(BusReference, TellsTheInterfacesAsTheServiceDoes) {
  platform::MessageWriter call;
  platform::MessageReader reply;
  platform::BusError error;
  ASSERT_EQ(connection.NewCall(qx::kBusName, qx::kBusPath, "org.freedesktop.DBus.Introspectable", "Introspect", call),
            ERROR_SUCCESS);
  ASSERT_EQ(connection.Call(std::move(call), reply, error), ERROR_SUCCESS) << error.text;
  std::string_view xml;
  ASSERT_EQ(reply.ReadString(xml), ERROR_SUCCESS);
  int own = 0;
  for (const auto& [name, elements] : OfIntrospection(std::string(xml))) {
    if (!name.starts_with(qx::kBusName)) continue;
    ++own;
    EXPECT_GT(elements.size(), 4u) << name;
    EXPECT_EQ(OfPage(name), elements) << name;
  }
  EXPECT_EQ(own, 3);
}

// The fields that a struct of interface/records.h declares, in order.
std::vector<std::string> FieldsOf(const std::string& name) {
  const std::string text = RunningService::ReadFile(test_paths::Source() + "/interface/records.h");
  const std::size_t begin = text.find("struct " + name + " {");
  const std::string body = text.substr(begin, text.find("friend", begin) - begin);
  std::vector<std::string> fields;
  static const std::regex kField("^  [\\w:<>, ]+ (\\w+)(?: = 0|\\{\\})?;");
  std::istringstream lines(body);
  for (std::string line; std::getline(lines, line);) {
    std::smatch found;
    if (std::regex_search(line, found, kField)) fields.push_back(found[1]);
  }
  return fields;
}

TEST(BusReferenceRecords, TellTheFieldsInTheirOrder) {
  const auto keys = [](const std::string& head) {
    std::vector<std::string> names;
    for (const Row& row : Table("## Records", head)) names.push_back(row.at(0));
    return names;
  };
  const std::vector<std::string> record = FieldsOf("SCHEDULE_OBJECT");
  ASSERT_EQ(record.size(), 14u);
  EXPECT_EQ(keys("Key"), record);
  const std::vector<std::string> rules = FieldsOf("SCHEDULE_RULE");
  ASSERT_EQ(rules.size(), 19u);
  EXPECT_EQ(keys("Key of the rules"), rules);
}

// A value of a type that the page names: empty or 0.
BusValue Nothing(const std::string& type) {
  if (type == "s") return BusValue::String("");
  if (type == "u") return BusValue::Uint32(0);
  if (type == "i") return BusValue::Int32(0);
  if (type == "a{sv}") return BusValue::Dict({});
  return BusValue::Array(type.substr(1), {});
}

TEST_F(BusReference, NamesTheTypeThatEachKeyIsReadAs) {
  const auto refusal = [&](const BusValue& record) {
    platform::MessageWriter call;
    platform::MessageReader reply;
    platform::BusError error;
    EXPECT_EQ(connection.NewCall(qx::kBusName, qx::kBusPath, qx::kBusServiceInterface, "CreateSchedule", call),
              ERROR_SUCCESS);
    call.AppendValue(record);
    (void)connection.Call(std::move(call), reply, error);
    return error.text;
  };
  const std::string other = "t";  // no key is of this type
  int tried = 0;
  for (const bool ofRules : {false, true}) {
    for (const Row& row : Table("## Records", ofRules ? "Key of the rules" : "Key")) {
      const auto record = [&](BusValue value) {
        BusValue inner = BusValue::Dict({{row.at(0), std::move(value)}});
        return ofRules ? BusValue::Dict({{"stScheduleRules", std::move(inner)}}) : inner;
      };
      EXPECT_EQ(refusal(record(Nothing(row.at(1)))), "") << row.at(0);
      EXPECT_THAT(refusal(record(BusValue{other, std::uint64_t{0}})), testing::HasSubstr(row.at(0)));
      ++tried;
    }
  }
  EXPECT_EQ(tried, 14 + 19);
}

TEST(BusReferenceStatuses, AreThoseOfTheCommandLineInItsWords) {
  std::map<std::string, std::string> known;
  const std::string unknown = qx::DescribeStatus(0x8004FFFF).sentence;
  const auto add = [&](Status status) {
    const std::string sentence = qx::DescribeStatus(status).sentence;
    char number[16];
    std::snprintf(number, sizeof number, "0x%08X", status);
    if (sentence != unknown) known[number] = sentence;
  };
  add(0);
  add(1);
  for (Status status = 0x80040000; status < 0x80041000; ++status) add(status);
  ASSERT_GT(known.size(), 15u);
  std::map<std::string, std::string> told;
  for (const Row& row : Table("## Status codes", "Status")) told[row.at(0)] = row.at(1);
  EXPECT_EQ(told, known);
}

}  // namespace

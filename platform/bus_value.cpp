#include "platform/bus_value.h"

namespace platform {

BusValue BusValue::Variant(BusValue value) {
  std::vector<BusValue> inside;
  inside.push_back(std::move(value));
  return {"v", std::move(inside)};
}

BusValue BusValue::Array(std::string_view elementType, std::vector<BusValue> elements) {
  return {"a" + std::string(elementType), std::move(elements)};
}

BusValue BusValue::Dict(std::vector<std::pair<std::string, BusValue>> entries) {
  std::vector<BusValue> elements;
  for (auto& [key, value] : entries) {
    std::vector<BusValue> pair;
    pair.push_back(String(std::move(key)));
    pair.push_back(Variant(std::move(value)));
    elements.push_back({"{sv}", std::move(pair)});
  }
  return {"a{sv}", std::move(elements)};
}

BusValue BusValue::Struct(std::vector<BusValue> fields) {
  std::string type = "(";
  for (const BusValue& field : fields) type += field.type;
  return {type + ")", std::move(fields)};
}

}  // namespace platform

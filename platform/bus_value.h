// platform/bus_value.h: the kinds of values on the message bus, and any value as a tree.
//
// Type texts are those of the D-Bus specification ("Type System"): y b n q i u x t d s o g, aT, (TT), {sT}, v.
// Threads: plain values.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace platform {

// What stands next in a message. The values are the type letters of the protocol; kStruct and kDictEntry are the
// library's 'r' and 'e'.
enum class BusKind : char {
  kEnd = 0,
  kByte = 'y',
  kBool = 'b',
  kInt16 = 'n',
  kUint16 = 'q',
  kInt32 = 'i',
  kUint32 = 'u',
  kInt64 = 'x',
  kUint64 = 't',
  kDouble = 'd',
  kString = 's',
  kObjectPath = 'o',
  kSignature = 'g',
  kArray = 'a',
  kStruct = 'r',
  kDictEntry = 'e',
  kVariant = 'v',
};

// Any value as a tree, for values whose type is only known at run time. Long arrays are better streamed.
struct BusValue {
  // One complete type text; says what `data` holds: b a bool; signed integers int64; unsigned ones uint64; d a double;
  // s, o and g a string; arrays their elements, structs and dictionary entries their fields, v its one value.
  std::string type;
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, std::vector<BusValue>> data;

  [[nodiscard]] static BusValue Bool(bool value) { return {"b", value}; }
  [[nodiscard]] static BusValue Int16(std::int16_t value) { return {"n", std::int64_t{value}}; }
  [[nodiscard]] static BusValue Uint16(std::uint16_t value) { return {"q", std::uint64_t{value}}; }
  [[nodiscard]] static BusValue Int32(std::int32_t value) { return {"i", std::int64_t{value}}; }
  [[nodiscard]] static BusValue Uint32(std::uint32_t value) { return {"u", std::uint64_t{value}}; }
  [[nodiscard]] static BusValue Int64(std::int64_t value) { return {"x", value}; }
  [[nodiscard]] static BusValue String(std::string value) { return {"s", std::move(value)}; }
  [[nodiscard]] static BusValue Variant(BusValue value);
  // elementType is one complete type; every element must be of it.
  [[nodiscard]] static BusValue Array(std::string_view elementType, std::vector<BusValue> elements);
  // a{sv}; the values are wrapped into variants here.
  [[nodiscard]] static BusValue Dict(std::vector<std::pair<std::string, BusValue>> entries);
  [[nodiscard]] static BusValue Struct(std::vector<BusValue> fields);

  friend bool operator==(const BusValue&, const BusValue&) = default;
};

}  // namespace platform

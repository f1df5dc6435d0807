// platform/bus_address.h: where a message bus is, and the errors that it answers with: plain values.
//
// Threads: values; every function may be called from any thread.
#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace platform {

// Names of errors that this floor itself answers with (D-Bus specification and the reference daemon).
inline constexpr std::string_view kBusErrorFailed = "org.freedesktop.DBus.Error.Failed";
inline constexpr std::string_view kBusErrorInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr std::string_view kBusErrorLimitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
inline constexpr std::string_view kBusErrorAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";
inline constexpr std::string_view kBusErrorServiceUnknown = "org.freedesktop.DBus.Error.ServiceUnknown";
inline constexpr std::string_view kBusErrorNameHasNoOwner = "org.freedesktop.DBus.Error.NameHasNoOwner";
inline constexpr std::string_view kBusErrorNoReply = "org.freedesktop.DBus.Error.NoReply";
inline constexpr std::string_view kBusErrorDisconnected = "org.freedesktop.DBus.Error.Disconnected";

// An error as it travels: a name with dots and a text for people. An empty name is no error.
struct BusError {
  std::string name;
  std::string text;
  [[nodiscard]] bool IsSet() const { return !name.empty(); }
  [[nodiscard]] static BusError InvalidArgs(std::string text) {
    return {std::string(kBusErrorInvalidArgs), std::move(text)};
  }
  [[nodiscard]] static BusError LimitsExceeded(std::string text) {
    return {std::string(kBusErrorLimitsExceeded), std::move(text)};
  }
  [[nodiscard]] static BusError Failed(std::string text) { return {std::string(kBusErrorFailed), std::move(text)}; }
};

// Where a bus is.
struct BusAddress {
  enum class Kind { kSession, kSystem, kExplicit };
  Kind kind = Kind::kSession;
  std::string address;  // for kExplicit, in the form of the D-Bus specification ("unix:path=...")
  [[nodiscard]] static BusAddress Session() { return {Kind::kSession, {}}; }
  [[nodiscard]] static BusAddress System() { return {Kind::kSystem, {}}; }
  [[nodiscard]] static BusAddress Explicit(std::string text) { return {Kind::kExplicit, std::move(text)}; }
};

}  // namespace platform

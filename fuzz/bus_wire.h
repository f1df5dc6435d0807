// fuzz/bus_wire.h: a connection of the bus within the process, for targets that send what they read.
#pragma once

#include <functional>
#include <string_view>
#include <utility>

#include "fuzz/fuzz_target.h"
#include "platform/bus.h"

namespace qx::fuzz {

// Two ends of a connection in this process: what one sends as a signal the other reads.
class BusWire {
 public:
  using Write = std::function<void(platform::MessageWriter&)>;
  using Read = std::function<void(platform::MessageReader&)>;

  BusWire() {
    Require(platform::BusConnection::OpenPair(m_sender, m_receiver) == platform::ERROR_SUCCESS,
            "a pair of connections opens");
    Subscribe("Value", [this](platform::MessageReader& signal) {
      m_arrived = true;
      m_read(signal);
    });
    Subscribe("Behind", [this](platform::MessageReader&) { m_isBehind = true; });
  }

  // False where no message can hold what `write` appends, or the receiver drops one whose signature it doesn't take:
  // the signal behind it comes without it.
  bool Send(const Write& write, Read read) {
    platform::MessageWriter signal = Begin("Value");
    write(signal);
    if (signal.Result() != platform::ERROR_SUCCESS) return false;
    m_arrived = m_isBehind = false;
    m_read = std::move(read);
    if (m_sender.Send(std::move(signal)) != platform::ERROR_SUCCESS) return false;
    Require(m_sender.Send(Begin("Behind")) == platform::ERROR_SUCCESS, "the signal behind it is sent");
    while (!m_isBehind) {
      Require(m_sender.IsOpen() && m_receiver.IsOpen(), "the connection stands");
      (void)m_sender.Process();
      (void)m_receiver.Process();
    }
    return m_arrived;
  }

 private:
  static constexpr std::string_view kPath = "/com/example/Fuzz";
  static constexpr std::string_view kInterface = "com.example.Fuzz";

  void Subscribe(std::string_view name, Read read) {
    Require(m_receiver.Subscribe("", kPath, kInterface, name, std::move(read)) == platform::ERROR_SUCCESS,
            "a signal is subscribed to");
  }
  platform::MessageWriter Begin(std::string_view name) {
    platform::MessageWriter signal;
    Require(m_sender.NewSignal(kPath, kInterface, name, signal) == platform::ERROR_SUCCESS, "a signal is begun");
    return signal;
  }

  platform::BusConnection m_sender;
  platform::BusConnection m_receiver;
  bool m_arrived = false;
  bool m_isBehind = false;
  Read m_read;
};

}  // namespace qx::fuzz

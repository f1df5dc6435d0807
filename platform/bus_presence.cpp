#include "platform/bus_presence.h"

#include <algorithm>
#include <utility>

namespace platform {

struct BusPresence::State : PollSource {
  explicit State(Apartment& served) : apartment(served) {}
  ~State() override { Stop(); }

  ErrorCode Attempt() {
    BusConnection fresh;
    ErrorCode rc = fresh.Open(options.address);
    if (rc == ERROR_SUCCESS && options.setUp) rc = options.setUp(fresh);
    if (rc != ERROR_SUCCESS) {
      Lose(rc);
      return rc;
    }
    connection = std::move(fresh);
    apartment.AddSource(this);
    connected = true;
    nextPauseMs = options.firstPauseMs;
    if (std::exchange(told, false) && options.restored) options.restored();
    return ERROR_SUCCESS;
  }

  void Disconnect() {
    if (std::exchange(connected, false)) apartment.RemoveSource(this);
    connection.Close();
  }

  void Lose(ErrorCode code) {
    Disconnect();
    const std::uint32_t pause = nextPauseMs;
    nextPauseMs = static_cast<std::uint32_t>(std::min<std::uint64_t>(std::uint64_t{pause} * 2, options.longestPauseMs));
    timer = apartment.StartTimer(pause, [this] { (void)Attempt(); });
    if (!std::exchange(told, true) && options.lost) options.lost(code);
  }

  void Stop() {
    apartment.StopTimer(timer);
    Disconnect();
  }

  bool Process() override {
    const bool more = connection.Process();
    if (connected && !connection.IsOpen()) {
      (void)RunGuarded("bus lost", [this] { Lose(ERROR_CONNECTION_ABORTED); });
      return false;
    }
    return more && connected;
  }
  int PollDescriptor() const override { return connection.PollDescriptor(); }
  short PollEvents() const override { return connection.PollEvents(); }
  std::optional<std::uint32_t> PollLimit() const override { return connection.PollLimit(); }

  Apartment& apartment;
  Options options;
  BusConnection connection;
  bool connected = false;
  bool told = false;  // `lost` was called and `restored` not yet
  std::uint32_t nextPauseMs = 0;
  Apartment::TimerId timer = 0;
};

BusPresence::BusPresence(Apartment& apartment) : m_state(std::make_unique<State>(apartment)) {}
BusPresence::~BusPresence() = default;

ErrorCode BusPresence::Start(Options options) {
  m_state->Stop();
  m_state->options = std::move(options);
  m_state->nextPauseMs = m_state->options.firstPauseMs;
  m_state->told = false;
  return m_state->Attempt();
}

void BusPresence::Stop() { m_state->Stop(); }

BusConnection* BusPresence::Connection() {
  return m_state->connected && m_state->connection.IsOpen() ? &m_state->connection : nullptr;
}

}  // namespace platform

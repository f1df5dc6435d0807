// platform/bus_presence.h: a lasting presence on a bus, which comes back after a loss.
//
// Threads: all of it on the apartment's.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/apartment.h"
#include "platform/bus.h"
#include "platform/bus_address.h"
#include "platform/error_codes.h"

namespace platform {

// A lasting presence on a bus: connects, sets itself up, and after a loss connects again with growing pauses, on the
// apartment's thread. What isn't connected sends nothing; the caller goes on.
class BusPresence {
 public:
  struct Options {
    BusAddress address;
    // Called on each fresh connection, to export and to request names. A failure closes the connection again and counts
    // as a failed attempt.
    std::function<ErrorCode(BusConnection& connection)> setUp;
    // Called when the connection is lost or the first attempt failed, with the code; not for further failed attempts.
    std::function<void(ErrorCode code)> lost;
    // Called when it is there again after `lost`.
    std::function<void()> restored;
    std::uint32_t firstPauseMs = 1000;    // doubled after each failure,
    std::uint32_t longestPauseMs = 60000; // up to this one
  };

  // The apartment must outlive the presence. Made, used and destroyed on the apartment's thread.
  explicit BusPresence(Apartment& apartment);
  BusPresence(const BusPresence&) = delete;
  BusPresence& operator=(const BusPresence&) = delete;
  ~BusPresence();  // closes

  // Makes the first attempt; goes on trying in the background when it fails.
  //   returns  the code of the first attempt
  [[nodiscard]] ErrorCode Start(Options options);
  void Stop();
  // The connection, null while there is none. Don't keep it beyond the present task.
  [[nodiscard]] BusConnection* Connection();

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace platform

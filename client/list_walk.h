// client/list_walk.h: the whole list of schedules out of its pages, several of which are on the way at a time.
//
// The list is cut into parts by ranges of IDs, and a page of each is asked for at once: the service makes one while the
// bus carries another and a third is read here. What comes out is what a walk from front to end would give: each
// schedule that is there all the time once, in order of the IDs.
// Threads: the connection's.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "interface/list_row.h"
#include "interface/records.h"
#include "platform/bus.h"

namespace qx {

class ListWalk {
 public:
  // How a page is asked for, and what it comes to.
  struct Link {
    platform::BusConnection& connection;
    // Starts the call for the schedules behind `after`, at most `limit` (0: as many as the service likes).
    std::function<Status(std::string_view after, std::uint32_t limit, platform::MessageWriter& call)> begin;
    // Whether several calls may wait for their answers, or each has to wait for its own.
    bool severalAtOnce;
    // Keeps the error; the status that it stands for.
    std::function<Status(platform::ErrorCode code, platform::BusError error)> fail;
  };

  explicit ListWalk(Link link) : m_link(std::move(link)) {}

  //   list     appended to; untouched on failure
  //   returns  0; the service's status; what `fail` makes of an error
  [[nodiscard]] Status Run(SentListRows& list);

 private:
  struct Part;
  void Cut(const std::shared_ptr<Part>& first);
  [[nodiscard]] Status AskFor(const std::shared_ptr<Part>& part);
  [[nodiscard]] Status Take(Part& part);

  Link m_link;
  std::vector<std::shared_ptr<Part>> m_parts;
};

}  // namespace qx

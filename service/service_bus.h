// service/service_bus.h: the service's object on the bus: methods in slot order, signals, and the Manager interface.
//
// Every method's first out argument is the status; the others are empty where the object leaves them unset. Bus errors
// tell of malformed arguments, of operations that the service doesn't carry out, and of replies that would be too
// large. The bus is one sink of the service's events: it sends them as signals, and drops them while it isn't
// connected.
//
// A client is a unique bus name that called a method (Subscribe of the Manager for one that only listens) or read a
// property, and still owns its name. Introspection counts for nothing.
// Threads: the apartment's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "interface/ISchedulerService.h"
#include "platform/after_answer.h"
#include "platform/apartment.h"
#include "platform/bus_presence.h"
#include "service/event_sinks.h"
#include "service/list_info.h"

namespace qx {

class CServiceBus {
 public:
  struct Options {
    platform::BusAddress address;
    std::string version;                   // property Version
    std::function<std::uint16_t()> port;   // property Port
    // After each time that the number of clients falls to 0, unless the next one's call has come already; may be empty.
    std::function<void()> lastClientLeft;
    std::function<void(platform::ErrorCode)> lost;  // the connection was lost or not made; may be empty
  };

  // All are borrowed and outlive the object.
  CServiceBus(platform::Apartment& apartment, ISchedulerService& service, CProxyISchedulerServiceEvents& events);
  CServiceBus(const CServiceBus&) = delete;
  CServiceBus& operator=(const CServiceBus&) = delete;
  ~CServiceBus();

  // Connects, serves and takes the name; goes on trying in the background when that fails. One line in the service log
  // tells of a loss, one of the return.
  //   returns  the code of the first attempt
  platform::ErrorCode Start(Options options);
  // Gives the name back, answers the calls that came before and disconnects.
  void Stop();

  // Serves the object on a connection.
  [[nodiscard]] platform::ErrorCode Export(platform::BusConnection& connection);

  // Clients that are there now.
  [[nodiscard]] std::size_t ClientCount() const { return m_clients.size(); }

 private:
  class SignalSink;

  platform::BusInterface ServiceInterface();
  platform::BusInterface EventsInterface();
  platform::BusInterface ManagerInterface();
  platform::BusMethod Method(std::string name, std::vector<platform::BusArgument> in,
                             std::vector<platform::BusArgument> out, platform::BusMethodHandler handler);
  // The same for a change of the caller's own: when the reply is sent, the scheduler thread is woken and what the
  // change left for then is done.
  platform::BusMethod ChangeMethod(std::string name, std::vector<platform::BusArgument> in,
                                   std::vector<platform::BusArgument> out, platform::BusMethodHandler handler);
  platform::BusProperty Property(std::string name, std::string type, std::function<void(platform::MessageWriter&)> get);
  platform::BusError ListPage(platform::MessageReader& call, platform::MessageWriter& reply);
  platform::ErrorCode SetUp(platform::BusConnection& connection);
  void NoteClient(std::string_view name);
  void ForgetClient(std::string_view name);
  void ForgetAllClients();

  platform::Apartment& m_apartment;
  ISchedulerService& m_service;
  CProxyISchedulerServiceEvents& m_events;
  Options m_options;
  platform::BusPresence m_presence;
  std::size_t m_replyLimit;
  CListInfo m_list;
  std::set<std::string, std::less<>> m_clients;
  std::uint32_t m_cookie = 0;
  std::weak_ptr<platform::AfterAnswer> m_left;  // of the last change, until its reply is sent
  std::shared_ptr<CServiceBus*> m_self = std::make_shared<CServiceBus*>(this);  // for what waits in the queue
};

}  // namespace qx

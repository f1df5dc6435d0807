// client/cli_session.h: one command's link to the service: finding schedules, waiting for calls, telling of failures.
//
// Every function that returns an int returns an ExitCode; a failure has been told on the context's `err`.
// Threads: a command runs on one thread; a notice about a long wait is written by a second one meanwhile.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/cli_online.h"
#include "client/cli_output.h"
#include "client/service_link.h"

namespace qx {

// --- how things are written ---

// With braces.
[[nodiscard]] std::string IdText(const ScheduleGuid& id);
// Name of the zone in force.
[[nodiscard]] std::string ZoneText();

// A schedule that a word of the command line names.
struct Target {
  ScheduleGuid id{};
  std::string name;     // where it is known
  bool listed = false;  // the service has it in its list
};
// "{ID}", and the name where it is known.
[[nodiscard]] std::string Naming(const Target& target);

class Session {
 public:
  // Both outlive the session.
  Session(CliContext& context, const OnlineSettings& settings) : m_context(context), m_settings(settings) {}

  // Connects and asks the service about itself.
  int Connect();
  // Lives in the service's zone from now on.
  int UseServiceZone();
  // Both.
  int Begin();
  // Both, then finds the one schedule that a word names.
  int BeginWith(const std::string& schedule, Target& target);
  [[nodiscard]] const ServiceProperties& Properties() const { return m_properties; }
  ServiceLink& Link() { return *m_link; }

  // Carries out a call; tells after a while what is waited for. An interrupt ends the process with a word that a
  // change goes on without it.
  //   doing  "read the schedules"
  Status Wait(const std::string& doing, bool changes, const std::function<Status()>& call);
  // Tells why the last call failed.
  //   about  what it was about, ahead of the sentence; may be empty
  //   hint   in place of the status's own; null for that
  int Fail(Status status, const std::string& about, const char* hint = nullptr);
  // Whether the last call may have been lost on its way there or back, so that nobody knows whether it was carried out.
  [[nodiscard]] bool IsLost() const;

  int AllRows(std::vector<ListRow>& rows);
  int AllRows(SentListRows& list);
  // Finds the schedules that the words name, each once. Nothing is left out: the first word that names none ends it.
  int Find(const std::vector<std::string>& words, std::vector<Target>& targets);
  // All schedules of the list; one that is damaged is told and left out.
  int FindAll(std::vector<Target>& targets);
  int Fetch(const Target& target, SCHEDULE_OBJECT& record);

  // Reads a schedule again, ahead of a change of it: one that somebody else changed meanwhile is told and refused.
  //   before  the record as it was fetched
  int CheckUnchanged(const Target& target, const SCHEDULE_OBJECT& before);

  // Modifies a schedule, reads it back and compares. The service answers 0 also to a modification that failed late and
  // was taken back; here that is a failure, told as such.
  //   before  the record as it was fetched
  int Modify(const Target& target, const SCHEDULE_OBJECT& before, const SCHEDULE_OBJECT& after);

  // The bus that the options name.
  [[nodiscard]] platform::BusAddress Address() const;

 private:
  int Unreachable(const std::string& why);
  int BusUnreachable(const std::string& why);
  int FindInList(const std::string& word, const std::vector<ListRow>& rows, Target& target);

  CliContext& m_context;
  const OnlineSettings& m_settings;
  std::unique_ptr<ServiceLink> m_link;
  ServiceProperties m_properties;
};

}  // namespace qx

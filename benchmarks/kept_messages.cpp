#include "benchmarks/kept_messages.h"

#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>
#include <vector>

namespace qx::bench {
namespace {

constexpr char kName[] = "com.korvane.QxBenchKept1";
constexpr char kPath[] = "/kept";
constexpr int kAttempts = 10000;

using Kept = std::vector<sd_bus_message*>;

// Keep(...) keeps the message; Give(u) answers with the contents of the one of that number.
int Answer(sd_bus_message* call, void* userdata, sd_bus_error* /*error*/) {
  Kept& kept = *static_cast<Kept*>(userdata);
  if (sd_bus_message_is_method_call(call, kName, "Keep") > 0) {
    kept.push_back(sd_bus_message_ref(call));
    return sd_bus_reply_method_return(call, nullptr);
  }
  if (sd_bus_message_is_method_call(call, kName, "Give") <= 0) return 0;
  std::uint32_t number = 0;
  sd_bus_message* reply = nullptr;
  int result = sd_bus_message_read(call, "u", &number);
  if (result < 0 || number >= kept.size()) return -EINVAL;
  if ((result = sd_bus_message_rewind(kept[number], 1)) >= 0 &&
      (result = sd_bus_message_new_method_return(call, &reply)) >= 0 &&
      (result = sd_bus_message_copy(reply, kept[number], 1)) >= 0) {
    result = sd_bus_send(nullptr, reply, nullptr);
  }
  sd_bus_message_unref(reply);
  return result < 0 ? result : 1;
}

[[noreturn]] void Serve(const std::string& address) {
  sd_bus* bus = nullptr;
  Kept kept;
  if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
      sd_bus_start(bus) < 0 || sd_bus_add_object(bus, nullptr, kPath, Answer, &kept) < 0 ||
      sd_bus_request_name(bus, kName, 0) < 0) {
    _exit(1);
  }
  int result = 0;
  while ((result = sd_bus_process(bus, nullptr)) >= 0) {
    if (result == 0 && (result = sd_bus_wait(bus, UINT64_MAX)) < 0) break;
  }
  _exit(0);
}

}  // namespace

KeptMessages::KeptMessages(const std::string& address) {
  m_process = fork();
  if (m_process == 0) Serve(address);
  if (m_process < 0 || m_client.Open(platform::BusAddress::Explicit(address)) != 0) throw std::runtime_error("no bus");
  const timespec pause{0, 1'000'000};
  for (int i = 0; i < kAttempts; ++i) {
    try {
      Keep([](platform::MessageWriter&) {});
      return;
    } catch (const std::runtime_error&) {
      nanosleep(&pause, nullptr);
    }
  }
  throw std::runtime_error("no server for messages to keep");
}

KeptMessages::~KeptMessages() {
  kill(m_process, SIGKILL);
  waitpid(m_process, nullptr, 0);
}

std::uint32_t KeptMessages::Keep(const std::function<void(platform::MessageWriter&)>& write) {
  platform::MessageWriter call;
  platform::MessageReader reply;
  platform::BusError error;
  if (m_client.NewCall(kName, kPath, kName, "Keep", call) != 0) throw std::runtime_error("no call");
  write(call);
  if (m_client.Call(std::move(call), reply, error) != 0) throw std::runtime_error("not kept: " + error.text);
  return m_count++;
}

void KeptMessages::Move(std::uint32_t number) {
  platform::MessageWriter call;
  platform::MessageReader reply;
  platform::BusError error;
  if (m_client.NewCall(kName, kPath, kName, "Give", call) != 0) throw std::runtime_error("no call");
  call.AppendUint32(number);
  if (m_client.Call(std::move(call), reply, error) != 0) throw std::runtime_error("not given: " + error.text);
}

}  // namespace qx::bench

#include "benchmarks/kept_messages.h"

#include <errno.h>
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
constexpr std::uint64_t kPatienceMicroseconds = 10'000'000;

struct Kept {
  std::string receiver;
  std::vector<sd_bus_message*> messages;
};

// Receive() names the receiver. Keep(...) makes a signal of the contents, to that one alone; Give(u) sends the one of
// that number as it stands: it was marshalled once, so that sending it moves bytes and does nothing else.
int Answer(sd_bus_message* call, void* userdata, sd_bus_error* /*error*/) {
  Kept& kept = *static_cast<Kept*>(userdata);
  sd_bus* const bus = sd_bus_message_get_bus(call);
  int result = 0;
  if (sd_bus_message_is_method_call(call, kName, "Receive") > 0) {
    kept.receiver = sd_bus_message_get_sender(call);
    return sd_bus_reply_method_return(call, nullptr);
  }
  if (sd_bus_message_is_method_call(call, kName, "Keep") > 0) {
    sd_bus_message* signal = nullptr;
    if ((result = sd_bus_message_new_signal(bus, &signal, kPath, kName, "Kept")) < 0 ||
        (result = sd_bus_message_set_destination(signal, kept.receiver.c_str())) < 0 ||
        (result = sd_bus_message_copy(signal, call, 1)) < 0) {
      sd_bus_message_unref(signal);
      return result;
    }
    kept.messages.push_back(signal);
    return sd_bus_reply_method_return(call, nullptr);
  }
  if (sd_bus_message_is_method_call(call, kName, "Give") <= 0) return 0;
  std::uint32_t number = 0;
  result = sd_bus_message_read(call, "u", &number);
  if (result < 0 || number >= kept.messages.size()) return -EINVAL;
  result = sd_bus_send(bus, kept.messages[number], nullptr);
  return result < 0 ? result : 1;
}

// A connection to the bus; nothing when there is none.
sd_bus* Connect(const std::string& address) {
  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
      sd_bus_start(bus) < 0) {
    return nullptr;
  }
  return bus;
}

[[noreturn]] void Serve(const std::string& address) {
  sd_bus* const bus = Connect(address);
  Kept kept;
  if (bus == nullptr || sd_bus_add_object(bus, nullptr, kPath, Answer, &kept) < 0 ||
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
  m_client = m_process < 0 ? nullptr : Connect(address);
  if (m_client == nullptr || m_writer.Open(platform::BusAddress::Explicit(address)) != 0)
    throw std::runtime_error("no bus");
  const timespec pause{0, 1'000'000};
  for (int i = 0; i < kAttempts; ++i) {
    if (sd_bus_call_method(m_client, kName, kPath, kName, "Receive", nullptr, nullptr, nullptr) >= 0) return;
    nanosleep(&pause, nullptr);
  }
  throw std::runtime_error("no server for messages to keep");
}

KeptMessages::~KeptMessages() {
  sd_bus_flush_close_unref(m_client);
  kill(m_process, SIGKILL);
  waitpid(m_process, nullptr, 0);
}

std::uint32_t KeptMessages::Keep(const std::function<void(platform::MessageWriter&)>& write) {
  platform::MessageWriter call;
  platform::MessageReader reply;
  platform::BusError error;
  if (m_writer.NewCall(kName, kPath, kName, "Keep", call) != 0) throw std::runtime_error("no call");
  write(call);
  if (m_writer.Call(std::move(call), reply, error) != 0) throw std::runtime_error("not kept: " + error.text);
  return m_count++;
}

void KeptMessages::Move(std::uint32_t number) {
  sd_bus_message* call = nullptr;
  int result = sd_bus_message_new_method_call(m_client, &call, kName, kPath, kName, "Give");
  if (result >= 0) result = sd_bus_message_set_expect_reply(call, 0);
  if (result >= 0) result = sd_bus_message_append(call, "u", number);
  if (result >= 0) result = sd_bus_send(m_client, call, nullptr);
  sd_bus_message_unref(call);
  bool came = false;
  while (result >= 0 && !came) {
    sd_bus_message* message = nullptr;
    result = sd_bus_process(m_client, &message);
    came = message != nullptr && sd_bus_message_is_signal(message, kName, "Kept") > 0;
    sd_bus_message_unref(message);
    if (result == 0) result = sd_bus_wait(m_client, kPatienceMicroseconds) > 0 ? 0 : -ETIMEDOUT;
  }
  if (result < 0) throw std::runtime_error("not given: error " + std::to_string(-result));
}

}  // namespace qx::bench

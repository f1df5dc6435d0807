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

// Ahead of the numbers that the library gives to calls by itself.
constexpr std::uint64_t kFirstCookie = std::uint64_t{1} << 20;

struct Kept {
  sd_bus_message* contents;         // the call that brought them
  sd_bus_message* reply = nullptr;  // as it goes out, once it was made
};
using AllKept = std::vector<Kept>;

// Makes the answer to a call out of what is kept.
int MakeReply(sd_bus_message* call, Kept& kept) {
  sd_bus_message* reply = nullptr;
  int result = sd_bus_message_new_method_return(call, &reply);
  if (result >= 0) result = sd_bus_message_copy(reply, kept.contents, 1);
  if (result < 0) {
    sd_bus_message_unref(reply);
    return result;
  }
  kept.reply = reply;
  return 0;
}

// Keep(...) keeps the contents of the call. Give(u) answers with those of that number; as the client numbers its calls
// alike each time, the answer is made for the first one and sent as it stands from then on: that moves bytes and does
// nothing else.
int Answer(sd_bus_message* call, void* userdata, sd_bus_error* /*error*/) {
  AllKept& all = *static_cast<AllKept*>(userdata);
  sd_bus* const bus = sd_bus_message_get_bus(call);
  if (sd_bus_message_is_method_call(call, kName, "Ready") > 0) return sd_bus_reply_method_return(call, nullptr);
  if (sd_bus_message_is_method_call(call, kName, "Keep") > 0) {
    all.push_back({sd_bus_message_ref(call)});
    return sd_bus_reply_method_return(call, nullptr);
  }
  if (sd_bus_message_is_method_call(call, kName, "Give") <= 0) return 0;
  std::uint32_t number = 0;
  int result = sd_bus_message_read(call, "u", &number);
  if (result < 0 || number >= all.size()) return -EINVAL;
  Kept& kept = all[number];
  if (kept.reply == nullptr && (result = MakeReply(call, kept)) < 0) return result;
  result = sd_bus_send(bus, kept.reply, nullptr);
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
  AllKept all;
  if (bus == nullptr || sd_bus_add_object(bus, nullptr, kPath, Answer, &all) < 0 ||
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
    if (sd_bus_call_method(m_client, kName, kPath, kName, "Ready", nullptr, nullptr, nullptr) >= 0) return;
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
  Move(m_count);  // makes the answer
  return m_count++;
}

void KeptMessages::Move(std::uint32_t number) {
  sd_bus_message* call = nullptr;
  sd_bus_message* reply = nullptr;
  int result = sd_bus_message_new_method_call(m_client, &call, kName, kPath, kName, "Give");
  if (result >= 0) result = sd_bus_message_append(call, "u", number);
  if (result >= 0) result = sd_bus_message_seal(call, kFirstCookie + number, kPatienceMicroseconds);
  if (result >= 0) result = sd_bus_call(m_client, call, kPatienceMicroseconds, nullptr, &reply);
  sd_bus_message_unref(call);
  sd_bus_message_unref(reply);
  if (result < 0) throw std::runtime_error("not given: error " + std::to_string(-result));
}

}  // namespace qx::bench

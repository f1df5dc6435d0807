#include <systemd/sd-bus.h>

#include <cerrno>
#include <exception>
#include <new>
#include <utility>

#include "platform/bus_export.h"

namespace platform::detail {
namespace {

// An error's name must be one of the protocol, which the library doesn't check: the caller's end would drop the whole
// message. Its text must be UTF-8, else the library sends nothing.
int ReplyError(sd_bus_message* call, const BusError& error) {
  const bool named = sd_bus_interface_name_is_valid(error.name.c_str()) > 0;  // the same rule
  const int result = named ? sd_bus_reply_method_errorf(call, error.name.c_str(), "%s", error.text.c_str()) : -EINVAL;
  if (result != -EINVAL) return result;
  return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_FAILED, "%s", "the error of this call has no valid text");
}

BusError HandleGuarded(const ExportedMember& member, sd_bus_message* call, MessageWriter& reply) {
  MessageReader reader = BusInternals::Reader(call);
  BusError error;
  const char* ended = "an internal error ended the call";
  const bool isDone = RunGuarded(member.method->name, [&] {
    try {
      error = member.method->handler(reader, reply);
    } catch (const std::bad_alloc&) {
      ended = "no memory is left for this call";
      throw;
    }
  });
  if (!isDone) return BusError::Failed(ended);
  if (error.IsSet()) return error;
  if (reply.Result() == ERROR_NO_UNICODE_TRANSLATION) return BusError::Failed("a text of the reply is not valid UTF-8");
  if (reply.Result() != ERROR_SUCCESS) return BusError::Failed("the reply could not be built");
  if (OrEmpty(sd_bus_message_get_signature(BusInternals::Of(reply), 1)) != member.result) {
    return BusError::Failed("the reply is not of the declared type");
  }
  return {};
}

// What the library calls. Where no memory is left for the answer's words either, the library refuses by the number.
template <class Answer>
int Answered(const Answer& answer) noexcept {
  try {
    return answer();
  } catch (const std::exception&) {
    return -ENOMEM;
  }
}

int AnswerMethod(sd_bus_message* call, void* userData) {
  const auto& member = *static_cast<const ExportedMember*>(userData);
  sd_bus_message* raw = nullptr;
  if (const int result = sd_bus_message_new_method_return(call, &raw); result < 0) return result;
  MessageWriter reply = BusInternals::Writer(raw);
  const BusError error = HandleGuarded(member, call, reply);
  const int result = error.IsSet() ? ReplyError(call, error) : sd_bus_message_send(raw);
  // 1: handled. A reply that can't be sent has nobody to be told to; a lost connection shows in the loop.
  return result == -ENOTCONN || result >= 0 ? 1 : result;
}

int OnMethod(sd_bus_message* call, void* userData, sd_bus_error*) noexcept {
  return Answered([&] { return AnswerMethod(call, userData); });
}

int AnswerProperty(const char* name, sd_bus_message* reply, void* userData, sd_bus_error* error) {
  const auto& member = *static_cast<const ExportedMember*>(userData);
  MessageWriter writer = BusInternals::Writer(sd_bus_message_ref(reply));
  const bool done =
      RunGuarded(name, [&] { member.property->get(OrEmpty(sd_bus_message_get_destination(reply)), writer); });
  if (done && writer.Result() == ERROR_SUCCESS) return 1;
  return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "the property could not be read");
}

int OnProperty(sd_bus*, const char*, const char*, const char* name, sd_bus_message* reply, void* userData,
               sd_bus_error* error) noexcept {
  return Answered([&] { return AnswerProperty(name, reply, userData, error); });
}

}  // namespace

ErrorCode ExportedInterface::Add(sd_bus* bus, const std::string& path) {
  m_members.reserve(m_interface.methods.size() + m_interface.properties.size());
  sd_bus_vtable start = Entry(_SD_BUS_VTABLE_START);
  start.x.start.element_size = sizeof(sd_bus_vtable);
  start.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
  start.x.start.vtable_format_reference = &sd_bus_object_vtable_format;
  m_table.push_back(start);
  for (const BusMethod& method : m_interface.methods) {
    sd_bus_vtable entry = Entry(_SD_BUS_VTABLE_METHOD);
    entry.flags = SD_BUS_VTABLE_UNPRIVILEGED;  // who may call is the bus policy's business
    std::string names;
    AddNames(method.in, names);
    AddNames(method.out, names);
    entry.x.method.member = method.name.c_str();
    entry.x.method.signature = Keep(Types(method.in));
    entry.x.method.result = Keep(Types(method.out));
    entry.x.method.handler = OnMethod;
    entry.x.method.offset = AddMember({&method, nullptr, Types(method.out)});
    entry.x.method.names = Keep(std::move(names));
    m_table.push_back(entry);
  }
  for (const BusSignal& signal : m_interface.signals) {
    sd_bus_vtable entry = Entry(_SD_BUS_VTABLE_SIGNAL);
    std::string names;
    AddNames(signal.arguments, names);
    entry.x.signal.member = signal.name.c_str();
    entry.x.signal.signature = Keep(Types(signal.arguments));
    entry.x.signal.names = Keep(std::move(names));
    m_table.push_back(entry);
  }
  for (const BusProperty& property : m_interface.properties) {
    sd_bus_vtable entry = Entry(_SD_BUS_VTABLE_PROPERTY);
    entry.x.property.member = property.name.c_str();
    entry.x.property.signature = property.type.c_str();
    entry.x.property.get = OnProperty;
    entry.x.property.offset = AddMember({nullptr, &property, {}});
    m_table.push_back(entry);
  }
  m_table.push_back(Entry(_SD_BUS_VTABLE_END));
  return BusCode(sd_bus_add_object_vtable(bus, m_slot.Out(), path.c_str(), m_interface.name.c_str(), m_table.data(),
                                          m_members.data()));
}

}  // namespace platform::detail

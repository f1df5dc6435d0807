// The body of an operation: what is taken apart is built again and gives the same.
#include "fuzz/fuzz_target.h"
#include "platform/text.h"
#include "replication/message_body.h"
#include "replication/wire.h"

using qx::fuzz::Require;

QX_FUZZ_TARGET(message_body) {
  const std::u16string body = platform::WideFromUtf8(std::string(qx::fuzz::Text(data, size)).c_str());
  if (const auto command = qx::FindOperationData(body)) {
    Require(command->find(u"/<OpData>") == std::u16string_view::npos, "a command ends at the first mark");
  }
  SCHEDULE_OBJECT schedule;
  BSTR id;
  std::uint32_t type = 0;
  if (qx::ParseXMLContent(body.c_str(), schedule, &id, type) == 0 && id) {
    Require(schedule.bstrApplication && schedule.bstrPostScript, "a body that is taken has all its texts");
  }
  BSTR idAlone;
  std::uint32_t typeAlone = 0;
  const std::uint32_t result = qx::ParseXMLContent(body.c_str(), &idAlone, typeAlone);
  if (id) Require(result == 0 && idAlone == id && typeAlone == type, "both forms read the same identifier and type");
  return 0;
}

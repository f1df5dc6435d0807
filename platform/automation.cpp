#include "platform/automation.h"

#include "platform/fault_point.h"

namespace platform {

std::uint32_t GetRecordInfo(std::string_view name) {
  return FaultAt(Operation::kGetRecordInfo, name);
}

std::uint32_t detail::AskArrayCreate(std::string_view name) {
  return FaultAt(Operation::kArrayCreate, name);
}
std::uint32_t detail::AskArrayAccess(std::string_view name) {
  return FaultAt(Operation::kArrayAccessData, name);
}
std::uint32_t detail::AskArrayUnaccess(std::string_view name) {
  return FaultAt(Operation::kArrayUnaccessData, name);
}
std::uint32_t detail::AskArrayDestroy(std::string_view name) {
  return FaultAt(Operation::kArrayDestroy, name);
}

}  // namespace platform

#include "platform/memory.h"

#include <cstdlib>

#include "platform/fault_point.h"

namespace platform {

void* Allocate(std::size_t bytes, std::string_view name) {
  if (FaultAt(Operation::kAllocate, name) != ERROR_SUCCESS) return nullptr;
  return std::calloc(bytes == 0 ? 1 : bytes, 1);
}

void Free(void* memory) {
  std::free(memory);
}

}  // namespace platform

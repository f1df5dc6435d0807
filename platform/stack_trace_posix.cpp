#include "platform/stack_trace.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <link.h>
#include <unwind.h>

#include <cstdlib>
#include <memory>

#include "platform/host.h"
#include "platform/text.h"

namespace platform {
namespace {

struct Walk {
  std::vector<StackFrame>& frames;
  std::size_t skip;
  std::size_t most;
};

_Unwind_Reason_Code OnFrame(_Unwind_Context* context, void* argument) {
  Walk& walk = *static_cast<Walk*>(argument);
  const auto address = static_cast<std::uintptr_t>(_Unwind_GetIP(context));
  if (address == 0 || walk.frames.size() == walk.most) return _URC_END_OF_STACK;
  if (walk.skip != 0) {
    --walk.skip;
  } else {
    walk.frames.push_back({address, static_cast<std::uintptr_t>(_Unwind_GetCFA(context))});
  }
  return _URC_NO_REASON;
}

struct Search {
  std::uintptr_t address;
  CodePlace place;
};

int OnModule(dl_phdr_info* module, std::size_t, void* argument) {
  Search& search = *static_cast<Search*>(argument);
  std::uint32_t section = 0;
  for (int i = 0; i < module->dlpi_phnum; ++i) {
    const auto& part = module->dlpi_phdr[i];
    if (part.p_type != PT_LOAD) continue;
    ++section;
    const std::uintptr_t begin = module->dlpi_addr + part.p_vaddr;
    if (search.address < begin || search.address - begin >= part.p_memsz) continue;
    search.place = {section, search.address - begin, module->dlpi_name};
    return 1;
  }
  return 0;
}

}  // namespace

__attribute__((noinline)) std::vector<StackFrame> CaptureStack(std::size_t skip, std::size_t most) {
  std::vector<StackFrame> frames;
  Walk walk{frames, skip + 1, most};  // this function is the first
  _Unwind_Backtrace(&OnFrame, &walk);
  return frames;
}

CodePlace PlaceOf(std::uintptr_t address) {
  Search search{address, {0, address, {}}};
  const bool isFound = dl_iterate_phdr(&OnModule, &search) != 0;
  if (isFound && search.place.module.empty()) {  // the program itself has no name there
    std::u16string path;
    if (ProgramFilePath(path) == ERROR_SUCCESS) search.place.module = Utf8FromWide(path);
  }
  return search.place;
}

ErrorCode SymbolOf(std::uintptr_t address, CodeSymbol& out) {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(address), &info) == 0 || info.dli_sname == nullptr) return ERROR_PROC_NOT_FOUND;
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> readable(
      abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status), &std::free);
  out = {readable != nullptr ? readable.get() : info.dli_sname,
         address - reinterpret_cast<std::uintptr_t>(info.dli_saddr)};
  return ERROR_SUCCESS;
}

}  // namespace platform

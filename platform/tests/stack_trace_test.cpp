#include "platform/stack_trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "platform/host.h"
#include "platform/text.h"

namespace platform {
namespace {

bool Names(const std::vector<StackFrame>& frames, const std::string& text) {
  return std::any_of(frames.begin(), frames.end(), [&](const StackFrame& frame) {
    CodeSymbol symbol;
    return SymbolOf(frame.address, symbol) == ERROR_SUCCESS && symbol.name.starts_with(text);
  });
}

TEST(StackTrace, GoesOutwardThroughItsCallers) {
  const std::vector<StackFrame> frames = CaptureStack();
  ASSERT_GT(frames.size(), 3u);
  EXPECT_TRUE(Names(frames, "__libc_start_main"));
  EXPECT_TRUE(std::is_sorted(frames.begin(), frames.end(),
                             [](const StackFrame& a, const StackFrame& b) { return a.frame < b.frame; }));
}

TEST(StackTrace, LeavesOutWhatItIsToldAndGivesNoMore) {
  const std::vector<StackFrame> all = CaptureStack();
  const std::vector<StackFrame> behind = CaptureStack(1);
  ASSERT_GT(all.size(), 2u);
  ASSERT_EQ(behind.size() + 1, all.size());
  EXPECT_EQ(behind[0].address, all[1].address);
  EXPECT_EQ(CaptureStack(0, 2).size(), 2u);
  EXPECT_TRUE(CaptureStack(1000).empty());
}

TEST(StackTrace, TellsTheModuleOfAnAddress) {
  std::u16string program;
  ASSERT_EQ(ProgramFilePath(program), 0u);
  const CodePlace own = PlaceOf(reinterpret_cast<std::uintptr_t>(&CaptureStack));
  EXPECT_GT(own.section, 0u);
  EXPECT_EQ(own.module, Utf8FromWide(program));
  const CodePlace libc = PlaceOf(reinterpret_cast<std::uintptr_t>(&std::qsort));
  EXPECT_GT(libc.section, 0u);
  EXPECT_FALSE(libc.module.empty());
  const CodePlace nowhere = PlaceOf(16);
  EXPECT_EQ(nowhere.section, 0u);
  EXPECT_EQ(nowhere.offset, 16u);
  EXPECT_EQ(nowhere.module, "");
}

TEST(StackTrace, NamesAnExportedFunctionReadably) {
  CodeSymbol symbol;
  const auto address = reinterpret_cast<std::uintptr_t>(static_cast<void (*)()>(&std::terminate));
  ASSERT_EQ(SymbolOf(address, symbol), ERROR_SUCCESS);
  EXPECT_EQ(symbol.name, "std::terminate()");
  EXPECT_EQ(symbol.offset, 0u);
  EXPECT_EQ(SymbolOf(16, symbol), ERROR_PROC_NOT_FOUND);
  EXPECT_EQ(symbol.name, "std::terminate()");
}

}  // namespace
}  // namespace platform

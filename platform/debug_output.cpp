#include "platform/debug_output.h"

#include <atomic>
#include <cstdio>

namespace platform {

namespace {
std::atomic<DebugSink> g_sink{nullptr};
}

void DebugOutput(std::string_view text) {
  if (const DebugSink sink = g_sink.load(std::memory_order_acquire)) {
    sink(text);
    return;
  }
#ifdef QX_FAULT_SEAM
  (void)std::fwrite(text.data(), 1, text.size(), stderr);
#endif
}

DebugSink SetDebugSink(DebugSink sink) { return g_sink.exchange(sink, std::memory_order_acq_rel); }

}  // namespace platform

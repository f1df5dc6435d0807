#include "platform/testing/fault.h"

#include <cassert>
#include <string>
#include <utility>

#include "platform/mutex.h"

#ifdef QX_FAULT_SEAM
#include "platform/testing/kill_switch.h"
#endif

namespace platform {
namespace {

struct InstalledPlan {
  bool anyOperation = false;
  Operation operation = Operation::kCount;
  std::string detail{};
  int n = 0;  // 0 fails nothing
  ErrorCode code = ERROR_SUCCESS;
  FaultMode mode = kOnce;
  FaultPlan::Answer answer{};
  int calls = 0;
  int hits = 0;
};

Mutex g_planMutex;
InstalledPlan g_plan QX_GUARDED_BY(g_planMutex);
bool g_isInstalled QX_GUARDED_BY(g_planMutex) = false;

void Install(InstalledPlan plan) {
  const MutexLock lock(g_planMutex);
  assert(!g_isInstalled && "one fault plan at a time");
  g_plan = std::move(plan);
  g_isInstalled = true;
  detail::g_faultSeamArmed.store(true);
}

}  // namespace

ErrorCode detail::AskFaultPlan(Operation operation, std::string_view detailText) {
#ifdef QX_FAULT_SEAM
  CountForKillSwitch(static_cast<std::uint16_t>(operation));
#endif
  const MutexLock lock(g_planMutex);
  if (!g_isInstalled) return ERROR_SUCCESS;
  if (!g_plan.anyOperation && g_plan.operation != operation) return ERROR_SUCCESS;
  if (!g_plan.detail.empty() && g_plan.detail != detailText) return ERROR_SUCCESS;
  ++g_plan.calls;
  if (g_plan.answer) {
    const ErrorCode code = g_plan.answer(g_plan.calls, operation, detailText);
    if (code != ERROR_SUCCESS) ++g_plan.hits;
    return code;
  }
  if (g_plan.n == 0) return ERROR_SUCCESS;
  const bool fails = g_plan.mode == kOnce ? g_plan.calls == g_plan.n : g_plan.calls >= g_plan.n;
  if (!fails) return ERROR_SUCCESS;
  ++g_plan.hits;
  return g_plan.code;
}

FaultPlan::FaultPlan() : m_installed(true) {}

FaultPlan FaultPlan::FailCall(Operation operation, int n, ErrorCode code, FaultMode mode, std::string_view detailText) {
  Install({.operation = operation, .detail = std::string(detailText), .n = n, .code = code, .mode = mode});
  return {};
}

FaultPlan FaultPlan::FailAnyCall(int n, ErrorCode code, FaultMode mode) {
  Install({.anyOperation = true, .n = n, .code = code, .mode = mode});
  return {};
}

FaultPlan FaultPlan::Ask(Answer answer) {
  Install({.anyOperation = true, .answer = std::move(answer)});
  return {};
}

FaultPlan FaultPlan::CountOnly() { return FailAnyCall(0, ERROR_SUCCESS); }

FaultPlan::FaultPlan(FaultPlan&& other) noexcept
    : m_installed(other.m_installed), m_hits(other.m_hits), m_calls(other.m_calls) {
  other.m_installed = false;
}

FaultPlan::~FaultPlan() { Remove(); }

void FaultPlan::Remove() {
  if (!m_installed) return;
  const MutexLock lock(g_planMutex);
  m_hits = g_plan.hits;
  m_calls = g_plan.calls;
  m_installed = false;
  g_isInstalled = false;
  g_plan.answer = nullptr;
  detail::g_faultSeamArmed.store(false);
}

int FaultPlan::hits() const {
  if (!m_installed) return m_hits;
  const MutexLock lock(g_planMutex);
  return g_plan.hits;
}

int FaultPlan::calls() const {
  if (!m_installed) return m_calls;
  const MutexLock lock(g_planMutex);
  return g_plan.calls;
}

}  // namespace platform

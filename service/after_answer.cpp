#include "service/after_answer.h"

#include <utility>
#include <vector>

namespace qx {
namespace {

thread_local int t_gathering = 0;
thread_local std::vector<std::function<void()>> t_left;

}  // namespace

AfterAnswer::AfterAnswer() { ++t_gathering; }

void AfterAnswer::End() {
  if (std::exchange(m_gathers, false) && --t_gathering == 0) DoNow();
}

void AfterAnswer::Leave(std::function<void()> work) {
  if (t_gathering == 0) return work();
  t_left.push_back(std::move(work));
}

void AfterAnswer::DoNow() {
  for (const std::function<void()>& work : std::exchange(t_left, {})) work();
}

}  // namespace qx

#include "platform/after_answer.h"

#include <utility>
#include <vector>

namespace platform {
namespace {

using Works = std::vector<std::function<void()>>;

thread_local int t_gathering = 0;
thread_local Works t_first;
thread_local Works t_last;

}  // namespace

AfterAnswer::AfterAnswer() { ++t_gathering; }

void AfterAnswer::End() {
  if (std::exchange(m_gathers, false) && --t_gathering == 0) DoNow();
}

bool AfterAnswer::Gathers() { return t_gathering != 0; }

void AfterAnswer::Keep(When when, std::function<void()> work) {
  (when == When::kFirst ? t_first : t_last).push_back(std::move(work));
}

void AfterAnswer::DoNow() {
  for (Works* const left : {&t_first, &t_last}) {
    for (const std::function<void()>& work : std::exchange(*left, {})) work();
  }
}

}  // namespace platform

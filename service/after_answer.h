// service/after_answer.h: what a change leaves to be done when its caller has the answer, since nobody waits for it.
#pragma once

#include <functional>

namespace qx {

// While one of a thread lives, what the thread leaves is gathered; when the last one ends all of it is done, in order.
// Threads: made and ended on one thread, whose work alone it gathers.
class AfterAnswer {
 public:
  AfterAnswer();
  AfterAnswer(const AfterAnswer&) = delete;
  AfterAnswer& operator=(const AfterAnswer&) = delete;
  ~AfterAnswer() { End(); }
  void End();  // again: nothing

  // Has `work` done behind the answer; at once where the thread gathers nothing. A process that ends before leaves it
  // undone: nothing may rest on it.
  static void Leave(std::function<void()> work);
  // Does what was left so far, for work that would meet it.
  static void DoNow();

 private:
  bool m_gathers = true;
};

}  // namespace qx

// platform/after_answer.h: what a change leaves to be done when its caller has the answer, since nobody waits for it.
#pragma once

#include <functional>
#include <new>

namespace platform {

// While one of a thread lives, what the thread leaves is gathered; when the last one ends all of it is done. Waking
// whoever waits for an event (event.h) is left too: it comes first, so that the caller has its answer before another
// thread goes to work on what the call has changed, and no later than that.
// Threads: made and ended on one thread, whose work alone it gathers.
class AfterAnswer {
 public:
  AfterAnswer();
  AfterAnswer(const AfterAnswer&) = delete;
  AfterAnswer& operator=(const AfterAnswer&) = delete;
  ~AfterAnswer() { End(); }
  void End();  // again: nothing

  // Has `work` done behind the answer, in the order in which it was left; at once where the thread gathers nothing, or
  // there is no memory to keep it in. A process that ends before leaves it undone: nothing may rest on it.
  template <typename Work>
  static void Leave(Work work) {
    LeaveAs(When::kLast, work);
  }
  // The same for what is short and may be urgent: ahead of all that Leave() was given.
  template <typename Work>
  static void LeaveFirst(Work work) {
    LeaveAs(When::kFirst, work);
  }
  // Does what was left so far, for work that would meet it.
  static void DoNow();

 private:
  enum class When { kFirst, kLast };
  [[nodiscard]] static bool Gathers();
  static void Keep(When when, std::function<void()> work);
  template <typename Work>
  static void LeaveAs(When when, Work& work) {
    if (!Gathers()) return work();
    try {
      Keep(when, work);
    } catch (const std::bad_alloc&) {
      work();
    }
  }

  bool m_gathers = true;
};

}  // namespace platform

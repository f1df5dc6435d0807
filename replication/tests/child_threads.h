// replication/tests/child_threads.h: the threads of a listener's children in this process, to the kernel's last word.
//
// Threads: any.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace qx::testing {

// Those that the kernel still has, by the first 15 bytes of their name.
inline std::ptrdiff_t ChildThreads() {
  std::ptrdiff_t count = 0;
  std::error_code ended;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ended)) {
    std::string name;
    if (std::ifstream file(task.path() / "comm"); std::getline(file, name)) count += name == "ChildSocketThre";
  }
  return count;
}

// Waits until none is left, a minute at most. A poll: no call tells that the kernel has taken the last of a thread that
// nobody joins. A test program that ends beside one has what libcrypto keeps for that thread reported as leaked: it is
// freed by a key of the thread that libcrypto's own exit handler has deleted by then, ahead of the leak check.
inline bool WaitForChildThreads() {
  for (int i = 0; i < 60000 && ChildThreads() != 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return ChildThreads() == 0;
}

}  // namespace qx::testing

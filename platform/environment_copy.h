// platform/environment_copy.h: the environment of this process, as a child may have it.
//
// For the files that start children alone. Threads: any.
#pragma once

#include <string>
#include <vector>

namespace platform {

// Every variable as "NAME=value". Waits while a zone is read: TZ then says what the C library is to read, for as long as
// that takes.
[[nodiscard]] std::vector<std::string> CopyEnvironment();

// Words or variables as a program gets them, null at the end; good for as long as the texts are.
[[nodiscard]] inline std::vector<char*> PointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace platform

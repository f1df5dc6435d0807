// tests/program_words.h: the words and variables of a program as the kernel takes them at its start.
#pragma once

#include <string>
#include <vector>

namespace qx::testing {

// Threads: one at a time. The pointers hold as long as the object.
class ProgramWords {
 public:
  ProgramWords(const std::string& program, const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment)
      : m_words({program}), m_variables(environment) {
    m_words.insert(m_words.end(), arguments.begin(), arguments.end());
    m_argv = PointersTo(m_words);
    m_envp = PointersTo(m_variables);
  }
  ProgramWords(const ProgramWords&) = delete;
  ProgramWords& operator=(const ProgramWords&) = delete;

  // With a null at the end; the program's own name is the first word.
  [[nodiscard]] char* const* Argv() const { return m_argv.data(); }
  [[nodiscard]] char* const* Envp() const { return m_envp.data(); }

 private:
  static std::vector<char*> PointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
  }

  std::vector<std::string> m_words;
  std::vector<std::string> m_variables;
  std::vector<char*> m_argv;
  std::vector<char*> m_envp;
};

}  // namespace qx::testing

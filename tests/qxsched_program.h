// tests/qxsched_program.h: for tests: the real program qxsched on a real service.
//
// Threads: one object from one thread.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/running_service.h"
#include "tests/test_paths.h"

namespace qx::testing {

class ProgramFixture : public ::testing::Test {
 protected:
  struct Result {
    int exit;
    std::string out;  // what came on both streams
  };

  //   variables  what the program gets beside the sanitizers' options; a later one may not repeat a name
  explicit ProgramFixture(std::vector<std::string> variables) : m_variables(std::move(variables)) {}

  void SetUp() override {
    m_service.Register();
    m_service.Start();
  }
  // The words of a call, behind those that name the service.
  std::vector<std::string> Words(std::vector<std::string> words) {
    const std::vector<std::string> place = {"--root", m_service.Root(), "--bus", m_service.Bus().Address()};
    words.insert(words.begin(), place.begin(), place.end());
    return words;
  }
  std::vector<std::string> Environment(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> environment = m_variables;
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
      if (const char* const value = std::getenv(name)) environment.push_back(std::string(name) + "=" + value);
    }
    environment.insert(environment.end(), more.begin(), more.end());
    return environment;
  }
  // Calls the program, not in a terminal, and waits for its end.
  Result Ask(std::vector<std::string> words, const std::vector<std::string>& variables = {}) {
    const std::string output = m_service.Jobs() + "/qxsched.out";
    Child child(kProgram, Words(std::move(words)), output, Environment(variables));
    const int exit = child.Wait();
    return {exit, RunningService::ReadFile(output)};
  }
  // The same for a call that has to succeed, with its data.
  nlohmann::json AskJson(std::vector<std::string> words) {
    words.insert(words.begin(), {"--json", "--quiet"});
    const Result result = Ask(std::move(words));
    EXPECT_EQ(result.exit, 0) << result.out;
    return nlohmann::json::parse(result.out, nullptr, false);
  }
  // Writes a file that can be read and carried out; its full name.
  std::string Write(const std::string& name, const std::string& text) {
    const std::string file = m_service.Jobs() + "/" + name;
    std::ofstream(file) << text;
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    return file;
  }

  const std::string kProgram = test_paths::Programs() + "/qxsched";
  RunningService m_service;

 private:
  const std::vector<std::string> m_variables;
};

}  // namespace qx::testing

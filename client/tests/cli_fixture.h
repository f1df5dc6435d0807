// client/tests/cli_fixture.h: the command line in-process, over strings, in a fixed zone at a fixed time.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "client/cli_app.h"
#include "foundation/include/zfclog.h"
#include "platform/file.h"
#include "platform/testing/temporary_folder.h"
#include "platform/testing/virtual_clock.h"

class CliTest : public testing::Test {
 protected:
  struct Result {
    int exit;
    std::string out;
    std::string err;

    // For a message of a test.
    [[nodiscard]] std::string Told() const {
      return "exit " + std::to_string(exit) + "\nout: " + out + "\nerr: " + err;
    }
  };

  ~CliTest() override {
    ZepFoundation::SetServiceLogWriter(m_writerBefore);
    platform::SetStateDirectory(m_stateBefore);
  }

  Result Run(const std::vector<std::string>& words, const std::string& input = "") {
    std::vector<const char*> argv = {"qxsched"};
    for (const std::string& word : words) argv.push_back(word.c_str());
    std::istringstream in(input);
    std::ostringstream out;
    std::ostringstream err;
    const int exit = qx::RunQxsched(static_cast<int>(argv.size()), argv.data(), in, out, err);
    return {exit, out.str(), err.str()};
  }

  // Writes a file into the test's own directory; its full name.
  std::string Write(const std::string& name, const std::string& text) {
    std::ofstream(Path(name), std::ios::binary) << text;
    return Path(name);
  }
  [[nodiscard]] std::string Path(const std::string& name) const { return m_directory + "/" + name; }

  platform::ScopedZone m_zone{"CET-1CEST,M3.5.0,M10.5.0/3"};
  platform::VirtualClock m_clock{1796040000};  // Monday 2026-11-30 13:00:00 +0100
  const platform::TemporaryFolder m_temporary{"qxsched"};
  const std::string m_directory = m_temporary.Path();

 private:
  std::string m_stateBefore = platform::StateDirectory();
  ZepFoundation::ServiceLogWriter* m_writerBefore =
      ZepFoundation::SetServiceLogWriter(ZepFoundation::NullServiceLogWriter());
};

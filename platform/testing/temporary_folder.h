// platform/testing/temporary_folder.h: for tests: a folder of one's own, gone at its end with all that is in it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace platform {

// Below the folder for temporary files (TMPDIR, else /tmp). Threads: a value of one thread.
class TemporaryFolder {
 public:
  //   name    the beginning of the folder's, for whoever finds one left over
  //   throws  std::runtime_error when no folder can be made
  explicit TemporaryFolder(const std::string& name)
      : m_path((std::filesystem::temp_directory_path() / (name + "-XXXXXX")).string()) {
    if (::mkdtemp(m_path.data()) == nullptr) throw std::runtime_error("no folder can be made like " + m_path);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }

  [[nodiscard]] const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};

}  // namespace platform

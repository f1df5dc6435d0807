// tests/soak/small_disk.h: for tests: a small file system over a directory, which can be filled up and freed again.
//
// Threads: one.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/running_service.h"

namespace qx::testing {

class SmallDisk {
 public:
  // Why this host can't have one; empty when it can.
  static std::string WhyNot() {
    if (geteuid() != 0) return "mounting needs root";
    const std::string place = std::filesystem::temp_directory_path() / ("qx-probe-" + std::to_string(getpid()));
    std::filesystem::create_directory(place);
    const bool mounted = mount("none", place.c_str(), "tmpfs", 0, "size=64k") == 0;
    if (mounted) (void)umount(place.c_str());
    std::filesystem::remove(place);
    return mounted ? "" : "this host allows no mounts";
  }

  // Puts it over `directory`, whose contents move onto it: ext4 in a file where there are loop devices, else in memory.
  SmallDisk(std::string directory, int megabytes) : m_directory(std::move(directory)), m_image(m_directory + ".disk") {
    namespace fs = std::filesystem;
    const fs::path aside = m_directory + ".aside";
    fs::copy(m_directory, aside, fs::copy_options::recursive);
    std::ofstream(m_image).close();
    fs::resize_file(m_image, static_cast<std::uintmax_t>(megabytes) << 20);
    m_isReal = Tool("/usr/sbin/mkfs.ext4", {"-q", "-F", "-m", "0", m_image}) == 0 &&
               Tool("/usr/bin/mount", {"-o", "loop", m_image, m_directory}) == 0;
    if (!m_isReal) {
      const std::string size = "size=" + std::to_string(megabytes) + "m";
      EXPECT_EQ(mount("none", m_directory.c_str(), "tmpfs", 0, size.c_str()), 0);
    }
    fs::permissions(m_directory, fs::perms::owner_all);
    fs::copy(aside, m_directory, fs::copy_options::recursive);
    fs::remove_all(aside);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  // Whoever has files open there must have ended.
  ~SmallDisk() {
    if (umount(m_directory.c_str()) != 0) (void)umount2(m_directory.c_str(), MNT_DETACH);
    std::error_code ignored;
    std::filesystem::remove(m_image, ignored);
  }

  [[nodiscard]] bool IsReal() const { return m_isReal; }
  [[nodiscard]] bool IsFull() const { return m_isFull; }
  void Fill() {
    m_isFull = true;
    const int file = open(Filler().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::vector<char> piece(1 << 16, 'x');
    for (std::size_t size = piece.size(); size > 0;) {
      const ssize_t written = write(file, piece.data(), size);
      if (written <= 0) size /= 2;
    }
    (void)fsync(file);  // the blocks are taken now, not when the kernel writes back
    close(file);
  }
  void Free() {
    const int file = open(Filler().c_str(), O_WRONLY | O_CLOEXEC);
    (void)unlink(Filler().c_str());
    (void)!ftruncate(file, 0);
    (void)syncfs(file);  // the blocks are free from now on
    close(file);
    m_isFull = false;
  }

 private:
  static int Tool(const std::string& program, const std::vector<std::string>& words) {
    if (access(program.c_str(), X_OK) != 0) return 1;
    return Child(program, words, "/dev/null", {}).Wait();
  }
  [[nodiscard]] std::string Filler() const { return m_directory + "/filler"; }

  std::string m_directory;
  std::string m_image;
  bool m_isReal = false;
  bool m_isFull = false;
};

}  // namespace qx::testing

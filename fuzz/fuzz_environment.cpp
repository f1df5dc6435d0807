#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "foundation/include/zfclog.h"
#include "fuzz/fuzz_target.h"
#include "platform/clock.h"
#include "platform/host.h"

namespace qx::fuzz {
namespace {

namespace fs = std::filesystem;

class StandingClock final : public platform::ClockSource {
 public:
  std::int64_t WallNanoseconds() override { return std::int64_t{1796040000} * 1'000'000'000; }  // 2026-11-30
  std::uint64_t SteadyMilliseconds() override { return 0; }
  bool ConsumeWait(std::uint64_t) override { return true; }
};

struct Scratch {
  Scratch() {
    std::error_code none;
    const fs::path top = fs::is_directory("/dev/shm", none) ? fs::path("/dev/shm") : fs::temp_directory_path();
    std::string pattern = (top / "qxfuzzXXXXXX").string();
    Require(::mkdtemp(pattern.data()) != nullptr, "a scratch directory can be made");
    directory = pattern;
  }
  ~Scratch() {
    std::error_code none;
    fs::remove_all(directory, none);
  }
  std::string directory;
};

}  // namespace

void Require(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "fuzz: broken: %s\n", promise);
  std::abort();
}

std::u16string Units(const std::uint8_t* data, std::size_t size) {
  std::u16string units(size / 2, u'\0');
  for (std::size_t i = 0; i < units.size(); ++i) {
    units[i] = static_cast<char16_t>(data[2 * i] | (data[2 * i + 1] << 8));
  }
  return units;
}

void FixSurroundings() {
  static const bool once = [] {
    static StandingClock clock;
    (void)platform::PutEnvironment("TZ=CET-1CEST,M3.5.0,M10.5.0/3");
    platform::TzSet();
    platform::InstallClockSource(&clock);
    ZepFoundation::SetServiceLogWriter(ZepFoundation::NullServiceLogWriter());
    return true;
  }();
  (void)once;
}

const std::string& ScratchDirectory() {
  static const Scratch scratch;
  return scratch.directory;
}

std::string WriteScratch(const std::string& name, std::string_view contents) {
  std::string path = ScratchDirectory() + "/" + name;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  Require(static_cast<bool>(out.flush()), "a scratch file can be written");
  return path;
}

}  // namespace qx::fuzz

// The debugstream: any chunks under any filter and size, and any values in its registry key.
#include <filesystem>
#include <ostream>
#include <span>

#include "foundation/include/zfcdbg.h"
#include "fuzz/fuzz_target.h"
#include "platform/registry.h"
#include "platform/text.h"

using qx::fuzz::Require;

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostText = 4096;  // bytes: a size of 0 makes a file of every record

// The key is read by ResetDebugTrace() and ConfigureDebugTrace().
void Configure(std::string_view typeAndSize, const std::string& path) {
  const bool opened = platform::IsRegistryStoreOpen() ||
                      platform::OpenRegistryStore(qx::fuzz::ScratchDirectory() + "/registry.db") == 0;
  Require(opened, "a store can be opened");
  platform::RegistryKey key;
  Require(CreateKey(platform::Hive::kLocalMachine, u"Software\\brelmont\\debugstream\\debugstream",
                    platform::KEY_ALL_ACCESS, key) == 0,
          "the key can be made");
  const auto settings = static_cast<std::uint8_t>(typeAndSize[0]);
  Require(SetString(key, u"logFilePath", platform::WideFromUtf8(path)) == 0, "the path can be set");
  Require(SetDword(key, u"logFileFilterFlag", settings & 0x1Fu) == 0, "the filter can be set");
  // The size as a double word, or as bytes of any type and length.
  const auto kind = static_cast<std::uint8_t>(typeAndSize[1]);
  if (kind < 0x80) {
    Require(SetDword(key, u"LogFileSize", kind & 3u) == 0, "the size can be set");
  } else {
    Require(SetRawValue(key, u"LogFileSize", kind & 7u,
                        std::as_bytes(std::span(typeAndSize.data(), (kind >> 3) & 3u))) == 0,
            "any value can be set");
  }
  Require(key.Close() == 0, "the key can be closed");
}

}  // namespace

QX_FUZZ_TARGET(trace) {
  if (size < 4) return 0;
  const std::string directory = qx::fuzz::ScratchDirectory() + "/trace";
  fs::create_directory(directory);
  const std::string_view input = qx::fuzz::Text(data, size);
  ZepFoundation::ResetDebugTrace();
  Configure(input.substr(0, 4), directory + "/trace.log");
  ZepFoundation::ConfigureDebugTrace();

  std::size_t given = 0;
  // A byte says how long the next chunk is, and whether a statement begins there.
  for (std::string_view rest = input.substr(4, kMostText); !rest.empty();) {
    const auto head = static_cast<std::uint8_t>(rest[0]);
    rest.remove_prefix(1);
    const std::string_view chunk = rest.substr(0, head & 0x1F);
    rest.remove_prefix(chunk.size());
    std::ostream& out = ZepFoundation::DebugTrace(4, static_cast<std::uint16_t>(head >> 6), "a.cpp", head & 0x20);
    out << chunk;
    if (chunk.size() == 1) out.put(chunk[0]);
    if ((head & 0x20) != 0) out << std::string(static_cast<std::size_t>(head) * 8, 'x') << '\n' << std::flush << "@@@";
    given += chunk.size() + 1 + static_cast<std::size_t>(head) * 8 + 200;
  }
  ZepFoundation::ResetDebugTrace();
  std::uintmax_t kept = 0;
  for (const auto& entry : fs::directory_iterator(directory)) kept += entry.file_size();
  Require(kept <= given, "no character is doubled");
  fs::remove_all(directory);
  return 0;
}

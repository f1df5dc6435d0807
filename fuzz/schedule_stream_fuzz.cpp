// A schedule from any byte stream.
#include "fuzz/fuzz_target.h"
#include "fuzz/schedule_check.h"

using qx::fuzz::Require;

namespace {

// A stream over a string.
class ByteStream final : public zepIStream {
 public:
  explicit ByteStream(std::string bytes) : m_bytes(std::move(bytes)) {}
  ZRESULT QueryInterface(const ZepGuid&, void** out) override { return *out = nullptr, ZEP_E_NOINTERFACE; }
  std::uint32_t AddRef() override { return 1; }
  std::uint32_t Release() override { return 1; }
  ZRESULT Read(void* buffer, std::uint32_t size, std::uint32_t* read) override {
    *read = static_cast<std::uint32_t>(std::min<std::size_t>(size, m_bytes.size()));
    if (*read != 0) std::memcpy(buffer, m_bytes.data(), *read);
    return ZEP_S_OK;
  }
  ZRESULT Write(const void* buffer, std::uint32_t size, std::uint32_t* written) override {
    m_bytes.assign(static_cast<const char*>(buffer), size);
    *written = size;
    return ZEP_S_OK;
  }

 private:
  std::string m_bytes;
};

}  // namespace

QX_FUZZ_TARGET(schedule_stream) {
  ByteStream in{std::string(qx::fuzz::Text(data, size))};
  qx::fuzz::LoadedSchedule schedule;
  (void)schedule->Load(&in);
  qx::fuzz::AskSchedule(*schedule, qx::fuzz::Durations::kOfAnySign);
  ByteStream out{""};
  Require(schedule->Save(&out, 0) == ZEP_S_OK, "what was loaded can be saved");
  qx::fuzz::LoadedSchedule again;
  Require(again->Load(&out) == ZEP_S_OK, "what was saved can be loaded");
  Require(qx::fuzz::MemoryForm(*again) == qx::fuzz::MemoryForm(*schedule), "a saved schedule comes back");
  return 0;
}

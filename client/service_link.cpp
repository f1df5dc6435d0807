#include "client/service_link.h"

#include <deque>
#include <iterator>
#include <string_view>
#include <utility>

namespace qx {
namespace {

constexpr std::uint32_t kLinkPageRows = 1000;

class BusLink : public ServiceLink {
 public:
  platform::ErrorCode Open(const platform::BusAddress& address) {
    // The low half of a status of the form 0x8007xxxx.
    return static_cast<platform::ErrorCode>(m_client.Connect(address) & 0xFFFF);
  }

  ISchedulerService& Service() override { return m_client; }
  Status ListInfo(const std::u16string& afterId, std::uint32_t limit, std::vector<ListRow>& rows) override {
    return m_client.ListInfo(afterId, limit, rows);
  }
  Status ListAll(std::vector<ListRow>& rows) override { return m_client.ListAll(rows); }
  Status ListRows(SentListRows& list) override { return m_client.ListAll(list); }
  Status ReadProperties(ServiceProperties& properties) override { return m_client.Properties(properties); }
  Status Listen(ISchedulerServiceEvents& sink) override {
    std::uint32_t cookie = 0;
    // Borrowed: nobody counts references of the sink.
    return m_client.Advise(SchedulerClient::Sink(&sink, [](ISchedulerServiceEvents*) {}), cookie);
  }
  bool WaitForEvents(std::uint32_t limitMs) override {
    (void)m_client.WaitForEvents(limitMs);
    return m_client.IsConnected();
  }
  Status WatchService(std::function<void(bool present)> presence) override {
    return m_client.WatchService(std::move(presence));
  }
  Status ServiceProcess(std::uint32_t& process) override { return m_client.ServiceProcess(process); }
  [[nodiscard]] platform::BusError LastError() const override { return m_client.LastError(); }

 private:
  SchedulerClient m_client;
};

}  // namespace

Status ServiceLink::ListAll(std::vector<ListRow>& rows) {
  std::vector<ListRow> all;
  for (std::u16string after;;) {
    std::vector<ListRow> page;
    if (const Status status = ListInfo(after, kLinkPageRows, page); status != kStatusOk) return status;
    // A page that begins again would never end.
    if (page.empty() || page.back().id == after) break;
    after = page.back().id;
    std::move(page.begin(), page.end(), std::back_inserter(all));
  }
  rows = std::move(all);
  return kStatusOk;
}

Status ServiceLink::ListRows(SentListRows& list) {
  std::vector<ListRow> rows;
  if (const Status status = ListAll(rows); status != kStatusOk) return status;
  const auto texts = std::make_shared<std::deque<std::string>>();
  const auto sent = [&](const std::u16string& text) -> std::string_view {
    AppendSentText(texts->emplace_back(), text);
    return texts->back();
  };
  std::vector<SentListRow>& block = list.blocks.emplace_back();
  for (const ListRow& row : rows) {
    block.push_back({sent(row.id), sent(row.name), sent(row.application), sent(row.objectId), row.taskCode,
                     sent(row.wrapper), sent(row.xml), sent(row.parameters), sent(row.preScript),
                     sent(row.postScript), row.passId, row.nextWindow});
  }
  list.texts.push_back(texts);
  return kStatusOk;
}

platform::ErrorCode ConnectOverBus(const platform::BusAddress& address, std::unique_ptr<ServiceLink>& link) {
  auto fresh = std::make_unique<BusLink>();
  const platform::ErrorCode code = fresh->Open(address);
  if (code == platform::ERROR_SUCCESS) link = std::move(fresh);
  return code;
}

}  // namespace qx

#include "client/list_walk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/bus_records.h"
#include "platform/guid.h"
#include "platform/text.h"

namespace {

using platform::BusConnection;
using platform::BusError;
using platform::ErrorCode;
using platform::MessageReader;
using platform::MessageWriter;
using qx::SentListRow;
using qx::SentListRows;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr const char* kListPath = "/list";
constexpr const char* kListInterface = "test.List";
constexpr std::uint32_t kServiceRows = 1000;

std::string InCapitals(std::string id) {
  for (char& c : id) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return id;
}

struct InUpperCase {
  bool operator()(const std::string& a, const std::string& b) const { return InCapitals(a) < InCapitals(b); }
};

std::string ListedId(std::uint32_t first, std::uint16_t second = 0) {
  ScheduleGuid id{};
  id.Data1 = first;
  id.Data2 = second;
  return platform::Utf8FromWide(platform::GuidText(id));
}

// A service with nothing but the list, on a thread of its own.
class ListWalkTest : public testing::Test {
 protected:
  using List = std::map<std::string, std::uint32_t, InUpperCase>;  // IDs and task codes
  struct Asked {
    std::string after;
    std::uint32_t limit;
  };

  using Hook = std::function<BusError(const Asked&, std::int32_t& status)>;

  ~ListWalkTest() override { Stop(); }

  void Start() {
    ASSERT_EQ(BusConnection::OpenPair(m_server, m_client), platform::ERROR_SUCCESS);
    platform::BusInterface served;
    served.name = kListInterface;
    served.methods.push_back({"ListInfo",
                              {{"s", "after_id"}, {"u", "limit"}},
                              {{"i", "status"}, {std::string(qx::kListRowsType), "rows"}},
                              [this](MessageReader& call, MessageWriter& reply) { return Page(call, reply); }});
    ASSERT_EQ(m_server.Export(kListPath, std::move(served)), platform::ERROR_SUCCESS);
    m_service = std::thread([this] {
      while (m_server.IsOpen()) {
        while (m_server.Process()) {
        }
        (void)m_server.WaitForWork(1000);
      }
    });
  }
  void Stop() {
    m_client.Close();
    if (m_service.joinable()) m_service.join();
  }

  Status Walk(SentListRows& rows, bool severalAtOnce = true) {
    qx::ListWalk walk({m_client,
                       [&](std::string_view after, std::uint32_t limit, MessageWriter& call) -> Status {
                         if (m_client.NewCall("", kListPath, kListInterface, "ListInfo", call) != 0)
                           return kStatusFailure;
                         call.AppendString(after);
                         call.AppendUint32(limit);
                         return kStatusOk;
                       },
                       severalAtOnce,
                       [&](ErrorCode code, BusError error) -> Status {
                         m_error = std::move(error);
                         return 0x80070000 | code;
                       }});
    return walk.Run(rows);
  }
  std::vector<std::string> Walked(bool severalAtOnce = true) {
    SentListRows rows;
    EXPECT_EQ(Walk(rows, severalAtOnce), kStatusOk) << m_error.text;
    std::vector<std::string> ids;
    rows.ForEach([&](const SentListRow& row) {
      ids.emplace_back(row.id);
      EXPECT_EQ(row.wrapper, row.id);  // the texts stand
    });
    return ids;
  }
  // What runs ahead of each page, on the service's thread, and may refuse it.
  void SetHook(Hook hook) {
    const std::lock_guard lock(m_mutex);
    m_hook = std::move(hook);
  }
  [[nodiscard]] std::vector<std::string> Ids() const {
    std::vector<std::string> ids;
    for (const auto& [id, code] : m_list) ids.push_back(id);
    return ids;
  }
  // Spread over all IDs, as the service makes them.
  void Spread(std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i) m_list[ListedId(i * 0x9E3779B9u, static_cast<std::uint16_t>(i))] = i;
  }

  List m_list;
  std::uint32_t m_pageRows = kServiceRows;
  bool m_beginsAgain = false;  // gives the first page whatever it is asked for
  std::vector<Asked> m_asked;
  BusError m_error;
  BusConnection m_client;

 private:
  BusError Page(MessageReader& call, MessageWriter& reply) {
    const std::lock_guard lock(m_mutex);
    std::string_view after;
    Asked asked{};
    EXPECT_EQ(call.ReadString(after), platform::ERROR_SUCCESS);
    EXPECT_EQ(call.ReadUint32(asked.limit), platform::ERROR_SUCCESS);
    asked.after = after;
    m_asked.push_back(asked);
    std::int32_t status = 0;
    if (m_hook) {
      if (BusError error = m_hook(asked, status); error.IsSet()) return error;
    }
    reply.AppendInt32(status);
    reply.OpenArray("(" + std::string(qx::kListRowContents) + ")");
    const std::uint32_t most = std::min(asked.limit == 0 ? m_pageRows : asked.limit, m_pageRows);
    std::uint32_t given = 0;
    for (auto at = m_beginsAgain ? m_list.begin() : m_list.upper_bound(asked.after); at != m_list.end() && given < most;
         ++at, ++given) {
      SentListRow row;
      row.id = row.wrapper = at->first;
      row.name = row.application = row.objectId = row.xml = row.parameters = row.preScript = row.postScript = "";
      row.taskCode = at->second;
      qx::AppendListRow(reply, row);
    }
    reply.Close();
    return {};
  }

  std::mutex m_mutex;
  Hook m_hook;
  BusConnection m_server;
  std::thread m_service;
};

TEST_F(ListWalkTest, GivesEveryLengthOfListWholeAndInOrder) {
  ASSERT_NO_FATAL_FAILURE(Start());
  for (const std::uint32_t count : {0u, 1u, 127u, 128u, 129u, 999u, 1000u, 1001u, 1999u, 2500u, 4000u, 9999u}) {
    m_list.clear();
    Spread(count);
    EXPECT_THAT(Walked(), ElementsAreArray(Ids())) << count;
    EXPECT_THAT(Walked(false), ElementsAreArray(Ids())) << count << ", one page at a time";
  }
}

TEST_F(ListWalkTest, GivesListsWhoseIdsLieTogetherWholeAndInOrder) {
  ASSERT_NO_FATAL_FAILURE(Start());
  const std::function<std::string(std::uint32_t)> kKinds[] = {
      [](std::uint32_t i) { return ListedId(i); },                                           // all at the beginning
      [](std::uint32_t i) { return ListedId(0, static_cast<std::uint16_t>(i)); },            // all in one place
      [](std::uint32_t i) { return ListedId(0xFFFFFFFFu, static_cast<std::uint16_t>(i)); },  // in the last one
      [](std::uint32_t i) { return ListedId(0x3FFFFF00u + i); },                             // across the end of a part
      [](std::uint32_t i) { return ListedId(i < 150 ? i * 0x00100000u : 0xC0000000u + i); },  // thin, then thick
      [](std::uint32_t i) {
        std::string id = ListedId(i * 0x9E3779B9u, static_cast<std::uint16_t>(i));
        for (char& c : id) c = static_cast<char>(i % 2 ? std::tolower(static_cast<unsigned char>(c)) : c);
        return id;
      }};
  int kind = 0;
  for (const auto& make : kKinds) {
    m_list.clear();
    for (std::uint32_t i = 0; i < 3500; ++i) m_list[make(i)] = i;
    m_asked.clear();
    EXPECT_THAT(Walked(), ElementsAreArray(Ids())) << kind;
    EXPECT_LT(m_asked.size(), 16u) << kind;
    ++kind;
  }
}

TEST_F(ListWalkTest, TakesShortPagesForNoEnd) {
  m_pageRows = 7;
  ASSERT_NO_FATAL_FAILURE(Start());
  Spread(500);
  EXPECT_THAT(Walked(), ElementsAreArray(Ids()));
}

TEST_F(ListWalkTest, AsksForFewRowsThatBelongToTheNextPart) {
  ASSERT_NO_FATAL_FAILURE(Start());
  Spread(10000);
  EXPECT_THAT(Walked(), ElementsAreArray(Ids()));
  std::size_t given = 0;
  for (const Asked& asked : m_asked) {
    const auto from = m_list.upper_bound(asked.after);
    const auto left = static_cast<std::size_t>(std::distance(from, m_list.end()));
    given += std::min<std::size_t>(left, asked.limit == 0 ? kServiceRows : asked.limit);
  }
  EXPECT_LT(given, 11000u);
  EXPECT_LT(m_asked.size(), 24u);  // with the empty ones that end a part
}

// Before each page one schedule comes and one goes, in front of what was read, behind it and in other parts.
TEST_F(ListWalkTest, GivesWhatIsThereAllTheTimeOnceWhileOthersComeAndGo) {
  ASSERT_NO_FATAL_FAILURE(Start());
  Spread(6000);
  std::vector<std::string> lasting = Ids();
  std::uint32_t turn = 0;
  std::vector<std::string> passing;
  for (std::uint32_t i = 0; i < 64; ++i) passing.push_back(ListedId(i * 0x07654321u + 0x1234567u, 0xFFFF));
  for (std::uint32_t i = 0; i < 32; ++i) m_list[passing[i]] = 0;
  SetHook([&](const Asked&, std::int32_t&) {
    m_list.erase(passing[turn % 64]);
    m_list[passing[(turn + 32) % 64]] = 0;
    ++turn;
    return BusError{};
  });
  const std::vector<std::string> walked = Walked();
  EXPECT_GT(turn, 6u);
  EXPECT_TRUE(std::is_sorted(walked.begin(), walked.end()));
  EXPECT_EQ(std::adjacent_find(walked.begin(), walked.end()), walked.end());
  EXPECT_TRUE(std::includes(walked.begin(), walked.end(), lasting.begin(), lasting.end()));
  std::sort(passing.begin(), passing.end());
  for (const std::string& id : walked) {
    EXPECT_TRUE(std::binary_search(lasting.begin(), lasting.end(), id) ||
                std::binary_search(passing.begin(), passing.end(), id));
  }
}

TEST_F(ListWalkTest, EndsWithAServiceThatGivesTheSamePageForEver) {
  ASSERT_NO_FATAL_FAILURE(Start());
  m_list[ListedId(5)] = 0;
  m_beginsAgain = true;
  SetHook([&](const Asked&, std::int32_t&) {
    return m_asked.size() < 50 ? BusError{} : BusError::Failed("asked for ever");
  });
  SentListRows rows;
  EXPECT_EQ(Walk(rows), kStatusOk) << m_error.text;
  EXPECT_LT(m_asked.size(), 5u);
}

TEST_F(ListWalkTest, LeavesTheListAsItWasWhenAPageFails) {
  struct Failure {
    const char* what;
    std::function<BusError(std::int32_t& status)> fail;
    Status expected;
  };
  const Failure kFailures[] = {{"status",
                                [](std::int32_t& status) {
                                  status = static_cast<std::int32_t>(kStatusList);
                                  return BusError{};
                                },
                                kStatusList},
                               {"refusal", [](std::int32_t&) { return BusError::Failed("not today"); },
                                0x80070000 | platform::ERROR_REQUEST_REFUSED}};
  ASSERT_NO_FATAL_FAILURE(Start());
  Spread(4000);
  for (const Failure& failure : kFailures) {
    for (std::size_t page = 1; page < 7; ++page) {
      m_asked.clear();
      SetHook([&](const Asked&, std::int32_t& status) {
        return m_asked.size() == page ? failure.fail(status) : BusError{};
      });
      SentListRows rows;
      rows.blocks.emplace_back(1);
      EXPECT_EQ(Walk(rows), failure.expected) << failure.what << " " << page;
      EXPECT_EQ(rows.Count(), 1u);
      EXPECT_THAT(rows.texts, IsEmpty());
      // What is still on its way when a walk gives up does no harm to the next one.
      SetHook(nullptr);
      EXPECT_THAT(Walked(), ElementsAreArray(Ids())) << failure.what << " " << page;
    }
  }
}

TEST_F(ListWalkTest, EndsWithAnErrorWhenTheConnectionIsLost) {
  ASSERT_NO_FATAL_FAILURE(Start());
  Stop();
  SentListRows rows;
  EXPECT_NE(Walk(rows), kStatusOk);
  EXPECT_EQ(rows.Count(), 0u);
}

}  // namespace

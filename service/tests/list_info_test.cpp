#include "service/list_info.h"

#include "common/bus_records.h"
#include "service/tests/service_fixture.h"

namespace qx {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ListInfo : public testing::ServiceFixture {
 protected:
  std::vector<ListRow> Page(const std::u16string& after = {}, std::uint32_t limit = 0) {
    std::vector<ListRow> rows;
    const auto add = [&](const SentListRow& row) {
      rows.push_back(WideListRow(row));
      return true;
    };
    EXPECT_EQ(m_list.Page(after, limit, add), kStatusOk);
    return rows;
  }
  static std::vector<std::string> Ids(const std::vector<ListRow>& rows) {
    std::vector<std::string> ids;
    for (const ListRow& row : rows) ids.push_back(testing::Narrow(row.id));
    return ids;
  }
  // `count` schedules; their IDs in order.
  std::vector<std::string> CreateMany(int count) {
    std::vector<std::string> ids;
    for (int i = 0; i < count; ++i) ids.push_back(Text(Create(Daily())));
    std::sort(ids.begin(), ids.end());
    return ids;
  }
  CListInfo m_list;
};

TEST_F(ListInfo, TellsEverythingOfAListedSchedule) {
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bstrParameters = u"-v";
  schedule.bstrPreScript = u"pre";
  schedule.bstrPostScript = u"post";
  schedule.bUseGUID = 1;
  const ScheduleGuid id = Create(schedule);
  const ListRow expected = {
      platform::GuidText(id),        u"daily", u"snapshot", u"vol-17", 4, u"/bin/true",
      *schedule.bstrXMLFilePathName, u"-v",    u"pre",      u"post",   1, schedule.stScheduleRules.lStartTime};
  const std::vector<ListRow> rows = Page();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows[0] == expected);
}

TEST_F(ListInfo, ReadsTheNameOfAScheduleWithoutANodeFromItsFile) {
  const ScheduleGuid id = Create(Daily());
  DoCleanUp();
  const std::vector<ListRow> rows = Page();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].name, u"daily");
  EXPECT_EQ(rows[0].nextWindow, kNoWindow);
  std::filesystem::remove(IniFile(id));
  EXPECT_EQ(Page()[0].name, u"");
}

TEST_F(ListInfo, MovesAFileThatLiesAsideBackBeforeItReads) {
  const ScheduleGuid id = Create(Daily());
  DoCleanUp();
  std::filesystem::rename(IniFile(id), IniFile(id) + ".old");
  EXPECT_EQ(Page()[0].name, u"daily");
  EXPECT_TRUE(std::filesystem::exists(IniFile(id)));
}

TEST_F(ListInfo, ShowsADamagedKeyByItsIdAlone) {
  const ScheduleGuid id = Create(Daily());
  RemoveValue(id, u"PostScript");
  const std::vector<ListRow> rows = Page();
  ASSERT_EQ(rows.size(), 1u);
  ListRow expected;
  expected.id = platform::GuidText(id);
  expected.nextWindow = kDamagedKey;
  EXPECT_TRUE(rows[0] == expected);
}

TEST_F(ListInfo, LeavesKeysOutWhoseNamesAreNoIds) {
  MakeKey(std::u16string(kSchedulesKey) + u"\\{not an id}");
  EXPECT_THAT(Page(), IsEmpty());
}

TEST_F(ListInfo, PagesMeetEveryScheduleOnce) {
  const std::vector<std::string> ids = CreateMany(11);
  for (const std::uint32_t limit : {1u, 2u, 3u, 10u, 11u, 12u, 0u}) {
    std::vector<std::string> seen;
    std::u16string last;
    while (true) {
      const std::vector<ListRow> page = Page(last, limit);
      if (page.empty()) break;
      EXPECT_LE(page.size(), limit == 0 ? kListPageLimit : limit);
      for (const std::string& id : Ids(page)) seen.push_back(id);
      last = page.back().id;
    }
    EXPECT_EQ(seen, ids) << "limit " << limit;
  }
}

TEST_F(ListInfo, LargePagesMeetEveryScheduleOnce) {
  const SCHEDULE_OBJECT schedule = Daily();
  std::vector<std::string> ids;
  for (std::uint32_t i = 0; i < 700; ++i) {  // keys alone: the list tells of them too
    ScheduleGuid id = CLSID_SchedulerService;
    id.Data1 = i * 0x9E3779B9u;
    ASSERT_EQ(WriteRegistry(schedule, id), kStatusOk);
    ids.push_back(Text(id));
  }
  std::sort(ids.begin(), ids.end());
  for (const std::uint32_t limit : {256u, 300u, 699u, 700u, 1000u}) {
    std::vector<std::string> seen;
    std::u16string last;
    for (std::vector<ListRow> page = Page(last, limit); !page.empty(); page = Page(last, limit)) {
      EXPECT_LE(page.size(), limit);
      for (const std::string& id : Ids(page)) seen.push_back(id);
      for (const ListRow& row : page) EXPECT_EQ(row.wrapper, u"/bin/true");
      last = page.back().id;
    }
    EXPECT_EQ(seen, ids) << "limit " << limit;
  }
}

TEST_F(ListInfo, GoesOnBehindAnIdWhateverHappenedMeanwhile) {
  const std::vector<std::string> ids = CreateMany(6);
  const auto deleteOne = [&](const std::string& text) {
    ScheduleGuid id;
    ASSERT_EQ(platform::ClsidFromString(testing::Wide(text), id), 0u);
    ASSERT_EQ(m_service.DeleteSchedule(id), kStatusOk);
  };
  EXPECT_THAT(Ids(Page({}, 3)), ElementsAre(ids[0], ids[1], ids[2]));
  deleteOne(ids[0]);  // everything moves up by one
  EXPECT_THAT(Ids(Page(testing::Wide(ids[2]), 2)), ElementsAre(ids[3], ids[4]));
  deleteOne(ids[4]);  // the place itself is gone
  EXPECT_THAT(Ids(Page(testing::Wide(ids[4]), 2)), ElementsAre(ids[5]));
  EXPECT_THAT(Page(testing::Wide(ids[5]), 2), IsEmpty());
}

TEST_F(ListInfo, AChangeByAnybodyIsInTheNextPage) {
  std::vector<std::string> ids = CreateMany(4);
  EXPECT_EQ(Ids(Page()), ids);
  EXPECT_EQ(Ids(Page()), ids);  // from what was kept
  ids.push_back(Text(Create(Daily())));
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(Ids(Page()), ids);
  ScheduleGuid id;
  ASSERT_EQ(platform::ClsidFromString(testing::Wide(ids[2]), id), 0u);
  SCHEDULE_OBJECT changed = Daily();
  changed.bstrParameters = u"--other";
  ASSERT_EQ(m_service.ModifySchedule(id, changed), kStatusOk);
  EXPECT_EQ(Page()[2].parameters, u"--other");
  RemoveValue(id, u"PostScript");
  EXPECT_EQ(Page()[2].nextWindow, kDamagedKey);
  EXPECT_EQ(Page()[3].wrapper, u"/bin/true");
}

TEST_F(ListInfo, AValueThatCouldntBeReadIsTriedAgain) {
  const std::vector<std::string> ids = CreateMany(2);
  {
    const auto plan =
        platform::FaultPlan::FailCall(platform::Operation::kRegQueryValue, 3, platform::ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(Page()[0].nextWindow, kDamagedKey);
  }
  EXPECT_EQ(Page()[0].wrapper, u"/bin/true");
}

TEST_F(ListInfo, PagesOfDifferentReadersDontMixUp) {
  const std::vector<std::string> ids = CreateMany(7);
  EXPECT_THAT(Ids(Page(testing::Wide(ids[3]), 2)), ElementsAre(ids[4], ids[5]));
  EXPECT_THAT(Ids(Page({}, 2)), ElementsAre(ids[0], ids[1]));  // in front of what was kept
  EXPECT_THAT(Ids(Page(testing::Wide(ids[4]), 1)), ElementsAre(ids[5]));  // far behind it
  EXPECT_THAT(Ids(Page(testing::Wide(ids[4]), 5)), ElementsAre(ids[5], ids[6]));
  EXPECT_THAT(Ids(Page(testing::Wide(ids[5]), 5)), ElementsAre(ids[6]));
  EXPECT_EQ(Ids(Page()), ids);
  EXPECT_THAT(Page(u"{FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF}"), IsEmpty());
}

TEST_F(ListInfo, ReadersOfTwoHalvesSeeTheWholeListWhileTheyTakeTurns) {
  const SCHEDULE_OBJECT schedule = Daily();
  std::vector<std::string> ids;
  for (std::uint32_t i = 0; i < 60; ++i) {
    ScheduleGuid id = CLSID_SchedulerService;
    id.Data1 = i * 0x04444444u;
    ASSERT_EQ(WriteRegistry(schedule, id), kStatusOk);
    ids.push_back(Text(id));
  }
  std::sort(ids.begin(), ids.end());
  for (int round = 0; round < 3; ++round) {  // read, joined, kept
    std::vector<std::string> seen[2];
    std::u16string last[2] = {u"", u"{7FFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF}"};
    for (bool any = true; any;) {
      any = false;
      for (int half = 0; half < 2; ++half) {
        const std::vector<ListRow> page = Page(last[half], 7);
        for (const ListRow& row : page) {
          if (half == 0 && row.id > u"{7FFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF}") continue;
          seen[half].push_back(testing::Narrow(row.id));
          any = true;
        }
        if (!page.empty()) last[half] = page.back().id;
      }
    }
    seen[0].insert(seen[0].end(), seen[1].begin(), seen[1].end());
    EXPECT_EQ(seen[0], ids) << "round " << round;
  }
}

TEST_F(ListInfo, APageEndsWhereItsReaderSaysSo) {
  CreateMany(3);
  int rows = 0;
  EXPECT_EQ(m_list.Page({}, 0, [&](const SentListRow&) { return ++rows < 2; }), kStatusOk);
  EXPECT_EQ(rows, 2);
}

TEST_F(ListInfo, TextsThatNoBusCarriesAreGivenAsTheyTravel) {
  SCHEDULE_OBJECT schedule = Daily();
  schedule.bstrParameters = u"lone \xD800, umlaut \u00E4";
  Create(schedule);
  const std::vector<ListRow> rows = Page();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].parameters, u"lone \uFFFD, umlaut \u00E4");
}

TEST_F(ListInfo, FailsAsTheListDoesWhenTheKeysCantBeRead) {
  Create(Daily());
  for (const platform::Operation operation : {platform::Operation::kRegOpenKey, platform::Operation::kRegEnumKey}) {
    int rows = 0;
    const auto plan = platform::FaultPlan::FailCall(operation, 1, platform::ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(m_list.Page({}, 0, [&](const SentListRow&) { return ++rows != 0; }), kStatusList)
        << platform::OperationName(operation);
    EXPECT_EQ(rows, 0);
  }
  EXPECT_TRUE(m_log.Has(1, "ListInfo: Failed with error : 3f8"));
}

}  // namespace
}  // namespace qx

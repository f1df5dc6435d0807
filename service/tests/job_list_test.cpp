#include "service/job_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <algorithm>
#include <list>

#include "foundation/testing/captured_log.h"

namespace {

using testing::ElementsAre;

ScheduleGuid Id(std::uint32_t number) {
  ScheduleGuid id{};
  id.Data1 = number;
  return id;
}

CJobNode Node(std::uint32_t number, std::int64_t window) {
  CJobNode node;
  node.ScheduleID = Id(number);
  node.NextTimeWindow = window;
  return node;
}

std::vector<std::pair<std::uint32_t, std::int64_t>> Contents(CJobList& list) {
  std::vector<std::pair<std::uint32_t, std::int64_t>> out;
  const platform::CriticalSectionGuard guard(g_JobListLock);
  for (auto at = list.Begin(); at != list.End(); ++at) out.emplace_back(at->ScheduleID.Data1, at->NextTimeWindow);
  return out;
}

std::vector<std::uint32_t> Numbers(CJobList& list) {
  std::vector<std::uint32_t> out;
  for (const auto& [number, window] : Contents(list)) out.push_back(number);
  return out;
}

// The list as it is told: a linked list, walked whole at each insertion, sorted stably.
class ToldList {
 public:
  Status Add(const CJobNode& node) {
    auto place = m_nodes.end();
    for (auto at = m_nodes.begin(); at != m_nodes.end(); ++at) {
      if (at->ScheduleID == node.ScheduleID) return kStatusJobExists;
      if (place == m_nodes.end() && static_cast<std::int32_t>(node.NextTimeWindow) <= at->NextTimeWindow) place = at;
    }
    m_nodes.insert(place, node);
    return kStatusOk;
  }
  void Remove(const ScheduleGuid& id) {
    m_nodes.remove_if([&](const CJobNode& node) { return node.ScheduleID == id; });
  }
  void Change(const ScheduleGuid& id, std::int64_t window) {
    for (CJobNode& node : m_nodes) {
      if (node.ScheduleID == id) node.NextTimeWindow = window;
    }
  }
  void Sort() {
    m_nodes.sort([](const CJobNode& a, const CJobNode& b) { return a.NextTimeWindow < b.NextTimeWindow; });
  }
  std::vector<std::pair<std::uint32_t, std::int64_t>> Contents() const {
    std::vector<std::pair<std::uint32_t, std::int64_t>> out;
    for (const CJobNode& node : m_nodes) out.emplace_back(node.ScheduleID.Data1, node.NextTimeWindow);
    return out;
  }

 private:
  std::list<CJobNode> m_nodes;
};

// One random life of a list beside its model.
void CompareWithTheToldList() {
  const ZepFoundation::CapturedServiceLog log;
  CJobList list;
  ToldList told;
  const auto number = rc::gen::inRange<std::uint32_t>(0, 12);
  const auto window = rc::gen::inRange<std::int64_t>(0, 6);
  const int steps = *rc::gen::inRange(0, 60);
  for (int i = 0; i < steps; ++i) {
    switch (*rc::gen::inRange(0, 5)) {
      case 0: {  // many at once
        std::vector<CJobNode> nodes;
        std::vector<std::uint32_t> expected, refused;
        const int count = *rc::gen::inRange(0, 8);
        for (int j = 0; j < count; ++j) {
          nodes.push_back(Node(*number, *window));
          if (told.Add(nodes.back()) != kStatusOk) expected.push_back(nodes.back().ScheduleID.Data1);
        }
        list.AddJobs(nodes, [&](const CJobNode& node) { refused.push_back(node.ScheduleID.Data1); });
        RC_ASSERT(refused == expected);
        break;
      }
      case 1: {
        const CJobNode node = Node(*number, *window);
        RC_ASSERT(list.AddJob(node) == told.Add(node));
        break;
      }
      case 2: {
        const std::uint32_t gone = *number;
        list.RemoveJob(Node(gone, 0));
        told.Remove(Id(gone));
        break;
      }
      default: {  // a pass: some windows change in place, some nodes leave, then the sort
        const int changes = *rc::gen::inRange(1, 6);
        const platform::CriticalSectionGuard guard(g_JobListLock);
        for (int j = 0; j < changes; ++j) {
          const std::uint32_t changed = *number;
          const std::int64_t to = *window;
          const auto at = list.Find(Id(changed));
          told.Change(Id(changed), to);
          if (at == list.End()) continue;
          at->NextTimeWindow = to;
          list.MarkChanged(at);
          if (*rc::gen::inRange(0, 5) == 0) {
            list.Erase(at);
            told.Remove(Id(changed));
          }
        }
        RC_ASSERT(Contents(list) == told.Contents());
        if (*rc::gen::inRange(0, 2) == 0) {  // somebody adds ahead of the sort
          std::vector<CJobNode> nodes = {Node(*number, *window)};
          const Status added = told.Add(nodes.front());
          if (*rc::gen::inRange(0, 2) == 0) {
            RC_ASSERT(list.AddJob(nodes.front()) == added);
          } else {
            int refused = 0;
            list.AddJobs(nodes, [&](const CJobNode&) { ++refused; });
            RC_ASSERT((refused == 0) == (added == kStatusOk));
          }
        }
        list.Sort();
        told.Sort();
      }
    }
    RC_ASSERT(Contents(list) == told.Contents());
    RC_ASSERT(list.Size() == told.Contents().size());
  }
}

TEST(JobList, BehavesAsASortedLinkedListWithAFullWalk) { EXPECT_TRUE(rc::check(CompareWithTheToldList)); }

TEST(JobList, PutsTheNewestOfEqualWindowsFirst) {
  CJobList list;
  for (const auto& [number, window] : {std::pair{1u, 10}, {2u, 10}, {3u, 5}, {4u, 20}, {5u, 10}}) {
    EXPECT_EQ(list.AddJob(Node(number, window)), kStatusOk);
  }
  EXPECT_THAT(Numbers(list), ElementsAre(3, 5, 2, 1, 4));
}

TEST(JobList, AddsManyInTheOrderOfAddingThemOneByOne) {
  CJobList list;
  (void)list.AddJob(Node(7, 10));
  std::vector<CJobNode> nodes;
  for (const auto& [number, window] : {std::pair{1u, 10}, {2u, 30}, {3u, 10}, {4u, 5}, {7u, 1}, {5u, 30}}) {
    nodes.push_back(Node(number, window));
  }
  std::vector<std::uint32_t> refused;
  list.AddJobs(nodes, [&](const CJobNode& node) { refused.push_back(node.ScheduleID.Data1); });
  EXPECT_THAT(Numbers(list), ElementsAre(4, 3, 1, 7, 5, 2));
  EXPECT_THAT(refused, ElementsAre(7));
  EXPECT_EQ(list.Size(), 6u);
}

TEST(JobList, RefusesASecondNodeOfAnIdThatStandsBehindItsPlace) {
  CJobList list;
  (void)list.AddJob(Node(1, 10));
  (void)list.AddJob(Node(2, 20));
  EXPECT_EQ(list.AddJob(Node(2, 5)), 0x80040200u);
  EXPECT_THAT(Contents(list), ElementsAre(std::pair{1u, 10}, std::pair{2u, 20}));
}

TEST(JobList, LogsTheRemovalOfANodeThatIsNotThere) {
  const ZepFoundation::CapturedServiceLog log;
  CJobList list;
  list.RemoveJob(Node(7, 0));
  EXPECT_THAT(log.lines(),
              ElementsAre(ZepFoundation::CapturedLogLine{
                  3, "RemoveJob: jobnode with scheduleID {00000007-0000-0000-0000-000000000000} does not exists"}));
}

TEST(JobList, KeepsThePlaceOfAChangedNodeUntilTheSort) {
  CJobList list;
  for (std::uint32_t i = 1; i <= 3; ++i) (void)list.AddJob(Node(i, i * 10));
  const platform::CriticalSectionGuard guard(g_JobListLock);
  const auto head = list.Begin();
  head->NextTimeWindow = 30;
  list.MarkChanged(head);
  EXPECT_THAT(Numbers(list), ElementsAre(1, 2, 3));
  list.Sort();
  EXPECT_THAT(Numbers(list), ElementsAre(2, 1, 3));
}

TEST(JobList, GivesTheSuccessorOfAnErasedNode) {
  CJobList list;
  for (std::uint32_t i = 1; i <= 2; ++i) (void)list.AddJob(Node(i, i));
  const platform::CriticalSectionGuard guard(g_JobListLock);
  auto at = list.Erase(list.Begin());
  EXPECT_EQ(at->ScheduleID.Data1, 2u);
  EXPECT_TRUE(list.Erase(at) == list.End());
  EXPECT_TRUE(list.Empty());
}

TEST(JobList, FindsSeveralIdsAsItFindsEachAlone) {
  EXPECT_TRUE(rc::check([] {
    CJobList list;
    for (const std::uint32_t number : *rc::gen::unique<std::vector<std::uint32_t>>(rc::gen::inRange(0u, 20u))) {
      (void)list.AddJob(Node(number, 0));
    }
    auto numbers = *rc::gen::container<std::vector<std::uint32_t>>(rc::gen::inRange(0u, 20u));
    if (*rc::gen::arbitrary<bool>()) std::sort(numbers.begin(), numbers.end());
    std::vector<ScheduleGuid> ids;
    std::transform(numbers.begin(), numbers.end(), std::back_inserter(ids), Id);
    CJobNode untouched;
    std::vector<CJobNode*> nodes(ids.size(), &untouched);
    const platform::CriticalSectionGuard guard(g_JobListLock);
    list.FindNodes(ids, nodes);
    for (std::size_t i = 0; i < ids.size(); ++i) RC_ASSERT(nodes[i] == list.FindNode(ids[i]));
  }));
}

}  // namespace

#include "service/job_list.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "foundation/include/zfclog.h"

using ZepFoundation::ServiceLog;

platform::CriticalSection g_JobListLock;
CJobList g_JobList;

namespace {

std::int64_t SignExtended(std::int64_t window) { return static_cast<std::int32_t>(window); }

}  // namespace

bool CJobList::ById::operator()(const ScheduleGuid& a, const ScheduleGuid& b) const {
  if (a.Data1 != b.Data1) return a.Data1 < b.Data1;
  if (a.Data2 != b.Data2) return a.Data2 < b.Data2;
  if (a.Data3 != b.Data3) return a.Data3 < b.Data3;
  return std::memcmp(a.Data4, b.Data4, sizeof a.Data4) < 0;
}

Status CJobList::AddJob(CJobNode node) {
  const platform::CriticalSectionGuard guard(g_JobListLock);
  const ScheduleGuid id = node.ScheduleID;
  SortChanged();
  ReserveChanges(1);
  const auto [at, inserted] = m_entries.try_emplace(id);
  if (!inserted) return kStatusJobExists;
  Entry& entry = at->second;
  entry.listedWindow = SignExtended(node.NextTimeWindow);
  entry.rank = --m_firstRank;
  try {
    m_sequence.insert(&entry);
  } catch (...) {  // the caller keeps the rule object, and no node of the list may point to it
    m_entries.erase(at);
    throw;
  }
  entry.node = std::move(node);
  m_size.store(m_entries.size(), std::memory_order_relaxed);
  return kStatusOk;
}

void CJobList::AddJobs(std::span<CJobNode> nodes, const std::function<void(CJobNode& node)>& refused) {
  struct Added {
    std::int64_t window;
    std::int64_t rank;
    Entry* entry;
    CJobNode* from;
  };
  std::vector<Added> added;
  added.reserve(nodes.size());
  const platform::CriticalSectionGuard guard(g_JobListLock);
  SortChanged();
  ReserveChanges(nodes.size());
  std::size_t placed = 0;
  try {
    for (CJobNode& node : nodes) {
      const std::size_t before = m_entries.size();
      // At a start they come in the order of their IDs.
      const auto at = m_entries.try_emplace(m_entries.end(), node.ScheduleID);
      if (m_entries.size() == before) {
        refused(node);
        continue;
      }
      Entry& entry = at->second;
      entry.listedWindow = SignExtended(node.NextTimeWindow);
      entry.rank = --m_firstRank;
      added.push_back({entry.listedWindow, entry.rank, &entry, &node});
    }
    std::sort(added.begin(), added.end(), [](const Added& a, const Added& b) {
      return a.window != b.window ? a.window < b.window : a.rank < b.rank;
    });
    // Each place is searched from the one before: in an empty list it is found there.
    auto hint = m_sequence.begin();
    for (; placed < added.size(); ++placed) hint = std::next(m_sequence.insert(hint, added[placed].entry));
  } catch (...) {
    for (std::size_t i = 0; i < added.size(); ++i) {
      if (i < placed) m_sequence.erase(added[i].entry);
      m_entries.erase(added[i].from->ScheduleID);
    }
    throw;
  }
  for (const Added& one : added) one.entry->node = std::move(*one.from);
  m_size.store(m_entries.size(), std::memory_order_relaxed);
}

// Marking takes no memory: what was changed in place and isn't marked would never find its place.
void CJobList::ReserveChanges(std::size_t more) {
  const std::size_t wanted = m_entries.size() + more;
  if (m_changed.capacity() < wanted) m_changed.reserve(std::max(wanted, 2 * m_changed.capacity()));
}

// A node that comes between a pass and its sort stands ahead of those whose new window it has.
void CJobList::SortChanged() {
  if (!m_changed.empty()) Sort();
}

void CJobList::RemoveJob(CJobNode node) {
  const platform::CriticalSectionGuard guard(g_JobListLock);
  const Position at = Find(node.ScheduleID);
  if (at == End()) {
    ServiceLog(3, u"RemoveJob: jobnode with scheduleID %s does not exists", node.IdText());
    return;
  }
  Erase(at);
}

CJobList::Position CJobList::Find(const ScheduleGuid& id) {
  const auto at = m_entries.find(id);
  return at == m_entries.end() ? End() : Position(m_sequence.find(&at->second));
}

CJobNode* CJobList::FindNode(const ScheduleGuid& id) {
  const auto at = m_entries.find(id);
  return at == m_entries.end() ? nullptr : &at->second.node;
}

void CJobList::FindNodes(std::span<const ScheduleGuid> ids, std::span<CJobNode*> nodes) {
  auto at = m_entries.end();
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (at == m_entries.end() || at->first != ids[i]) at = m_entries.lower_bound(ids[i]);
    const bool isThere = at != m_entries.end() && at->first == ids[i];
    nodes[i] = isThere ? &(at++)->second.node : nullptr;
  }
}

CJobList::Position CJobList::Erase(Position at) {
  Entry* const entry = *at.m_at;
  if (entry->changed) {
    // A node is erased right after it was marked, if at all, so it is the last one.
    if (m_changed.back() == entry) {
      m_changed.pop_back();
    } else {
      std::erase(m_changed, entry);
    }
  }
  const Position next(m_sequence.erase(at.m_at));
  m_entries.erase(ScheduleGuid(entry->node.ScheduleID));
  m_size.store(m_entries.size(), std::memory_order_relaxed);
  return next;
}

void CJobList::MarkChanged(Position at) {
  Entry* const entry = *at.m_at;
  if (entry->changed) return;
  entry->changed = true;
  m_changed.push_back(entry);
}

void CJobList::Sort() {
  // What a stable sort does with a changed node: among the equals of its new window it stands first when it came from
  // further ahead, last when it came from further behind, and nodes that moved together keep their order.
  std::sort(m_changed.begin(), m_changed.end(), InOrder());
  // Takes no memory: a node that has left its place must come to the next.
  const auto place = [this](Entry* entry, std::int64_t rank) QX_REQUIRES(g_JobListLock) {
    Sequence::node_type taken = m_sequence.extract(entry);
    entry->listedWindow = entry->node.NextTimeWindow;
    entry->rank = rank;
    entry->changed = false;
    m_sequence.insert(std::move(taken));
  };
  for (Entry* const entry : m_changed) {
    if (entry->node.NextTimeWindow > entry->listedWindow) continue;
    place(entry, entry->node.NextTimeWindow < entry->listedWindow ? ++m_lastRank : entry->rank);
  }
  for (auto entry = m_changed.rbegin(); entry != m_changed.rend(); ++entry) {
    if ((*entry)->changed) place(*entry, --m_firstRank);
  }
  m_changed.clear();
}

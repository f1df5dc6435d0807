// service/job_list.h: the live schedules in ascending order of their next run, and the lock around them.
//
// Lock order: g_JobListLock before any other lock. It is held across a launch; no bus or socket call is made under it:
// notifications are collected, then queued in order after it is released. No registry handle that wrote is open while
// it is taken.
//
// The list behaves as a sorted doubly linked list: a new node stands before those of equal windows, and a sort is
// stable. Insert, find, erase and the sort of a few changed nodes cost the logarithm of the list's length.
// Threads: AddJob, AddJobs and RemoveJob take the lock themselves; for all else the caller holds it, while it uses a
// node, too. Size() may be read without it (deliberately: to decide whether to take it).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <vector>

#include "platform/critical_section.h"
#include "platform/thread_annotations.h"
#include "service/job_node.h"

// Recursive. "Deleted" at shutdown is a mark only: threads may still be about to take it, so its storage lives to the
// end of the process.
extern platform::CriticalSection g_JobListLock;

class CJobList {
 private:
  struct Entry {
    CJobNode node;
    std::int64_t listedWindow = 0;  // where the list has the node, until the next sort
    std::int64_t rank = 0;          // the order among equal windows
    bool changed = false;
  };
  struct InOrder {
    bool operator()(const Entry* a, const Entry* b) const {
      return a->listedWindow != b->listedWindow ? a->listedWindow < b->listedWindow : a->rank < b->rank;
    }
  };
  // In the order of the IDs' texts, which is that of the keys: whoever walks the keys finds neighbours.
  struct ById {
    bool operator()(const ScheduleGuid& a, const ScheduleGuid& b) const;
  };
  using Sequence = std::set<Entry*, InOrder>;

 public:
  // A place in the list; valid until its node is erased or the list is sorted.
  class Position {
   public:
    Position() = default;
    CJobNode& operator*() const { return (*m_at)->node; }
    CJobNode* operator->() const { return &(*m_at)->node; }
    Position& operator++() {
      ++m_at;
      return *this;
    }
    friend bool operator==(const Position&, const Position&) = default;

   private:
    friend class CJobList;
    explicit Position(Sequence::iterator at) : m_at(at) {}
    Sequence::iterator m_at;
  };

  CJobList() = default;
  CJobList(const CJobList&) = delete;
  CJobList& operator=(const CJobList&) = delete;

  // Inserts before the first node whose window is not earlier (the new one taken as its low 32 bits, sign-extended).
  //   node     on success the list's copy owns the rule object's reference
  //   returns  0; kStatusJobExists: list and reference unchanged. Takes g_JobListLock itself.
  //   throws   std::bad_alloc: as kStatusJobExists
  [[nodiscard]] Status AddJob(CJobNode node);
  // Adds many, each as AddJob() would, one after the other. Takes g_JobListLock itself.
  //   nodes    as for AddJob(); those of the list are moved from
  //   refused  called for each that AddJob() would refuse, in order; throws nothing
  //   throws   std::bad_alloc: list and nodes unchanged, but for those that were refused
  void AddJobs(std::span<CJobNode> nodes, const std::function<void(CJobNode& node)>& refused);
  // Erases the node of the same ID without touching its reference; logs when there is none. Takes g_JobListLock itself.
  void RemoveJob(CJobNode node);

  // The number of nodes; may be read without the lock.
  [[nodiscard]] std::size_t Size() const { return m_size.load(std::memory_order_relaxed); }
  [[nodiscard]] bool Empty() const { return Size() == 0; }

  // The head, the place behind the last node, and the place of an ID (End() for none).
  [[nodiscard]] Position Begin() QX_REQUIRES(g_JobListLock) { return Position(m_sequence.begin()); }
  [[nodiscard]] Position End() QX_REQUIRES(g_JobListLock) { return Position(m_sequence.end()); }
  [[nodiscard]] Position Find(const ScheduleGuid& id) QX_REQUIRES(g_JobListLock);
  // The node of an ID without its place, at half the cost; null for none. Valid until it is erased.
  [[nodiscard]] CJobNode* FindNode(const ScheduleGuid& id) QX_REQUIRES(g_JobListLock);
  // The same for several IDs, which cost one step each where they are neighbours in ascending order.
  //   nodes  of the length of `ids`
  void FindNodes(std::span<const ScheduleGuid> ids, std::span<CJobNode*> nodes) QX_REQUIRES(g_JobListLock);
  // Erases a node, its reference untouched, and gives its successor.
  Position Erase(Position at) QX_REQUIRES(g_JobListLock);
  // Tells that a node's window was changed in place: it keeps its place until Sort() or until a node is added. Throws
  // nothing, no more than Sort() does.
  void MarkChanged(Position at) QX_REQUIRES(g_JobListLock);
  // Stable, ascending by window; costs the logarithm of the length for each changed node.
  void Sort() QX_REQUIRES(g_JobListLock);

 private:
  void SortChanged() QX_REQUIRES(g_JobListLock);
  void ReserveChanges(std::size_t more) QX_REQUIRES(g_JobListLock);

  std::map<ScheduleGuid, Entry, ById> m_entries QX_GUARDED_BY(g_JobListLock);
  Sequence m_sequence QX_GUARDED_BY(g_JobListLock);
  std::vector<Entry*> m_changed QX_GUARDED_BY(g_JobListLock);
  // Of all ranks given so far the lowest and the highest.
  std::int64_t m_firstRank QX_GUARDED_BY(g_JobListLock) = 0;
  std::int64_t m_lastRank QX_GUARDED_BY(g_JobListLock) = 0;
  std::atomic<std::size_t> m_size{0};
};

extern CJobList g_JobList;

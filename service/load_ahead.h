// service/load_ahead.h: all schedules built on threads of their own, for the filling of the list at a start.
//
// One thread goes over the rows of all keys (platform/registry_scan.h), a few read the files and build the nodes of
// those schedules where nothing is to be told: key, values and file are as this service writes them. For every other
// one the calls are to be made as ever, in their order and with their words; so they are when anything was written, or
// the zone replaced, meanwhile. The threads write nothing anywhere.
// Threads: made, asked and destroyed by one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/file_state.h"
#include "platform/mutex.h"
#include "platform/registry.h"
#include "platform/registry_scan.h"
#include "platform/thread.h"
#include "service/job_node.h"

namespace qx {

inline constexpr std::size_t kWorthLoadingAhead = 256;  // schedules

class LoadAhead {
 public:
  enum class Outcome : std::uint8_t {
    kAsEver,  // nothing was built
    kNode,
    kOver,  // a node without a further window
  };

  // Begins.
  //   storeFile   of the registry; needn't be open yet
  //   worthwhile  with fewer schedules nothing is built
  explicit LoadAhead(std::string storeFile, std::size_t worthwhile = kWorthLoadingAhead);
  // Ends the threads, and releases the rule objects of nodes that weren't taken.
  ~LoadAhead();
  LoadAhead(const LoadAhead&) = delete;
  LoadAhead& operator=(const LoadAhead&) = delete;

  // Waits until all is built.
  //   returns  false: nothing was
  [[nodiscard]] bool Wait();

  // Behind Wait(). Schedules are numbered as their keys are enumerated.
  [[nodiscard]] std::size_t Size() const { return m_entries.size(); }
  [[nodiscard]] Outcome At(std::size_t index) const { return m_entries[index].outcome; }
  // Whether the registry is what was read, and the zone the one that the rules were read in.
  [[nodiscard]] bool StoreAndZoneHold() { return &platform::CurrentZone() == &m_zone && m_scan.Holds(); }
  // Whether the schedule's file is what was read.
  [[nodiscard]] bool FileHolds(std::size_t index) const;
  // The node; with kNode the caller's from now on is the reference to its rule object. Once.
  [[nodiscard]] CJobNode Take(std::size_t index);
  // Lets the calls go on with the enumeration at an index.
  void PlaceBefore(const platform::RegistryKey& schedules, std::size_t index) const {
    m_scan.PlaceBefore(schedules, static_cast<std::uint32_t>(index));
  }

 private:
  struct Entry {
    CJobNode node;
    platform::FileState file;
    Outcome outcome = Outcome::kAsEver;
  };
  using Batch = platform::RegistryScan::Batch;

  void Scan(const std::string& storeFile);
  void BuildBatches();
  void Build(const Batch& batch, std::size_t at, std::string& bytes);
  [[nodiscard]] bool Queue(Batch&& batch);

  const std::size_t m_worthwhile;
  const platform::Zone& m_zone;  // tables of zones are never freed
  platform::RegistryScan m_scan;
  std::vector<Entry> m_entries;
  std::uint64_t m_fileChanges = 0;  // when the first file was read

  platform::Mutex m_lock;
  platform::Condition m_filled;
  platform::Condition m_drained;
  std::deque<Batch> m_batches QX_GUARDED_BY(m_lock);
  bool m_closed QX_GUARDED_BY(m_lock) = false;   // no more batches come
  bool m_stopped QX_GUARDED_BY(m_lock) = false;  // nobody wants any more
  bool m_complete QX_GUARDED_BY(m_lock) = false;

  std::vector<platform::Thread> m_builders;  // of the scanning thread until that has ended
  platform::Thread m_scanner;
};

}  // namespace qx

// The soak's first half: the real program on real files and a bus of its own, with a random client, a second node that
// comes and goes, a disk that fills up, a bus that is lost, kills and restarts. A model of what was acknowledged is
// compared with the service all the while, and every start of a job with the windows that were due (launch_ledger.h).
//
// QX_RELEASE_PROGRAMS names the directory of the programs under test; without it they are those of the build.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "platform/guid.h"
#include "tests/node_cluster.h"
#include "tests/soak/flatness.h"
#include "tests/soak/launch_ledger.h"
#include "tests/soak/small_disk.h"
#include "tests/soak/soak_settings.h"

namespace qx::testing {
namespace {

constexpr std::int64_t kDay = 86400;
constexpr int kDiskMegabytes = 48;
constexpr std::size_t kFewSchedules = 10;
constexpr std::size_t kManySchedules = 60;
constexpr std::ptrdiff_t kManyFar = 10;
constexpr std::size_t kMostFaults = 10;
constexpr double kJudgeEverySeconds = 15;

Micros Now() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}
double Steady() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
std::string Narrow(const BSTR& text) {
  return text ? platform::Utf8FromWide(*text) : "";
}
std::u16string Wide(std::string_view text) {
  return platform::WideFromUtf8(text);
}
std::string Text(const ScheduleGuid& id) {
  return platform::Utf8FromWide(platform::GuidText(id));
}

// The seconds since 1970 of a line of the service log, "Sat Nov 21 16:46:56 2026 (PID:...", in UTC.
std::int64_t SecondOf(const std::string& line) {
  std::tm time{};
  return strptime(line.c_str(), "%a %b %d %H:%M:%S %Y", &time) != nullptr ? timegm(&time) : 0;
}

// New lines of files that grow, or begin anew.
class Follower {
 public:
  void Read(const std::string& file, const std::function<void(const std::string& line)>& take) {
    std::ifstream in(file, std::ios::binary | std::ios::ate);
    if (!in) return;
    std::streamoff& at = m_at[file];
    if (in.tellg() < at) at = 0;
    in.seekg(at);
    for (std::string line; std::getline(in, line) && !in.eof();) {  // a last line without its end comes next time
      at = in.tellg();
      take(line);
    }
  }

 private:
  std::map<std::string, std::streamoff> m_at;
};

// A schedule as the acknowledged calls left it. The tag of the job's part stands on its command line, the one of the
// rules in the description.
struct Item {
  ScheduleGuid id{};
  std::string jobTag;
  std::string ruleTag;
  bool isFar = false;  // on two nodes: no window of it falls into the soak
  // A call for it was never answered, or failed on a full disk: what it may be now, beside what it was.
  bool isDoubtful = false;
  bool mayBeGone = false;
  std::string newTag;  // may stand in either part
};

class ServiceSoak : public ::testing::Test {
 protected:
  void SetUp() override {
    m_programs =
        std::getenv("QX_RELEASE_PROGRAMS") != nullptr ? std::getenv("QX_RELEASE_PROGRAMS") : test_paths::Programs();
    const std::string whyNoNodes = NodeCluster::WhyNot(Mechanism::kNtlm);
    if (whyNoNodes.empty()) {
      m_cluster = std::make_unique<NodeCluster>(2, Mechanism::kNtlm);
      ASSERT_FALSE(HasFailure());
      m_cluster->ShareSecret();
      m_service = &(*m_cluster)[0];
      for (int i = 0; i < 2; ++i) (*m_cluster)[i].SetPrograms(m_programs);
    } else {
      std::cout << "NO SECOND NODE HERE: " << whyNoNodes << "\n";
      m_alone = std::make_unique<RunningService>();
      m_service = m_alone.get();
      m_service->SetPrograms(m_programs);
      m_service->Register("-Service");
    }
    m_aside = m_service->Directory() + ".soak";
    std::filesystem::create_directory(m_aside);
    const std::string whyNoDisk = SmallDisk::WhyNot();
    if (whyNoDisk.empty()) {
      m_disk = std::make_unique<SmallDisk>(m_service->Directory(), kDiskMegabytes);
    } else {
      std::cout << "NO DISK THAT FILLS UP HERE: " << whyNoDisk << "\n";
    }
    StartService();
    ASSERT_FALSE(HasFailure());
    m_service->Connect(m_client);
    m_service->Connect(m_listener);
    std::uint32_t cookie = 0;
    ASSERT_EQ(m_listener.Advise(m_events, cookie), 0u);
    if (m_cluster) {
      m_cluster->Start(1);
      m_isPeerUp = true;
    }
    m_flatness.Begin(m_service->Process().Id());
  }
  void TearDown() override {
    if (HasFailure()) {
      const std::string kept = std::filesystem::temp_directory_path() / ("soak-failure-" + std::to_string(SoakSeed()));
      std::error_code ignored;
      std::filesystem::create_directory(kept, ignored);
      std::ofstream(kept + "/service.log") << m_service->Log();
      std::ofstream(kept + "/launches") << RunningService::ReadFile(Launches());
      std::ofstream(kept + "/history") << m_history;
      std::cout << "kept in " << kept << ": the service log, the launches, what the client did\n";
    }
    m_client.Disconnect();
    m_listener.Disconnect();
    if (m_service->IsStarted() && !m_service->Process().HasEnded()) (void)m_service->Stop();
    m_disk.reset();
    std::error_code ignored;
    std::filesystem::remove_all(m_aside, ignored);
  }

  // --- what is told ---

  void Fault(const std::string& text) {
    ADD_FAILURE() << text;
    Note("FAULT " + text);
    if (++m_faults >= kMostFaults) m_isOver = true;
  }
  void Note(const std::string& text) {
    const std::string at = std::to_string(Now());
    m_history += at.substr(0, at.size() - 6) + "." + at.substr(at.size() - 6) + " " + text + "\n";
  }
  void Count(const std::string& what) { ++m_counts[what]; }

  // --- records ---

  std::string NewTag() { return "t" + std::to_string(++m_lastTag); }
  [[nodiscard]] std::string Launches() const { return m_aside + "/launches"; }

  // Windows that begin within seconds, some seconds apart, on one day.
  WindowSeries NewSeries() {
    WindowSeries series;
    series.first = Now() / kMicrosOfSecond + m_dice.Between(2, 12);
    series.step = m_dice.Between(8, 25);
    const std::int64_t midnight = (series.first / kDay + 1) * kDay;
    if (series.first + series.step >= midnight) series.first = midnight + 2;
    series.last = series.first + series.step * m_dice.Between(1, 30) + m_dice.Below(series.step);
    if (series.last >= midnight && series.first < midnight) series.last = midnight - 1;
    return series;
  }
  // One window a day, the next one half a day away and its minute on one day.
  WindowSeries FarSeries() {
    std::int64_t first = Now() / kMicrosOfSecond + kDay / 2 + m_dice.Below(3600);
    if (first % kDay >= kDay - 60) first -= 60;
    return {first, 0, first};
  }

  SCHEDULE_OBJECT Record(const std::string& tag, const WindowSeries& series) {
    m_series[tag] = series;
    SCHEDULE_OBJECT record;
    record.bstrName = u"soak";
    record.bstrDescription = Wide(tag);
    record.bstrApplication = u"soak";
    record.bstrObjectID = u"object";
    record.dwTaskOpCode = 4;
    record.bstrWrapperBinaryName = Wide(test_paths::Programs() + "/soak_job");
    record.bstrXMLFilePathName = Wide(m_service->Jobs() + "/job.xml");
    record.bstrParameters = Wide(Launches() + " " + tag);
    record.bstrPreScript = u"";
    record.bstrPostScript = m_dice.OneIn(2) ? u"" : u"behind";
    record.bUseGUID = 1;
    SCHEDULE_RULE& rules = record.stScheduleRules;
    rules.lStartTime = static_cast<std::int32_t>(series.first);
    rules.dwTimeDuration = static_cast<std::uint32_t>(series.step == 0 ? 60 : series.last - series.first) * 1000;
    rules.bRestartInterval = series.step != 0 ? 1 : 0;
    rules.dwRestartInterval = static_cast<std::uint32_t>(series.step) * 1000;
    rules.adwDaysOfMonth.fill(1);
    if (m_dice.OneIn(3)) {
      for (std::int64_t i = m_dice.Between(1, 20); i-- > 0;) {
        rules.alExcludeDates[static_cast<std::size_t>(i)] = static_cast<std::int32_t>(series.first + (2 + i) * kDay);
      }
    }
    m_sent[tag] = record;
    return record;
  }

  // What of a record stays the same from day to day.
  static SCHEDULE_OBJECT Lasting(SCHEDULE_OBJECT record) {
    record.lNextTimeWindow = 0;
    record.bRunNow = 0;
    record.stScheduleRules.lStartTime %= static_cast<std::int32_t>(kDay);
    record.stScheduleRules.lEndTime %= static_cast<std::int32_t>(kDay);
    return record;
  }
  static std::string JobTagOf(const SCHEDULE_OBJECT& record) {
    const std::string parameters = Narrow(record.bstrParameters);
    return parameters.substr(parameters.rfind(' ') + 1);
  }

  // Compares with what was sent, and with what the service gave back the first time.
  void CompareRecord(const std::string& id, const std::string& jobTag, const std::string& ruleTag,
                     const SCHEDULE_OBJECT& found) {
    const SCHEDULE_OBJECT& job = m_sent.at(jobTag);
    if (found.bstrApplication != job.bstrApplication || found.bstrObjectID != job.bstrObjectID ||
        found.dwTaskOpCode != job.dwTaskOpCode || found.bstrWrapperBinaryName != job.bstrWrapperBinaryName ||
        found.bstrXMLFilePathName != job.bstrXMLFilePathName || found.bstrParameters != job.bstrParameters ||
        found.bstrPreScript != job.bstrPreScript || found.bstrPostScript != job.bstrPostScript ||
        found.bUseGUID != job.bUseGUID) {
      Fault(id + ": the job of " + jobTag + " isn't as it was given");
    }
    const SCHEDULE_RULE& given = m_sent.at(ruleTag).stScheduleRules;
    const SCHEDULE_RULE& rules = found.stScheduleRules;
    if (rules.lStartTime % kDay != given.lStartTime % kDay || rules.dwTimeDuration != given.dwTimeDuration ||
        rules.dwRestartInterval != given.dwRestartInterval || rules.adwDaysOfMonth != given.adwDaysOfMonth ||
        Narrow(found.bstrName) != "soak") {
      Fault(id + ": the rules of " + ruleTag + " aren't as they were given");
    }
    const SCHEDULE_RULE lasting = Lasting(found).stScheduleRules;
    const auto [first, isNew] = m_readRules.emplace(ruleTag, lasting);
    if (!isNew && !(first->second == lasting))
      Fault(id + ": the rules of " + ruleTag + " aren't as they were read before");
  }

  // --- the model ---

  [[nodiscard]] bool DiskIsFull() const { return m_disk != nullptr && m_disk->IsFull(); }

  // Whether the last call came through; where the service is being killed, none need.
  bool CameThrough(const std::string& what) {
    if (!m_client.LastError().IsSet()) return true;
    if (m_isDying) Count("calls cut by a kill");
    if (!m_isDying)
      Fault(what + " didn't come through: " + m_client.LastError().name + " " + m_client.LastError().text);
    return false;
  }
  // Whether a status is a success; on a full disk none need be.
  bool Succeeded(const std::string& what, Status status) {
    if (status == kStatusOk) return true;
    if (!DiskIsFull()) {
      Fault(what + " ended with " + std::to_string(status));
    } else {
      Count("refused on a full disk");
    }
    return false;
  }

  // Reads a schedule and compares it with the model, which learns what it couldn't know.
  void Check(Item& item) {
    const std::string id = Text(item.id);
    ScheduleInfo info;
    const Status status = m_client.GetScheduleInfo(item.id, info);
    if (!CameThrough("a reading")) {
      MakeDoubtful(item, "");
      return;
    }
    Count("readings");
    if (status != kStatusOk || info.size() != 1) {
      Fault(id + " can't be read: " + std::to_string(status) + (item.isDoubtful ? ", doubtful" : ""));
      return;
    }
    const SCHEDULE_OBJECT& found = info.records()[0];
    const std::string job = JobTagOf(found);
    const std::string rule = Narrow(found.bstrDescription);
    const auto allowed = [&](const std::string& tag, const std::string& known) {
      return tag == known || (item.isDoubtful && tag == item.newTag && !tag.empty());
    };
    if (!allowed(job, item.jobTag) || !allowed(rule, item.ruleTag)) {
      Fault(id + ": is " + job + " with the rules of " + rule + " instead of " + item.jobTag + " with those of " +
            item.ruleTag + (item.isDoubtful ? " or " + item.newTag : ""));
      return;
    }
    CompareRecord(id, job, rule, found);
    if (item.isDoubtful) {
      for (const std::string& tag : {item.jobTag, item.newTag}) {
        if (!tag.empty() && tag != job) m_ledger.Gone(tag, Now());
      }
      m_ledger.Holds(job, id, m_series.at(rule), Now());
      Note(id + " is " + job + " with the rules of " + rule);
      item.jobTag = job;
      item.ruleTag = rule;
      item.isDoubtful = item.mayBeGone = false;
      item.newTag.clear();
    }
  }
  void MakeDoubtful(Item& item, const std::string& newTag) {
    m_ledger.Doubt(item.jobTag, Now());
    if (!newTag.empty()) m_ledger.MayBe(newTag, m_series.at(item.ruleTag));
    if (item.newTag.empty()) item.newTag = newTag;
    item.isDoubtful = true;
    Note(Text(item.id) + " is doubtful: " + item.jobTag + " or " + newTag);
  }

  void CheckListed(Item& item) {
    const bool wasDoubtful = item.isDoubtful;
    const std::string fresh = item.newTag;
    Check(item);
    if (!wasDoubtful || item.isDoubtful) return;
    Count(item.jobTag != item.ruleTag ? "doubtful and new values beside old rules"
          : item.jobTag == fresh      ? "doubtful and new"
                                      : "doubtful and old");
  }

  // The whole list beside the model.
  void Reconcile(bool behindAStart) {
    std::vector<ListRow> rows;
    const Status status = m_client.ListAll(rows);
    if (status != kStatusOk) {
      Fault("the list ended with " + std::to_string(status) + " " + m_client.LastError().text);
      return;
    }
    Count("lists compared");
    std::map<std::string, const ListRow*> listed;
    for (const ListRow& row : rows) listed[platform::Utf8FromWide(row.id)] = &row;
    for (auto at = m_items.begin(); at != m_items.end();) {
      const bool isThere = listed.erase(at->first) != 0;
      if (isThere) {
        CheckListed(at->second);
        ++at;
        continue;
      }
      if (!at->second.mayBeGone) Fault(at->first + " (" + at->second.jobTag + ") was acknowledged and is gone");
      if (at->second.isDoubtful) Count("doubtful and gone");
      m_ledger.Gone(at->second.jobTag, Now());
      at = m_items.erase(at);
    }
    for (const auto& [id, row] : listed) {
      const std::string parameters = platform::Utf8FromWide(row->parameters);
      const std::string tag = parameters.substr(parameters.rfind(' ') + 1);
      if (!m_pending.contains(tag)) {
        Fault(id + " (" + tag + ") is listed, and nobody made it");
        continue;
      }
      Count("killed creations that are there");
      Item item;
      EXPECT_EQ(platform::ClsidFromString(Wide(id), item.id), 0u);
      item.jobTag = item.ruleTag = tag;
      item.isFar = m_pending.at(tag);
      m_pending.erase(tag);
      m_ledger.Holds(tag, id, m_series.at(tag), Now());
      Check(m_items.emplace(id, item).first->second);
    }
    if (!behindAStart) return;
    for (const auto& [tag, isFar] : m_pending) m_ledger.Gone(tag, Now());
    m_pending.clear();
  }

  Item* AnyItem(bool far = false) {
    std::vector<Item*> all;
    for (auto& [id, item] : m_items) {
      if (!item.isDoubtful && (far ? m_peerKeys.contains(id) && m_peerKeys.at(id) : !item.isFar)) all.push_back(&item);
    }
    return all.empty() ? nullptr : all[static_cast<std::size_t>(m_dice.Below(static_cast<std::int64_t>(all.size())))];
  }

  // --- the random client ---

  void Acknowledged(const ScheduleGuid& id, const std::string& tag, bool far) {
    m_ledger.Holds(tag, Text(id), m_series.at(tag), Now());
    Item item;
    item.id = id;
    item.jobTag = item.ruleTag = tag;
    item.isFar = far;
    Note("created " + Text(id) + " " + tag);
    Check(m_items.emplace(Text(id), item).first->second);
    // Whoever listens hears of it.
    while (!m_isDying) {
      const std::optional<Event> event = RunningService::WaitFor(m_listener, *m_events, "Schedule_Add");
      if (!event) {
        Fault("no event told of " + Text(id));
        break;
      }
      Count("events of creations");
      if (Text(event->id) == Text(id)) break;
    }
  }

  void Create() {
    const std::string tag = NewTag();
    const SCHEDULE_OBJECT record = Record(tag, NewSeries());
    Note("create " + tag);
    m_ledger.Born(tag, m_series.at(tag), Now());
    ScheduleGuid id{};
    const Status status = m_client.CreateSchedule(record, id);
    if (!CameThrough("a creation")) {
      m_pending[tag] = false;
    } else if (Succeeded("a creation", status)) {
      Count("creations");
      Acknowledged(id, tag, false);
    } else {
      m_ledger.Gone(tag, Now());
    }
  }

  void Modify(bool runNow) {
    Item* const item = AnyItem();
    if (item == nullptr) return;
    const std::string tag = NewTag();
    // The same windows or others.
    const bool sameRules = runNow || m_dice.OneIn(3);
    SCHEDULE_OBJECT record = Record(tag, sameRules ? m_series.at(item->ruleTag) : NewSeries());
    if (runNow) record.bRunNow = 1;
    const std::string old = item->jobTag;
    Note("modify " + Text(item->id) + " " + old + " to " + tag + (runNow ? " and run" : ""));
    const Micros begin = Now();
    m_ledger.Doubt(old, begin);
    m_ledger.Born(tag, m_series.at(tag), begin);
    const Status status = m_client.ModifySchedule(item->id, record);
    const Micros end = Now();
    const bool cameThrough = CameThrough("a modification");
    if (!cameThrough || !Succeeded("a modification", status)) {
      if (runNow) m_ledger.RunAtOnce(tag, begin, end, false);
      MakeDoubtful(*item, tag);
      return;
    }
    // A modification that was rolled back answers 0 too.
    const bool wasFull = DiskIsFull();
    item->isDoubtful = true;
    item->newTag = tag;
    Check(*item);
    if (item->isDoubtful) {  // killed in between; the values are certain, unless the disk was full
      if (runNow) m_ledger.RunAtOnce(tag, begin, end, !wasFull);
      if (!wasFull) {
        item->jobTag = item->ruleTag = tag;
        item->newTag.clear();
        m_ledger.Gone(old, end);
      }
      return;
    }
    if (item->jobTag == tag && item->ruleTag == tag) {
      Count(runNow ? "runs at once" : "modifications");
      if (runNow) m_ledger.RunAtOnce(tag, begin, end, true);
    } else if (wasFull) {
      Count("rolled back on a full disk");
      if (item->jobTag == tag || item->ruleTag == tag)
        Fault(Text(item->id) + ": half a modification was answered with 0");
    } else {
      Fault(Text(item->id) + ": the modification to " + tag + " was answered with 0 and isn't there");
    }
  }

  void Delete() {
    Item* const item = AnyItem();
    if (item == nullptr) return;
    Note("delete " + Text(item->id) + " " + item->jobTag);
    m_ledger.Doubt(item->jobTag, Now());
    const Status status = m_client.DeleteSchedule(item->id);
    if (!CameThrough("a deletion") || !Succeeded("a deletion", status)) {
      MakeDoubtful(*item, "");
      item->mayBeGone = true;
      return;
    }
    Count("deletions");
    m_ledger.Gone(item->jobTag, Now());
    m_items.erase(Text(item->id));
  }

  void Change() {
    const std::int64_t kind = m_items.size() < kFewSchedules ? 0 : m_dice.Below(10);
    if (kind < 4 && m_items.size() < kManySchedules) {
      Create();
    } else if (kind < 7) {
      Modify(m_dice.OneIn(4));
    } else {
      Delete();
    }
  }

  void Query() {
    switch (m_dice.Below(5)) {
      case 0:
        if (!HasDoubtful()) Reconcile(false);
        break;
      case 1: {
        ServiceProperties properties;
        if (m_client.Properties(properties) != kStatusOk) Fault("no properties: " + m_client.LastError().text);
        Count("properties");
        break;
      }
      case 2: {
        std::uint32_t count = 0;
        ScheduleList list;
        if (m_client.ListSchedule(count, list) != kStatusOk) Fault("no list: " + m_client.LastError().text);
        if (!HasDoubtful() && count != m_items.size()) {
          Fault("the list has " + std::to_string(count) + " schedules instead of " + std::to_string(m_items.size()));
        }
        Count("lists compared");
        break;
      }
      default:
        if (Item* const item = AnyItem()) Check(*item);
    }
  }
  bool HasDoubtful() const {
    return std::any_of(m_items.begin(), m_items.end(), [](const auto& item) { return item.second.isDoubtful; });
  }

  void Refresh() {
    Note("refresh");
    const Micros begin = Now();
    const Status status = m_client.Refresh();
    m_ledger.Disturb(begin, Now());
    if (!CameThrough("a refresh")) return;
    if (status != kStatusOk) Fault("a refresh ended with " + std::to_string(status));
    Count("refreshes");
    if (!DiskIsFull()) Reconcile(false);
  }

  // Refused, and nothing changes.
  void BadInput() {
    const std::string tag = NewTag();
    SCHEDULE_OBJECT record = Record(tag, NewSeries());
    ScheduleGuid id{};
    Status expected = 0, status = 0;
    switch (m_dice.Below(6)) {
      case 0:
        record.stScheduleRules.adwDaysOfMonth.fill(0);
        expected = kStatusNoRunDay;
        status = m_client.CreateSchedule(record, id);
        break;
      case 1:
        record.bstrXMLFilePathName = Wide(m_service->Jobs() + "/nowhere/job.xml");
        expected = kStatusNoDirectory;
        status = m_client.CreateSchedule(record, id);
        break;
      case 2:
        record.bstrWrapperBinaryName = u"";
        expected = kStatusFailure;
        status = m_client.CreateSchedule(record, id);
        break;
      case 3:
        expected = kStatusNotFoundForDelete;
        status = m_client.DeleteSchedule({1, 2, 3, {}});
        break;
      case 4:
        expected = kStatusNoSuchKey;
        status = m_client.ModifySchedule({1, 2, 3, {}}, record);
        break;
      default: {
        Item* const item = AnyItem();
        if (item == nullptr || DiskIsFull()) return;
        record.bstrApplication = u"another";
        Note("another application for " + Text(item->id));
        m_ledger.Doubt(item->jobTag, Now());
        status = m_client.ModifySchedule(item->id, record);  // rolled back, and 0 all the same
        m_ledger.Holds(item->jobTag, Text(item->id), m_series.at(item->ruleTag), Now());
        Check(*item);
      }
    }
    if (!CameThrough("bad input")) return;
    if (status != expected)
      Fault("bad input was answered with " + std::to_string(status) + " instead of " + std::to_string(expected));
    Count("bad input refused");
  }

  void CommandLine() {
    std::vector<std::string> words = {"--root", m_service->Root(), "--bus", m_service->Bus().Address()};
    Item* const item = AnyItem();
    switch (m_dice.Below(item != nullptr ? 3 : 2)) {
      case 0:
        words.insert(words.end(), {"list", "--json"});
        break;
      case 1:
        words.emplace_back("status");
        break;
      default:
        words.insert(words.end(), {"show", Text(item->id)});
    }
    Child child(m_programs + "/qxsched", words, m_aside + "/qxsched.out", m_service->Environment());
    if (const int code = child.Wait(); code != 0) {
      Fault("qxsched " + words[4] + " ended with " + std::to_string(code) + ": " +
            RunningService::ReadFile(m_aside + "/qxsched.out"));
    }
    Count("qxsched");
  }

  // --- two nodes ---

  [[nodiscard]] bool PeerIsReachable() const { return m_isPeerUp && m_isLinkUp; }
  static NodeNames Nodes() { return {u"localhost", Wide(NodeCluster::Address(1))}; }

  // Whether the peer took part; it has to when it's reachable.
  bool PeerDid(const std::string& what, std::int32_t result) {
    if (result == 0) {
      // A process's first operation that reaches another node makes what all further ones use; it's flat before and
      // behind that.
      if (!std::exchange(m_hasReachedPeer, true)) {
        JudgeFlatness();
        m_flatness.Begin(m_service->Process().Id());
      }
      return true;
    }
    if (PeerIsReachable()) Fault(what + ": the other node answered with " + std::to_string(result));
    if (!PeerIsReachable()) Count("calls for a node that isn't there");
    return false;
  }

  void NodeOperation() {
    if (!m_cluster || DiskIsFull()) return;
    NodeResults results(2, 77);
    Item* const item = AnyItem(true);
    const auto far = std::count_if(m_items.begin(), m_items.end(), [](const auto& one) { return one.second.isFar; });
    // Few of them: they leave the windows to the others.
    const std::int64_t kind = item != nullptr && far >= kManyFar ? 3 : m_dice.Below(item != nullptr ? 4 : 3);
    if (kind == 0) {
      const std::string mark = m_aside + "/commands", tag = NewTag();
      Note("a command " + tag);
      const Status status = m_client.PerformOperationOnNodes(
          Wide(test_paths::Programs() + "/soak_job command " + mark + " " + tag), 2, Nodes(), results);
      if (!CameThrough("a command on nodes")) return;
      if (!PeerDid("a command", results[1])) return;
      if (status != 0) Fault("a command on nodes ended with " + std::to_string(status));
      if (RunningService::ReadFile(mark).find(" " + tag + " ") == std::string::npos)
        Fault("the other node ran no " + tag);
      Count("commands on two nodes");
    } else if (kind < 3) {
      const std::string tag = NewTag();
      const SCHEDULE_OBJECT record = Record(tag, FarSeries());
      Note("create on nodes " + tag);
      m_ledger.Born(tag, m_series.at(tag), Now());
      ScheduleGuid id{};
      (void)m_client.CreateScheduleOnNodes(record, id, 2, Nodes(), results);
      if (!CameThrough("a creation on nodes")) {
        m_pending[tag] = true;
        return;
      }
      if (!Succeeded("the local part of a creation on nodes", static_cast<Status>(results[0]))) return;
      m_peerKeys[Text(id)] = PeerDid("a creation on nodes", results[1]);
      Count("creations on two nodes");
      Acknowledged(id, tag, true);
    } else {
      Note("delete on nodes " + Text(item->id));
      const std::string id = Text(item->id);
      (void)m_client.DeleteScheduleOnNodes(item->id, 2, Nodes(), results);
      if (!CameThrough("a deletion on nodes")) return;
      if (!Succeeded("the local part of a deletion on nodes", static_cast<Status>(results[0]))) return;
      m_ledger.Gone(item->jobTag, Now());
      m_items.erase(id);
      if (PeerDid("a deletion on nodes", results[1])) {
        m_peerKeys.erase(id);
      } else {
        m_peerKeys[id] = false;
      }
      Count("deletions on two nodes");
    }
  }

  // The other node's store beside what it acknowledged; the node isn't running.
  void JudgePeer() {
    EXPECT_EQ(platform::OpenRegistryStore((*m_cluster)[1].Root() + "/registry.db"), 0u);
    std::set<std::string> keys;
    {
      platform::RegistryKey schedules;
      EXPECT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules",
                                  platform::KEY_READ, schedules),
                0u);
      std::u16string name;
      for (std::uint32_t i = 0; platform::EnumKey(schedules, i, name) == 0; ++i)
        keys.insert(platform::Utf8FromWide(name));
    }
    EXPECT_EQ(platform::CloseRegistryStore(), 0u);
    for (const auto& [id, isCertain] : m_peerKeys) {
      if (isCertain && !keys.contains(id)) Fault("the other node acknowledged " + id + " and doesn't have it");
    }
    for (const std::string& id : keys) {
      if (!m_peerKeys.contains(id)) Fault("the other node has " + id + ", which nobody made or somebody deleted");
    }
    Count("stores of the other node compared");
  }
  void StartPeer() {
    if (!m_cluster || m_isPeerUp) return;
    JudgePeer();
    m_cluster->Start(1);
    m_isPeerUp = true;
    Count("the other node came back");
  }
  void MendLink() {
    if (!m_cluster || m_isLinkUp) return;
    m_cluster->SetLink(1, true);
    m_isLinkUp = true;
  }

  // --- the machine ---

  void Look() {
    m_follower.Read(Launches(), [&](const std::string& line) {
      const std::size_t first = line.find(' '), second = line.find(' ', first + 1);
      m_ledger.Launched(line.substr(0, first), line.substr(first + 1, second - first - 1),
                        std::atoll(line.c_str() + second + 1));
    });
    for (int i = 0; i < 3; ++i) {
      m_follower.Read(m_service->Root() + "/logs/SchedService" + std::to_string(i) + ".log",
                      [&](const std::string& line) {
                        static const std::string kSkipped = "next time window can't be earlier than current time: ";
                        const std::size_t at = line.find(kSkipped);
                        if (at != std::string::npos)
                          m_ledger.Told(line.substr(at + kSkipped.size(), 38), SecondOf(line));
                      });
    }
  }

  void StartService() {
    m_service->Launch({"--foreground"});
    if (m_service->WaitForName()) return;
    if (DiskIsFull()) {
      Count("starts refused on a full disk");
      Note("a start was refused: " + m_service->Output());
      FreeDisk(false);
      m_service->Launch({"--foreground"});
      if (m_service->WaitForName()) return;
    }
    Fault("the service didn't start: " + m_service->Output());
    m_isOver = true;
  }

  void JudgeFlatness() {
    const std::string grown = m_flatness.End(m_leastLife);
    if (!grown.empty()) Fault(grown);
  }

  // From the end of the process to a service that answers and has all that was acknowledged.
  void StartAgain(Micros downFrom) {
    StartService();
    if (m_isOver) return;
    m_flatness.Begin(m_service->Process().Id());
    m_hasReachedPeer = false;
    Reconcile(true);
    m_ledger.Disturb(downFrom, Now() + kMicrosOfSecond / 2);
    Note("started");
  }

  void KillIdle() {
    Note("kill");
    JudgeFlatness();
    const Micros down = Now();
    m_service->Process().Signal(SIGKILL);
    EXPECT_EQ(m_service->Process().Wait(), 128 + SIGKILL);
    StartAgain(down);
  }
  void KillInCall() {
    Note("kill in a call");
    JudgeFlatness();
    const Micros down = Now();
    m_isDying = true;
    const auto delay = std::chrono::microseconds(m_dice.Below(m_dice.OneIn(2) ? 3000 : 20000));
    std::thread killer([&] {
      std::this_thread::sleep_for(delay);
      m_service->Process().Signal(SIGKILL);
    });
    // One change after another until the kill meets one, or falls between two.
    m_wasCut = false;
    do {
      Change();
    } while (!m_service->Process().HasEnded() && !m_wasCut);
    killer.join();
    EXPECT_EQ(m_service->Process().Wait(), 128 + SIGKILL);
    m_isDying = false;
    StartAgain(down);
  }
  void StopAndStart() {
    Note("stop");
    JudgeFlatness();
    const Micros down = Now();
    if (const int code = m_service->Stop(); code != 0) Fault("the stop ended with " + std::to_string(code));
    StartAgain(down);
  }
  void FillDisk() {
    Note("disk full");
    m_disk->Fill();
    m_blindFrom = Now();
    m_freeAt = Steady() + static_cast<double>(m_dice.Between(2, 14));  // long enough to be met by other faults
    Change();
    Change();
  }
  void FreeDisk(bool refresh) {
    m_disk->Free();
    m_ledger.Blind(m_blindFrom, Now() + kMicrosOfSecond);
    Note("disk free");
    if (refresh) Refresh();
  }
  void LoseBus() {
    Note("bus lost");
    m_service->Bus().Kill();
    std::this_thread::sleep_for(std::chrono::milliseconds(m_dice.Below(1500)));
    m_service->Bus().Restart();
    if (!m_service->WaitForName()) Fault("the service didn't come back to the bus");
    m_service->Connect(m_client);
    m_service->Connect(m_listener);
    Note("bus back");
    if (!DiskIsFull()) Reconcile(false);
  }

  struct Kind {
    std::string name;
    std::function<void()> happen;
  };
  std::vector<Kind> FaultKinds() {
    std::vector<Kind> kinds = {
        {"kill between calls", [this] { KillIdle(); }}, {"kill in a call", [this] { KillInCall(); }},
        {"stop and start", [this] { StopAndStart(); }}, {"bus lost", [this] { LoseBus(); }},
        {"bad input", [this] { BadInput(); }},
    };
    if (m_disk) {
      kinds.push_back({"disk full", [this] {
                         if (!DiskIsFull()) FillDisk();
                       }});
    }
    if (m_cluster) {
      kinds.push_back({"node stopped", [this] {
                         StartPeer();
                         EXPECT_EQ((*m_cluster)[1].Stop(), 0);
                         m_isPeerUp = false;
                         NodeOperation();
                       }});
      kinds.push_back({"node killed", [this] {
                         StartPeer();
                         (*m_cluster)[1].Process().Signal(SIGKILL);
                         EXPECT_EQ((*m_cluster)[1].Process().Wait(), 128 + SIGKILL);
                         m_isPeerUp = false;
                         StartPeer();
                         NodeOperation();
                       }});
      kinds.push_back({"link cut", [this] {
                         m_cluster->SetLink(1, false);
                         m_cluster->ForgetNeighbours(0);
                         m_isLinkUp = false;
                         NodeOperation();
                         MendLink();
                       }});
    }
    return kinds;
  }

  void ClientActs() {
    const std::int64_t kind = m_dice.Below(100);
    if (kind < 30) {
      Change();
    } else if (kind < 86) {
      Query();
    } else if (kind < 87) {
      Refresh();
    } else if (kind < 91) {
      BadInput();
    } else if (kind < 95) {
      CommandLine();
    } else {
      NodeOperation();
    }
  }

  void JudgeLaunches() {
    Look();
    for (const std::string& fault : m_ledger.Judge(Now(), m_launchCounts)) {
      if (m_toldFaults.insert(fault).second) Fault(fault);
    }
  }

  // In the first half of each cycle faults happen, in the second one only the client is at work.
  void Soak(double seconds) {
    const int cycles = std::max(1, static_cast<int>(seconds / 600));
    const double cycle = seconds / cycles;
    m_leastLife = std::min(60.0, seconds / 4);
    const std::vector<Kind> kinds = FaultKinds();
    for (const Kind& kind : kinds) m_counts["fault: " + kind.name];
    const double faultEvery = std::min(6.0, cycle / 2 / static_cast<double>(kinds.size() + 1));
    std::vector<const Kind*> deck;
    const double begin = Steady();
    double nextFault = begin + faultEvery, nextJudgement = begin + kJudgeEverySeconds;
    while (!m_isOver && Steady() < begin + seconds) {
      const double inCycle = std::fmod(Steady() - begin, cycle);
      const bool faults =
          inCycle < cycle / 2 || (inCycle < cycle * 3 / 4 && Steady() < begin + cycle && HasMissing(kinds));
      if (faults && Steady() >= nextFault) {
        if (deck.empty()) {
          for (const Kind& kind : kinds) deck.push_back(&kind);
          for (std::size_t i = deck.size(); i > 1; --i)
            std::swap(deck[i - 1], deck[static_cast<std::size_t>(m_dice.Below(static_cast<std::int64_t>(i)))]);
        }
        Look();
        Count("fault: " + deck.back()->name);
        deck.back()->happen();
        deck.pop_back();
        nextFault = Steady() + faultEvery;
      }
      if (DiskIsFull() && (Steady() >= m_freeAt || !faults)) FreeDisk(true);
      if (!faults) {
        MendLink();
        StartPeer();
      }
      ClientActs();
      // Between two acts of the client passes up to a fifth of a second, or the time to an event.
      (void)m_listener.WaitForEvents(static_cast<std::uint32_t>(m_dice.Below(200)));
      m_events->events.clear();
      Look();
      m_flatness.Sample(Steady());
      if (Steady() >= nextJudgement) {
        JudgeLaunches();
        nextJudgement = Steady() + kJudgeEverySeconds;
      }
    }
  }
  bool HasMissing(const std::vector<Kind>& kinds) {
    return std::any_of(kinds.begin(), kinds.end(),
                       [&](const Kind& kind) { return m_counts["fault: " + kind.name] == 0; });
  }

  void End() {
    if (m_isOver) return;
    if (DiskIsFull()) FreeDisk(true);
    JudgeFlatness();
    Refresh();
    JudgeLaunches();
    EXPECT_EQ(m_service->Stop(), 0) << m_service->Output();
    if (m_cluster && m_isPeerUp) {
      EXPECT_EQ((*m_cluster)[1].Stop(), 0);
      m_isPeerUp = false;
      JudgePeer();
    }
  }

  void Print() const {
    std::cout << "disk: " << (m_disk == nullptr ? "none" : m_disk->IsReal() ? "ext4 in a file" : "memory") << "\n";
    for (const auto& [what, count] : m_counts) std::cout << "  " << what << ": " << count << "\n";
    std::cout << "windows: " << m_launchCounts.launched << " launched, " << m_launchCounts.toldSkipped
              << " skipped with a line in the log, " << m_launchCounts.disturbed
              << " skipped while the service wasn't there or was loading, " << m_launchCounts.uncertain
              << " launched where that was left open; " << m_launchCounts.runsAtOnce << " runs at once; latest by "
              << m_launchCounts.worstLateMs << " ms\n";
    std::cout << "memory and descriptors: " << m_flatness.Judged() << " processes judged, the longest lived "
              << static_cast<int>(m_flatness.LongestSeconds()) << " s, worst growth " << m_flatness.WorstGrowthKb()
              << " KB\n";
  }

  Dice m_dice{SoakSeed()};
  std::string m_programs;
  std::unique_ptr<NodeCluster> m_cluster;
  std::unique_ptr<RunningService> m_alone;
  RunningService* m_service = nullptr;
  std::string m_aside;  // a directory that isn't on the small disk
  std::unique_ptr<SmallDisk> m_disk;
  double m_freeAt = 0;
  Micros m_blindFrom = 0;
  bool m_isPeerUp = false;
  bool m_isLinkUp = true;
  bool m_hasReachedPeer = false;  // the process that runs now
  bool m_isDying = false;
  bool m_wasCut = false;  // a call by the kill
  bool m_isOver = false;
  std::size_t m_faults = 0;

  SchedulerClient m_client;
  SchedulerClient m_listener;
  std::shared_ptr<EventLog> m_events = std::make_shared<EventLog>();
  Follower m_follower;
  Flatness m_flatness;
  double m_leastLife = 60;

  int m_lastTag = 0;
  std::map<std::string, WindowSeries> m_series;      // by tag
  std::map<std::string, SCHEDULE_OBJECT> m_sent;     // by tag
  std::map<std::string, SCHEDULE_RULE> m_readRules;  // by tag, as read the first time
  std::map<std::string, Item> m_items;               // by ID
  std::map<std::string, bool> m_pending;             // tags of creations without an answer; whether they are far
  std::map<std::string, bool> m_peerKeys;            // by ID; false: may be there or not
  LaunchLedger m_ledger;
  LaunchLedger::Counts m_launchCounts;
  std::set<std::string> m_toldFaults;
  std::map<std::string, std::uint64_t> m_counts;
  std::string m_history;
};

TEST_F(ServiceSoak, NothingAcknowledgedIsLostAndEveryWindowIsLaunchedOnceOrSkippedByARule) {
  std::cout << "seed " << SoakSeed() << ", " << SoakSeconds() / 60 << " minutes\n";
  Soak(SoakSeconds());
  End();
  Print();
  for (const auto& [what, count] : m_counts) EXPECT_GT(count, 0u) << what;
  EXPECT_GT(m_launchCounts.launched, 0u);
  EXPECT_GT(m_flatness.Judged(), 0);
  if (m_disk) {
    EXPECT_GT(m_counts["refused on a full disk"], 0u);
  }
}

}  // namespace
}  // namespace qx::testing

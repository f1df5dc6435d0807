// client/tests/node_service.h: a service within the process that carries changes and commands to nodes.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "client/tests/online_fixture.h"

// What was carried, and what each node answers.
class NodeService : public FakeService {
 public:
  Status CreateScheduleOnNodes(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id, std::uint32_t count,
                               const NodeNames& names, NodeResults& results) override {
    return Carry("create", count, names, results, [&] { return CreateSchedule(schedule, id); });
  }
  Status DeleteScheduleOnNodes(const ScheduleGuid& id, std::uint32_t count, const NodeNames& names,
                               NodeResults& results) override {
    return Carry("delete", count, names, results, [&] { return DeleteSchedule(id); });
  }
  Status ModifyScheduleOnNodes(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule, std::uint32_t count,
                               const NodeNames& names, NodeResults& results) override {
    return Carry("modify", count, names, results, [&] { return ModifySchedule(id, schedule); });
  }
  Status PerformOperationOnNodes(const BSTR& data, std::uint32_t count, const NodeNames& names,
                                 NodeResults& results) override {
    command = platform::Utf8FromWide(data.value_or(u""));
    if (lossOnChange.IsSet()) return Refusal();
    return Carry("perform", count, names, results, nullptr);
  }

  std::vector<std::string> carried;  // "create localhost,b"
  std::string command;
  std::map<std::u16string, std::int32_t> answers;  // of other nodes; 0 where nothing stands

 private:
  Status Carry(const char* what, std::uint32_t count, const NodeNames& names, NodeResults& results,
               const std::function<Status()>& local) {
    std::string line = what;
    EXPECT_EQ(count, names.size());
    results.assign(count, 1);
    bool failed = false;
    for (std::size_t i = 0; i < names.size(); ++i) {
      line += (i == 0 ? " " : ",") + platform::Utf8FromWide(names[i]);
      if (names[i] == u"localhost") {
        if (local) results[i] = static_cast<std::int32_t>(local());
        if (local && results[i] != 0) {
          carried.push_back(line);
          return 1;
        }
      } else {
        results[i] = answers.contains(names[i]) ? answers[names[i]] : 0;
        failed = failed || results[i] != 0;
      }
    }
    carried.push_back(line);
    return failed ? 1 : 0;
  }
};

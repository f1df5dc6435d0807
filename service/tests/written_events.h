// service/tests/written_events.h: for tests: what is written as events of the host is kept in place of being written.
#pragma once

#include <vector>

#include "platform/event_log.h"
#include "service/tests/service_fixture.h"

namespace qx::testing {

class WrittenEvents : public ServiceFixture {
 protected:
  void SetUp() override {
    ServiceFixture::SetUp();
    platform::InstallEventSink([this](const platform::LoggedEvent& event) { m_written.push_back(event); });
  }
  void TearDown() override {
    platform::InstallEventSink(nullptr);
    ServiceFixture::TearDown();
  }
  std::vector<platform::LoggedEvent> m_written;
};

}  // namespace qx::testing

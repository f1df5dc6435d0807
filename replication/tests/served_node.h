// replication/tests/served_node.h: a registered service whose listener serves the node that asks: both are this process.
#pragma once

#include "platform/event_log.h"
#include "platform/service_record.h"
#include "replication/node_operations.h"
#include "replication/tests/replication_fixture.h"
#include "service/service_registration.h"

namespace qx::testing {

class ServedNode : public ReplicationFixture {
 protected:
  void SetUp() override {
    ReplicationFixture::SetUp();
    platform::InstallEventSink([](const platform::LoggedEvent&) {});
    platform::ServiceRecord record;
    record.displayName = kServiceTitle;
    record.binaryPath = u"\"/x\"";
    record.account = u"cluster";
    ASSERT_EQ(platform::CreateServiceRecord(kServiceName, record), 0u);
    Listen();
    m_operations.SetPort(m_listener.Port());
  }
  void TearDown() override {
    platform::InstallEventSink({});
    ReplicationFixture::TearDown();
  }

  CNodeOperations m_operations{OwnKeys()};
};

}  // namespace qx::testing

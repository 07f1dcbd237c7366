// The host's calls about its main loop.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/quibvitalscope_host.h"
#include "host/quibvitalscope_host.hpp"
#include "vitalscope/hang/QBVitalscopeANRMonitor_RunLoop.h"
#include "vitalscope/platform/scripted/scripted_platform.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class HostLoop : public testing::Test {
 protected:
  qbv::ScriptedPlatform scripted;
};

TEST_F(HostLoop, RunLoopMonitorStartsOnceAndOnlyWhereItIsLoaded) {
  EXPECT_EQ(qbv_host_watch_run_loop(), -1);
  QBVitalscopeANRMonitor_RunLoop::load();
  EXPECT_THAT(scripted.dispatch.threadNames(), IsEmpty());
  EXPECT_EQ(qbv_host_watch_run_loop(), 0);
  EXPECT_EQ(qbv_host_watch_run_loop(), 0);
  EXPECT_TRUE(qbv::host::watchRunLoop());
  EXPECT_THAT(scripted.dispatch.threadNames(), SizeIs(1));
  EXPECT_EQ(scripted.runLoop.observerCount(), 2u);
}

TEST_F(HostLoop, AskedForOnAnotherThreadItStartsFromTheMainLoop) {
  QBVitalscopeANRMonitor_RunLoop::load();
  scripted.runLoop.setOnMainThread(false);
  EXPECT_EQ(qbv_host_watch_run_loop(), 0);
  scripted.runUntilIdle();
  EXPECT_THAT(scripted.dispatch.threadNames(), IsEmpty());
  scripted.runLoop.setOnMainThread(true);
  scripted.runLoop.drain();
  EXPECT_EQ(scripted.runLoop.observerCount(), 2u);
}

TEST_F(HostLoop, WaitsAndEventsOfALoopOfTheHostsAreTimed) {
  QBVitalscopeANRMonitor_RunLoop::load();
  scripted.clock.setAbsoluteTime(qbv::ScriptedClock::kStart + 0.5);
  qbv_host_send_event([](void*) {}, nullptr);  // defines the application
  qbv_host_watch_run_loop();
  scripted.runUntilIdle();

  qbv_host_loop_will_wait();
  scripted.advance(9);
  EXPECT_THAT(scripted.log.messages(), IsEmpty());
  qbv_host_loop_did_wake();
  scripted.advance(3);
  qbv_host_loop_will_wait();
  scripted.advance(9);
  EXPECT_THAT(scripted.log.messages(), SizeIs(1));

  qbv_host_send_event([](void* platform) { static_cast<qbv::ScriptedPlatform*>(platform)->advance(3); },
                      &scripted);
  EXPECT_THAT(scripted.log.messages(), SizeIs(2));
}

TEST_F(HostLoop, EventsAreFunctionsInCPlusPlus) {
  std::vector<std::string> order;
  qbv::host::postEvent([&order, name = std::string("posted")] { order.push_back(name); });
  qbv::host::sendEvent([&] { order.emplace_back("sent"); });
  qbv::host::sendEvent({});
  qbv::host::postEvent({});
  scripted.runLoop.drain();
  EXPECT_THAT(order, ElementsAre("sent", "posted"));
}

}  // namespace

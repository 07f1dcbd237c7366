// The hook around the application's dispatch. It is installed once per process, and each case has its own.
#include "tests/hang/run_loop_fixture.h"
#include "vitalscope/hang/QBVitalscopeApplicationEvent.h"

namespace {

using qbv::Class;
using qbv::ClassDefinition;
using qbv::id;
using qbv::SEL;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ApplicationEventTest : public RunLoopMonitorTest {
 protected:
  ApplicationEventTest() {
    self = this;
    event = ClassDefinition(scripted.runtime, "TestEvent").instance();
  }

  static void ownMethod(id, SEL, id) { self->trace.push_back("its own"); }
  // An application's own dispatch: notes the event, then does what the test wants done in it.
  static void dispatch(id, SEL, id received) {
    self->trace.push_back(received == self->event ? "dispatch" : "another event");
    if (self->duringDispatch) std::exchange(self->duringDispatch, nullptr)();
    self->trace.push_back("done");
  }
  void sendEvent(id application) { qbv::send<void>(scripted.runtime, application, "sendEvent:", event); }

  id event = nullptr;
  std::vector<std::string> trace;
  std::function<void()> duringDispatch;
  inline static ApplicationEventTest* self = nullptr;
};

TEST_F(ApplicationEventTest, DispatchOfTheApplicationsOwnIsTimedOnceHoweverOftenInstalled) {
  const id application =
      ClassDefinition(scripted.runtime, "NSApplication").method("sendEvent:", dispatch).instance();
  start();
  EXPECT_TRUE(scripted.runLoop.toolkitEventsRouted());
  QBVitalscopeApplicationEvent again;
  again.trySwizzle();
  again.trySwizzle();
  monitor->start();

  duringDispatch = [this] { scripted.advance(2.5); };
  sendEvent(application);
  EXPECT_THAT(trace, ElementsAre("dispatch", "done"));
  EXPECT_THAT(logged(), IsEmpty()) << "no check came after its first two seconds";
  duringDispatch = [this] { scripted.advance(3); };
  sendEvent(application);
  EXPECT_THAT(logged(), testing::Not(IsEmpty()));
  scripted.advance(10);
  logged();
  scripted.advance(10);
  EXPECT_THAT(logged(), IsEmpty()) << "its end is noted";
}

TEST_F(ApplicationEventTest, InheritedDispatchIsTimedForThisClassAlone) {
  const Class base = ClassDefinition(scripted.runtime, "NSResponder").method("sendEvent:", dispatch).cls();
  const id other = scripted.runtime.createInstance(base);
  const id application = ClassDefinition(scripted.runtime, "NSApplication", base).instance();
  start();

  duringDispatch = [this] { scripted.advance(4); };
  sendEvent(application);
  EXPECT_THAT(trace, ElementsAre("dispatch", "done"));
  EXPECT_THAT(logged(), SizeIs(2));
  duringDispatch = [this] { scripted.advance(4); };
  sendEvent(other);
  EXPECT_THAT(trace, SizeIs(4));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ApplicationEventTest, ClassThatUsesTheHooksNameItselfIsLeftAlone) {
  ClassDefinition definition(scripted.runtime, "NSApplication");
  definition.method("sendEvent:", dispatch).method("qbv_sendEvent:", ownMethod);
  const id application = definition.instance();
  start();
  EXPECT_FALSE(scripted.runLoop.toolkitEventsRouted());
  duringDispatch = [this] { scripted.advance(4); };
  sendEvent(application);
  qbv::send<void>(scripted.runtime, application, "qbv_sendEvent:", event);
  EXPECT_THAT(trace, ElementsAre("dispatch", "done", "its own"));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ApplicationEventTest, ClassThatComesTooLateIsNotHooked) {
  start();
  const id application =
      ClassDefinition(scripted.runtime, "NSApplication").method("sendEvent:", dispatch).instance();
  QBVitalscopeApplicationEvent().trySwizzle();
  duringDispatch = [this] { scripted.advance(4); };
  sendEvent(application);
  EXPECT_THAT(trace, ElementsAre("dispatch", "done"));
  EXPECT_THAT(logged(), IsEmpty());
}

// A modal loop inside an event: the time that the outer one takes after it is not measured.
TEST_F(ApplicationEventTest, NestedEventRestartsTheTimeAndEndsBoth) {
  const id application =
      ClassDefinition(scripted.runtime, "NSApplication").method("sendEvent:", dispatch).instance();
  start();
  duringDispatch = [&] {
    scripted.advance(1.5);
    duringDispatch = [this] { scripted.advance(1.9); };
    sendEvent(application);
    EXPECT_THAT(logged(), IsEmpty());
    scripted.advance(6);
  };
  sendEvent(application);
  EXPECT_THAT(trace, ElementsAre("dispatch", "dispatch", "done", "done"));
  EXPECT_THAT(logged(), IsEmpty());
}

// A host's class may declare its dispatch in another way, and its events are the loop's business.
TEST_F(ApplicationEventTest, EventsOfTheLoopReachTheApplicationWhateverItsDispatchAnswers) {
  static std::vector<std::string>& seen = trace;
  ClassDefinition(scripted.runtime, "NSApplication")
      .method(
          "sendEvent:", +[](id, SEL, id received) -> bool {
            seen.push_back("dispatch");
            qbv::send<void>(qbv::platform().runtime, received, "handle");
            return true;
          });
  start();
  const auto handle = [](void* text) { seen.push_back(static_cast<const char*>(text)); };
  char first[] = "sent";
  char second[] = "posted";
  scripted.runLoop.postEvent(handle, second);
  EXPECT_THAT(seen, IsEmpty());
  scripted.runLoop.sendEvent(handle, first);
  scripted.runLoop.drain();
  EXPECT_THAT(seen, ElementsAre("dispatch", "sent", "dispatch", "posted"));
}

TEST_F(ApplicationEventTest, EventsGetAnApplicationWhereTheHostHasNone) {
  static bool handled = false;
  scripted.runLoop.sendEvent([](void*) {}, nullptr);  // the platform's own application from here on
  start();
  scripted.runLoop.sendEvent(
      [](void* platform) {
        static_cast<qbv::ScriptedPlatform*>(platform)->advance(4);
        handled = true;
      },
      &scripted);
  EXPECT_TRUE(handled);
  EXPECT_THAT(logged(), SizeIs(2));
}

}  // namespace

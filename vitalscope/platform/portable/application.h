// The application object of the method table: what events are sent to.
#pragma once

#include "vitalscope/platform/runtime.h"

namespace qbv {

// Gives the class "NSApplication" what it does not have yet: the class method "sharedApplication" and the
// method "sendEvent:", which sends "handle" to the event. These work on platform()'s runtime, which must be
// the one given here by the time the first event is sent.
class QBV_EXPORT Application {
 public:
  explicit Application(Runtime& runtime);

  // Sends "sendEvent:" to the shared application with an event whose "handle" calls handle(context). Where
  // the host's class has no such object or method, it calls at once: no event is lost. The thread that
  // dispatches events.
  void sendEvent(void (*handle)(void* context), void* context);

 private:
  Runtime& runtime_;
  const Class class_;
  const Class eventClass_;
};

}  // namespace qbv

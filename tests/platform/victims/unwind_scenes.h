// Call stacks of every shape, built with optimisation and without frame pointers. Each scene runs on a thread
// of its own, calls ready() when it stands in its innermost function, and stays there.
#pragma once

namespace victims {

struct Scene {
  const char* name;
  void (*run)(void (*ready)());
  bool needsRegisters;  // a frame is found by a register that no inner frame saved
  bool otherStack;      // outer frames are on another stack
  bool running;         // does not wait in the kernel
};

extern const Scene kScenes[];
extern const unsigned kSceneCount;

}  // namespace victims

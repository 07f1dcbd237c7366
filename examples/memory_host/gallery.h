// A picture gallery that never lets go of anything, by functions whose names tell in a call stack.
#pragma once

#include <cstddef>

// Each takes that many megabytes, uses them and notes which calls they came from.
__attribute__((visibility("default"))) void cacheThumbnails(std::size_t megabytes);
__attribute__((visibility("default"))) void keepUndoHistory(std::size_t megabytes);

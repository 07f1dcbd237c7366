// Work that takes memory, by functions whose names allocation stacks must show.
#pragma once

#include <cstddef>

// Takes one block of so many megabytes, and keeps it.
void keepBlock(std::size_t megabytes);
// Each megabyte by an allocation of its own, with something in every page.
void keepThumbnails(std::size_t megabytes);
// Takes and loses so many blocks, and notes where they came from. Each begins with the text kLostText.
__attribute__((visibility("default"))) void loseDrafts(std::size_t count, std::size_t bytes);
inline constexpr char kLostText[] = "a lost draft";

// Takes so many megabytes in blocks of one, and notes where each came from. The second one takes twice as
// much as the first.
__attribute__((visibility("default"))) void loadSlides(std::size_t megabytes);
__attribute__((visibility("default"))) void renderSlides(std::size_t megabytes);

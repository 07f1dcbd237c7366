// The stack file of a process, read back. Pure functions of the file's bytes; nothing in them is trusted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qbv::stack_file {

struct Stack {
  std::uint64_t id = 0;
  std::uint64_t count = 0;  // allocations alive when the file was last written
  std::uint64_t bytes = 0;  // alive, modulo 2^32
  std::uint32_t type = 0;
  std::vector<std::uint64_t> frames;  // return addresses, innermost first
};

struct Contents {
  std::size_t slots = 0;      // whole ones in the file
  std::vector<Stack> stacks;  // one for each id, in the file's order
  // What is missing or was left out, one sentence each; empty for a sound file.
  std::vector<std::string> problems;
};

// Nothing, with the reason in `error`, for what is no stack file. A file that is cut short gives its whole
// slots. Of several slots with one id the one counts that the writer finds; the others are older copies.
std::optional<Contents> parse(std::string_view bytes, std::string& error);

enum class Weight { bytes, count };

// The heaviest first; equal ones by the other weight, then by id.
void sortByWeight(std::vector<Stack>& stacks, Weight weight);

struct Totals {
  std::uint64_t bytes = 0;
  std::uint64_t count = 0;
};
Totals totalsOf(const std::vector<Stack>& stacks);

// One line of the folded form, without a line feed: the outermost frame first, ";" between two, a blank, the
// weight. `innermostFirst`: one name per frame. ";" becomes ":", and blanks and control characters become
// "_": only the last blank of a line separates.
std::string foldedLine(const std::vector<std::string>& innermostFirst, std::uint64_t weight);

}  // namespace qbv::stack_file

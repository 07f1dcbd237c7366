// What hosts have in common that are told over a pipe what to do: a loop of their own, which polls the main
// queue's descriptor with everything else.
#pragma once

#include <functional>
#include <string>

namespace e2e {

// Waits for blocks on the main queue and runs them, until the time is over.
void turn(double seconds);

// Hands over each line of standard input and answers it with "done LINE", turning the loop meanwhile, until
// the input ends or the line is "exit". The exit status: 3 when a line was refused.
int obeyAll(const std::function<bool(const std::string& line)>& obey);

}  // namespace e2e

// What the binutils say about an ELF file.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/commands.h"

namespace qbv::witness {

struct Function {
  std::uint64_t size = 0;
  std::set<std::string> names;
};
using Functions = std::map<std::uint64_t, Function>;  // by linked address

inline std::vector<std::string> linesSaid(const std::string& command) {
  return test::linesOf(test::shell(command).output);
}

// table: "--syms" or "--dyn-syms".
inline Functions functionsOf(const std::string& file, const std::string& table) {
  Functions functions;
  for (const std::string& line : linesSaid("readelf --wide " + table + " '" + file + "' 2>/dev/null")) {
    std::istringstream fields(line);
    std::string number, value, size, type, bind, visibility, section, name;
    if (!(fields >> number >> value >> size >> type >> bind >> visibility >> section >> name)) continue;
    if ((type != "FUNC" && type != "IFUNC") || section == "UND" || section == "ABS") continue;
    Function& function = functions[std::stoull(value, nullptr, 16)];
    function.size = std::max<std::uint64_t>(function.size, std::stoull(size, nullptr, 0));
    function.names.insert(name.substr(0, name.find('@')));
  }
  return functions;
}

inline bool isStripped(const std::string& file) {
  for (const std::string& line : linesSaid("readelf --wide --sections '" + file + "' 2>/dev/null")) {
    if (line.find(" .symtab ") != std::string::npos) return false;
  }
  return true;
}

// Lower-case hexadecimal; empty when the file has none.
inline std::string buildIdOf(const std::string& file) {
  for (const std::string& line : linesSaid("readelf --notes '" + file + "' 2>/dev/null")) {
    const std::size_t at = line.find("Build ID: ");
    if (at != std::string::npos) return line.substr(at + 10, line.find_last_not_of(" \n") - at - 9);
  }
  return {};
}

}  // namespace qbv::witness

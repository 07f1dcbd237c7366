// A scripted platform with a folder for a stack file, and stacks made of a number.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "vitalscope/memory/QBStackHighSpeedLogger.h"
#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/platform/scripted/scripted_zone.h"

class StackFileTest : public testing::Test {
 protected:
  static constexpr std::size_t kSlotBytes = 536;

  StackFileTest() { scripted.files.createDirectory(scripted.files.home() + "/dump"); }

  // The bytes that are on disk now.
  std::string content() { return scripted.files.read(path).value_or(""); }
  qbv::StackSlot slotOnDisk(std::size_t index) {
    qbv::StackSlot slot{};
    const std::string bytes = content();
    if (bytes.size() >= (index + 1) * kSlotBytes)
      std::memcpy(&slot, bytes.data() + index * kSlotBytes, kSlotBytes);
    return slot;
  }
  std::vector<qbv::StackSlot> slotsOnDisk() {
    const std::string bytes = content();
    std::vector<qbv::StackSlot> slots(bytes.size() / kSlotBytes);
    std::memcpy(slots.data(), bytes.data(), slots.size() * kSlotBytes);
    return slots;
  }

  // A stack whose frames tell whose they are.
  base_stack_t stack(std::uint32_t depth, std::uint64_t base, std::uint32_t type = 0) {
    for (std::size_t index = 0; index < frames_.size(); ++index) frames_[index] = base + index;
    return {depth, frames_.data(), 0, type, 1};
  }
  static merge_stack_t entry(std::uint64_t id, std::uint32_t count, std::uint32_t size) {
    return {id, count, 1, size, nullptr};
  }
  void update(QBStackHighSpeedLogger& logger, std::uint64_t id, std::uint32_t count = 1,
              std::uint32_t size = 100, std::uint32_t type = 0) {
    const merge_stack_t sums = entry(id, count, size);
    const base_stack_t event = stack(3, id * 1000, type);
    logger.updateStack(&sums, &event);
  }
  static void remove(QBStackHighSpeedLogger& logger, std::uint64_t id) {
    const merge_stack_t sums = entry(id, 0, 0);
    logger.removeStack(&sums, true);
  }

  qbv::ScriptedPlatform scripted;
  qbv::ScriptedZone zone;
  const std::string path = scripted.files.home() + "/dump/stack_backtrace.mmap";

 private:
  std::array<std::uint64_t, 80> frames_{};
};

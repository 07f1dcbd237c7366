#include <gtest/gtest.h>

#include "tools/sample/call_tree.h"
#include "tools/sample/report_writer.h"

namespace {

using sample::CallTree;
using sample::FunctionName;

const CallTree::Names kNames = {
    {0x10, {"main", "app", 0x10}},  {0x11, {"main", "app", 0x11}},     {0x20, {"load", "app", 0x20}},
    {0x30, {"poll", "libc.so", 1}}, {0x40, {"", "libstripped.so", 9}},
};

CallTree exampleTree() {
  CallTree tree;
  tree.add({0x10, 0x30}, 2, kNames);
  tree.add({0x11, 0x20, 0x30}, 5, kNames);
  tree.add({0x10, 0x20, 0x40}, 1, kNames);
  tree.sort();
  return tree;
}

TEST(CallTree, MergesAddressesOfOneFunctionAndPutsTheHeaviestFirst) {
  const CallTree tree = exampleTree();
  ASSERT_EQ(tree.root().count, 8u);
  ASSERT_EQ(tree.root().children.size(), 1u);
  const auto& main = *tree.root().children[0];
  EXPECT_EQ(main.name.function, "main");
  EXPECT_EQ(main.count, 8u);
  ASSERT_EQ(main.children.size(), 2u);
  EXPECT_EQ(main.children[0]->name.function, "load");
  EXPECT_EQ(main.children[0]->count, 6u);
  EXPECT_EQ(main.children[0]->onTop, 0u);
  EXPECT_EQ(main.children[1]->name.function, "poll");
  EXPECT_EQ(main.children[1]->onTop, 2u);
}

TEST(CallTree, TopOfStackSumsOverCallersAndNamesTheMostFrequentOne) {
  const auto top = sample::topOfStack(exampleTree());
  ASSERT_EQ(top.size(), 2u);
  EXPECT_EQ(top[0].name.function, "poll");
  EXPECT_EQ(top[0].count, 7u);
  EXPECT_EQ(top[0].caller.function, "load");
  EXPECT_EQ(top[1].name.function, "");
  EXPECT_EQ(top[1].count, 1u);
}

TEST(CallTree, RendersFunctionsWithoutNamesByAddressAndTheNoteOfAnEarlyEnd) {
  sample::Sampling sampling;
  sampling.note = "the process ended during the sampling";
  sampling.threads.push_back({7, "worker", exampleTree()});
  sampling.images.push_back({0x1000, 0x2000, "ab12", "/usr/bin/app"});
  const std::string text = sample::renderSampling(sampling);
  EXPECT_NE(text.find("Note:            the process ended during the sampling\n"), std::string::npos);
  EXPECT_NE(
      text.find("8 Thread 7  worker\n  8 main  (in app)\n    6 load  (in app)\n      5 poll  (in libc.so)\n"
                "      1 0x9  (in libstripped.so)\n    2 poll  (in libc.so)\n"),
      std::string::npos)
      << text;
  EXPECT_NE(text.find("            0x1000 -             0x1fff <ab12> /usr/bin/app\n"), std::string::npos)
      << text;
}

}  // namespace

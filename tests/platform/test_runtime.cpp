#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "vitalscope/platform/portable/class_table.h"

namespace qbv {
namespace {

class RuntimeTest : public ::testing::Test {
 protected:
  SEL sel(const char* name) { return table.NSSelectorFromString(name); }
  bool responds(id receiver, const char* name) { return table.respondsToSelector(receiver, sel(name)); }
  ClassTable table;
};

TEST_F(RuntimeTest, NamesAreInternedAndClassesFoundByName) {
  const std::string copy = "doIt:";
  EXPECT_EQ(sel("doIt:"), sel(copy.c_str()));
  EXPECT_NE(sel("doIt:"), sel("doIt"));
  EXPECT_EQ(table.NSClassFromString("Helper"), nullptr);
  EXPECT_EQ(table.NSClassFromString(nullptr), nullptr);
  const Class helper = table.defineClass("Helper", nullptr);
  EXPECT_EQ(table.NSClassFromString("Helper"), helper);
  EXPECT_EQ(table.defineClass("Helper", nullptr), helper) << "a taken name answers the present class";
  EXPECT_EQ(helper->superclass, table.NSClassFromString("NSObject"));
}

TEST_F(RuntimeTest, InstanceMethodsAreInheritedAndOverridden) {
  ClassDefinition base(table, "Base");
  base.method(
      "answer", +[](id, SEL) -> std::int64_t { return 1; });
  base.method(
      "shared", +[](id, SEL) -> std::int64_t { return 10; });
  ClassDefinition derived(table, "Derived", base.cls());
  derived.method(
      "answer", +[](id, SEL) -> std::int64_t { return 2; });
  const id instance = derived.instance();
  EXPECT_EQ(send<std::int64_t>(table, instance, "answer"), 2);
  EXPECT_EQ(send<std::int64_t>(table, instance, "shared"), 10);
  EXPECT_EQ(send<std::int64_t>(table, base.instance(), "answer"), 1);
  EXPECT_FALSE(responds(Runtime::classObject(derived.cls()), "answer")) << "the class is not an instance";
  derived.method(
      "answer", +[](id, SEL) -> std::int64_t { return 3; });
  EXPECT_EQ(send<std::int64_t>(table, instance, "answer"), 3) << "a later definition replaces the earlier";
}

TEST_F(RuntimeTest, ClassMethodsAreInheritedThroughMetaclassesDownToTheRoot) {
  ClassDefinition base(table, "Base");
  base.classMethod(
      "sharedInstance", +[](id self, SEL) -> id { return self; });
  ClassDefinition derived(table, "Derived", base.cls());
  const id object = Runtime::classObject(derived.cls());
  EXPECT_EQ(send<id>(table, object, "sharedInstance"), object) << "the receiver is the class that was asked";
  EXPECT_FALSE(responds(derived.instance(), "sharedInstance"));
  table.addInstanceMethod(table.NSClassFromString("NSObject"), sel("describe"),
                          reinterpret_cast<IMP>(+[](id, SEL) -> const char* { return "root"; }), "*@:");
  EXPECT_STREQ(send<const char*>(table, object, "describe"), "root")
      << "classes are objects of the root class";
  EXPECT_STREQ(send<const char*>(table, derived.instance(), "describe"), "root");
  EXPECT_FALSE(responds(Runtime::classObject(derived.cls()->isa), "sharedInstance"));
}

TEST_F(RuntimeTest, MetaclassesFormTheUsualRing) {
  const Class root = table.NSClassFromString("NSObject");
  const Class derived = table.defineClass("Derived", table.defineClass("Base", nullptr));
  EXPECT_EQ(root->superclass, nullptr);
  EXPECT_EQ(root->isa->isa, root->isa);
  EXPECT_EQ(root->isa->superclass, root);
  EXPECT_EQ(derived->isa->superclass, derived->superclass->isa);
  EXPECT_EQ(derived->isa->isa, root->isa);
  EXPECT_TRUE(derived->isa->isMetaclass);
  EXPECT_FALSE(derived->isMetaclass);
  EXPECT_STREQ(derived->isa->name, "Derived");
}

TEST_F(RuntimeTest, AddingSparesTheClasssOwnMethodAndReplacingAnswersTheFormer) {
  const auto imp = [](int which) {
    return which == 1 ? reinterpret_cast<IMP>(+[](id, SEL) -> int { return 1; })
                      : reinterpret_cast<IMP>(+[](id, SEL) -> int { return 2; });
  };
  const Class base = table.defineClass("Base", nullptr);
  const Class derived = table.defineClass("Derived", base);
  EXPECT_TRUE(table.class_addMethod(base, sel("value"), imp(1), "i@:"));
  EXPECT_FALSE(table.class_addMethod(base, sel("value"), imp(2), "i@:"));
  EXPECT_TRUE(table.class_addMethod(derived, sel("value"), imp(2), "i16@0:8")) << "inherited is not own";
  EXPECT_EQ(send<int>(table, table.createInstance(base), "value"), 1);
  EXPECT_EQ(send<int>(table, table.createInstance(derived), "value"), 2);
  const Method own = table.class_getInstanceMethod(derived, sel("value"));
  EXPECT_EQ(table.class_replaceMethod(derived, sel("value"), imp(1), nullptr), imp(2));
  EXPECT_EQ(table.method_getImplementation(own), imp(1));
  EXPECT_STREQ(table.method_getTypeEncoding(own), "i16@0:8");
  EXPECT_EQ(table.class_replaceMethod(derived, sel("other"), imp(1), "i@:"), nullptr);
  EXPECT_TRUE(responds(table.createInstance(derived), "other"));
  EXPECT_TRUE(table.class_addMethod(Runtime::object_getClass(Runtime::classObject(base)), sel("shared"),
                                    imp(2), "i@:"))
      << "a metaclass takes class methods";
  EXPECT_EQ(send<int>(table, Runtime::classObject(derived), "shared"), 2);
}

TEST_F(RuntimeTest, ObjectsClassesAndSelectorsTellWhatTheyAre) {
  const Class cls = table.defineClass("Host", nullptr);
  const Class meta = Runtime::object_getClass(Runtime::classObject(cls));
  EXPECT_EQ(Runtime::object_getClass(table.createInstance(cls)), cls);
  EXPECT_EQ(Runtime::object_getClass(nullptr), nullptr);
  EXPECT_TRUE(Runtime::class_isMetaClass(meta));
  EXPECT_FALSE(Runtime::class_isMetaClass(cls));
  EXPECT_FALSE(Runtime::class_isMetaClass(nullptr));
  EXPECT_STREQ(Runtime::NSStringFromClass(meta), "Host");
  EXPECT_STREQ(Runtime::NSStringFromSelector(sel("open:with:")), "open:with:");
  EXPECT_EQ(Runtime::NSStringFromClass(nullptr), nullptr);
  EXPECT_EQ(Runtime::NSStringFromSelector(nullptr), nullptr);
}

TEST_F(RuntimeTest, ASendThatDoesNotFitGivesTheEmptyResult) {
  static bool called = false;
  ClassDefinition host(table, "Host");
  host.classMethod(
      "flag", +[](id, SEL) -> bool { return called = true; });
  host.classMethod(
      "take:", +[](id, SEL, const char* text) { called = std::string(text) == "x"; });
  const id object = Runtime::classObject(host.cls());
  EXPECT_EQ(send<const char*>(table, object, "flag"), nullptr);
  EXPECT_EQ(send<bool>(table, object, "absent"), false);
  EXPECT_EQ(send<bool>(table, nullptr, "flag"), false);
  send<void>(table, object, "take:");
  EXPECT_FALSE(called) << "no method may run with arguments it does not have";
  send<void>(table, object, "take:", static_cast<const char*>("x"));
  EXPECT_TRUE(called);
  EXPECT_TRUE(send<bool>(table, object, "flag"));
}

TEST_F(RuntimeTest, EncodingsAreComparedWithoutOffsetsQualifiersAndClassNames) {
  EXPECT_TRUE(detail::encodingsMatch("v24@0:8@16", "v@:@"));
  EXPECT_TRUE(detail::encodingsMatch("r*16@0:8", "*@:"));
  EXPECT_TRUE(detail::encodingsMatch("@\"NSString\"16@0:8", "@@:"));
  EXPECT_FALSE(detail::encodingsMatch("q@:", "i@:"));
  EXPECT_FALSE(detail::encodingsMatch("v@:@@", "v@:@"));
  EXPECT_FALSE(detail::encodingsMatch("@\"unfinished", "@@:"));
  EXPECT_FALSE(detail::encodingsMatch("", "v@:"));
  EXPECT_FALSE(detail::encodingsMatch(nullptr, "v@:"));
}

template <class R, R value>
IMP returning() {
  return reinterpret_cast<IMP>(+[](id, SEL) -> R { return value; });
}

TEST_F(RuntimeTest, SendIntegerWidensEveryIntegerResult) {
  const Class host = table.defineClass("Host", nullptr);
  const auto result = [&](IMP method, const char* types) {
    table.addClassMethod(host, sel("value"), method, types);
    return sendInteger(table, Runtime::classObject(host), "value");
  };
  EXPECT_EQ((result(returning<bool, true>(), "B16@0:8")), 1);
  EXPECT_EQ((result(returning<signed char, -3>(), "c@:")), -3);
  EXPECT_EQ((result(returning<unsigned char, 200>(), "C@:")), 200);
  EXPECT_EQ((result(returning<short, -30000>(), "s@:")), -30000);
  EXPECT_EQ((result(returning<unsigned short, 60000>(), "S@:")), 60000);
  EXPECT_EQ((result(returning<int, -7>(), "i@:")), -7);
  EXPECT_EQ((result(returning<unsigned, 4000000000u>(), "I@:")), 4000000000);
  EXPECT_EQ((result(returning<long long, -1>(), "q@:")), -1);
  EXPECT_EQ((result(returning<unsigned long long, ~0ull>(), "Q@:")), INT64_MAX);
  EXPECT_EQ((result(returning<int, 1>(), "d@:")), std::nullopt);
  EXPECT_EQ((result(returning<int, 1>(), "i@:@")), std::nullopt);
  EXPECT_EQ(sendInteger(table, nullptr, "value"), std::nullopt);
  EXPECT_EQ(sendInteger(table, Runtime::classObject(host), "absent"), std::nullopt);
}

TEST_F(RuntimeTest, LookUpsGoOnWhileMethodsAreAdded) {
  const Class host = table.defineClass("Host", nullptr);
  const id object = Runtime::classObject(host);
  table.addClassMethod(host, sel("value"), returning<int, 1>(), "i@:");
  constexpr int kRounds = 2000;
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < kRounds; ++i) {
      table.addClassMethod(host, sel(("method" + std::to_string(i)).c_str()), returning<int, 2>(), "i@:");
      if (i % 2 == 0)
        table.addClassMethod(host, sel("value"), returning<int, 1>(), "i@:");
      else
        table.addClassMethod(host, sel("value"), returning<long long, 5000000000>(), "q@:");
    }
    done = true;
  });
  std::vector<std::int64_t> odd;
  do {
    const auto value = sendInteger(table, object, "value");
    if (value != 1 && value != 5000000000) odd.push_back(value.value_or(-1));
  } while (!done);
  writer.join();
  EXPECT_TRUE(odd.empty()) << "code and encoding of a method change together";
  for (int i = 0; i < kRounds; ++i) ASSERT_TRUE(responds(object, ("method" + std::to_string(i)).c_str()));
}

}  // namespace
}  // namespace qbv

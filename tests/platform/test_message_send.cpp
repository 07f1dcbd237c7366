#include <gtest/gtest.h>

#include <atomic>
#include <complex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/every_signature.h"
#include "vitalscope/platform/message.h"
#include "vitalscope/platform/portable/class_table.h"

namespace qbv {
namespace {

using namespace literals;

const tests::SendEntries kEntries = QBV_SEND_ENTRIES(objc_msgSend);

struct Point3 {
  double x, y, z;
};

class MessageSendTest : public ::testing::Test {
 protected:
  template <int value>
  static IMP returning() {
    return reinterpret_cast<IMP>(+[](id, SEL) -> int { return value; });
  }
  ClassTable table;
};

TEST_F(MessageSendTest, EveryKindOfArgumentAndResultPasses) {
  const id receiver = table.createInstance(tests::defineEverySignature(table));
  {
    SCOPED_TRACE("first sends, which look the methods up");
    tests::sendEverySignature(kEntries, receiver);
  }
  SCOPED_TRACE("sends that find them cached");
  tests::sendEverySignature(kEntries, receiver);
}

TEST_F(MessageSendTest, NilAnswersNothingOfEveryKind) {
  EXPECT_EQ(send<int>(nullptr, "any"_sel, 5), 0);
  EXPECT_EQ(send<double>(nullptr, "any"_sel, 2.5), 0);
  EXPECT_EQ(send<long double>(nullptr, "any"_sel), 0);
  EXPECT_EQ(send<std::complex<double>>(nullptr, "any"_sel, 1., 2.), std::complex<double>());
  EXPECT_EQ(send<Point3>(nullptr, "any"_sel).z, 0);
  EXPECT_EQ(send<std::string>(nullptr, "any"_sel), "");
  // The entry itself, with registers full of arguments.
  struct Pair {
    std::int64_t a, b;
  };
  const auto pair = reinterpret_cast<Pair (*)(id, SEL, std::int64_t)>(
      reinterpret_cast<qbv::IMP>(objc_msgSend))(nullptr, "any"_sel, 7);
  EXPECT_EQ(pair.a + pair.b, 0);
  const auto complex = reinterpret_cast<std::complex<double> (*)(id, SEL, double, double)>(
      reinterpret_cast<qbv::IMP>(objc_msgSend))(nullptr, "any"_sel, 1, 2);
  EXPECT_EQ(complex, std::complex<double>());
}

TEST_F(MessageSendTest, ResultsOfClassesWithDestructorsPass) {
  ClassDefinition host(table, "Host");
  host.method(
      "text", +[](id, SEL) { return std::string(100, 'x'); });
  host.method(
      "point", +[](id, SEL, double z) {
        return Point3{1, 2, z};
      });
  EXPECT_EQ(send<std::string>(host.instance(), "text"_sel), std::string(100, 'x'));
  EXPECT_EQ(send<Point3>(host.instance(), "point"_sel, 3.5).z, 3.5);
}

TEST_F(MessageSendTest, ClassesInheritAndTheRootClassAnswersWhatItCan) {
  ClassDefinition base(table, "Base");
  base.classMethod(
      "create", +[](id self, SEL) -> id { return send<id>(self, "alloc"_sel); });
  base.method(
      "itself", +[](id self, SEL) -> id { return self; });
  const Class derived = table.defineClass("Derived", base.cls());
  const id instance = send<id>(Runtime::classObject(derived), "create"_sel);
  EXPECT_EQ(Runtime::object_getClass(instance), derived);
  EXPECT_EQ(send<id>(instance, "itself"_sel), instance);
  EXPECT_EQ(send<id>(instance, "performSelector:"_sel, "itself"_sel), instance);
  EXPECT_TRUE(send<bool>(instance, "respondsToSelector:"_sel, "itself"_sel));
  EXPECT_FALSE(send<bool>(instance, "respondsToSelector:"_sel, "create"_sel));
  EXPECT_TRUE(send<bool>(Runtime::classObject(derived), "respondsToSelector:"_sel, "create"_sel));
  send(instance, "dealloc"_sel);
}

TEST_F(MessageSendTest, CachedSendsSeeEveryChange) {
  const Class base = table.defineClass("Base", nullptr);
  const Class derived = table.defineClass("Derived", base);
  const Class further = table.defineClass("Further", derived);
  const id object = table.createInstance(further);
  const auto value = [&] { return send<int>(object, "value"_sel); };
  table.class_addMethod(base, "value"_sel, returning<1>(), "i@:");
  table.class_addMethod(base, "other"_sel, returning<9>(), "i@:");
  EXPECT_EQ(value(), 1);
  table.class_replaceMethod(base, "value"_sel, returning<2>(), "i@:");
  EXPECT_EQ(value(), 2) << "the inherited method was replaced";
  EXPECT_TRUE(table.class_addMethod(derived, "value"_sel, returning<3>(), "i@:"));
  EXPECT_EQ(value(), 3) << "a class between got its own";
  table.method_exchangeImplementations(table.class_getInstanceMethod(derived, "value"_sel),
                                       table.class_getInstanceMethod(base, "other"_sel));
  EXPECT_EQ(value(), 9);
  EXPECT_EQ(send<int>(table.createInstance(base), "value"_sel), 2) << "and the class above kept its own";
}

TEST_F(MessageSendTest, CachesGrowWithoutLosingMethods) {
  const Class cls = table.defineClass("Large", nullptr);
  const id object = table.createInstance(cls);
  constexpr int kMethods = 500;
  std::vector<SEL> selectors;
  for (int i = 0; i < kMethods; ++i) {
    selectors.push_back(table.NSSelectorFromString(("method" + std::to_string(i * 7919)).c_str()));
    table.class_addMethod(cls, selectors.back(),
                          reinterpret_cast<IMP>(+[](id, SEL selector) -> SEL { return selector; }), ":@:");
  }
  for (int round = 0; round < 3; ++round)
    for (const SEL selector : selectors) ASSERT_EQ(send<SEL>(object, selector), selector);
}

TEST_F(MessageSendTest, SendsGoOnWhileMethodsChange) {
  const Class base = table.defineClass("Base", nullptr);
  table.class_addMethod(base, "value"_sel, returning<1>(), "i@:");
  std::atomic<bool> done{false};
  std::atomic<int> odd{0};
  std::vector<id> objects;
  for (int i = 0; i < 3; ++i)
    objects.push_back(table.createInstance(table.defineClass(("Below" + std::to_string(i)).c_str(), base)));
  std::vector<std::thread> senders;
  for (const id object : objects)
    senders.emplace_back([&, object] {
      while (!done) {
        const int value = send<int>(object, "value"_sel);
        if (value != 1 && value != 2) ++odd;
      }
    });
  for (int i = 0; i < 3000; ++i) {
    table.class_replaceMethod(base, "value"_sel, i % 2 == 0 ? returning<2>() : returning<1>(), "i@:");
    const SEL selector = table.NSSelectorFromString(("extra" + std::to_string(i)).c_str());
    const id object = objects[static_cast<std::size_t>(i % 3)];
    table.class_addMethod(object->isa, selector, returning<5>(), "i@:");
    if (send<int>(object, selector) != 5) ++odd;
  }
  for (const id object : objects) table.class_addMethod(object->isa, "value"_sel, returning<2>(), "i@:");
  done = true;
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(odd, 0);
  for (const id object : objects) EXPECT_EQ(send<int>(object, "value"_sel), 2);
}

TEST_F(MessageSendTest, ExceptionsPass) {
  ClassDefinition host(table, "Host");
  host.method(
      "fail", +[](id, SEL) -> int { throw std::runtime_error("failed"); });
  EXPECT_THROW(send<int>(host.instance(), "fail"_sel), std::runtime_error);
}

TEST_F(MessageSendTest, AnUnknownSelectorEndsTheProcessAndSaysWhich) {
  const Class cls = table.defineClass("Host", nullptr);
  const id object = table.createInstance(cls);
  EXPECT_DEATH(send(object, "open:with:"_sel),
               "-\\[Host open:with:\\]: the object at 0x[0-9a-f]+ has no method");
  EXPECT_DEATH(send(Runtime::classObject(cls), "create"_sel),
               "\\+\\[Host create\\]: the class has no method");
  EXPECT_DEATH(send(object, SEL{nullptr}), "-\\[Host \\(null\\)\\]");
}

}  // namespace
}  // namespace qbv

#include "platform/Registry.h"

#include <gtest/gtest.h>

#include "platform/Exception.h"
#include "platform/ThreadDictionary.h"

#include <thread>

namespace pc {
namespace {

class RegistryBase : public Object {
 public:
  std::string className() const override { return "RegistryBase"; }
  std::string label;
  std::int64_t size = 0;
};

class RegistryDerived : public RegistryBase {
 public:
  std::string className() const override { return "RegistryDerived"; }
  std::vector<std::string> ignored;
  void setValueForUndefinedKey(const Value&, const std::string& key) override {
    ignored.push_back(key);
  }
};

PC_REGISTER_CLASS(RegistryBase, "");
PC_REGISTER_CLASS(RegistryDerived, "RegistryBase");
PC_REGISTRATION({
  PropertyTable::registerProperty("RegistryBase", "label", [](Object& self, const Value& v) {
    static_cast<RegistryBase&>(self).label = v.stringValue();
  });
  PropertyTable::registerProperty("RegistryBase", "size", [](Object& self, const Value& v) {
    static_cast<RegistryBase&>(self).size = v.integerValue();
  });
  // A named setter registered after the plain field takes its place.
  PropertyTable::registerProperty("RegistryDerived", "label", [](Object& self, const Value& v) {
    static_cast<RegistryBase&>(self).label = "set:" + v.stringValue();
  });
  MethodTable::registerMethod("RegistryBase", "twice:", "@",
                              [](Object&, std::vector<Value>& args) {
                                return Value(args.at(0).integerValue() * 2);
                              });
  MethodTable::registerMethod("RegistryDerived", "maxLength::", "@i",
                              [](Object&, std::vector<Value>& args) {
                                return Value(args.at(0).stringValue().substr(
                                    0, std::size_t(args.at(1).integerValue())));
                              });
});

TEST(Registry, CreatesRegisteredClassesByNameOnly) {
  auto object = ClassRegistry::createAs<RegistryBase>("RegistryDerived");
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->className(), "RegistryDerived");
  EXPECT_EQ(ClassRegistry::create("NoSuchClass"), nullptr);
  EXPECT_FALSE(ClassRegistry::isSubclassOf("RegistryBase", "RegistryDerived"));
}

TEST(Registry, MethodsAreInheritedAndCarryTheirArgumentTypes) {
  EXPECT_NE(MethodTable::lookup("RegistryDerived", "twice:"), nullptr);
  const MethodInfo* cut = MethodTable::lookup("RegistryDerived", "maxLength::");
  ASSERT_NE(cut, nullptr);
  EXPECT_EQ(cut->argumentTypes, "@i");
  RegistryDerived object;
  std::vector<Value> args{"abcdef", 3};
  EXPECT_EQ(cut->call(object, args), Value("abc"));
  EXPECT_EQ(MethodTable::lookup("RegistryBase", "maxLength::"), nullptr);
}

TEST(Registry, KeyValueAssignmentPrefersTheSubclassSetter) {
  RegistryDerived derived;
  derived.setValueForKey("x", "label");
  derived.setValueForKey("12", "size");
  derived.setValueForKey(1, "nothing");
  EXPECT_EQ(derived.label, "set:x");
  EXPECT_EQ(derived.size, 12);
  EXPECT_EQ(derived.ignored, std::vector<std::string>{"nothing"});

  RegistryBase base;
  try {
    base.setValueForKey(1, "nothing");
    FAIL();
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), kUndefinedKeyException);
  }
}

class TracedException : public Exception {
 public:
  using Exception::Exception;
  void raise() const override { throw *this; }
};

TEST(Exceptions, RaiseGoesThroughTheReplaceableFactory) {
  auto previous = setExceptionFactory([](const std::string& n, const std::string& r, const Dictionary& u) {
    return std::make_unique<TracedException>(n, r, u);
  });
  EXPECT_THROW(raiseException(kRangeException, "traced"), TracedException);
  setExceptionFactory(previous);
  try {
    raiseException(kRangeException, "plain again");
  } catch (const TracedException&) {
    FAIL() << "the factory was not restored";
  } catch (const Exception& e) {
    EXPECT_EQ(e.reason(), "plain again");
  }
}

TEST(ThreadDictionary, EachThreadHasItsOwn) {
  currentThreadDictionary().set("key", "main");
  Value seen;
  std::thread([&] {
    seen = currentThreadDictionary().get("key");
    currentThreadDictionary().set("key", "worker");
  }).join();
  EXPECT_TRUE(seen.isNull());
  EXPECT_EQ(currentThreadDictionary().get("key"), Value("main"));
}

}  // namespace
}  // namespace pc

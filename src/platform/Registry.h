#pragma once
// Look-up by name. Device descriptions name classes ("FormatterClass",
// "DataClassManager", parsers), formatting methods by selector strings
// ("maxLength::") and configure objects by key-value assignment. Only what is
// registered here can be reached from a description.
//
// - ClassRegistry: class name -> factory and superclass name.
// - MethodTable: per class, selector string -> callable with argument type
//   codes ('c' boolean, 'i' signed integer, '@' object), inherited.
// - PropertyTable: per class, key -> setter, inherited.
//
// Registration happens at start-up, from static registrars in each class's
// source file (PC_REGISTER_CLASS and friends). The tables are read-only once
// main() runs, so look-ups take no lock.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Object.h"
#include "platform/Value.h"

namespace pc {

class ClassRegistry {
 public:
  using Factory = std::function<ObjectPtr()>;

  static void registerClass(const std::string& name, const std::string& superclassName,
                            Factory factory);
  static bool hasClass(const std::string& name);
  // nullptr when the name is unknown or the class is abstract (no factory).
  static ObjectPtr create(const std::string& name);
  // "" for a root class; nullopt for an unknown class.
  static std::optional<std::string> superclassOf(const std::string& name);
  // True when `name` is `ancestor` or inherits from it.
  static bool isSubclassOf(const std::string& name, const std::string& ancestor);
  // Typed creation: nullptr unless the object is a T.
  template <class T>
  static std::shared_ptr<T> createAs(const std::string& name) {
    return std::dynamic_pointer_cast<T>(create(name));
  }
};

struct MethodInfo {
  using Callable = std::function<Value(Object& self, std::vector<Value>& arguments)>;
  std::string selector;
  // One code per argument, receiver not counted: "@i" for maxLength::.
  std::string argumentTypes;
  Callable call;
  std::size_t argumentCount() const { return argumentTypes.size(); }
};

class MethodTable {
 public:
  static void registerMethod(const std::string& className, const std::string& selector,
                             const std::string& argumentTypes, MethodInfo::Callable call);
  // Looks in the class, then up its superclasses; nullptr when none answers.
  static const MethodInfo* lookup(const std::string& className, const std::string& selector);
  static bool respondsToSelector(const Object& object, const std::string& selector) {
    return lookup(object.className(), selector) != nullptr;
  }
};

class PropertyTable {
 public:
  using Setter = std::function<void(Object& self, const Value& value)>;
  // A later registration of the same key for the same class replaces the
  // earlier one, so a named setter registered after a plain field wins.
  static void registerProperty(const std::string& className, const std::string& key,
                               Setter setter);
  static const Setter* lookup(const std::string& className, const std::string& key);
};

namespace detail {
struct Registrar {
  explicit Registrar(const std::function<void()>& registration) { registration(); }
};
}  // namespace detail

}  // namespace pc

#define PC_REGISTRY_CONCAT_(a, b) a##b
#define PC_REGISTRY_CONCAT(a, b) PC_REGISTRY_CONCAT_(a, b)

// Registers class `Cls` (a pc::Object with a default constructor) under its
// own name, with the superclass name `superName` ("" for none).
#define PC_REGISTER_CLASS(Cls, superName)                                               \
  static const ::pc::detail::Registrar PC_REGISTRY_CONCAT(pcClassRegistrar_, __LINE__)( \
      [] {                                                                              \
        ::pc::ClassRegistry::registerClass(#Cls, superName,                             \
                                           [] { return std::make_shared<Cls>(); });     \
      })

// Registers an abstract class (no factory): it has tables, but create() of it
// answers nullptr.
#define PC_REGISTER_ABSTRACT_CLASS(Cls, superName)                                      \
  static const ::pc::detail::Registrar PC_REGISTRY_CONCAT(pcClassRegistrar_, __LINE__)( \
      [] { ::pc::ClassRegistry::registerClass(#Cls, superName, nullptr); })

// Runs arbitrary registration code at start-up (method and property tables).
#define PC_REGISTRATION(body)                                                         \
  static const ::pc::detail::Registrar PC_REGISTRY_CONCAT(pcRegistration_, __LINE__)( \
      [] { body; })

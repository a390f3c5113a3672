#include "platform/Registry.h"

#include <map>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace pc {

namespace {

struct ClassEntry {
  std::string superclassName;
  ClassRegistry::Factory factory;
};

// All three tables live together under one reader-writer lock: registration
// happens at start-up (and in tests), look-ups at any time from any thread.
struct Tables {
  std::shared_mutex lock;
  std::unordered_map<std::string, ClassEntry> classes;
  // class name -> selector -> method; node-based maps keep entries in place,
  // so the pointers lookup() answers stay valid.
  std::unordered_map<std::string, std::unordered_map<std::string, MethodInfo>> methods;
  std::unordered_map<std::string, std::unordered_map<std::string, PropertyTable::Setter>> properties;

  static Tables& shared() {
    static Tables tables;
    return tables;
  }

  // Walks from `className` up its superclasses, answering the first non-null
  // result of `find`. Stops on unknown classes and on cycles.
  template <class Find>
  auto searchUp(const std::string& className, Find find) -> decltype(find(className)) {
    std::string current = className;
    for (std::size_t depth = 0; !current.empty() && depth < 64; ++depth) {
      if (auto found = find(current)) return found;
      auto it = classes.find(current);
      if (it == classes.end()) break;
      current = it->second.superclassName;
    }
    return nullptr;
  }
};

}  // namespace

void ClassRegistry::registerClass(const std::string& name, const std::string& superclassName,
                                  Factory factory) {
  Tables& t = Tables::shared();
  std::unique_lock guard(t.lock);
  t.classes[name] = ClassEntry{superclassName, std::move(factory)};
}

bool ClassRegistry::hasClass(const std::string& name) {
  Tables& t = Tables::shared();
  std::shared_lock guard(t.lock);
  return t.classes.contains(name);
}

ObjectPtr ClassRegistry::create(const std::string& name) {
  Factory factory;
  {
    Tables& t = Tables::shared();
    std::shared_lock guard(t.lock);
    auto it = t.classes.find(name);
    if (it == t.classes.end()) return nullptr;
    factory = it->second.factory;
  }
  return factory ? factory() : nullptr;
}

std::optional<std::string> ClassRegistry::superclassOf(const std::string& name) {
  Tables& t = Tables::shared();
  std::shared_lock guard(t.lock);
  auto it = t.classes.find(name);
  if (it == t.classes.end()) return std::nullopt;
  return it->second.superclassName;
}

bool ClassRegistry::isSubclassOf(const std::string& name, const std::string& ancestor) {
  Tables& t = Tables::shared();
  std::shared_lock guard(t.lock);
  const std::string* found = t.searchUp(name, [&](const std::string& current) -> const std::string* {
    return current == ancestor ? &current : nullptr;
  });
  return found != nullptr;
}

void MethodTable::registerMethod(const std::string& className, const std::string& selector,
                                 const std::string& argumentTypes, MethodInfo::Callable call) {
  Tables& t = Tables::shared();
  std::unique_lock guard(t.lock);
  t.methods[className][selector] = MethodInfo{selector, argumentTypes, std::move(call)};
}

const MethodInfo* MethodTable::lookup(const std::string& className, const std::string& selector) {
  Tables& t = Tables::shared();
  std::shared_lock guard(t.lock);
  return t.searchUp(className, [&](const std::string& current) -> const MethodInfo* {
    auto table = t.methods.find(current);
    if (table == t.methods.end()) return nullptr;
    auto method = table->second.find(selector);
    return method == table->second.end() ? nullptr : &method->second;
  });
}

void PropertyTable::registerProperty(const std::string& className, const std::string& key,
                                     Setter setter) {
  Tables& t = Tables::shared();
  std::unique_lock guard(t.lock);
  t.properties[className][key] = std::move(setter);
}

const PropertyTable::Setter* PropertyTable::lookup(const std::string& className,
                                                   const std::string& key) {
  Tables& t = Tables::shared();
  std::shared_lock guard(t.lock);
  return t.searchUp(className, [&](const std::string& current) -> const Setter* {
    auto table = t.properties.find(current);
    if (table == t.properties.end()) return nullptr;
    auto setter = table->second.find(key);
    return setter == table->second.end() ? nullptr : &setter->second;
  });
}

}  // namespace pc

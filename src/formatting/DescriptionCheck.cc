#include "formatting/DescriptionCheck.h"

#include <utility>

#include "platform/Exception.h"

namespace pc::description_check {

namespace {

struct State {
  bool active = false;
  std::vector<std::string> path;
  std::vector<DescriptionProblem> problems;
};

State& state() {
  thread_local State current;
  return current;
}

std::string currentPath(const std::string& component) {
  std::string path;
  for (const std::string& part : state().path) path += (path.empty() ? "" : "/") + part;
  if (!component.empty()) path += (path.empty() ? "" : "/") + component;
  return path;
}

}  // namespace

bool active() { return state().active; }

Collector::Collector() {
  state() = State();
  state().active = true;
}

Collector::~Collector() { state() = State(); }

std::vector<DescriptionProblem> Collector::take() { return std::exchange(state().problems, {}); }

PathScope::PathScope(const std::string& component) { state().path.push_back(component); }

PathScope::~PathScope() { state().path.pop_back(); }

void report(const std::string& message, const std::string& component) {
  if (!active()) return;
  state().problems.push_back({currentPath(component), message});
}

bool step(const std::string& component, const std::function<void()>& body) {
  if (!active()) {
    body();
    return true;
  }
  try {
    body();
    return true;
  } catch (const Exception& exception) {
    report(exception.reason(), component);
  }
  return false;
}

}  // namespace pc::description_check

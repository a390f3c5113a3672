#pragma once
// Entity formatters built straight from description dictionaries, with a
// device service that defines some "$" variables, and a data-class helper
// that records what its formatters ask of it.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "engine/SchemaNames.h"
#include "formatting/EntityFormatter.h"
#include "formatting/FormattingFixture.h"
#include "host/ReferenceHost.h"
#include "platform/Exception.h"
#include "transformers/QVTSyncDataClassHelper.h"

namespace pc::test {

inline std::shared_ptr<EntityFormatter> makeEntityFormatter(
    const std::string& entity, std::optional<Dictionary> first,
    std::optional<Dictionary> second = std::nullopt,
    std::optional<Array> keys = std::nullopt,
    Dictionary variables = Dictionary{{"len", 5}, {"max", 3}, {"name", "Smith"}}) {
  auto formatter = std::make_shared<EntityFormatter>();
  formatter->initWithDescriptions(entity, first, second, keys,
                                  std::make_shared<SimulatedSyncService>(variables),
                                  phoneClient("Europe/Paris"));
  return formatter;
}

// The reason of the invalid-argument exception that building raises, or ""
// when building succeeds.
template <class Build>
std::string buildFailure(Build build) {
  try {
    build();
  } catch (const Exception& exception) {
    EXPECT_EQ(exception.name(), kInvalidArgumentException);
    return exception.reason();
  }
  return "";
}

class RecordingHelper : public QVTSyncDataClassHelper {
 public:
  std::string className() const override { return "RecordingHelper"; }
  Array allPossibleEntities() override { return Array{"Contacts.Contact"}; }
  std::optional<Dictionary> formatRecord(const Dictionary& record) override {
    calls.push_back("formatRecord");
    if (rejectAll) return std::nullopt;
    return record;
  }
  void formatAssembledRecord(Dictionary& record) override {
    calls.push_back("formatAssembledRecord");
    record.set("assembled", true);
  }
  void willBeUsedByEntityFormatter(EntityFormatter&) override { calls.push_back("willBeUsed"); }
  std::vector<std::string> calls;
  bool rejectAll = false;
};

}  // namespace pc::test

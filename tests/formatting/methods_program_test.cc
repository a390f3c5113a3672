// phoneconduit methods: the selectors a device description can name.

#include <gmock/gmock.h>

#include "support/ProgramRun.h"

namespace pc {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class MethodsProgramTest : public testing::ProgramTest {};

TEST_F(MethodsProgramTest, ListsEachClassAndWhatAFamilyInherits) {
  const auto all = testing::runProgram("methods");
  EXPECT_EQ(all.status, 0);
  EXPECT_THAT(all.output, HasSubstr("\n  maxLength::modifiers:"));
  EXPECT_THAT(all.output, HasSubstr("QVTMotorolaFormatter (adds to FormattingMethods):\n  formatContactRecord:"));

  const auto agent = testing::runProgram("methods --class QVTAgentFormatting");
  EXPECT_EQ(agent.status, 0);
  EXPECT_THAT(agent.output, HasSubstr("UIQPhoneNumbers:"));
  EXPECT_THAT(agent.output, HasSubstr("reduceImage:maxWidth:maxheight:maxLength:"));
  EXPECT_THAT(agent.output, Not(HasSubstr("formatPhoneRecord:")));

  const auto unknown = testing::runProgram("methods --class Nope");
  EXPECT_EQ(unknown.status, 1);
  EXPECT_EQ(unknown.output,
            "phoneconduit: --class Nope: not a formatting class (known: FormattingMethods, "
            "QVTAgentFormatting, QVTMotorolaFormatter)\n");
}

}  // namespace
}  // namespace pc

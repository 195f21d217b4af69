#include "Termkit/parser/ParserProfile.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "Termkit/parser/EscapeSequenceParser.h"
#include "TermkitTests/fakes/RecordingParserDelegate.h"

namespace termkit {
namespace {

// The switch is read once per process, so each case runs in a child of its own.
TEST(ParserProfileTest, SpansAreRecordedWhenTheVariableIsOne) {
  EXPECT_EXIT(
      {
        ::setenv("TERMKIT_PROFILE", "1", 1);
        testing::RecordingParserDelegate target;
        EscapeSequenceParser parser(&target);
        const uint8_t bytes[] = {'a', 'b', 'c'};
        parser.parse(bytes);
        parser.parse(bytes);
        const bool ok = ParserProfile::enabled() && ParserProfile::spans() == 2 && ParserProfile::totalBytes() == 6;
        std::_Exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(ParserProfileTest, NothingIsRecordedOtherwise) {
  EXPECT_EXIT(
      {
        ::setenv("TERMKIT_PROFILE", "yes", 1);
        testing::RecordingParserDelegate target;
        EscapeSequenceParser parser(&target);
        const uint8_t bytes[] = {'a'};
        parser.parse(bytes);
        // Changing the variable later has no effect: it was read once.
        ::setenv("TERMKIT_PROFILE", "1", 1);
        parser.parse(bytes);
        std::_Exit(!ParserProfile::enabled() && ParserProfile::spans() == 0 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace termkit

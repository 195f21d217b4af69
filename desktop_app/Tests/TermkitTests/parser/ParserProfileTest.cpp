#include "Termkit/parser/ParserProfile.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "Termkit/parser/EscapeSequenceParser.h"
#include "TermkitTests/fakes/RecordingParserDelegate.h"

namespace termkit {
namespace {

void parseTwice() {
    testing::RecordingParserDelegate target;
    EscapeSequenceParser parser(&target);
    const uint8_t bytes[] = {'a', 'b', 'c'};
    parser.parse(bytes);
    parser.parse(bytes);
}

// Run in a child process: the switch is read once per process.
[[noreturn]] void profileWithVariableOne() {
    ::setenv("TERMKIT_PROFILE", "1", 1);
    parseTwice();
    const bool ok =
        ParserProfile::enabled() && ParserProfile::spans() == 2 && ParserProfile::totalBytes() == 6;
    std::_Exit(ok ? 0 : 1);
}

[[noreturn]] void profileWithAnotherValue() {
    ::setenv("TERMKIT_PROFILE", "yes", 1);
    parseTwice();
    // Changing the variable later has no effect: it was read once.
    ::setenv("TERMKIT_PROFILE", "1", 1);
    parseTwice();
    std::_Exit(!ParserProfile::enabled() && ParserProfile::spans() == 0 ? 0 : 1);
}

// The child must be a fresh process that has not read the switch yet, not a fork of this
// one: the "threadsafe" style starts the test binary again for the death test.
TEST(ParserProfileTest, SpansAreRecordedWhenTheVariableIsOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(profileWithVariableOne(), ::testing::ExitedWithCode(0), "");
}

TEST(ParserProfileTest, NothingIsRecordedOtherwise) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(profileWithAnotherValue(), ::testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace termkit

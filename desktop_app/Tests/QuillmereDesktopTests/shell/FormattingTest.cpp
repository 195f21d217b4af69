#include "QuillmereDesktop/shell/Formatting.h"
#include "QuillmereDesktop/shell/HomeViewModel.h"
#include "QuillmereDesktop/shell/ItemViewModel.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

TEST(Duration, ThreeForms) {
    EXPECT_EQ(formatting::duration(0), "0s");
    EXPECT_EQ(formatting::duration(42), "42s");
    EXPECT_EQ(formatting::duration(59), "59s");
    EXPECT_EQ(formatting::duration(60), "1m");
    EXPECT_EQ(formatting::duration(7 * 60 + 59), "7m");
    EXPECT_EQ(formatting::duration(3599), "59m");
    EXPECT_EQ(formatting::duration(3600), "1h 0m");
    EXPECT_EQ(formatting::duration(3600 + 5 * 60 + 30), "1h 5m");
    EXPECT_EQ(formatting::duration(50 * 3600), "50h 0m");
}

TEST(Duration, ANegativeAgeIsZeroSeconds) {
    EXPECT_EQ(formatting::duration(-5), "0s");
}

TEST(Counted, EnglishPlurals) {
    EXPECT_EQ(formatting::counted(1, "approval"), "1 approval");
    EXPECT_EQ(formatting::counted(2, "approval"), "2 approvals");
    EXPECT_EQ(formatting::counted(0, "choice"), "0 choices");
}

TEST(HomeRows, QuestionsThenApprovalsThenChoicesOnlyWhenPresent) {
    EXPECT_EQ(HomeViewModel::rows(1, 0, 2), (QStringList{"1 approval", "2 choices"}));
    EXPECT_EQ(HomeViewModel::rows(2, 1, 0), (QStringList{"1 question", "2 approvals"}));
    EXPECT_EQ(HomeViewModel::rows(0, 3, 1), (QStringList{"3 questions", "1 choice"}));
    EXPECT_TRUE(HomeViewModel::rows(0, 0, 0).isEmpty());
}

TEST(HomeSuggestions, OneAndMany) {
    EXPECT_EQ(HomeViewModel::suggestionLine(1), "1 thing worth writing down");
    EXPECT_EQ(HomeViewModel::suggestionLine(4), "4 things worth writing down");
}

TEST(HomeUsage, RowsByConnection) {
    EXPECT_EQ(HomeViewModel::usageValue(std::nullopt), "NOT CONNECTED");
    EXPECT_EQ(HomeViewModel::usageValue(CLIInfo{true, false, 5, 1}), "NOT CONNECTED");
    EXPECT_EQ(HomeViewModel::usageValue(CLIInfo{true, true, 1200, 4}), "1200 TOKENS \u00B7 4 MSGS");
}

TEST(HomeUsage, ClaudePrefersItsProbeAndFallsBackToTheStatus) {
    const CLIStatusResponse status{CLIInfo{true, true, 900, 3}, CLIInfo{}};
    EXPECT_EQ(HomeViewModel::claudeUsageValue(status, std::nullopt), "900 TOKENS \u00B7 3 MSGS");
    EXPECT_EQ(HomeViewModel::claudeUsageValue(status, ClaudeUsage{"1.2M", "14"}),
              "1.2M TOKENS \u00B7 14 SESSIONS");
    EXPECT_EQ(HomeViewModel::claudeUsageValue(std::nullopt, ClaudeUsage{"1.2M", "14"}), "NOT CONNECTED");
    const CLIStatusResponse signedOut{CLIInfo{true, false, 0, 0}, CLIInfo{}};
    EXPECT_EQ(HomeViewModel::claudeUsageValue(signedOut, ClaudeUsage{"1.2M", "14"}), "NOT CONNECTED");
}

TEST(ItemVerdicts, OptionWordsMapToKindsAndTravelAsTheReply) {
    const QDateTime now(QDate(2026, 1, 1), QTime(0, 0), Qt::UTC);
    const Verdict reject = ItemViewModel::verdictForOption("Reject", now);
    EXPECT_EQ(reject.verdict, VerdictKind::reject);
    EXPECT_EQ(reject.reply, QString("Reject"));
    EXPECT_EQ(reject.source, "desktop");
    EXPECT_EQ(reject.decidedAt, now);
    EXPECT_EQ(ItemViewModel::verdictForOption("REJECT", now).verdict, VerdictKind::reject);
    EXPECT_EQ(ItemViewModel::verdictForOption("approve", now).verdict, VerdictKind::approve);
    const Verdict billing = ItemViewModel::verdictForOption("Billing", now);
    EXPECT_EQ(billing.verdict, VerdictKind::reply);
    EXPECT_EQ(billing.reply, QString("Billing"));
}

TEST(ItemActionLine, ToolkitSlugAndFallback) {
    Interrupt i;
    i.actionSlug = "GITHUB_DELETE_A_REFERENCE";
    EXPECT_EQ(ItemViewModel::actionLine(i), "GITHUB_DELETE_A_REFERENCE");
    i.actionToolkit = "";
    EXPECT_EQ(ItemViewModel::actionLine(i), "GITHUB_DELETE_A_REFERENCE");
    i.actionToolkit = "github";
    EXPECT_EQ(ItemViewModel::actionLine(i), "github \u00B7 GITHUB_DELETE_A_REFERENCE");
    i.actionSlug.reset();
    EXPECT_EQ(ItemViewModel::actionLine(i), "github \u00B7 an external action");
}

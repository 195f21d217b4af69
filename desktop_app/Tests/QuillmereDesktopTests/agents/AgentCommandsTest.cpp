#include "QuillmereDesktop/agents/AgentCommands.h"
#include "QuillmereDesktop/agents/AgentRunStore.h"
#include "QuillmereDesktop/agents/Graphemes.h"
#include "QuillmereDesktop/common/LoginShell.h"

#include <gtest/gtest.h>

#include <QSet>

using namespace agentCommands;

TEST(AgentTypes, RawValuesInOrder) {
    QStringList agents, safeties, statuses;
    for (const auto& [value, raw] : wireCases(LocalAgent{}))
        agents << raw;
    for (const auto& [value, raw] : wireCases(AgentSafety{}))
        safeties << raw;
    for (const auto& [value, raw] : wireCases(AgentRunStatus{}))
        statuses << raw;
    EXPECT_EQ(agents, (QStringList{"claude", "codex", "api router"}));
    EXPECT_EQ(safeties, (QStringList{"plan only", "workspace edits"}));
    EXPECT_EQ(statuses,
              (QStringList{"starting", "running", "completed", "failed", "cancelling", "cancelled"}));
}

TEST(AgentTypes, ActiveStatusesTakeAPlace) {
    EXPECT_TRUE(isActive(AgentRunStatus::starting));
    EXPECT_TRUE(isActive(AgentRunStatus::running));
    EXPECT_TRUE(isActive(AgentRunStatus::cancelling));
    EXPECT_FALSE(isActive(AgentRunStatus::completed));
    EXPECT_FALSE(isActive(AgentRunStatus::failed));
    EXPECT_FALSE(isActive(AgentRunStatus::cancelled));
}

TEST(AgentTypes, TheRelayRunIdIsTheUpperCaseUuid) {
    AgentRun run;
    run.id = QUuid("{0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2f3}");
    EXPECT_EQ(run.relayRunId(), "0A1B2C3D-4E5F-6A7B-8C9D-AEBFC0D1E2F3");
}

TEST(AgentCommands, RunNames) {
    EXPECT_EQ(runName(LocalAgent::claude, AgentSafety::workspace), QString("claude \u00B7 workspace edits"));
    EXPECT_EQ(runName(LocalAgent::codex, AgentSafety::plan), QString("codex \u00B7 plan only"));
    EXPECT_EQ(runName(LocalAgent::api, AgentSafety::workspace), QString("api router \u00B7 plan only"));
}

TEST(AgentCommands, ShellLines) {
    EXPECT_EQ(command(LocalAgent::claude, AgentSafety::plan),
              "exec claude -p --output-format text --permission-mode plan");
    EXPECT_EQ(command(LocalAgent::claude, AgentSafety::workspace),
              "exec claude -p --output-format text --permission-mode acceptEdits");
    EXPECT_EQ(command(LocalAgent::codex, AgentSafety::plan),
              "exec codex exec --color never --sandbox read-only -");
    EXPECT_EQ(command(LocalAgent::codex, AgentSafety::workspace),
              "exec codex exec --color never --sandbox workspace-write -");
}

TEST(AgentCommandsDeathTest, TheAPILaneHasNoShellLine) {
    EXPECT_DEATH((void)command(LocalAgent::api, AgentSafety::plan), "no shell line");
}

TEST(AgentCommands, ProvidersAndSources) {
    EXPECT_EQ(provider(LocalAgent::claude), "anthropic-subscription");
    EXPECT_EQ(provider(LocalAgent::codex), "openai-subscription");
    EXPECT_EQ(sessionSource(LocalAgent::claude), "orchestrator:claude");
    EXPECT_EQ(sessionSource(LocalAgent::codex), "orchestrator:codex");
    EXPECT_EQ(sessionSource(LocalAgent::api), "orchestrator:api router");
}

TEST(AgentRunStoreLimits, Defaults) {
    EXPECT_EQ(AgentRunStore::maxConcurrentRuns, 4);
    EXPECT_EQ(AgentRunStoreConfig::defaultMaxCapturedCharacters, 2'000'000);
    EXPECT_EQ(AgentRunStore(AgentRunStoreConfig{}).maxCapturedCharacters(), 2'000'000);
    EXPECT_EQ(AgentRunStore::truncationMark, "\n[OUTPUT TRUNCATED]");
}

namespace {

loginShell::Sources sources(std::optional<QString> shell, std::optional<QString> database,
                            QSet<QString> executables) {
    loginShell::Sources s;
    s.shellVariable = std::move(shell);
    s.passwordDatabase = std::move(database);
    s.isExecutable = [executables](const QString& path) { return executables.contains(path); };
    return s;
}

} // namespace

TEST(LoginShell, SHELLComesFirstWhenItIsExecutable) {
    EXPECT_EQ(loginShell::choose(sources("/usr/bin/fish", "/bin/bash", {"/usr/bin/fish", "/bin/bash"})),
              "/usr/bin/fish");
}

TEST(LoginShell, AnUnusableOrMissingSHELLFallsBackToThePasswordDatabase) {
    EXPECT_EQ(loginShell::choose(sources("/home/me/notes.txt", "/bin/dash", {"/bin/dash", "/bin/bash"})),
              "/bin/dash");
    EXPECT_EQ(loginShell::choose(sources(std::nullopt, "/bin/dash", {"/bin/dash"})), "/bin/dash");
    EXPECT_EQ(loginShell::choose(sources("", "/bin/dash", {"/bin/dash"})), "/bin/dash");
}

TEST(LoginShell, ThenTheFixedShellsInOrder) {
    EXPECT_EQ(loginShell::choose(sources(std::nullopt, std::nullopt, {"/bin/zsh", "/bin/bash", "/bin/sh"})),
              "/bin/zsh");
    EXPECT_EQ(loginShell::choose(sources("/nope", "/usr/sbin/nologin-gone", {"/bin/bash", "/bin/sh"})),
              "/bin/bash");
    EXPECT_EQ(loginShell::choose(sources(std::nullopt, std::nullopt, {"/bin/sh"})), "/bin/sh");
    EXPECT_EQ(loginShell::choose(sources(std::nullopt, std::nullopt, {})), "/bin/sh");
}

TEST(LoginShell, OnlyAbsolutePathsToExecutableFilesAreUsable) {
    EXPECT_TRUE(loginShell::Sources::usableShell("/bin/sh"));
    EXPECT_FALSE(loginShell::Sources::usableShell("sh"));
    EXPECT_FALSE(loginShell::Sources::usableShell("/bin"));
    EXPECT_FALSE(loginShell::Sources::usableShell("/etc/passwd"));
    EXPECT_FALSE(loginShell::Sources::usableShell("/no/such/shell"));
}

TEST(Graphemes, CountsUserPerceivedCharacters) {
    EXPECT_EQ(graphemes::count(u""), 0);
    EXPECT_EQ(graphemes::count(u"abc"), 3);
    EXPECT_EQ(graphemes::count(u"e\u0301"), 1); // e and a combining accent
    EXPECT_EQ(graphemes::count(QString::fromUtf8("\xf0\x9f\x87\xba\xf0\x9f\x87\xb8")), 1); // a flag
    EXPECT_EQ(graphemes::count(QString::fromUtf8("\xf0\x9f\x91\xa8\xe2\x80\x8d\xf0\x9f\x91\xa9")), 1);
    EXPECT_EQ(graphemes::count(u"\r\n"), 1);
}

TEST(Graphemes, PrefixEnd) {
    EXPECT_EQ(graphemes::prefixEnd(u"abc", 3), std::nullopt);
    EXPECT_EQ(graphemes::prefixEnd(u"abc", 5), std::nullopt);
    EXPECT_EQ(graphemes::prefixEnd(u"abc", 2), 2);
    EXPECT_EQ(graphemes::prefixEnd(u"e\u0301x", 1), 2);
    const QString flags = QString::fromUtf8("\xf0\x9f\x87\xba\xf0\x9f\x87\xb8!");
    EXPECT_EQ(graphemes::prefixEnd(flags, 1), 4);
}

TEST(Graphemes, ATallyFollowsAGrowingTextAcrossJoinedCharacters) {
    graphemes::Tally tally;
    QString text;
    const auto grow = [&](const QString& piece) {
        text += piece;
        tally.update(text);
        return tally.count();
    };
    EXPECT_EQ(grow("ab"), 2);
    EXPECT_EQ(grow(QString(QChar(0x0301))), 2); // joins the b
    EXPECT_EQ(grow(QString::fromUtf8("\xf0\x9f\x87\xba")), 3);
    EXPECT_EQ(grow(QString::fromUtf8("\xf0\x9f\x87\xb8")), 3); // completes the flag
    EXPECT_EQ(grow(QString::fromUtf8("\xf0\x9f\x87\xba")), 4); // a new half flag
    EXPECT_EQ(grow("\r"), 5);
    EXPECT_EQ(grow("\n"), 5);
    EXPECT_EQ(tally.count(), graphemes::count(text));
}

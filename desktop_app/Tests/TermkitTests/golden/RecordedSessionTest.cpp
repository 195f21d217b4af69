// Recorded sessions of real programs: the bytes they wrote under a pseudo-terminal of fixed
// size (data/sessions/NAME-COLSxROWS.bin) and the screen they left (NAME-COLSxROWS.screen).
// Each expected screen was checked by eye and against a second emulator; running with
// TERMKIT_UPDATE_GOLDEN=1 rewrites them for review.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <regex>

#include "Termkit/engine/ScreenText.h"
#include "Termkit/engine/Terminal.h"

namespace termkit {
namespace {

const std::string kSessions = std::string(TERMKIT_TEST_DATA) + "/sessions";

struct Session {
    std::string name;
    int cols = 0;
    int rows = 0;
};

void PrintTo(const Session& s, std::ostream* os) {
    *os << s.name;
}

std::vector<Session> loadSessions() {
    std::vector<Session> out;
    const std::regex pattern(R"((.*)-(\d+)x(\d+))");
    for (const auto& entry : std::filesystem::directory_iterator(kSessions)) {
        if (entry.path().extension() != ".bin")
            continue;
        std::smatch m;
        const std::string stem = entry.path().stem().string();
        if (std::regex_match(stem, m, pattern))
            out.push_back({stem, std::stoi(m[2]), std::stoi(m[3])});
    }
    std::sort(out.begin(), out.end(), [](const Session& a, const Session& b) { return a.name < b.name; });
    return out;
}

std::vector<uint8_t> readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class Discard : public TerminalDelegate {
public:
    void send(Terminal&, std::span<const uint8_t>) override {}
};

std::string replay(const Session& s, const std::vector<uint8_t>& bytes, std::mt19937* chunking) {
    Discard host;
    TerminalOptions options;
    options.cols = s.cols;
    options.rows = s.rows;
    Terminal terminal(&host, options);
    terminal.setSilentLog(true);
    if (chunking == nullptr) {
        terminal.feed(bytes);
    } else {
        for (size_t at = 0; at < bytes.size();) {
            const size_t n = std::min<size_t>(1 + (*chunking)() % 97, bytes.size() - at);
            terminal.feed(std::span<const uint8_t>(bytes.data() + at, n));
            at += n;
        }
    }
    return dumpScreen(terminal, true);
}

class RecordedSessionTest : public ::testing::TestWithParam<Session> {};

TEST_P(RecordedSessionTest, LeavesTheExpectedScreen) {
    const Session& s = GetParam();
    const auto bytes = readBytes(kSessions + "/" + s.name + ".bin");
    ASSERT_FALSE(bytes.empty());
    const std::string actual = replay(s, bytes, nullptr);
    const std::string expectedPath = kSessions + "/" + s.name + ".screen";
    const char* update = std::getenv("TERMKIT_UPDATE_GOLDEN");
    if (update != nullptr && std::string(update) == "1") {
        std::ofstream(expectedPath, std::ios::binary) << actual;
        return;
    }
    const auto expected = readBytes(expectedPath);
    EXPECT_EQ(actual, std::string(expected.begin(), expected.end())) << s.name;
}

TEST_P(RecordedSessionTest, ChunkBoundariesDoNotMatter) {
    const Session& s = GetParam();
    const auto bytes = readBytes(kSessions + "/" + s.name + ".bin");
    const std::string whole = replay(s, bytes, nullptr);
    for (unsigned seed : {1u, 2u, 3u}) {
        std::mt19937 rng(seed);
        EXPECT_EQ(replay(s, bytes, &rng), whole) << s.name << " seed " << seed;
    }
}

std::string sessionName(const ::testing::TestParamInfo<Session>& info) {
    std::string name = info.param.name;
    for (char& c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c)))
            c = '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Sessions, RecordedSessionTest, ::testing::ValuesIn(loadSessions()), sessionName);

} // namespace
} // namespace termkit

// Runs every case of the scripts in data/scripts as its own test.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>

#include "TermkitTests/golden/GoldenScript.h"

namespace termkit::testing {
namespace {

const std::string kScripts = std::string(TERMKIT_TEST_DATA) + "/scripts";

bool updating() {
    const char* v = std::getenv("TERMKIT_UPDATE_GOLDEN");
    return v != nullptr && std::string(v) == "1";
}

// Rewrites one case's expected block in its script file.
void rewrite(const GoldenCase& c, const std::vector<std::string>& actual) {
    const std::string path = kScripts + "/" + c.file + ".script";
    std::vector<std::string> lines;
    {
        std::ifstream in(path);
        std::string line;
        while (std::getline(in, line))
            lines.push_back(line);
    }
    // The case may have moved if an earlier case of the file was rewritten: find it by name.
    int start = -1;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i] == "case " + c.name)
            start = static_cast<int>(i);
    }
    ASSERT_GE(start, 0);
    int end = start + 1;
    while (end < static_cast<int>(lines.size()) && lines[end].rfind("case ", 0) != 0)
        ++end;
    int expect = start;
    while (expect < end && lines[expect] != "expect")
        ++expect;
    std::vector<std::string> replaced(lines.begin(), lines.begin() + std::min(expect, end));
    replaced.push_back("expect");
    replaced.insert(replaced.end(), actual.begin(), actual.end());
    if (end < static_cast<int>(lines.size()))
        replaced.push_back("");
    replaced.insert(replaced.end(), lines.begin() + end, lines.end());
    std::ofstream out(path);
    for (const auto& line : replaced)
        out << line << "\n";
}

class GoldenScriptTest : public ::testing::TestWithParam<GoldenCase> {};

TEST_P(GoldenScriptTest, MatchesExpectedState) {
    const GoldenCase& c = GetParam();
    const std::vector<std::string> actual = runGoldenCase(c);
    if (updating()) {
        if (actual != c.expected)
            rewrite(c, actual);
        return;
    }
    ASSERT_GE(c.expectLine, 0) << "case without an expect block";
    std::string diff;
    for (size_t i = 0; i < std::max(actual.size(), c.expected.size()); ++i) {
        const std::string a = i < actual.size() ? actual[i] : "<none>";
        const std::string e = i < c.expected.size() ? c.expected[i] : "<none>";
        if (a != e)
            diff += "  line " + std::to_string(i) + "\n    expected: " + e + "\n    actual:   " + a + "\n";
    }
    EXPECT_TRUE(diff.empty()) << c.file << ".script case " << c.name << "\n" << diff;
}

std::string caseName(const ::testing::TestParamInfo<GoldenCase>& info) {
    std::string name = info.param.file + "_" + info.param.name;
    for (char& ch : name) {
        if (!std::isalnum(static_cast<unsigned char>(ch)))
            ch = '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Scripts, GoldenScriptTest, ::testing::ValuesIn(loadGoldenCases(kScripts)), caseName);

} // namespace
} // namespace termkit::testing

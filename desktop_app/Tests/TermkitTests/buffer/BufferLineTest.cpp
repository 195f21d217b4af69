#include "Termkit/buffer/BufferLine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <unordered_map>
#include <utility>

#include "Termkit/buffer/CharacterTable.h"
#include "Termkit/buffer/Log.h"

namespace termkit {
namespace {

CharData cell(char c) {
    CharData d;
    d.code = c;
    return d;
}

BufferLine lineOf(const std::string& s, int cols) {
    BufferLine line(cols, CharData::Null);
    for (size_t i = 0; i < s.size(); ++i)
        line.set(static_cast<int>(i), cell(s[i]));
    return line;
}

std::string textOf(const BufferLine& line) {
    CharacterTable table;
    return line.translateToString(false, 0, line.count(), false, table);
}

TEST(BufferLineTest, CellIsATwelveByteRecordAndNullIsEmpty) {
    EXPECT_EQ(sizeof(CharData), 12u);
    EXPECT_EQ(CharData::Null.code, 0);
    EXPECT_EQ(CharData::Null.width, 1);
    EXPECT_EQ(CharData::Null.payload, 0);
    EXPECT_EQ(CharData::Null.attribute, AttributeTable::kEmpty);
    EXPECT_TRUE(CharData::Null.isUntouchedBlank());
}

TEST(BufferLineTest, OutOfRangeIndexIsLoggedAndUsesTheLastColumn) {
    std::vector<std::string> logged;
    auto previous = setLogSink([&](std::string_view l) { logged.emplace_back(l); });
    BufferLine line = lineOf("abc", 3);
    EXPECT_EQ(line[7].code, 'c');
    line.set(9, cell('z'));
    setLogSink(previous);
    EXPECT_EQ(textOf(line), "abz");
    ASSERT_EQ(logged.size(), 2u);
    EXPECT_EQ(logged[0], "Info: BufferLine: You passed an index out of range, adjusting to prevent crash, "
                         "but you should debug");
}

TEST(BufferLineTest, InsertAndDeleteCellsStopAtTheRightMargin) {
    BufferLine line = lineOf("abcdef", 6);
    line.insertCells(1, 2, 3, cell('.'));
    EXPECT_EQ(textOf(line), "a..bef");
    line = lineOf("abcdef", 6);
    line.deleteCells(1, 2, 4, cell('.'));
    EXPECT_EQ(textOf(line), "ade..f");
    line = lineOf("abcdef", 6);
    line.insertCells(2, 10, 5, cell('.'));
    EXPECT_EQ(textOf(line), "ab....");
}

TEST(BufferLineTest, CopyFromHandlesOverlap) {
    BufferLine line = lineOf("abcdef", 6);
    line.copyFrom(line, 0, 2, 4);
    EXPECT_EQ(textOf(line), "ababcd");
    line = lineOf("abcdef", 6);
    line.copyFrom(line, 2, 0, 4);
    EXPECT_EQ(textOf(line), "cdefef");
}

TEST(BufferLineTest, TrimmedLengthCountsTheWidthOfTheLastCharacter) {
    BufferLine line(6, CharData::Null);
    EXPECT_EQ(line.getTrimmedLength(), 0);
    EXPECT_FALSE(line.hasAnyContent());
    CharData wide;
    wide.code = 0x4E16;
    wide.width = 2;
    line.set(2, wide);
    CharData half;
    half.width = 0;
    line.set(3, half);
    EXPECT_EQ(line.getTrimmedLength(), 4);
    EXPECT_TRUE(line.hasContent(2));
    EXPECT_FALSE(line.hasContent(3));
    CharacterTable table;
    EXPECT_EQ(line.translateToString(true, 0, 6, true, table), "  \xe4\xb8\x96");
    EXPECT_EQ(line.translateToString(false, 0, 6, true, table), "  \xe4\xb8\x96  ");
    EXPECT_EQ(line.translateToString(true, 0, 6, false, table), "  \xe4\xb8\x96 ");
}

TEST(BufferLineTest, EveryChangeBumpsTheGeneration) {
    BufferLine line(4, CharData::Null);
    uint64_t g = line.generation();
    line.set(0, cell('x'));
    EXPECT_GT(line.generation(), g);
    g = line.generation();
    line.replaceCells(0, 2, CharData::Null);
    EXPECT_GT(line.generation(), g);
    g = line.generation();
    line.resize(8, CharData::Null);
    EXPECT_GT(line.generation(), g);
    EXPECT_EQ(line.count(), 8);
}

TEST(BufferLineTest, ClearEmptiesWithTheAttributeAndUnwraps) {
    BufferLine line = lineOf("ab", 3);
    line.setWrapped(true);
    line.clear(7);
    EXPECT_FALSE(line.isWrapped());
    EXPECT_EQ(line[0].attribute, 7u);
    EXPECT_EQ(line[0].code, 0);
}

TEST(BufferLineTest, SemanticMarksShiftClampAndGo) {
    BufferLine line(10, CharData::Null);
    line.setSemanticMark({1, 2, 7});
    line.setSemanticMark({2, 8, 7});
    line.marksShift(3);
    ASSERT_EQ(line.semanticMarks().size(), 1u);
    EXPECT_EQ(line.semanticMarks()[0].column, 5);
    line.setSemanticMark({1, 9, 7});
    line.marksClampTo(6);
    EXPECT_EQ(line.semanticMarks()[1].column, 5);
    line.destroySemanticState();
    EXPECT_TRUE(line.semanticMarks().empty());
}

TEST(CharacterTableTest, CodesForClustersAndBack) {
    CharacterTable table;
    EXPECT_EQ(table.code(std::string_view("a")), 'a');
    EXPECT_EQ(table.code(std::string_view("\xe4\xb8\x96")), 0x4E16);
    EXPECT_EQ(table.code(std::string_view("\r\n")), 10);
    const int32_t flag = table.code(std::string_view("\xf0\x9f\x87\xa9\xf0\x9f\x87\xaa"));
    EXPECT_EQ(flag, CharacterTable::kFirstIndex);
    EXPECT_EQ(table.code(std::string_view("\xf0\x9f\x87\xa9\xf0\x9f\x87\xaa")), flag);
    const int32_t emoji = table.code(U'\U0001F600');
    EXPECT_EQ(emoji, CharacterTable::kFirstIndex + 1);
    EXPECT_EQ(table.code(std::string_view("\xf0\x9f\x98\x80")), emoji);
    EXPECT_EQ(table.character(emoji), "\xf0\x9f\x98\x80");
    EXPECT_EQ(table.character(0x41), "A");
    EXPECT_EQ(table.character(0x1F600), "\xf0\x9f\x98\x80");
    EXPECT_EQ(table.character(0xD800), " ");
    EXPECT_EQ(table.character(0x300000), " ");
    EXPECT_EQ(table.character(CharacterTable::kFirstIndex + 99), " ");
}

// Clusters of every short length that differ in a single byte, wherever it is: the compare
// of short clusters reads them in overlapping words, and no byte may be left out.
TEST(CharacterTableTest, ClustersThatDifferInOneByteAtAnyPlaceGetTheirOwnCodes) {
    CharacterTable table;
    std::unordered_map<std::string, int32_t> codes;
    for (size_t length = 2; length <= 24; ++length) {
        const std::string base(length, 'm');
        codes.emplace(base, table.code(std::string_view(base)));
        for (size_t at = 0; at < length; ++at) {
            std::string changed = base;
            changed[at] = 'n';
            codes.emplace(changed, table.code(std::string_view(changed)));
        }
    }
    std::set<int32_t> distinct;
    for (const auto& [cluster, code] : codes) {
        ASSERT_EQ(table.code(std::string_view(cluster)), code) << cluster;
        ASSERT_EQ(table.character(code), cluster);
        distinct.insert(code);
    }
    EXPECT_EQ(distinct.size(), codes.size());
    EXPECT_EQ(table.size(), codes.size());
}

// Many clusters that differ in a byte or in length, long ones beyond the short compare and
// enough of them to grow the index several times: every one keeps its first code.
TEST(CharacterTableTest, EveryClusterKeepsItsCodeAcrossGrowth) {
    CharacterTable table;
    std::vector<std::string> clusters;
    for (int i = 0; i < 60000; ++i) {
        std::string c = "a";
        for (int k = 0; k <= i % 11; ++k)
            appendUtf8(static_cast<char32_t>(0x300 + (i / (k + 1)) % 0x70), c);
        if (i % 97 == 0)
            c += std::string(40 + i % 30, 'x'); // long clusters take the arena compare
        clusters.push_back(std::move(c));
    }
    std::vector<int32_t> codes;
    std::unordered_map<std::string, int32_t> first;
    for (const std::string& c : clusters) {
        const int32_t code = table.code(std::string_view(c));
        const auto [it, fresh] = first.emplace(c, code);
        if (fresh) {
            EXPECT_EQ(code, table.lastCharIndex() - 1);
        } else {
            ASSERT_EQ(code, it->second) << c;
        }
        codes.push_back(code);
    }
    EXPECT_EQ(table.size(), first.size());
    EXPECT_GT(first.size(), 20000u);
    for (size_t i = 0; i < clusters.size(); ++i) {
        ASSERT_EQ(table.code(std::string_view(clusters[i])), codes[i]);
        ASSERT_EQ(table.character(codes[i]), clusters[i]);
    }
    // A prefix or an extension of a stored cluster is a cluster of its own.
    const std::string& some = clusters[12345];
    EXPECT_NE(table.code(std::string_view(some).substr(0, some.size() - 2)), codes[12345]);
    const int32_t longer = table.code(std::string_view(some + "\xcc\x81"));
    EXPECT_EQ(longer, table.lastCharIndex() - 1);
}

// The print path looks up a character and its marks with clusterCode, other paths with
// code: whichever comes first, a cluster gets one code, and every one is counted as a
// cluster of more than one scalar.
TEST(CharacterTableTest, ClusterCodeAndCodeGiveAClusterTheSameCode) {
    CharacterTable table;
    std::unordered_map<std::string, int32_t> first;
    size_t calls = 0;
    for (int i = 0; i < 20000; ++i) {
        std::string c;
        appendUtf8(static_cast<char32_t>(i % 3 == 0 ? 'a' + i % 26 : 0x430 + i % 32), c);
        for (int k = 0; k <= i % 9; ++k)
            appendUtf8(static_cast<char32_t>(0x300 + (i / (k + 1) + k) % 0x70), c);
        // Each cluster twice, through one call and then the other, in turns.
        for (int twice = 0; twice < 2; ++twice) {
            const bool viaCluster = (i + twice) % 2 == 0;
            const int32_t code =
                viaCluster ? table.clusterCode(std::string_view(c)) : table.code(std::string_view(c));
            ++calls;
            const auto [it, fresh] = first.emplace(c, code);
            if (!fresh) {
                ASSERT_EQ(code, it->second) << i;
            }
            ASSERT_EQ(table.character(code), c);
        }
    }
    EXPECT_EQ(calls, 40000u);
    EXPECT_GT(first.size(), 5000u); // enough to grow the index a few times
    EXPECT_EQ(table.size(), first.size());
    EXPECT_EQ(table.multiScalarCount(), first.size());
    // A scalar beyond the basic plane is stored too, but is no cluster of several scalars.
    table.code(U'\U0001F600');
    EXPECT_EQ(table.size(), first.size() + 1);
    EXPECT_EQ(table.multiScalarCount(), first.size());
}

} // namespace
} // namespace termkit

namespace termkit {
namespace {

// Every operation, checked against a plain model in which clearing touches every cell: the
// line's shortcut of clearing only as far as it was written must never show stale cells.
TEST(BufferLineTest, ClearingOnlyTheWrittenPartMatchesAFullClear) {
    std::mt19937 rng(7);
    BufferLine line(20, CharData::Null);
    std::vector<CharData> model(20, CharData::Null);
    auto randomCell = [&](bool allowNull) {
        CharData c;
        if (allowNull && rng() % 3 == 0)
            return CharData::Null;
        c.code = 'a' + static_cast<int>(rng() % 26);
        c.attribute = rng() % 4 == 0 ? 3u : 0u;
        return c;
    };
    for (int step = 0; step < 20000; ++step) {
        const int a = static_cast<int>(rng() % 20);
        const int b = static_cast<int>(rng() % 21);
        switch (rng() % 12) {
        case 0: {
            const CharData c = randomCell(true);
            line.set(a, c);
            model[a] = c;
            break;
        }
        case 1: {
            const AttributeId attr = rng() % 3 == 0 ? 5u : 0u;
            line.clear(attr);
            std::fill(model.begin(), model.end(), CharData::Null.withAttribute(attr));
            break;
        }
        case 2: {
            const CharData c = randomCell(true);
            line.replaceCells(std::min(a, b), std::max(a, b), c);
            std::fill(model.begin() + std::min(a, b), model.begin() + std::max(a, b), c);
            break;
        }
        case 3: {
            const int end = std::min(20, a + 1 + static_cast<int>(rng() % 5));
            CharData* cells = line.cellsForWrite(end);
            for (int i = a; i < end; ++i)
                cells[i] = model[i] = randomCell(false);
            break;
        }
        case 4: {
            const CharData c = randomCell(true);
            // Moves are checked elsewhere; here only the clean mark matters, so the model follows.
            line.insertCells(a, 1 + static_cast<int>(rng() % 3), b == 20 ? 19 : b, c);
            model.assign(std::as_const(line).cells(), std::as_const(line).cells() + 20);
            break;
        }
        case 5: {
            line.deleteCells(a, 1 + static_cast<int>(rng() % 3), 19, CharData::Null);
            model.assign(std::as_const(line).cells(), std::as_const(line).cells() + 20);
            break;
        }
        case 6: {
            line.copyFrom(line, a, std::min(b, 19), 1 + static_cast<int>(rng() % 4));
            model.assign(std::as_const(line).cells(), std::as_const(line).cells() + 20);
            break;
        }
        case 7: {
            line.fill(rng() % 2 ? CharData::Null : randomCell(false));
            model.assign(std::as_const(line).cells(), std::as_const(line).cells() + 20);
            break;
        }
        case 8:
        case 9: {
            // The print path's write of a whole range, which may leave a lazy clear's leftovers
            // after it.
            const int begin = std::min(a, b);
            const int end = std::max(a, b);
            CharData* cells = line.cellsForRangeWrite(begin, end);
            for (int i = begin; i < end; ++i)
                cells[i] = model[i] = randomCell(false);
            break;
        }
        case 10: {
            // A copy, and what reads a line without indexing it.
            const BufferLine copy(line);
            line = copy;
            const bool any =
                std::any_of(model.begin(), model.end(), [](const CharData& c) { return c.code != 0; });
            ASSERT_EQ(line.hasAnyContent(), any) << "step " << step;
            std::string text;
            for (const CharData& c : model)
                text += c.code == 0 ? ' ' : static_cast<char>(c.code);
            ASSERT_EQ(textOf(line), text) << "step " << step;
            break;
        }
        default: {
            line.resize(10 + static_cast<int>(rng() % 11), CharData::Null);
            line.resize(20, CharData::Null);
            model.assign(std::as_const(line).cells(), std::as_const(line).cells() + 20);
            break;
        }
        }
        // Reading settles a lazy clear, so most steps leave the line unread.
        if (rng() % 4 != 0 && step != 19999)
            continue;
        // After any operation, every cell from the clean mark on must be empty.
        for (int i = line.cleanFrom(); i < line.count(); ++i)
            ASSERT_EQ(line[i], CharData::Null) << "step " << step;
        for (int i = 0; i < 20; ++i)
            ASSERT_EQ(line[i], model[i]) << "step " << step << " col " << i;
    }
}

} // namespace
} // namespace termkit

#include "Termkit/buffer/CircularBufferLineList.h"

#include <gtest/gtest.h>

namespace termkit {
namespace {

std::unique_ptr<BufferLine> lineWith(int code) {
    CharData c;
    c.code = code;
    return std::make_unique<BufferLine>(2, c);
}

int first(CircularBufferLineList& list, int i) {
    return list[i][0].code;
}

class RingTest : public ::testing::Test {
protected:
    CircularBufferLineList ring{3};
    int made = 0;
    int recycledWithImages = 0;
    void SetUp() override {
        ring.makeEmpty = [this] {
            ++made;
            return lineWith(0);
        };
        ring.onLineRecycled = [this](bool hadImages) { recycledWithImages += hadImages ? 1 : 0; };
    }
};

TEST_F(RingTest, EmptySlotsAreMadeOnFirstRead) {
    ring.push(nullptr);
    EXPECT_EQ(ring.peek(0), nullptr);
    EXPECT_EQ(made, 0);
    EXPECT_EQ(first(ring, 0), 0);
    EXPECT_EQ(made, 1);
    EXPECT_NE(ring.peek(0), nullptr);
}

TEST_F(RingTest, PushOnAFullRingDropsTheOldest) {
    for (int i = 1; i <= 4; ++i)
        ring.push(lineWith(i));
    EXPECT_EQ(ring.count(), 3);
    EXPECT_EQ(first(ring, 0), 2);
    EXPECT_EQ(first(ring, 2), 4);
}

TEST_F(RingTest, RecycleReusesTheOldestLineAsTheNewestCleared) {
    for (int i = 1; i <= 3; ++i)
        ring.push(lineWith(i));
    BufferLine* oldest = ring.peek(0);
    oldest->setWrapped(true);
    oldest->attach(TerminalImage{});
    const uint64_t generation = oldest->recycleGeneration();
    BufferLine& line = ring.recycle(4);
    EXPECT_EQ(&line, oldest);
    EXPECT_EQ(ring.peek(2), oldest);
    EXPECT_FALSE(line.isWrapped());
    EXPECT_EQ(line[0].code, 0);
    EXPECT_EQ(line[0].attribute, 4u);
    EXPECT_EQ(line.recycleGeneration(), generation + 1);
    EXPECT_EQ(recycledWithImages, 1);
    EXPECT_EQ(first(ring, 0), 2);
}

TEST_F(RingTest, RecycleOnARingThatIsNotFullAborts) {
    ring.push(lineWith(1));
    EXPECT_DEATH(ring.recycle(0), "recycle can only be called on a full line list");
}

TEST_F(RingTest, SetMaxLengthKeepsTheFirstLines) {
    for (int i = 1; i <= 3; ++i)
        ring.push(lineWith(i));
    ring.push(lineWith(4));
    ring.setMaxLength(5);
    EXPECT_EQ(ring.startIndex(), 0);
    EXPECT_EQ(ring.count(), 3);
    EXPECT_EQ(first(ring, 0), 2);
    ring.setMaxLength(2);
    EXPECT_EQ(ring.count(), 2);
    EXPECT_EQ(first(ring, 1), 3);
}

TEST_F(RingTest, SpliceAndRotateMoveLines) {
    CircularBufferLineList big(5);
    big.makeEmpty = [] { return lineWith(0); };
    for (int i = 1; i <= 4; ++i)
        big.push(lineWith(i));
    std::vector<CircularBufferLineList::LinePtr> items;
    items.push_back(lineWith(9));
    items.push_back(lineWith(8));
    EXPECT_EQ(big.splice(1, 1, std::move(items)), 0);
    EXPECT_EQ(big.count(), 5);
    EXPECT_EQ(first(big, 1), 9);
    EXPECT_EQ(first(big, 2), 8);
    EXPECT_EQ(first(big, 3), 3);
    big.rotate(0, 4);
    EXPECT_EQ(first(big, 4), 1);
    EXPECT_EQ(first(big, 0), 9);
    std::vector<CircularBufferLineList::LinePtr> more;
    more.push_back(lineWith(7));
    EXPECT_EQ(big.splice(0, 0, std::move(more)), 1);
}

TEST_F(RingTest, ShiftElementsChecksItsArguments) {
    for (int i = 1; i <= 3; ++i)
        ring.push(lineWith(i));
    ring.shiftElements(1, 2, -1);
    EXPECT_EQ(first(ring, 0), 2);
    EXPECT_EQ(first(ring, 1), 3);
    EXPECT_DEATH(ring.shiftElements(-1, 1, 0), "start < 0");
    EXPECT_DEATH(ring.shiftElements(5, 1, 0), "start >= self.count");
    EXPECT_DEATH(ring.shiftElements(0, 1, -1), "start\\+offset <= 0");
}

} // namespace
} // namespace termkit

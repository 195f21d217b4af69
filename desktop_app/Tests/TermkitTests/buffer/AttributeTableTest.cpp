#include "Termkit/buffer/AttributeTable.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

#include "Termkit/buffer/TinyAtom.h"

namespace termkit {
namespace {

Attribute colour(int i) {
    Attribute a;
    a.fg = Attribute::Color::trueColor(static_cast<uint8_t>(i), static_cast<uint8_t>(i >> 8),
                                       static_cast<uint8_t>(i >> 16));
    return a;
}

TEST(AttributeTableTest, EmptyAttributeIsIdZeroAndEqualAttributesShareAnId) {
    AttributeTable t;
    EXPECT_EQ(t.intern(kEmptyAttribute), AttributeTable::kEmpty);
    Attribute bold;
    bold.style.insert(CharacterStyle::bold);
    const AttributeId a = t.intern(bold);
    EXPECT_NE(a, AttributeTable::kEmpty);
    EXPECT_EQ(t.intern(colour(3)), t.intern(colour(3)));
    EXPECT_EQ(t.intern(bold), a);
    EXPECT_EQ(t[a], bold);
    Attribute underlined = bold;
    underlined.underlineColor = Attribute::Color::ansi256(3);
    EXPECT_NE(t.intern(underlined), a);
}

TEST(AttributeTableTest, CollectionFreesIdsNoCellUses) {
    AttributeTable t;
    std::set<AttributeId> kept;
    t.setMarker([&](const std::function<void(AttributeId)>& mark) {
        for (AttributeId id : kept)
            mark(id);
    });
    const AttributeId keep = t.intern(colour(1));
    kept.insert(keep);
    for (int i = 2; i < 1000; ++i)
        t.intern(colour(i));
    EXPECT_EQ(t.liveCount(), 1000u);
    t.collectGarbage();
    EXPECT_EQ(t.liveCount(), 2u);
    EXPECT_EQ(t[keep], colour(1));
    EXPECT_EQ(t.intern(colour(1)), keep);
    // Freed ids are handed out again.
    const AttributeId reused = t.intern(colour(5000));
    EXPECT_LT(reused, 1000u);
}

TEST(AttributeTableTest, EndlessNewColoursStayBoundedWhenOldOnesAreUnused) {
    AttributeTable t;
    AttributeId current = 0;
    t.setMarker([&](const std::function<void(AttributeId)>& mark) { mark(current); });
    for (int i = 1; i < 300000; ++i)
        current = t.intern(colour(i));
    EXPECT_LE(t.capacity(), AttributeTable::kInitialCollectThreshold + 1);
    EXPECT_EQ(t[current], colour(299999));
}

TEST(AttributeTest, ToSgrUsesTheLongColourForms) {
    Attribute a;
    EXPECT_EQ(a.toSgr(), "0");
    a.style.insert(CharacterStyle::bold);
    a.style.insert(CharacterStyle::inverse);
    a.underlineStyle = UnderlineStyle::curly;
    a.fg = Attribute::Color::ansi256(1);
    a.bg = Attribute::Color::trueColor(1, 2, 3);
    a.underlineColor = Attribute::Color::ansi256(200);
    EXPECT_EQ(a.toSgr(), "0;1;4:3;7;38;5;1;48;2;1;2;3;58;5;200");
}

TEST(TinyAtomTest, HandsOutHandlesAndReleasesValues) {
    TinyAtomTable table;
    const auto a = table.lookup(std::string("https://example.com"));
    ASSERT_TRUE(a.has_value());
    EXPECT_NE(a->code, 0);
    EXPECT_EQ(std::any_cast<std::string>(table.target(a->code)), "https://example.com");
    const auto b = table.lookup(std::string("x"));
    ASSERT_TRUE(b.has_value());
    EXPECT_EQ(b->code, a->code + 1);
    const uint16_t codes[] = {a->code};
    table.release(codes);
    EXPECT_FALSE(table.target(a->code).has_value());
    EXPECT_TRUE(table.target(b->code).has_value());
    // Another table is another set of handles.
    TinyAtomTable other;
    EXPECT_FALSE(other.target(b->code).has_value());
    EXPECT_EQ(other.lookup(1)->code, 1);
}

TEST(TinyAtomTest, FailsOnceTheCounterWouldPass65534) {
    TinyAtomTable table;
    EXPECT_EQ(table.capacity(), 65534);
    while (table.issuedCount() < TinyAtom::kMaxCode)
        ASSERT_TRUE(table.lookup(1));
    EXPECT_FALSE(table.lookup(1));
    // Freed handles are not handed out again: the counter never goes back.
    const uint16_t codes[] = {1, 2};
    table.release(codes);
    EXPECT_FALSE(table.lookup(1));
    EXPECT_EQ(table.issuedCount(), 65534u);
}

} // namespace
} // namespace termkit

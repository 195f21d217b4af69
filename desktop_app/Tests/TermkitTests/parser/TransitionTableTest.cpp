#include "Termkit/parser/TransitionTable.h"

#include <gtest/gtest.h>

#include <thread>

namespace termkit {
namespace {

using S = ParserState;
using A = ParserAction;

struct Entry {
    A action;
    S next;
};

Entry lookup(S state, uint8_t code) {
    const uint8_t e = sharedVt500Table().at(state, code);
    return {static_cast<A>(e >> 4), static_cast<S>(e & 15)};
}

void expectEntry(S state, uint8_t code, A action, S next) {
    const Entry e = lookup(state, code);
    EXPECT_EQ(e.action, action) << "state " << parserStateName(state) << " byte " << int(code);
    EXPECT_EQ(e.next, next) << "state " << parserStateName(state) << " byte " << int(code);
}

TEST(TransitionTableTest, HoldsOneByteForEveryStateAndClampedByte) {
    EXPECT_EQ(TransitionTable::kSize, 4095);
    EXPECT_EQ(sharedVt500Table().table.size(), 4095u);
}

TEST(TransitionTableTest, TheSharedTableIsTheVt500TableBuiltOncePerProcess) {
    // Every parser reads the shared table, so it must hold exactly what the builder makes.
    const TransitionTable built = buildVt500TransitionTable();
    EXPECT_EQ(sharedVt500Table().table, built.table);
    // Parsers on other threads (the process layer's) share the same object, not a copy.
    const TransitionTable* seenElsewhere = nullptr;
    std::thread([&] { seenElsewhere = &sharedVt500Table(); }).join();
    EXPECT_EQ(seenElsewhere, &sharedVt500Table());
}

TEST(TransitionTableTest, EntryPacksActionAboveNextState) {
    TransitionTable t;
    t.add(0x41, S::csiParam, A::csiDispatch, S::ground);
    EXPECT_EQ(t.table[4 << 8 | 0x41], (7 << 4) | 0);
}

TEST(TransitionTableTest, GroundPrintsAndExecutes) {
    expectEntry(S::ground, 'a', A::print, S::ground);
    expectEntry(S::ground, '\n', A::execute, S::ground);
    expectEntry(S::ground, 0x1B, A::clear, S::escape);
    expectEntry(S::ground, 0x9B, A::clear, S::csiEntry);
}

TEST(TransitionTableTest, EmIsAnErrorWhereNoRuleNamesItAndCanIsExecuted) {
    for (S s : {S::ground, S::escape, S::csiParam, S::csiEntry}) {
        expectEntry(s, 0x19, A::error, S::ground);
    }
    expectEntry(S::csiParam, 0x18, A::execute, S::csiParam);
    expectEntry(S::csiParam, 0x1A, A::execute, S::ground);
    expectEntry(S::dcsPassthrough, 0x18, A::dcsPut, S::dcsPassthrough);
    expectEntry(S::dcsPassthrough, 0x1A, A::execute, S::ground);
}

TEST(TransitionTableTest, C1IntroducersWorkFromEveryState) {
    for (int s = 0; s < kParserStateCount; ++s) {
        const auto state = static_cast<S>(s);
        if (state != S::oscString && state != S::apcString && state != S::dcsPassthrough &&
            state != S::sosPmApcString) {
            expectEntry(state, 0x9C, A::ignore, S::ground);
        }
        expectEntry(state, 0x9D, A::oscStart, S::oscString);
        expectEntry(state, 0x9F, A::oscStart, S::apcString);
        expectEntry(state, 0x90, A::clear, S::dcsEntry);
        expectEntry(state, 0x98, A::ignore, S::sosPmApcString);
        expectEntry(state, 0x85, A::execute, S::ground);
    }
}

TEST(TransitionTableTest, EscapeRules) {
    expectEntry(S::escape, ']', A::oscStart, S::oscString);
    expectEntry(S::escape, '_', A::oscStart, S::apcString);
    expectEntry(S::escape, 'X', A::ignore, S::sosPmApcString);
    expectEntry(S::escape, '^', A::ignore, S::sosPmApcString);
    expectEntry(S::escape, '[', A::clear, S::csiEntry);
    expectEntry(S::escape, 'P', A::clear, S::dcsEntry);
    expectEntry(S::escape, '(', A::collect, S::escapeIntermediate);
    expectEntry(S::escape, '7', A::escDispatch, S::ground);
    expectEntry(S::escape, '\\', A::escDispatch, S::ground);
    expectEntry(S::escape, 0x7F, A::ignore, S::escape);
    expectEntry(S::escapeIntermediate, 'B', A::escDispatch, S::ground);
    expectEntry(S::escapeIntermediate, '#', A::collect, S::escapeIntermediate);
}

TEST(TransitionTableTest, StringRules) {
    for (S s : {S::oscString, S::apcString}) {
        expectEntry(s, 'x', A::oscPut, s);
        expectEntry(s, 0x7F, A::oscPut, s);
        expectEntry(s, 0xA0, A::oscPut, s);
        expectEntry(s, 0x07, A::oscEnd, S::ground);
        expectEntry(s, 0x18, A::oscEnd, S::ground);
        expectEntry(s, 0x1A, A::oscEnd, S::ground);
        expectEntry(s, 0x1B, A::oscEnd, S::ground);
        expectEntry(s, 0x9C, A::oscEnd, S::ground);
        expectEntry(s, 0x01, A::ignore, s);
    }
    expectEntry(S::sosPmApcString, 'x', A::ignore, S::sosPmApcString);
    expectEntry(S::sosPmApcString, 0x9C, A::ignore, S::ground);
}

TEST(TransitionTableTest, CsiRules) {
    expectEntry(S::csiEntry, 'm', A::csiDispatch, S::ground);
    expectEntry(S::csiEntry, '1', A::param, S::csiParam);
    expectEntry(S::csiEntry, ';', A::param, S::csiParam);
    expectEntry(S::csiEntry, ':', A::error, S::ground);
    expectEntry(S::csiEntry, '?', A::collect, S::csiParam);
    expectEntry(S::csiEntry, ' ', A::collect, S::csiIntermediate);
    expectEntry(S::csiParam, ':', A::param, S::csiParam);
    expectEntry(S::csiParam, '?', A::ignore, S::csiIgnore);
    expectEntry(S::csiParam, '$', A::collect, S::csiIntermediate);
    expectEntry(S::csiIntermediate, '1', A::ignore, S::csiIgnore);
    expectEntry(S::csiIntermediate, 'p', A::csiDispatch, S::ground);
    expectEntry(S::csiIgnore, 'm', A::ignore, S::ground);
    expectEntry(S::csiIgnore, 0x7F, A::ignore, S::csiIgnore);
}

TEST(TransitionTableTest, DcsRules) {
    expectEntry(S::dcsEntry, '$', A::collect, S::dcsIntermediate);
    expectEntry(S::dcsEntry, '1', A::param, S::dcsParam);
    expectEntry(S::dcsEntry, ':', A::ignore, S::dcsIgnore);
    expectEntry(S::dcsEntry, '>', A::collect, S::dcsParam);
    expectEntry(S::dcsEntry, 'q', A::dcsHook, S::dcsPassthrough);
    expectEntry(S::dcsParam, '>', A::ignore, S::dcsIgnore);
    expectEntry(S::dcsParam, '|', A::dcsHook, S::dcsPassthrough);
    expectEntry(S::dcsIntermediate, '0', A::ignore, S::dcsIgnore);
    expectEntry(S::dcsIgnore, 'x', A::ignore, S::dcsIgnore);
    expectEntry(S::dcsPassthrough, 'x', A::dcsPut, S::dcsPassthrough);
    expectEntry(S::dcsPassthrough, 0x7F, A::ignore, S::dcsPassthrough);
    expectEntry(S::dcsPassthrough, 0x1B, A::dcsUnhook, S::ground);
    expectEntry(S::dcsPassthrough, 0x9C, A::dcsUnhook, S::ground);
}

} // namespace
} // namespace termkit

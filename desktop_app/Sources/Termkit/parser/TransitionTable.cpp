#include "Termkit/parser/TransitionTable.h"

#include <initializer_list>

namespace termkit {

namespace {

using S = ParserState;
using A = ParserAction;

// C0 controls that are executed; CAN is in the set and EM is deliberately not, so EM
// stays an error wherever no later rule names it.
void forExec(const auto& fn) {
    for (int c = 0x00; c <= 0x18; ++c)
        fn(static_cast<uint8_t>(c));
    for (int c = 0x1C; c <= 0x1F; ++c)
        fn(static_cast<uint8_t>(c));
}

constexpr uint8_t kPrintFirst = 0x20;
constexpr uint8_t kPrintLast = 0x7E;

void addPrintRange(TransitionTable& t, S state, A action, S next) {
    t.addRange(kPrintFirst, kPrintLast, state, action, next);
}

void addExec(TransitionTable& t, S state, A action, S next) {
    forExec([&](uint8_t c) { t.add(c, state, action, next); });
}

void addAnywhereRules(TransitionTable& t) {
    for (int s = 0; s < kParserStateCount; ++s) {
        const auto state = static_cast<S>(s);
        for (uint8_t c : {0x18, 0x1A, 0x99, 0x9A})
            t.add(c, state, A::execute, S::ground);
        t.addRange(0x80, 0x8F, state, A::execute, S::ground);
        t.addRange(0x90, 0x97, state, A::execute, S::ground);
        t.add(0x9C, state, A::ignore, S::ground);
        t.add(0x1B, state, A::clear, S::escape);
        t.add(0x9D, state, A::oscStart, S::oscString);
        t.add(0x98, state, A::ignore, S::sosPmApcString);
        t.add(0x9E, state, A::ignore, S::sosPmApcString);
        t.add(0x9F, state, A::oscStart, S::apcString);
        t.add(0x9B, state, A::clear, S::csiEntry);
        t.add(0x90, state, A::clear, S::dcsEntry);
    }
}

void addExecuteRules(TransitionTable& t) {
    for (S state : {S::ground, S::escape, S::escapeIntermediate, S::csiEntry, S::csiParam, S::csiIntermediate,
                    S::csiIgnore}) {
        addExec(t, state, A::execute, state);
    }
    for (S state : {S::oscString, S::apcString})
        addExec(t, state, A::ignore, state);
    for (S state : {S::escape, S::escapeIntermediate, S::csiEntry, S::csiParam, S::csiIntermediate}) {
        t.add(0x7F, state, A::ignore, state);
    }
}

void addEscapeRules(TransitionTable& t) {
    t.add(0x5D, S::escape, A::oscStart, S::oscString);
    t.add(0x5F, S::escape, A::oscStart, S::apcString);
    t.add(0x58, S::escape, A::ignore, S::sosPmApcString);
    t.add(0x5E, S::escape, A::ignore, S::sosPmApcString);
    t.add(0x5B, S::escape, A::clear, S::csiEntry);
    t.add(0x50, S::escape, A::clear, S::dcsEntry);
    t.addRange(0x20, 0x2F, S::escape, A::collect, S::escapeIntermediate);
    t.addRange(0x30, 0x4F, S::escape, A::escDispatch, S::ground);
    t.addRange(0x51, 0x57, S::escape, A::escDispatch, S::ground);
    for (uint8_t c : {0x59, 0x5A, 0x5C})
        t.add(c, S::escape, A::escDispatch, S::ground);
    t.addRange(0x60, 0x7E, S::escape, A::escDispatch, S::ground);

    t.addRange(0x20, 0x2F, S::escapeIntermediate, A::collect, S::escapeIntermediate);
    t.addRange(0x30, 0x7E, S::escapeIntermediate, A::escDispatch, S::ground);
}

void addStringRules(TransitionTable& t) {
    for (S state : {S::oscString, S::apcString}) {
        addPrintRange(t, state, A::oscPut, state);
        t.add(0x7F, state, A::oscPut, state);
        t.add(0xA0, state, A::oscPut, state);
        for (uint8_t c : {0x07, 0x18, 0x1A, 0x1B, 0x9C})
            t.add(c, state, A::oscEnd, S::ground);
    }
    addExec(t, S::sosPmApcString, A::ignore, S::sosPmApcString);
    addPrintRange(t, S::sosPmApcString, A::ignore, S::sosPmApcString);
    t.add(0x7F, S::sosPmApcString, A::ignore, S::sosPmApcString);
    t.add(0x9C, S::sosPmApcString, A::ignore, S::ground);
}

void addCsiRules(TransitionTable& t) {
    // A colon directly after CSI stays an error on purpose: it is only valid after a digit.
    t.addRange(0x40, 0x7E, S::csiEntry, A::csiDispatch, S::ground);
    t.addRange(0x30, 0x39, S::csiEntry, A::param, S::csiParam);
    t.add(0x3B, S::csiEntry, A::param, S::csiParam);
    t.addRange(0x3C, 0x3F, S::csiEntry, A::collect, S::csiParam);
    t.addRange(0x20, 0x2F, S::csiEntry, A::collect, S::csiIntermediate);

    t.addRange(0x30, 0x3B, S::csiParam, A::param, S::csiParam);
    t.addRange(0x3C, 0x3F, S::csiParam, A::ignore, S::csiIgnore);
    t.addRange(0x20, 0x2F, S::csiParam, A::collect, S::csiIntermediate);
    t.addRange(0x40, 0x7E, S::csiParam, A::csiDispatch, S::ground);

    t.addRange(0x20, 0x2F, S::csiIntermediate, A::collect, S::csiIntermediate);
    t.addRange(0x30, 0x3F, S::csiIntermediate, A::ignore, S::csiIgnore);
    t.addRange(0x40, 0x7E, S::csiIntermediate, A::csiDispatch, S::ground);

    t.addRange(0x20, 0x3F, S::csiIgnore, A::ignore, S::csiIgnore);
    t.add(0x7F, S::csiIgnore, A::ignore, S::csiIgnore);
    t.addRange(0x40, 0x7E, S::csiIgnore, A::ignore, S::ground);
}

void addDcsRules(TransitionTable& t) {
    addExec(t, S::dcsEntry, A::ignore, S::dcsEntry);
    t.add(0x7F, S::dcsEntry, A::ignore, S::dcsEntry);
    t.addRange(0x20, 0x2F, S::dcsEntry, A::collect, S::dcsIntermediate);
    t.addRange(0x30, 0x39, S::dcsEntry, A::param, S::dcsParam);
    t.add(0x3B, S::dcsEntry, A::param, S::dcsParam);
    t.add(0x3A, S::dcsEntry, A::ignore, S::dcsIgnore);
    t.addRange(0x3C, 0x3F, S::dcsEntry, A::collect, S::dcsParam);
    t.addRange(0x40, 0x7E, S::dcsEntry, A::dcsHook, S::dcsPassthrough);

    addExec(t, S::dcsParam, A::ignore, S::dcsParam);
    t.add(0x7F, S::dcsParam, A::ignore, S::dcsParam);
    t.addRange(0x30, 0x39, S::dcsParam, A::param, S::dcsParam);
    t.add(0x3B, S::dcsParam, A::param, S::dcsParam);
    t.add(0x3A, S::dcsParam, A::ignore, S::dcsIgnore);
    t.addRange(0x3C, 0x3F, S::dcsParam, A::ignore, S::dcsIgnore);
    t.addRange(0x20, 0x2F, S::dcsParam, A::collect, S::dcsIntermediate);
    t.addRange(0x40, 0x7E, S::dcsParam, A::dcsHook, S::dcsPassthrough);

    addExec(t, S::dcsIntermediate, A::ignore, S::dcsIntermediate);
    t.add(0x7F, S::dcsIntermediate, A::ignore, S::dcsIntermediate);
    t.addRange(0x20, 0x2F, S::dcsIntermediate, A::collect, S::dcsIntermediate);
    t.addRange(0x30, 0x3F, S::dcsIntermediate, A::ignore, S::dcsIgnore);
    t.addRange(0x40, 0x7E, S::dcsIntermediate, A::dcsHook, S::dcsPassthrough);

    addExec(t, S::dcsIgnore, A::ignore, S::dcsIgnore);
    t.addRange(0x20, 0x7F, S::dcsIgnore, A::ignore, S::dcsIgnore);

    // CAN is part of the executed set and therefore data here; SUB keeps its global rule.
    addExec(t, S::dcsPassthrough, A::dcsPut, S::dcsPassthrough);
    addPrintRange(t, S::dcsPassthrough, A::dcsPut, S::dcsPassthrough);
    t.add(0x7F, S::dcsPassthrough, A::ignore, S::dcsPassthrough);
    t.add(0x1B, S::dcsPassthrough, A::dcsUnhook, S::ground);
    t.add(0x9C, S::dcsPassthrough, A::dcsUnhook, S::ground);
}

} // namespace

TransitionTable buildVt500TransitionTable() {
    TransitionTable t;
    for (int s = 0; s < kParserStateCount; ++s) {
        t.addRange(0x00, TransitionTable::kHighestColumn, static_cast<S>(s), A::error, S::ground);
    }
    addPrintRange(t, S::ground, A::print, S::ground);
    addAnywhereRules(t);
    addExecuteRules(t);
    addEscapeRules(t);
    addStringRules(t);
    addCsiRules(t);
    addDcsRules(t);
    return t;
}

const TransitionTable& sharedVt500Table() {
    static const TransitionTable table = buildVt500TransitionTable();
    return table;
}

const char* parserStateName(ParserState state) {
    static constexpr const char* kNames[kParserStateCount] = {
        "ground",          "escape",    "escapeIntermediate", "csiEntry",        "csiParam",
        "csiIntermediate", "csiIgnore", "sosPmApcString",     "oscString",       "apcString",
        "dcsEntry",        "dcsParam",  "dcsIgnore",          "dcsIntermediate", "dcsPassthrough"};
    const int index = static_cast<int>(state);
    return index < kParserStateCount ? kNames[index] : "unknown";
}

} // namespace termkit

#include "Termkit/engine/KittyKeyboard.h"

#include <gtest/gtest.h>

#include <string>

#include "Termkit/engine/Terminal.h"
#include "TermkitTests/fakes/RecordingTerminalDelegate.h"

namespace termkit {
namespace {

using K = KittyFunctionalKey;
using M = KittyKeyboardModifiers;
using F = KittyKeyboardFlags;
using T = KittyKeyboardEventType;
using testing::RecordingTerminalDelegate;

struct FunctionalRow {
    K key;
    int number;
    char final;
};

// The protocol's table of functional keys: number and final byte of each.
const FunctionalRow kFunctionalKeys[] = {
    {K::up, 1, 'A'},
    {K::down, 1, 'B'},
    {K::right, 1, 'C'},
    {K::left, 1, 'D'},
    {K::end, 1, 'F'},
    {K::home, 1, 'H'},
    {K::f1, 1, 'P'},
    {K::f2, 1, 'Q'},
    {K::f4, 1, 'S'},
    {K::insert, 2, '~'},
    {K::deleteKey, 3, '~'},
    {K::pageUp, 5, '~'},
    {K::pageDown, 6, '~'},
    {K::f3, 13, '~'},
    {K::f5, 15, '~'},
    {K::f6, 17, '~'},
    {K::f7, 18, '~'},
    {K::f8, 19, '~'},
    {K::f9, 20, '~'},
    {K::f10, 21, '~'},
    {K::f11, 23, '~'},
    {K::f12, 24, '~'},
    {K::escape, 27, 'u'},
    {K::enter, 13, 'u'},
    {K::tab, 9, 'u'},
    {K::backspace, 127, 'u'},
    {K::capsLock, 57358, 'u'},
    {K::scrollLock, 57359, 'u'},
    {K::numLock, 57360, 'u'},
    {K::printScreen, 57361, 'u'},
    {K::pause, 57362, 'u'},
    {K::menu, 57363, 'u'},
    {K::f13, 57376, 'u'},
    {K::f14, 57377, 'u'},
    {K::f15, 57378, 'u'},
    {K::f16, 57379, 'u'},
    {K::f17, 57380, 'u'},
    {K::f18, 57381, 'u'},
    {K::f19, 57382, 'u'},
    {K::f20, 57383, 'u'},
    {K::f21, 57384, 'u'},
    {K::f22, 57385, 'u'},
    {K::f23, 57386, 'u'},
    {K::f24, 57387, 'u'},
    {K::f25, 57388, 'u'},
    {K::f26, 57389, 'u'},
    {K::f27, 57390, 'u'},
    {K::f28, 57391, 'u'},
    {K::f29, 57392, 'u'},
    {K::f30, 57393, 'u'},
    {K::f31, 57394, 'u'},
    {K::f32, 57395, 'u'},
    {K::f33, 57396, 'u'},
    {K::f34, 57397, 'u'},
    {K::f35, 57398, 'u'},
    {K::keypad0, 57399, 'u'},
    {K::keypad1, 57400, 'u'},
    {K::keypad2, 57401, 'u'},
    {K::keypad3, 57402, 'u'},
    {K::keypad4, 57403, 'u'},
    {K::keypad5, 57404, 'u'},
    {K::keypad6, 57405, 'u'},
    {K::keypad7, 57406, 'u'},
    {K::keypad8, 57407, 'u'},
    {K::keypad9, 57408, 'u'},
    {K::keypadDecimal, 57409, 'u'},
    {K::keypadDivide, 57410, 'u'},
    {K::keypadMultiply, 57411, 'u'},
    {K::keypadSubtract, 57412, 'u'},
    {K::keypadAdd, 57413, 'u'},
    {K::keypadEnter, 57414, 'u'},
    {K::keypadEqual, 57415, 'u'},
    {K::keypadSeparator, 57416, 'u'},
    {K::keypadLeft, 57417, 'u'},
    {K::keypadRight, 57418, 'u'},
    {K::keypadUp, 57419, 'u'},
    {K::keypadDown, 57420, 'u'},
    {K::keypadPageUp, 57421, 'u'},
    {K::keypadPageDown, 57422, 'u'},
    {K::keypadHome, 57423, 'u'},
    {K::keypadEnd, 57424, 'u'},
    {K::keypadInsert, 57425, 'u'},
    {K::keypadDelete, 57426, 'u'},
    {K::keypadBegin, 57427, 'u'},
    {K::mediaPlay, 57428, 'u'},
    {K::mediaPause, 57429, 'u'},
    {K::mediaPlayPause, 57430, 'u'},
    {K::mediaReverse, 57431, 'u'},
    {K::mediaStop, 57432, 'u'},
    {K::mediaFastForward, 57433, 'u'},
    {K::mediaRewind, 57434, 'u'},
    {K::mediaTrackNext, 57435, 'u'},
    {K::mediaTrackPrevious, 57436, 'u'},
    {K::mediaRecord, 57437, 'u'},
    {K::volumeDown, 57438, 'u'},
    {K::volumeUp, 57439, 'u'},
    {K::volumeMute, 57440, 'u'},
    {K::leftShift, 57441, 'u'},
    {K::leftControl, 57442, 'u'},
    {K::leftAlt, 57443, 'u'},
    {K::leftSuper, 57444, 'u'},
    {K::leftHyper, 57445, 'u'},
    {K::leftMeta, 57446, 'u'},
    {K::rightShift, 57447, 'u'},
    {K::rightControl, 57448, 'u'},
    {K::rightAlt, 57449, 'u'},
    {K::rightSuper, 57450, 'u'},
    {K::rightHyper, 57451, 'u'},
    {K::rightMeta, 57452, 'u'},
    {K::isoLevel3Shift, 57453, 'u'},
    {K::isoLevel5Shift, 57454, 'u'},
};

KittyKeyEvent functional(K key, uint8_t mods = 0, T type = T::press) {
    KittyKeyEvent e;
    e.key = KittyKey::functional(key);
    e.modifiers = mods;
    e.eventType = type;
    return e;
}

KittyKeyEvent letter(char32_t c, std::optional<std::string> text, uint8_t mods = 0, T type = T::press) {
    KittyKeyEvent e;
    e.key = KittyKey::unicode(c);
    e.text = std::move(text);
    e.modifiers = mods;
    e.eventType = type;
    return e;
}

std::string shown(const std::optional<std::string>& bytes) {
    if (!bytes)
        return "<none>";
    return testing::escaped(*bytes);
}

TEST(KittyFunctionalKeyTest, EveryKeyHasTheProtocolsNumber) {
    ASSERT_EQ(std::size(kFunctionalKeys), 111u);
    ASSERT_EQ(kKittyFunctionalKeyCount, 111);
    for (const FunctionalRow& row : kFunctionalKeys) {
        const KittyFunctionalEncoding e = kittyFunctionalEncoding(row.key);
        EXPECT_EQ(e.number, static_cast<uint32_t>(row.number)) << static_cast<int>(row.key);
        EXPECT_EQ(e.final, row.final) << static_cast<int>(row.key);
    }
}

// Under "report all keys" every functional key is a CSI sequence: the number is dropped for
// the letter forms when nothing follows it, and modifiers come as 1 + bits.
TEST(KittyKeyboardEncoderTest, EveryFunctionalKeyUnderReportAllWithEachModifier) {
    const uint8_t modifierSets[] = {0,       M::shift,           M::alt,      M::ctrl,   M::super, M::hyper,
                                    M::meta, M::ctrl | M::shift, M::capsLock, M::numLock};
    for (const FunctionalRow& row : kFunctionalKeys) {
        for (uint8_t mods : modifierSets) {
            std::string expected = "\x1b[";
            if (mods == 0) {
                if (row.final == '~' || row.final == 'u')
                    expected += std::to_string(row.number);
            } else {
                expected += std::to_string(row.number) + ";" + std::to_string(mods + 1);
            }
            expected += row.final;
            EXPECT_EQ(shown(KittyKeyboardEncoder::encode(functional(row.key, mods), F::reportAllKeys, false)),
                      shown(expected))
                << "key " << static_cast<int>(row.key) << " mods " << int(mods);
        }
    }
}

TEST(KittyKeyboardEncoderTest, EventTypesFollowTheModifiersAfterAColon) {
    const uint8_t flags = F::reportAllKeys | F::reportEvents;
    for (const FunctionalRow& row : kFunctionalKeys) {
        const std::string number = std::to_string(row.number);
        EXPECT_EQ(shown(KittyKeyboardEncoder::encode(functional(row.key, 0, T::release), flags, false)),
                  shown("\x1b[" + number + ";1:3" + row.final));
        EXPECT_EQ(
            shown(KittyKeyboardEncoder::encode(functional(row.key, M::ctrl, T::repeatPress), flags, false)),
            shown("\x1b[" + number + ";5:2" + row.final));
    }
}

struct Example {
    const char* name;
    KittyKeyEvent event;
    uint8_t flags;
    bool applicationCursor;
    std::optional<std::string> bytes;
};

KittyKeyEvent withAlternates(KittyKeyEvent e, std::optional<uint32_t> shifted, std::optional<uint32_t> base) {
    e.shiftedKey = shifted;
    e.baseLayoutKey = base;
    return e;
}

KittyKeyEvent composing(KittyKeyEvent e) {
    e.composing = true;
    return e;
}

// The protocol's own examples, and the legacy bytes it keeps at flags 0.
TEST(KittyKeyboardEncoderTest, PublishedExamples) {
    const uint8_t all = F::reportAllKeys;
    const std::vector<Example> examples = {
        // Disambiguate: Escape and chords with Control or Alt become CSI u; text stays text.
        {"esc", functional(K::escape), F::disambiguate, false, "\x1b[27u"},
        {"alt+esc", functional(K::escape, M::alt), F::disambiguate, false, "\x1b[27;3u"},
        {"ctrl+a", letter('a', std::nullopt, M::ctrl), F::disambiguate, false, "\x1b[97;5u"},
        {"alt+a", letter('a', "a", M::alt), F::disambiguate, false, "\x1b[97;3u"},
        {"ctrl+alt+a", letter('a', std::nullopt, M::ctrl | M::alt), F::disambiguate, false, "\x1b[97;7u"},
        {"shift+alt+a", letter('a', "A", M::shift | M::alt), F::disambiguate, false, "\x1b[97;4u"},
        {"super+a", letter('a', "a", M::super), F::disambiguate, false, "\x1b[97;9u"},
        {"a", letter('a', "a"), F::disambiguate, false, "a"},
        {"shift+a", letter('a', "A", M::shift), F::disambiguate, false, "A"},
        {"caps a", letter('a', "A", M::capsLock), F::disambiguate, false, "A"},
        {"enter", functional(K::enter), F::disambiguate, false, "\r"},
        {"tab", functional(K::tab), F::disambiguate, false, "\t"},
        {"backspace", functional(K::backspace), F::disambiguate, false, "\x7f"},
        {"shift+enter", functional(K::enter, M::shift), F::disambiguate, false, "\x1b[13;2u"},
        {"ctrl+backspace", functional(K::backspace, M::ctrl), F::disambiguate, false, "\x1b[127;5u"},
        {"shift+tab", functional(K::tab, M::shift), F::disambiguate, false, "\x1b[9;2u"},
        {"up", functional(K::up), F::disambiguate, false, "\x1b[A"},
        {"up app", functional(K::up), F::disambiguate, true, "\x1bOA"},
        {"ctrl+up", functional(K::up, M::ctrl), F::disambiguate, false, "\x1b[1;5A"},
        {"super+up", functional(K::up, M::super), F::disambiguate, false, "\x1b[1;9A"},
        {"f1", functional(K::f1), F::disambiguate, false, "\x1bOP"},
        {"shift+f3", functional(K::f3, M::shift), F::disambiguate, false, "\x1b[13;2~"},
        {"f5", functional(K::f5), F::disambiguate, false, "\x1b[15~"},
        {"pause", functional(K::pause), F::disambiguate, false, "\x1b[57362u"},
        {"kp enter", functional(K::keypadEnter), F::disambiguate, false, "\x1b[57414u"},
        {"kp 5 text",
         [] {
             auto e = functional(K::keypad5);
             e.text = "5";
             return e;
         }(),
         F::disambiguate, false, "5"},
        {"left shift", functional(K::leftShift, M::shift), F::disambiguate, false, std::nullopt},
        // Releases only with report-events, and never of Enter, Tab, Backspace without report-all.
        {"release no events", letter('a', std::nullopt, 0, T::release), F::disambiguate, false, std::nullopt},
        {"release a", letter('a', std::nullopt, 0, T::release), F::disambiguate | F::reportEvents, false,
         "\x1b[97;1:3u"},
        {"repeat a", letter('a', "a", 0, T::repeatPress), F::disambiguate | F::reportEvents, false, "a"},
        {"release enter", functional(K::enter, 0, T::release), F::disambiguate | F::reportEvents, false,
         std::nullopt},
        {"release enter all", functional(K::enter, 0, T::release), all | F::reportEvents, false,
         "\x1b[13;1:3u"},
        {"release up", functional(K::up, 0, T::release), F::disambiguate | F::reportEvents, false,
         "\x1b[1;1:3A"},
        // Report all keys: every key is an escape code, modifier keys included.
        {"all a", letter('a', "a"), all, false, "\x1b[97u"},
        {"all shift+a", letter('a', "A", M::shift), all, false, "\x1b[97;2u"},
        {"all enter", functional(K::enter), all, false, "\x1b[13u"},
        {"all caps a", letter('a', "A", M::capsLock), all, false, "\x1b[97;65u"},
        {"all left shift", functional(K::leftShift, M::shift), all, false, "\x1b[57441;2u"},
        {"all left shift release", functional(K::leftShift, 0, T::release), all | F::reportEvents, false,
         "\x1b[57441;1:3u"},
        {"all repeat a", letter('a', "a", 0, T::repeatPress), all | F::reportEvents, false, "\x1b[97;1:2u"},
        {"all repeat no events", letter('a', "a", 0, T::repeatPress), all, false, "\x1b[97u"},
        // Alternate keys: the shifted key, and the key on the standard layout.
        {"alt shift+a", withAlternates(letter('a', "A", M::shift), 65, std::nullopt),
         all | F::reportAlternates, false, "\x1b[97:65;2u"},
        {"alt cyrillic ctrl", withAlternates(letter(0x441, std::nullopt, M::ctrl), std::nullopt, 99),
         all | F::reportAlternates, false, "\x1b[1089::99;5u"},
        {"alt both", withAlternates(letter(0x441, "\xd0\xa1", M::shift), 0x421, 99),
         all | F::reportAlternates, false, "\x1b[1089:1057:99;2u"},
        {"alternates ignored without flag", withAlternates(letter('a', "A", M::shift), 65, std::nullopt), all,
         false, "\x1b[97;2u"},
        // Associated text.
        {"text a", letter('a', "a"), all | F::reportText, false, "\x1b[97;;97u"},
        {"text shift+a", letter('a', "A", M::shift), all | F::reportText, false, "\x1b[97;2;65u"},
        {"text ctrl+a", letter('a', "a", M::ctrl), all | F::reportText, false, "\x1b[97;5u"},
        {"text cluster", letter(0xE9, "e\xcc\x81"), all | F::reportText, false, "\x1b[233;;101:769u"},
        {"text enter",
         [] {
             auto e = functional(K::enter);
             e.text = "\r";
             return e;
         }(),
         all | F::reportText, false, "\x1b[13u"},
        {"text release", letter('a', "a", 0, T::release), all | F::reportText | F::reportEvents, false,
         "\x1b[97;1:3u"},
        // An input method's composition stays with it.
        {"composing a", composing(letter('a', "a")), F::disambiguate, false, std::nullopt},
        {"composing shift", composing(functional(K::leftShift, M::shift)), all, false, std::nullopt},
        {"composing up", composing(functional(K::up)), all, false, "\x1b[A"},
    };
    for (const Example& x : examples)
        EXPECT_EQ(shown(KittyKeyboardEncoder::encode(x.event, x.flags, x.applicationCursor)), shown(x.bytes))
            << x.name;
}

TEST(KittyKeyboardEncoderTest, LegacyBytesAtFlagsZero) {
    const std::vector<Example> examples = {
        {"up", functional(K::up), 0, false, "\x1b[A"},
        {"up app", functional(K::up), 0, true, "\x1bOA"},
        {"ctrl+up app", functional(K::up, M::ctrl), 0, true, "\x1b[1;5A"},
        {"home", functional(K::home), 0, false, "\x1b[H"},
        {"shift+end", functional(K::end, M::shift), 0, false, "\x1b[1;2F"},
        {"f1", functional(K::f1), 0, false, "\x1bOP"},
        {"f3", functional(K::f3), 0, false, "\x1bOR"},
        {"shift+f1", functional(K::f1, M::shift), 0, false, "\x1b[1;2P"},
        {"ctrl+f3", functional(K::f3, M::ctrl), 0, false, "\x1b[1;5R"},
        {"f5", functional(K::f5), 0, false, "\x1b[15~"},
        {"f12", functional(K::f12), 0, false, "\x1b[24~"},
        {"ctrl+f5", functional(K::f5, M::ctrl), 0, false, "\x1b[15;5~"},
        {"delete", functional(K::deleteKey), 0, false, "\x1b[3~"},
        {"alt+pageUp", functional(K::pageUp, M::alt), 0, false, "\x1b[5;3~"},
        // F13 and up as terminfo's shifted, controlled and alt function keys.
        {"f13", functional(K::f13), 0, false, "\x1b[1;2P"},
        {"f20", functional(K::f20), 0, false, "\x1b[19;2~"},
        {"f25", functional(K::f25), 0, false, "\x1b[1;5P"},
        {"shift+f13", functional(K::f13, M::shift), 0, false, "\x1b[1;5P"},
        {"alt+f15", functional(K::f15, M::alt), 0, false, "\x1b[1;4R"},
        {"alt+shift+f13", functional(K::f13, M::alt | M::shift), 0, false, std::nullopt},
        {"ctrl+alt+f13", functional(K::f13, M::ctrl | M::alt), 0, false, std::nullopt},
        {"enter", functional(K::enter), 0, false, "\r"},
        {"alt+enter", functional(K::enter, M::alt), 0, false, "\x1b\r"},
        {"tab", functional(K::tab), 0, false, "\t"},
        {"shift+tab", functional(K::tab, M::shift), 0, false, "\x1b[Z"},
        {"backspace", functional(K::backspace), 0, false, "\x7f"},
        {"escape", functional(K::escape), 0, false, "\x1b"},
        {"ctrl+a", letter('a', std::nullopt, M::ctrl), 0, false, "\x01"},
        {"ctrl+]", letter(']', std::nullopt, M::ctrl), 0, false, "\x1d"},
        {"ctrl+alt+a", letter('a', std::nullopt, M::ctrl | M::alt), 0, false, "\x1b\x01"},
        {"alt+x", letter('x', "x", M::alt), 0, false, "\x1bx"},
        {"shift+a", letter('a', "A", M::shift), 0, false, "A"},
        {"kp 7", functional(K::keypad7), 0, false, "7"},
        {"kp enter", functional(K::keypadEnter), 0, false, "\r"},
        {"kp left", functional(K::keypadLeft), 0, false, "\x1b[D"},
        {"kp begin", functional(K::keypadBegin), 0, false, "\x1b[E"},
        {"caps lock", functional(K::capsLock), 0, false, std::nullopt},
        {"media", functional(K::mediaPlay), 0, false, std::nullopt},
        {"release", letter('a', "a", 0, T::release), 0, false, std::nullopt},
        {"repeat", letter('a', "a", 0, T::repeatPress), 0, false, "a"},
    };
    for (const Example& x : examples)
        EXPECT_EQ(shown(KittyKeyboardEncoder::encode(x.event, x.flags, x.applicationCursor)), shown(x.bytes))
            << x.name;
}

// --- The flags a program sets, per buffer --------------------------------------------------

TerminalOptions small() {
    TerminalOptions o;
    o.cols = 20;
    o.rows = 4;
    return o;
}

TEST(KeyboardModeStateTest, SeventeenthPushDropsTheOldestAndSeventeenPopsEmpty) {
    RecordingTerminalDelegate host;
    Terminal t(&host, small());
    for (int i = 0; i < 17; ++i)
        t.feed("\x1b[>1u");
    EXPECT_EQ(t.keyboardModeNormal().stack.size(), KeyboardModeState::kMaxStackDepth);
    EXPECT_EQ(t.keyboardEnhancementFlags(), 1);
    t.feed("\x1b[<17u");
    EXPECT_EQ(t.keyboardEnhancementFlags(), 0);
    EXPECT_TRUE(t.keyboardModeNormal().stack.empty());
}

TEST(KeyboardModeStateTest, PopRestoresTheFlagsUnderneath) {
    RecordingTerminalDelegate host;
    Terminal t(&host, small());
    t.feed("\x1b[>1u\x1b[>3u\x1b[>31u");
    t.feed("\x1b[<u");
    EXPECT_EQ(t.keyboardEnhancementFlags(), 3);
    t.feed("\x1b[<2u");
    EXPECT_EQ(t.keyboardEnhancementFlags(), 0);
    EXPECT_TRUE(t.keyboardModeNormal().stack.empty());
}

TEST(KeyboardModeStateTest, PopOnAnEmptyStackLeavesZero) {
    RecordingTerminalDelegate host;
    Terminal t(&host, small());
    t.feed("\x1b[=9u\x1b[<u");
    EXPECT_EQ(t.keyboardEnhancementFlags(), 0);
}

TEST(KeyboardModeStateTest, SetReplacesAddsAndRemoves) {
    RecordingTerminalDelegate host;
    Terminal t(&host, small());
    t.feed("\x1b[=31u\x1b[=5;3u");
    EXPECT_EQ(t.keyboardEnhancementFlags(), 26);
    t.feed("\x1b[=1;2u");
    EXPECT_EQ(t.keyboardEnhancementFlags(), 27);
    t.feed("\x1b[=4;1u");
    EXPECT_EQ(t.keyboardEnhancementFlags(), 4);
    t.feed("\x1b[=8;7u");
    EXPECT_EQ(t.keyboardEnhancementFlags(), 4);
    EXPECT_TRUE(t.keyboardModeNormal().stack.empty());
}

TEST(KeyboardModeStateTest, PushMasksToTheKnownFlags) {
    RecordingTerminalDelegate host;
    Terminal t(&host, small());
    t.feed("\x1b[>200u");
    EXPECT_EQ(t.keyboardEnhancementFlags(), 8);
}

TEST(KeyboardModeStateTest, QueryRepliesWithTheActiveFlags) {
    RecordingTerminalDelegate host;
    Terminal t(&host, small());
    t.feed("\x1b[>13u\x1b[?u");
    ASSERT_FALSE(host.replies.empty());
    EXPECT_EQ(host.replies.back(), "\\e[?13u");
}

TEST(KeyboardModeStateTest, AlternateScreenFlagsDoNotLeakToTheNormalScreen) {
    RecordingTerminalDelegate host;
    Terminal t(&host, small());
    t.feed("\x1b[>1u");
    t.feed("\x1b[?1049h\x1b[>15u");
    EXPECT_EQ(t.keyboardEnhancementFlags(), 15);
    EXPECT_EQ(t.keyboardModeNormal().flags, 1);
    t.feed("\x1b[?1049l\x1b[?u");
    EXPECT_EQ(t.keyboardEnhancementFlags(), 1);
    EXPECT_EQ(host.replies.back(), "\\e[?1u");
    EXPECT_EQ(t.keyboardModeAlt().flags, 15);
}

TEST(KeyboardModeStateTest, CsiUWithoutAProtocolByteRestoresTheCursor) {
    RecordingTerminalDelegate host;
    Terminal t(&host, small());
    t.feed("\x1b[2;5H\x1b[s\x1b[H\x1b[>1u\x1b[u");
    EXPECT_EQ(t.getCursorLocation(), std::pair(Col(4), ScreenRow(1)));
    EXPECT_EQ(t.keyboardEnhancementFlags(), 1);
}

TEST(KeyboardModeStateTest, HardResetClearsBothBuffers) {
    RecordingTerminalDelegate host;
    Terminal t(&host, small());
    t.feed("\x1b[>1u\x1b[?1049h\x1b[>3u\x1b[?1049l\x1b"
           "c");
    EXPECT_EQ(t.keyboardModeNormal().flags, 0);
    EXPECT_EQ(t.keyboardModeAlt().flags, 0);
    EXPECT_TRUE(t.keyboardModeNormal().stack.empty());
}

} // namespace
} // namespace termkit

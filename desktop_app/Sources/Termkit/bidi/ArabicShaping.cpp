#include "Termkit/bidi/ArabicShaping.h"

#include "Termkit/bidi/BidiCharacters.h"

namespace termkit::bidi {

namespace {

bool joinsOnItsRight(Joining j) {
    return j == Joining::right || j == Joining::dual || j == Joining::causing;
}
bool joinsOnItsLeft(Joining j) {
    return j == Joining::left || j == Joining::dual || j == Joining::causing;
}

// The joining class of each unit's nearest neighbour that is not transparent, before
// (`previous`) and after (`next`) it in logical order.
struct Neighbours {
    std::vector<Joining> previous;
    std::vector<Joining> next;
};

Neighbours neighboursOf(const std::vector<Joining>& classes) {
    const size_t n = classes.size();
    Neighbours result{std::vector<Joining>(n, Joining::none), std::vector<Joining>(n, Joining::none)};
    Joining last = Joining::none;
    for (size_t i = 0; i < n; ++i) {
        result.previous[i] = last;
        if (classes[i] != Joining::transparent)
            last = classes[i];
    }
    last = Joining::none;
    for (size_t i = n; i-- > 0;) {
        result.next[i] = last;
        if (classes[i] != Joining::transparent)
            last = classes[i];
    }
    return result;
}

ArabicForm formOf(bool joinsPrevious, bool joinsNext) {
    if (joinsPrevious && joinsNext)
        return ArabicForm::medial;
    if (joinsPrevious)
        return ArabicForm::final_;
    return joinsNext ? ArabicForm::initial : ArabicForm::isolated;
}

} // namespace

std::vector<char32_t> shapeArabic(std::span<const char32_t> bases) {
    const size_t n = bases.size();
    std::vector<Joining> classes(n, Joining::none);
    for (size_t i = 0; i < n; ++i)
        classes[i] = bases[i] != 0 ? joiningOf(bases[i]) : Joining::none;
    const Neighbours around = neighboursOf(classes);
    std::vector<char32_t> shaped(bases.begin(), bases.end());
    for (size_t i = 0; i < n; ++i) {
        const Joining j = classes[i];
        if (j != Joining::right && j != Joining::left && j != Joining::dual)
            continue;
        // In logical order the previous letter is on the right of a right-to-left word.
        const bool joinsPrevious = joinsOnItsRight(j) && joinsOnItsLeft(around.previous[i]);
        const bool joinsNext = joinsOnItsLeft(j) && joinsOnItsRight(around.next[i]);
        if (bases[i] == kLam && i + 1 < n) {
            const char32_t ligature =
                lamAlefLigature(bases[i + 1], joinsPrevious ? ArabicForm::final_ : ArabicForm::isolated);
            if (ligature != 0) {
                // The pair becomes one glyph in the lam's cell; the alef's cell shows nothing.
                shaped[i] = ligature;
                shaped[i + 1] = 0;
                ++i;
                continue;
            }
        }
        shaped[i] = arabicForm(bases[i], formOf(joinsPrevious, joinsNext));
    }
    return shaped;
}

} // namespace termkit::bidi

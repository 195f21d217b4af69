#pragma once
// Left and right arrows in right-to-left paragraphs.

#include "Termkit/bidi/BidiTypes.h"
#include "Termkit/view/input/KeyEncoder.h"

namespace termkit {

/// The key to send for a press: with the arrow-key swap on (DECSET 1243) and the cursor in a
/// right-to-left paragraph, left and right trade places, so that the arrow moves the cursor
/// the way it points on the screen; every other key is itself.
KeyPress withBidiArrowKeySwap(KeyPress press, bool swapMode, BidiDirection paragraphDirection);

} // namespace termkit

#pragma once
// Where a kitty image's bytes come from: the command itself, a file, a temporary file, or a
// shared-memory object; and turning those bytes into pixels.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Termkit/graphics/ImageCodec.h"
#include "Termkit/graphics/KittyGraphicsControl.h"

namespace termkit {

/// The marker a temporary file's name must carry before the terminal deletes it.
inline constexpr std::string_view kKittyTempFileMarker = "tty-graphics-protocol";

/// Whether a resolved path lies in a temporary folder (/tmp, /dev/shm or the system's): the
/// only places a temporary file is read from.
bool isInTemporaryFolder(const std::string& path);

/// Reads the payload's bytes by the command's transmission medium into `out`. Returns the
/// error text of the reply, or an empty string. A temporary file and a shared-memory object
/// are removed once read.
std::string loadKittyPayload(const KittyGraphicsControl& control, std::string_view base64,
                             std::vector<uint8_t>& out);

/// Inflates (when asked) and decodes loaded bytes by the command's format into `out`.
/// Returns the error text of the reply, or an empty string.
std::string decodeKittyPayloadData(const KittyGraphicsControl& control, std::vector<uint8_t> bytes,
                                   RgbaImage& out);

/// The bytes a raw image of the command's size and format takes; 0 for PNG or no size.
size_t kittyExpectedDataSize(const KittyGraphicsControl& control);

} // namespace termkit

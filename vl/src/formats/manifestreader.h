#pragma once

#include "vl/src/formats/manifest.h"

#include <string_view>

namespace vl {

/// Reads the text of a manifest event by event: every member is there once and of the right type,
/// nothing more. What the values mean together is checked by readManifest.
Expected<Manifest> parseManifest(std::string_view text);

} // namespace vl

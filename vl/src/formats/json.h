#pragma once

#include "vl/src/error.h"

#include <nlohmann/json.hpp>

#include <string_view>

namespace vl {

/// Reads a JSON document that others have written. UPDATER_DATA_ERROR, with the fault in words,
/// for what is no JSON and for what the ready-made parser would let pass: members of the same name
/// and nesting deeper than 32 levels.
Expected<nlohmann::json> readJson(std::string_view text);

} // namespace vl

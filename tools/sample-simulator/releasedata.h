#pragma once

#include <filesystem>

/// Writes the data of one release of the sample simulator below `folder`: about 60 MB of terrain
/// (compresses well), textures (hardly), sounds and some hundred small texts, with a Cyrillic name
/// and an empty file among them. The same `revision` gives the same bytes on every machine; each
/// higher one changes parts of about a quarter of the files and adds a few. Throws
/// std::system_error when a file cannot be written.
void writeReleaseData(const std::filesystem::path& folder, unsigned revision);

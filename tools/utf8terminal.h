#pragma once

#include <string>
#include <vector>

/// The arguments of the program as UTF-8, the last one first, as CLI11 takes them. Makes the
/// terminal take UTF-8 too; to be called once, first.
std::vector<std::string> utf8Arguments(int argc, char** argv);

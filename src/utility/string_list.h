#pragma once

#include <string>
#include <vector>

/// An ordered list of strings.
using string_list = std::vector<std::string>;

// `NyRest::Path`: builds paths from patterns with ":name" segments.
#pragma once

#include <initializer_list>
#include <string>

namespace NyRest::Path {

// Replaces the ":name" segments of `pattern` in order with `values` ("/routines/:routine" with
// {"Calibration-0"} gives "/routines/Calibration-0"). Segments without a value stay as they are.
std::string Format(const std::string& pattern, std::initializer_list<std::string> values);

}  // namespace NyRest::Path

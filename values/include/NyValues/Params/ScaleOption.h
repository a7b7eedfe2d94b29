// How a numeric parameter is meant to be scaled for display. Stored, copied and carried as a number;
// this system never sets it.
#pragma once

#include <cstdint>

namespace Ny::Params {

enum class ScaleOption : std::uint32_t {
    None = 0,
    Linear = 1,
    Logarithmic = 2,
};

}  // namespace Ny::Params

// `Ny::PrintfArgument`: what may pass through a printf-style argument list ("...") of the API library.
//
// Messages and log lines are formatted printf-style with positional placeholders ("%1$s"), which the
// compiler's format checker does not accept, so it cannot check them. A class object passed through
// "..." (a std::string where "%s" wants a `const char*`) would then compile without a warning and print
// garbage or crash. Every formatting entry point (Ny::Exception, Ny::Logging::Ny_Debug_Log, NY_LOG,
// NY_EXCEPTION) takes its arguments through this concept instead: numbers, characters, enumerations and
// pointers pass; anything else is a compile error that names the argument's type. Pass text as .c_str().
#pragma once

#include <type_traits>

namespace Ny {

template <typename T>
concept PrintfArgument = std::is_scalar_v<std::decay_t<T>>;

}  // namespace Ny

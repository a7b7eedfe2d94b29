// Must not compile: a std::string passed where a printf placeholder wants a pointer. The test that
// builds this expects the compiler to name the PrintfArgument concept as the reason.
#include <string>

#include "NyApi/Exception.h"

void LogsAString(const std::string& name) {
    NY_LOG(Ny::Logging::Level::Progress, "Routine %s", name);
}

Ny::Exception ThrowsWithAString(const std::string& name) {
    return NY_EXCEPTION(Ny::Status::NotFound, "Routine %s not found!", name);
}

#include "NyCore/Core.h"

#include "NyApi/Logging.h"

namespace NyCore {

void Core::AnnounceFactoryRestore() {
    NY_LOG(Ny::Logging::Level::Progress, "Factory restore announced.");
    factoryRestoreEvent.Raise();
}

}  // namespace NyCore

// A host project built against the installed package.
#include <cstdio>

#include "NyApi/Exception.h"
#include "NyCore/Core.h"

int main() {
    NyCore::Core core;
    int restores = 0;
    core.FactoryRestoreEvent().Subscribe([&] { ++restores; });
    core.AnnounceFactoryRestore();
    try {
        throw NY_EXCEPTION(-999, "Routine %s not found!", "Calibration-0");
    } catch (const Ny::Exception& e) {
        std::printf("%s\n", e.what());
        return restores == 1 && e.Status() == -999 ? 0 : 1;
    }
}

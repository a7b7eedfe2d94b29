#include <algorithm>
#include <vector>

#include "NyApi/Event.h"

namespace Ny::Internal {

namespace {
thread_local std::vector<const HandlerEntryBase*> runningHandlers;
}

void PushRunningHandler(const HandlerEntryBase* entry) {
    runningHandlers.push_back(entry);
}

void PopRunningHandler() {
    runningHandlers.pop_back();
}

unsigned RunningOnThisThread(const HandlerEntryBase* entry) {
    return static_cast<unsigned>(std::count(runningHandlers.begin(), runningHandlers.end(), entry));
}

}  // namespace Ny::Internal

// What hashing plug-in files costs the process: it names every loaded plug-in file by its content, and
// must pull no cryptography library into the process for that (an idle host would carry it resident
// for nothing).
#include <gtest/gtest.h>
#include <link.h>

#include <cstddef>
#include <string>

#include "NyPlugin/PluginManager.h"

namespace {

bool CryptographyLibraryLoaded() {
    bool found = false;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* foundIn) {
            const std::string name = info->dlpi_name != nullptr ? info->dlpi_name : "";
            if (name.find("libcrypto") != std::string::npos || name.find("libssl") != std::string::npos) {
                *static_cast<bool*>(foundIn) = true;
            }
            return 0;
        },
        &found);
    return found;
}

TEST(ContentHash, HashingPluginsNeedsNoCryptographyLibrary) {
    NyPlugin::PluginManager plugins;
    plugins.LoadDirectory(NYR_PLUGINMGR_LIBS);
    ASSERT_FALSE(plugins.Libraries().empty());
    EXPECT_FALSE(CryptographyLibraryLoaded());
}

}  // namespace

// The host's options: a service's settings file gives defaults through the environment, the command line
// wins, and a bad value names the variable it came from.
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HostOptions.h"

namespace {

// Sets the variables for one test and restores the environment after it.
class Environment {
  public:
    Environment(std::initializer_list<std::pair<const char*, const char*>> values) {
        for (const auto& entry : NyHost::kEnvironmentOptions) {
            unsetenv(entry.variable);
        }
        unsetenv("NYR_TOKEN");
        for (const auto& [name, value] : values) {
            setenv(name, value, 1);
            names.push_back(name);
        }
    }
    ~Environment() {
        for (const char* name : names) {
            unsetenv(name);
        }
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

  private:
    std::vector<const char*> names;
};

std::optional<NyHost::HostOptions> Parse(std::vector<std::string> args, std::string& error) {
    args.insert(args.begin(), "routine-host");
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    return NyHost::ParseOptions(static_cast<int>(args.size()), argv.data(), error);
}

TEST(HostOptions, EnvironmentGivesDefaultsAndTheCommandLineWins) {
    const Environment environment{{"ROUTINE_HOST_LISTEN", "127.0.0.1:9001"},
                                  {"ROUTINE_HOST_PLUGINS", "/opt/plugins"},
                                  {"ROUTINE_HOST_LOG_FORMAT", "json"},
                                  {"ROUTINE_HOST_TLS_CERT", ""}};  // empty counts as unset
    std::string error;
    auto options = Parse({}, error);
    ASSERT_TRUE(options) << error;
    EXPECT_EQ(options->port, 9001);
    EXPECT_EQ(options->pluginDir, "/opt/plugins");
    EXPECT_EQ(options->logFormat, "json");
    EXPECT_TRUE(options->tlsCertFile.empty());

    options = Parse({"--listen", "127.0.0.1:9002", "--log-format", "text"}, error);
    ASSERT_TRUE(options) << error;
    EXPECT_EQ(options->port, 9002);
    EXPECT_EQ(options->logFormat, "text");
    EXPECT_EQ(options->pluginDir, "/opt/plugins");
}

TEST(HostOptions, ABadValueNamesWhereItCameFrom) {
    {
        const Environment environment{{"ROUTINE_HOST_LISTEN", "nowhere"}};
        std::string error;
        EXPECT_FALSE(Parse({}, error));
        EXPECT_EQ(error.rfind("ROUTINE_HOST_LISTEN: --listen", 0), 0u) << error;
    }
    {
        const Environment environment{{"ROUTINE_HOST_LOG_FORMAT", "xml"}};
        std::string error;
        EXPECT_FALSE(Parse({}, error));
        EXPECT_EQ(error, "ROUTINE_HOST_LOG_FORMAT: --log-format expects text or json");
    }
    const Environment environment{};
    std::string error;
    EXPECT_FALSE(Parse({"--log-format", "xml"}, error));
    EXPECT_EQ(error, "--log-format expects text or json");
}

TEST(HostOptions, ATokenOnTheCommandLineWinsOverTheEnvironmentsTokenFile) {
    const Environment environment{{"ROUTINE_HOST_TOKEN_FILE", "/nonexistent/token"}};
    std::string error;
    EXPECT_FALSE(Parse({}, error));  // the file is read when nothing overrides it
    EXPECT_NE(error.find("/nonexistent/token"), std::string::npos) << error;
    const auto options = Parse({"--token", "0123456789abcdef"}, error);
    ASSERT_TRUE(options) << error;
    EXPECT_EQ(options->token, "0123456789abcdef");
}

TEST(HostOptions, VersionAndHelpAnswerWhateverTheSettingsWouldRefuse) {
    // The man page is made from --help and --version; neither may depend on a usable token or address.
    const Environment environment{{"ROUTINE_HOST_TOKEN_FILE", "/nonexistent/token"},
                                  {"ROUTINE_HOST_LISTEN", "192.0.2.1:8080"}};
    for (const char* option : {"--version", "--help"}) {
        std::string error;
        const auto options = Parse({option}, error);
        ASSERT_TRUE(options) << option << ": " << error;
        EXPECT_TRUE(std::string(option) == "--version" ? options->version : options->help);
    }
}

TEST(HostOptions, TheEnvironmentCannotSwitchOnWhatItsTableOmits) {
    // Only the listed options come from the environment: a value that smuggles another option is a value.
    const Environment environment{{"ROUTINE_HOST_PLUGINS", "--insecure-remote"}};
    std::string error;
    const auto options = Parse({}, error);
    ASSERT_TRUE(options) << error;
    EXPECT_EQ(options->pluginDir, "--insecure-remote");
    EXPECT_FALSE(options->insecureRemote);
}

// A host on the network is reached by names the settings file must be able to give, or every request
// by name is refused: one variable, its names separated by blanks, each an allowed host.
TEST(HostOptions, AllowedHostsComeFromTheEnvironmentOneNameEach) {
    {
        const Environment environment{
            {"ROUTINE_HOST_ALLOW_HOSTS", " device.example  192.0.2.10\t[2001:db8::1]:8443 "}};
        std::string error;
        const auto options = Parse({"--allow-host", "other.example"}, error);
        ASSERT_TRUE(options) << error;
        EXPECT_EQ(options->allowHosts, (std::vector<std::string>{"device.example", "192.0.2.10",
                                                                 "[2001:db8::1]:8443", "other.example"}));
    }
    {
        const Environment environment{{"ROUTINE_HOST_ALLOW_HOSTS", "   "}};
        std::string error;
        const auto options = Parse({}, error);
        ASSERT_TRUE(options) << error;
        EXPECT_TRUE(options->allowHosts.empty());
    }
}

}  // namespace

// The interfaces behind the test plug-ins' objects: what the test calls through `IPlugin::GetObject()`.
// Every implementation (and every destructor) lives in a plug-in library, so a call after an unload
// proves that the library's code is still mapped.
#pragma once

#include <memory>
#include <string>

namespace PluginTest {

inline constexpr const char* GreeterType = "PluginTest.Greeter";
inline constexpr const char* FactoryType = "PluginTest.GreeterFactory";

class IGreeter {
  public:
    virtual ~IGreeter() = default;
    virtual std::string Greet(const std::string& name) const = 0;
};

// Makes greeters the way a routine factory makes routine objects: the host holds them only through a
// shared pointer whose deleter is the library's.
class IGreeterFactory {
  public:
    virtual ~IGreeterFactory() = default;
    virtual std::shared_ptr<IGreeter> Make() const = 0;
};

}  // namespace PluginTest

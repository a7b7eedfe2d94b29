// A well-formed test plug-in library (built twice, NYR_TEST_LIBRARY naming the copy). Its objects, in
// order: a greeter "first", a greeter factory, a greeter "second".
#include <memory>
#include <string>
#include <utility>

#include "NyPlugin/PluginExport.h"
#include "TestObjects.h"

namespace {

class Greeter final : public NyPlugin::IPlugin, public PluginTest::IGreeter {
  public:
    explicit Greeter(std::string whoIn) : who(std::move(whoIn)) {}
    const char* Type() const override { return PluginTest::GreeterType; }
    const void* GetObject() const override { return static_cast<const PluginTest::IGreeter*>(this); }
    std::string Greet(const std::string& name) const override { return who + " greets " + name; }

  private:
    std::string who;
};

class GreeterFactory final : public NyPlugin::IPlugin, public PluginTest::IGreeterFactory {
  public:
    const char* Type() const override { return PluginTest::FactoryType; }
    const void* GetObject() const override { return static_cast<const PluginTest::IGreeterFactory*>(this); }
    std::shared_ptr<PluginTest::IGreeter> Make() const override {
        return std::make_shared<Greeter>(NYR_TEST_LIBRARY " made");
    }
};

}  // namespace

// Not marked for export: the plug-in build must keep it out of the dynamic symbol table.
extern "C" int PluginTest_Hidden() {
    return 1;
}

NY_PLUGIN_ENTRY(sink) {
    sink.Add(std::make_shared<Greeter>(NYR_TEST_LIBRARY " first"));
    sink.Add(std::make_shared<GreeterFactory>());
    sink.Add(nullptr);  // ignored by the sink
    sink.Add(std::make_shared<Greeter>(NYR_TEST_LIBRARY " second"));
}

// `NyPlugin::IPlugin`: one object a plug-in library hands to the host's plug-in framework.
//
// A plug-in object has a type string (which interface `GetObject()` points to) and the address of the
// object behind it. Plug-in objects are made by the library's entry point and shared with the host
// through `std::shared_ptr`; they live as long as anyone holds them.
#pragma once

namespace NyPlugin {

class IPlugin {
  public:
    virtual ~IPlugin() = default;
    // The type of the object behind the plug-in, e.g. "NyRoutine.RoutinePlugin".
    virtual const char* Type() const = 0;
    // The address of the object of that type.
    virtual const void* GetObject() const = 0;
};

// What happened to a plug-in library: 0 it has been loaded, 1 it is about to be unloaded.
enum class PluginEvent : int {
    Loaded = 0,
    Unloading = 1,
};

}  // namespace NyPlugin

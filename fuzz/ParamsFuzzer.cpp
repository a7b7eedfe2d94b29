// Fuzzes the JSON-to-parameters path: arbitrary bytes, parsed as JSON, deserialized into a parameter
// group with limits, enumerations and read-only values. A refused update must leave every value as it
// was (all or nothing); nothing may crash.
#include <cstddef>
#include <cstdint>

#include "NyApi/Exception.h"
#include "NyApi/Properties/JsonSerializer.h"
#include "NyValues/Params/Enum.h"
#include "NyValues/Params/Group.h"

namespace {

struct Inner : Ny::Params::Group {
    Inner() {
        AddParameter("level", level, "");
        level.ExclusiveMinimum(-5).ExclusiveMaximum(5);
    }
    Ny::Params::Value<int> level;
};

struct Parameters : Ny::Params::Group {
    Parameters() {
        AddParameter("samples", samples, "");
        AddParameter("label", label, "");
        AddParameter("mode", mode, "");
        AddParameter("fixed", fixed, "");
        AddParameter("gain", gain, "");
        AddParameter("enabled", enabled, "");
        AddParameter("inner", inner, "");
        samples.Minimum(1).Maximum(1000);
        samples = 10;
        label.Minimum("b");
        label = std::string("default");
        mode.AddOption(0, "Fast").AddOption(1, "Precise");
        fixed.ReadOnly(true);
        fixed = 7;
        gain.Maximum(2.5);
    }
    Ny::Params::Value<unsigned int> samples;
    Ny::Params::Value<std::string> label;
    Ny::Params::Enum<unsigned int> mode;
    Ny::Params::Value<unsigned int> fixed;
    Ny::Params::Value<double> gain;
    Ny::Params::Value<bool> enabled;
    Inner inner;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const nlohmann::json incoming = nlohmann::json::parse(data, data + size, nullptr, false);
    if (incoming.is_discarded()) {
        return 0;
    }
    Parameters parameters;
    const nlohmann::json before = Ny::Properties::JsonSerializer::Serialize(parameters);
    try {
        Ny::Properties::JsonSerializer::Deserialize(parameters, incoming);
    } catch (const Ny::Exception&) {
        if (Ny::Properties::JsonSerializer::Serialize(parameters) != before) {
            __builtin_trap();  // a refused update stored something
        }
        return 0;
    }
    if (parameters.fixed.Get() != 7u || parameters.samples.Get() < 1u || parameters.samples.Get() > 1000u) {
        __builtin_trap();  // a read-only value changed or a limit was passed
    }
    return 0;
}

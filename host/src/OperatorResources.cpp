#include "OperatorResources.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>

#include "NyApi/Exception.h"
#include "NyRoutine/RoutinePlugin.h"

namespace NyHost {

nlohmann::json SystemResource::GetDocument(const NyRest::RequestInfo&, NyRest::ResponseInfo&) {
    return {{"runState", core.GetRunState()}, {"routineLimit", routineLimit}};
}

void SystemResource::UpdateDocument(const NyRest::RequestInfo&, const nlohmann::json& body) {
    if (!body.is_object() || !body.contains("runState")) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue,
                           "The body must be an object with an integer \"runState\".");
    }
    core.SetRunState(RunStateFrom(body["runState"]));
    NotificationEvent().Raise(*this, NyRest::EventType::Updated, "/system");
}

int SystemResource::RunStateFrom(const nlohmann::json& value) {
    // Read as the widest integer first and checked, never narrowed: a JSON number of any size must not
    // wrap into a different state.
    const bool inRange =
        (value.is_number_unsigned() &&
         value.get<std::uint64_t>() <= static_cast<std::uint64_t>(kMaxRunState)) ||
        (value.is_number_integer() && !value.is_number_unsigned() &&
         value.get<std::int64_t>() >= kMinRunState && value.get<std::int64_t>() <= kMaxRunState);
    if (!inRange) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "\"runState\" must be an integer from %1$d to %2$d.",
                           kMinRunState, kMaxRunState);
    }
    return static_cast<int>(value.get<std::int64_t>());
}

nlohmann::json FactoryRestoreCommand::Call(const NyRest::RequestInfo&, const nlohmann::json&) {
    core.AnnounceFactoryRestore();
    return nullptr;
}

std::string PluginsResource::Iso8601(std::chrono::system_clock::time_point time) {
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    using std::chrono::seconds;
    // Whole seconds rounded down, also before 1970, so that the milliseconds are never negative.
    const auto sinceEpoch = duration_cast<milliseconds>(time.time_since_epoch());
    auto whole = duration_cast<seconds>(sinceEpoch);
    if (whole > sinceEpoch) {
        whole -= seconds(1);
    }
    const std::time_t secondsSinceEpoch = static_cast<std::time_t>(whole.count());
    std::tm utc{};
    gmtime_r(&secondsSinceEpoch, &utc);
    char text[96];  // room for any int in every field, so that nothing is ever cut
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<int>((sinceEpoch - whole).count()));
    return text;
}

nlohmann::json PluginsResource::GetDocument(const NyRest::RequestInfo&, NyRest::ResponseInfo&) {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& lib : plugins.Libraries()) {
        nlohmann::json types = nlohmann::json::array();
        for (const auto& plugin : lib->PluginsByType("NyRoutine.RoutinePlugin")) {
            const auto& routines = *static_cast<const NyRoutine::RoutinePlugin*>(plugin->GetObject());
            for (size_t i = 0; i < routines.RoutineInfoCount(); ++i) {
                types.push_back(routines.RoutineInfoAt(i).TypeName());
            }
        }
        list.push_back({{"file", lib->FileName()},
                        {"loadedAt", Iso8601(lib->LoadTime())},
                        {"sha256", lib->ContentHash()},
                        {"routineTypes", std::move(types)}});
    }
    return {{"plugins", std::move(list)}};
}

FixedReplyResource::FixedReplyResource(unsigned bytes) {
    // {"data":"xxx..."}: 11 bytes of framing around the text.
    reply = {{"data", std::string(bytes > 11 ? bytes - 11 : 1, 'x')}};
}

nlohmann::json FixedReplyResource::GetDocument(const NyRest::RequestInfo&, NyRest::ResponseInfo&) {
    return reply;
}

OperatorResources::OperatorResources(NyRest::ResourceRouter& routerIn, NyCore::Core& core,
                                     NyPlugin::PluginManager& plugins, unsigned fixedReplyBytes,
                                     unsigned routineLimit)
    : router(routerIn), system(core, routineLimit), factoryRestore(core), pluginList(plugins) {
    router.Register("/system", system);
    router.Register("/system/commands/factoryRestore", factoryRestore);
    router.Register("/plugins", pluginList);
    if (fixedReplyBytes > 0) {
        fixedReply = std::make_unique<FixedReplyResource>(fixedReplyBytes);
        router.Register("/bench/fixed", *fixedReply);
    }
}

OperatorResources::~OperatorResources() {
    router.Deregister("/bench", true);
    router.Deregister("/plugins", true);
    router.Deregister("/system", true);
}

}  // namespace NyHost

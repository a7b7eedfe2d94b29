// In-process benchmarks, each beside the baseline it is judged against (run in the same binary, so the
// ratio holds on a shared, noisy machine):
//   Lifecycle   create, run to WaitForContinue, continue, complete, remove; vs one thread + 2 hand-offs
//   Document    GET of one routine's document (10 parameters, results); vs the same JSON built directly
//               (the same bytes: checked once before measuring)
//   StepReport  one SetCurrentProgress with the routines resource listening (goal: < 100 ns)
//   TypesList   GET /routineTypes with 1, 10, 100, 1000 types (linear)
//   Collection  GET /routines with 1, 1000, 10000 routines (linear; RSS per idle routine)
// `--nyr_smoke` runs every benchmark with small sizes once (CI).
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <mutex>
#include <thread>

#include "NyRest/ResourceRouter.h"
#include "NyRoutine/Engine/RoutineManager.h"
#include "NyRoutine/Protocol/RoutineTypes.h"
#include "NyRoutine/Protocol/RoutinesDir.h"
#include "NyValues/Params/Enum.h"
#include "TestRoutines.h"

namespace {

using nlohmann::json;
using NyCommon::RoutineState;
using NyRoutine::IRoutineHost;
using NyRoutine::RoutineInfo;
using NyRoutine::Internal::RoutineManager;
using NyRoutine::Internal::RoutineRegistry;

bool smoke = false;

void SpinUntil(const std::function<bool()>& done) {
    while (!done()) {
        std::this_thread::yield();
    }
}

// --- Lifecycle ---------------------------------------------------------------------------------

void WaitOnce(NyTest::ScriptedRoutine&, IRoutineHost& host) {
    host.WaitForContinue([](IRoutineHost&) {});
}

void BM_Lifecycle(benchmark::State& state) {
    NyTest::ScriptedFactory factory(WaitOnce);
    RoutineRegistry registry;
    registry.Add(RoutineInfo("Quick", factory, true));
    RoutineManager manager(registry, nullptr, 0);
    for (auto _ : state) {
        const std::string id = manager.Create("Quick", nullptr);
        auto instance = manager.AcquireInstance(id);
        SpinUntil([&] { return instance->State() == RoutineState::WaitingForFeedback; });
        instance->Continue();
        SpinUntil([&] { return instance->State() == RoutineState::Completed; });
        instance.reset();
        manager.Remove(id);
    }
}

// The least a thread-per-routine design can cost: a thread made and joined, and two hand-offs.
void BM_LifecycleBaseline(benchmark::State& state) {
    for (auto _ : state) {
        std::mutex mutex;
        std::condition_variable changed;
        int step = 0;
        std::thread worker([&] {
            std::unique_lock guard(mutex);
            changed.wait(guard, [&] { return step == 1; });
            step = 2;
            changed.notify_all();
        });
        {
            std::unique_lock guard(mutex);
            step = 1;
            changed.notify_all();
            changed.wait(guard, [&] { return step == 2; });
        }
        worker.join();
    }
}

// --- Document ----------------------------------------------------------------------------------

struct TenParams : Ny::Params::Group {
    TenParams() {
        for (int i = 0; i < 5; ++i) {
            AddParameter("count" + std::to_string(i), counts[i], "");
            counts[i].Minimum(1).Maximum(1000);
            counts[i] = 10u + i;
            AddParameter("name" + std::to_string(i), names[i], "");
            names[i] = std::string("value ") + std::to_string(i);
        }
    }
    Ny::Params::Value<unsigned int> counts[5];
    Ny::Params::Value<std::string> names[5];
};

struct DocumentFixture {
    DocumentFixture()
        : factory([this](NyTest::ScriptedRoutine&, IRoutineHost& host) {
              host.SetTotalSteps(2);
              host.SetCurrentStep(1, "Set the parameters, then continue.");
              host.SetHelpHtml("<p>Help for the first step.</p>", 0);
              host.GetParams(params, nullptr);
              auto results = std::make_unique<NyTest::TestResults>();
              results->value = 42;
              host.SetResults(results.release());
              host.WaitForContinue([](IRoutineHost&) {});
          }) {
        registry.Add(
            RoutineInfo("Calib", factory, true).SetDisplayName("Calibration").SetDescription("Calibrates."));
        manager = std::make_unique<RoutineManager>(registry, nullptr, 0);
        dir = std::make_unique<NyRoutine::Internal::RoutinesDir>(router, *manager);
        id = manager->Create("Calib", nullptr);
        SpinUntil([&] { return manager->GetInstance(id).State() == RoutineState::WaitingForFeedback; });
    }
    ~DocumentFixture() {
        manager->ClearAllRoutines();
        dir.reset();
        manager.reset();
    }
    TenParams params;
    NyTest::ScriptedFactory factory;
    RoutineRegistry registry;
    NyRest::ResourceRouter router;
    std::unique_ptr<RoutineManager> manager;
    std::unique_ptr<NyRoutine::Internal::RoutinesDir> dir;
    std::string id;
};

void BM_Document(benchmark::State& state) {
    DocumentFixture fixture;
    const std::string target = "/routines/" + fixture.id + (state.range(0) ? "?schema=true" : "");
    size_t bytes = 0;
    for (auto _ : state) {
        const NyRest::Response reply = fixture.router.Dispatch("GET", target, nullptr);
        bytes = reply.body.dump().size();
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}

// The same reply written directly with nlohmann-json, field by field: what the document costs when
// nothing stands between the routine's fields and their JSON.
json BaselineDocument(bool withSchema) {
    json document;
    document["id"] = "Calib-0";
    document["state"] = 2;
    document["stateDetails"] = "";
    document["type"] = "Calib";
    document["displayName"] = "Calibration";
    document["description"] = "Calibrates.";
    document["helpHtml"] = "<p>Help for the first step.</p>";
    document["helpUrl"] = "";
    document["totalSteps"] = 2;
    document["currentStep"] = 1;
    document["currentStepInfo"] = "Set the parameters, then continue.";
    document["currentProgress"] = 0;
    json parameters;
    for (int i = 0; i < 5; ++i) {
        parameters["count" + std::to_string(i)] = 10 + i;
        parameters["name" + std::to_string(i)] = "value " + std::to_string(i);
    }
    document["parameters"] = std::move(parameters);
    document["results"] = {{"value", 42}};
    if (withSchema) {
        json schema = {{"type", "object"}, {"title", ""}, {"sortOrder", 0}};
        struct Field {
            const char* key;
            bool number;
        };
        const Field fields[] = {{"id", false},
                                {"state", true},
                                {"stateDetails", false},
                                {"type", false},
                                {"displayName", false},
                                {"description", false},
                                {"helpHtml", false},
                                {"helpUrl", false},
                                {"totalSteps", true},
                                {"currentStep", true},
                                {"currentStepInfo", false},
                                {"currentProgress", true}};
        unsigned order = 0;
        for (const auto& [key, number] : fields) {
            json field = {{"type", number ? "integer" : "string"},
                          {"title", key},
                          {"sortOrder", order},
                          {"readOnly", true}};
            if (number && std::strcmp(key, "state") != 0) {
                field["minimum"] = 0;
            }
            schema["properties"][key] = std::move(field);
            order += 100;
        }
        schema["properties"]["state"]["enum"] = {0, 1, 2, 3, 4, 5};
        schema["properties"]["state"]["enumText"] = {"Ready to start",
                                                     "Running",
                                                     "Waiting for user feedback",
                                                     "Stopped due to completion",
                                                     "Stopped due to abort",
                                                     "Stopped due to failure"};
        json params = {{"type", "object"}, {"title", ""}, {"sortOrder", 0}};
        for (int i = 0; i < 5; ++i) {
            params["properties"]["count" + std::to_string(i)] = {{"type", "integer"},
                                                                 {"title", "count" + std::to_string(i)},
                                                                 {"sortOrder", 200 * i},
                                                                 {"minimum", 1},
                                                                 {"maximum", 1000}};
            params["properties"]["name" + std::to_string(i)] = {
                {"type", "string"}, {"title", "name" + std::to_string(i)}, {"sortOrder", 200 * i + 100}};
        }
        schema["properties"]["parameters"] = std::move(params);
        schema["properties"]["results"] = {
            {"type", "object"},
            {"title", ""},
            {"sortOrder", 0},
            {"properties",
             {{"value", {{"type", "integer"}, {"title", "value"}, {"sortOrder", 0}, {"minimum", 0}}}}}};
        document["_schema"] = std::move(schema);
    }
    return document;
}

void BM_DocumentBaseline(benchmark::State& state) {
    const bool withSchema = state.range(0) != 0;
    {
        // The baseline is only a baseline if it writes exactly the bytes the routine's reply has.
        DocumentFixture fixture;
        const std::string target = "/routines/" + fixture.id + (withSchema ? "?schema=true" : "");
        const std::string served = fixture.router.Dispatch("GET", target, nullptr).body.dump();
        const std::string direct = BaselineDocument(withSchema).dump();
        if (served != direct) {
            state.SkipWithError(
                ("baseline differs from the served document:\n" + served + "\n" + direct).c_str());
            return;
        }
    }
    size_t bytes = 0;
    for (auto _ : state) {
        bytes = BaselineDocument(withSchema).dump().size();
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}

// --- Step reports ------------------------------------------------------------------------------

void BM_StepReport(benchmark::State& state) {
    DocumentFixture fixture;
    auto instance = fixture.manager->AcquireInstance(fixture.id);
    unsigned progress = 0;
    for (auto _ : state) {
        progress = progress == 50 ? 51 : 50;
        instance->SetCurrentProgress(progress);
    }
}

// --- Lists ---------------------------------------------------------------------------------------

void BM_TypesList(benchmark::State& state) {
    NyTest::ScriptedFactory factory;
    RoutineRegistry registry;
    for (int64_t i = 0; i < state.range(0); ++i) {
        registry.Add(RoutineInfo("Type" + std::to_string(i), factory, true)
                         .SetDisplayName("A routine type")
                         .SetDescription("What the routine does, for people."));
    }
    NyRest::ResourceRouter router;
    NyRoutine::Internal::RoutineTypes front(router, registry);
    for (auto _ : state) {
        benchmark::DoNotOptimize(router.Dispatch("GET", "/routineTypes", nullptr).body.dump());
    }
    state.SetComplexityN(state.range(0));
}

long ResidentKiB() {
    std::ifstream statm("/proc/self/statm");
    long size = 0;
    long resident = 0;
    statm >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

void BM_Collection(benchmark::State& state) {
    NyTest::ScriptedFactory factory;
    RoutineRegistry registry;
    registry.Add(RoutineInfo("Idle", factory, true));
    RoutineManager manager(registry, nullptr, 0);
    NyRest::ResourceRouter router;
    NyRoutine::Internal::RoutinesDir dir(router, manager);
    const long before = ResidentKiB();
    for (int64_t i = 0; i < state.range(0); ++i) {
        manager.Create("Idle", nullptr);
    }
    // Idle routines hold no thread: wait until the runners have let theirs go.
    std::this_thread::sleep_for(Ny::AsyncRunner::IdleTimeout * 2);
    const long after = ResidentKiB();
    for (auto _ : state) {
        benchmark::DoNotOptimize(router.Dispatch("GET", "/routines", nullptr).body.dump());
    }
    state.counters["KiB_per_routine"] =
        static_cast<double>(after - before) / static_cast<double>(state.range(0));
    state.SetComplexityN(state.range(0));
    manager.ClearAllRoutines();
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--nyr_smoke") == 0) {
            smoke = true;
        } else {
            args.push_back(argv[i]);
        }
    }
    int count = static_cast<int>(args.size());
    benchmark::RegisterBenchmark("Lifecycle", BM_Lifecycle)->UseRealTime();
    benchmark::RegisterBenchmark("LifecycleBaseline", BM_LifecycleBaseline)->UseRealTime();
    benchmark::RegisterBenchmark("Document", BM_Document)->Arg(1)->Arg(0);
    benchmark::RegisterBenchmark("DocumentBaseline", BM_DocumentBaseline)->Arg(1)->Arg(0);
    benchmark::RegisterBenchmark("StepReport", BM_StepReport);
    auto* types = benchmark::RegisterBenchmark("TypesList", BM_TypesList)->Complexity(benchmark::oN);
    auto* collection = benchmark::RegisterBenchmark("Collection", BM_Collection)->Complexity(benchmark::oN);
    if (smoke) {
        types->Arg(1)->Arg(10);
        collection->Arg(1)->Arg(10);
    } else {
        types->Arg(1)->Arg(10)->Arg(100)->Arg(1000);
        collection->Arg(1)->Arg(1000)->Arg(10000);
    }
    benchmark::Initialize(&count, args.data());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

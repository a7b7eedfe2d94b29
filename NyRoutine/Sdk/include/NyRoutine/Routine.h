// `NyRoutine/Routine.h`: the one include of a plug-in's source file.
//
// Brings in everything a plug-in author writes against: the routine interfaces (IRoutine, IRoutineHost,
// IRoutineFactory), the routine type record (RoutineInfo), the plug-in object (RoutinePlugin) with the
// conveniences RoutineFactory<T> and RoutineBase<Results>, the entry point macro NY_PLUGIN_ENTRY, the
// parameter values (Ny::Params::Group, Value, Enum) routines publish their parameters and results
// with, the debug log (NY_LOG) and Ny::Exception with its named statuses.
//
//     #include "NyRoutine/Routine.h"
//
//     // Parameters: members of a group, added in the order a form shows them (key, member, title).
//     // Clients write them as JSON while the routine waits; a value outside its limits or options is
//     // refused with status InvalidValue.
//     struct CalibrationParams : Ny::Params::Group {
//         CalibrationParams() {
//             AddParameter("samples", samples, "Samples");
//             samples.Minimum(1).Maximum(1000);
//             samples = 10;                                  // the default
//             AddParameter("mode", mode, "Mode");
//             mode.AddOption(0, "Fast");
//             mode.AddOption(1, "Precise");
//             AddParameter("label", label, "Label");
//         }
//         Ny::Params::Value<unsigned int> samples;
//         Ny::Params::Enum<unsigned int> mode;
//         Ny::Params::Value<std::string> label;
//     };
//
//     class Calibration : public NyRoutine::RoutineBase<CalibrationResults> {
//       public:
//         void Run(NyRoutine::IRoutineHost& host) override {
//             host.SetTotalSteps(2);
//             host.SetCurrentStep(1, "Set the parameters, then continue.");
//             if (!host.GetParams(params, nullptr)) return;  // published until the user continues
//             host.WaitForContinue([this](NyRoutine::IRoutineHost& h) { Measure(h); });
//         }
//       private:
//         void Measure(NyRoutine::IRoutineHost& host);     // reads params, HandOverResults(...)
//         CalibrationParams params;  // a member: it must outlive its publication
//     };
//
//     NY_PLUGIN_ENTRY(sink) {
//         auto plugin = NyRoutine::RoutinePlugin::Create();
//         plugin->AddRoutineType<Calibration>(NyRoutine::RoutineInfo("Calibration", false)
//                                                 .SetDisplayName("Sensor calibration")
//                                                 .SetDescription("Measures offset and gain."));
//         sink.Add(plugin);
//     }
//
// Link the plug-in with NyRoutine::NyRoutineSdk and build it with nyr_add_plugin (CMake package
// NyRoutine).
#pragma once

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyApi/Status.h"
#include "NyPlugin/PluginExport.h"
#include "NyRoutine/IRoutine.h"
#include "NyRoutine/IRoutineFactory.h"
#include "NyRoutine/IRoutineHost.h"
#include "NyRoutine/RoutineBase.h"
#include "NyRoutine/RoutineFactory.h"
#include "NyRoutine/RoutineInfo.h"
#include "NyRoutine/RoutinePlugin.h"
#include "NyValues/Params/Enum.h"
#include "NyValues/Params/Group.h"
#include "NyValues/Params/Value.h"

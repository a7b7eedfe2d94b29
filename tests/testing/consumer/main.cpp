// Tests a routine type of its own with the installed test kit from a plain main: every failure is an
// exception or a return value, so no test framework is needed. Exits non-zero on the first failure.
#include <cstdio>
#include <exception>
#include <memory>

#include "NyApi/Exception.h"
#include "NyRoutine/IRoutine.h"
#include "NyRoutine/IRoutineFactory.h"
#include "NyRoutine/IRoutineHost.h"
#include "NyRoutine/RoutineInfo.h"
#include "NyRoutine/Testing/RoutineDriver.h"

namespace {

class Countdown : public NyRoutine::IRoutine {
  public:
    void SetCreateParams(std::shared_ptr<Ny::Params::Group>) override {}
    void Run(NyRoutine::IRoutineHost& host) override {
        host.SetTotalSteps(3);
        for (unsigned int step = 1; step <= 3; ++step) {
            host.SetCurrentStep(step, "counting");
        }
    }
    void FreeResults(const Ny::Properties::Structure*) override {}
};

class CountdownFactory : public NyRoutine::IRoutineFactory {
  public:
    std::shared_ptr<NyRoutine::IRoutine> CreateRoutine() override { return std::make_shared<Countdown>(); }
};

int Fail(const char* what) {
    std::fprintf(stderr, "kit consumer: %s\n", what);
    return 1;
}

}  // namespace

int main() {
    try {
        CountdownFactory factory;
        NyRoutine::Testing::RoutineDriver driver(NyRoutine::RoutineInfo("Countdown", factory, true));
        driver.Create();
        if (!driver.WaitUntilEnded() || driver.State() != NyCommon::RoutineState::Completed) {
            return Fail("the routine did not complete");
        }
        if (driver.Document()["currentStep"] != 3) {
            return Fail("the routine did not reach its last step");
        }
        try {
            driver.SetParams({{"start", 10}});
            return Fail("a write to a routine without parameters was accepted");
        } catch (const Ny::Exception& e) {
            if (Ny::StatusOf(e) != Ny::Status::Refused) {
                return Fail("a write to a routine without parameters was not refused as such");
            }
        }
    } catch (const std::exception& e) {
        return Fail(e.what());
    }
    std::puts("kit consumer: ok");
    return 0;
}

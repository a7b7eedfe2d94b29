#include <gtest/gtest.h>

#include <stdexcept>

#include "LogCapture.h"
#include "NyApi/Exception.h"

namespace {

namespace Routines {
struct Sample {
    [[noreturn]] static void Fail(unsigned step, unsigned total) {
        throw NY_EXCEPTION(-997, "Routine step (%1$u) exceeds total steps (%2$u).", step, total);
    }
};
}  // namespace Routines

TEST(Exception, FormatsPositionalPlaceholdersAndNamesTheThrowingFunction) {
    try {
        Routines::Sample::Fail(3, 2);
        FAIL();
    } catch (const Ny::Exception& e) {
        EXPECT_EQ(e.Status(), -997);
        EXPECT_STREQ(e.what(), "Routine step (3) exceeds total steps (2).");
        EXPECT_EQ(e.Context(), "{anonymous}::Routines::Sample::Fail");
        EXPECT_GT(e.Line(), 0);
    }
}

TEST(Exception, ContextIsTheSameWhicheverCompilerSpelledTheFunction) {
    EXPECT_EQ(
        Ny::QualifiedName("static void {anonymous}::Routines::Sample::Fail(unsigned int, unsigned int)"),
        "{anonymous}::Routines::Sample::Fail");
    EXPECT_EQ(Ny::QualifiedName(
                  "static void (anonymous namespace)::Routines::Sample::Fail(unsigned int, unsigned int)"),
              "{anonymous}::Routines::Sample::Fail");
    EXPECT_EQ(
        Ny::QualifiedName("void Ny::Array<T>::Remove(size_t) [with T = int; size_t = long unsigned int]"),
        "Ny::Array<T>::Remove");
    EXPECT_EQ(Ny::QualifiedName("void Ny::Array<int>::Remove(size_t) const [T = int]"),
              "Ny::Array<int>::Remove");
}

TEST(Exception, PositionalPlaceholdersMayReorderArguments) {
    const Ny::Exception e(1, "f.cpp", -1000, "RoutineManager", "%2$u then %1$s", "text", 5u);
    EXPECT_EQ(e.Message(), "5 then text");
}

TEST(Exception, WithoutMessageWhatNamesContextAndStatus) {
    const Ny::Exception e(10, "f.cpp", -999, "NyRoutine::Internal::RoutineManager::Remove");
    EXPECT_EQ(e.Message(), "");
    EXPECT_STREQ(e.what(), "NyRoutine::Internal::RoutineManager::Remove failed with status -999");
}

TEST(Exception, NestingKeepsTheChainForLoggingAndReplies) {
    NyTest::LogCapture log;
    try {
        try {
            throw std::runtime_error("disk on fire");
        } catch (const std::exception&) {
            std::throw_with_nested(Ny::Exception(20, "g.cpp", 0, "Outer::Op", "Set routine params failed."));
        }
    } catch (const Ny::Exception& e) {
        EXPECT_EQ(Ny::Exception::NestedMessages(e), std::vector<std::string>{"disk on fire"});
        Ny::Exception::LogException(e, 0);
        Ny::Exception::LogBackTrace(e);
    }
    const auto lines = log.Texts(Ny::Logging::Level::CaughtFailure);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "Set routine params failed. (status 0)");
    EXPECT_EQ(lines[1], "  disk on fire (status 0)");
    EXPECT_EQ(lines[2], "  thrown at g.cpp:20 in Outer::Op");
    EXPECT_EQ(lines[3], "  thrown outside the API library: disk on fire");
}

TEST(QualifiedName, StripsReturnTypeParametersAndTemplateNotes) {
    EXPECT_EQ(Ny::QualifiedName("void NyRoutine::Internal::RoutinesRoot::Create(const Ny::RequestInfo&)"),
              "NyRoutine::Internal::RoutinesRoot::Create");
    EXPECT_EQ(
        Ny::QualifiedName("void Ny::Params::Value<T>::CheckValidation(const T&) [with T = unsigned int]"),
        "Ny::Params::Value<T>::CheckValidation");
    EXPECT_EQ(Ny::QualifiedName("std::string Ny::Foo::Bar() const"), "Ny::Foo::Bar");
    EXPECT_EQ(Ny::QualifiedName("Ny::Foo::Foo(int)"), "Ny::Foo::Foo");
}

}  // namespace

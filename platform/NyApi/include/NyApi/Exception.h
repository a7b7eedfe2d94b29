// `Ny::Exception`: the failure type of the API library and of everything built on it.
//
// An exception carries the source line and file where it was made, a status (one of the named values
// of NyApi/Status.h; Ny::Status::Wrapped for a wrapped exception that had none), a context (the
// qualified name of the throwing function) and an optional printf-style message, formatted at construction
// (positional placeholders such as "%1$s" and "%2$u" work). Context is added by catching, releasing what is
// held and throwing a new exception with the caught one nested (`std::throw_with_nested`).
//
// A refusal that belongs to one field of a request (a parameter) may also carry field refusals: each a
// field's path in the request (keys joined with ".", array elements by index) and a message. A form
// shows each next to its input. They survive wrapping: `FieldsOf` collects them from the whole chain.
//
// Use the NY_EXCEPTION macro to fill in line, file and function:
//     throw NY_EXCEPTION(Ny::Status::InvalidValue, "Routine step (%1$u) exceeds total steps (%2$u).",
//                        step, total);
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include "NyApi/PrintfArgument.h"

namespace Ny {

class Exception : public std::exception {
  public:
    struct FieldRefusal {
        std::string path;
        std::string message;
        bool operator==(const FieldRefusal&) const = default;
    };

    // No message. Throws nothing itself.
    Exception(int lineIn, const char* fileIn, int statusIn, const char* contextIn)
        : Exception(Unchecked{}, lineIn, fileIn, statusIn, contextIn, nullptr) {}
    // The message formatted from `format` (may be null: no message) and `args`, which are checked at
    // compile time (see PrintfArgument.h: pass text as .c_str()). Throws nothing itself.
    template <PrintfArgument... Args>
    Exception(int lineIn, const char* fileIn, int statusIn, const char* contextIn, const char* format,
              Args... args)
        : Exception(Unchecked{}, lineIn, fileIn, statusIn, contextIn, format, args...) {}

    int Status() const noexcept { return status; }
    int Line() const noexcept { return line; }
    const std::string& File() const noexcept { return file; }
    const std::string& Context() const noexcept { return context; }
    // The formatted message; empty when none was given.
    const std::string& Message() const noexcept { return message; }
    // The message, or "<context> failed with status <n>" when there is none.
    const char* what() const noexcept override { return text.c_str(); }

    // This exception's own field refusals, in the order added.
    const std::vector<FieldRefusal>& Fields() const noexcept { return fields; }
    void AddField(std::string path, std::string fieldMessage);
    // The field refusals of `e` and of every exception nested in it, outermost first.
    static std::vector<FieldRefusal> FieldsOf(const std::exception& e);

    // Writes the message of `e` and of every exception nested in it to the debug log, one line each,
    // with the given level word (0 means the caught-failure level).
    static void LogException(const std::exception& e, std::uint64_t levelWord);
    // Writes where each exception of the chain of `e` was made (file, line, context).
    static void LogBackTrace(const std::exception& e);

    // The texts of the exceptions nested inside `e`, outermost first (not including `e` itself).
    static std::vector<std::string> NestedMessages(const std::exception& e);

  private:
    struct Unchecked {};
    // The printf-style constructor behind the checked one. No format attribute: the compiler's checker
    // flags positional placeholders under -Wpedantic.
    Exception(Unchecked, int line, const char* file, int status, const char* context, const char* format,
              ...);

    int line;
    std::string file;
    int status;
    std::string context;
    std::string message;
    std::string text;
    std::vector<FieldRefusal> fields;
};

// The status of `e` if it is a `Ny::Exception`, else 0.
int StatusOf(const std::exception& e) noexcept;

}  // namespace Ny

#include "NyApi/Logging.h"
#include "NyApi/Status.h"

// The qualified name of the enclosing function: the one source of every exception's context, so that no
// hand-typed name can go stale when a function is renamed or split.
#define NY_CONTEXT() ::Ny::QualifiedName(__PRETTY_FUNCTION__)

#define NY_EXCEPTION(status, ...) \
    ::Ny::Exception(__LINE__, __FILE__, (status), NY_CONTEXT().c_str() __VA_OPT__(, ) __VA_ARGS__)

// Throws `Ny::Exception` with the runtime status `s` (no message) unless it is `NyRt::Ok`.
#define NY_CHECK_RT(expr)                       \
    do {                                        \
        const int nyStatus_ = (expr);           \
        if (nyStatus_ != Ny::Status::Success) { \
            throw NY_EXCEPTION(nyStatus_);      \
        }                                       \
    } while (false)

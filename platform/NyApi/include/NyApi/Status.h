// `Ny::Status`: the status values a `Ny::Exception` carries, by name. The numbers are part of the
// system's contract (hosts see them in every JSON error reply as "status"), so they never change.
//
//     throw NY_EXCEPTION(Ny::Status::NotFound, "Routine %s not found!", id.c_str());
//     if (Ny::StatusOf(e) == Ny::Status::Refused) { ... }
//
// The HTTP edge answers NotFound with 404, InvalidValue with 400, Refused and AlreadyRegistered with
// 409, and anything else with 500.
#pragma once

namespace Ny::Status {

// A wrapped exception that carried no status of its own (a std::exception that is not a Ny::Exception).
inline constexpr int Wrapped = 0;
// What the runtime library returns for success; any other return value is thrown as a status.
inline constexpr int Success = 1;
// Refused in the current state: creation while the system runs or at the routine limit, start outside
// Ready, a strict write to a routine that does not wait for parameters.
inline constexpr int Refused = -1000;
// Not found: a routine type, a routine id, a command's path parameter, an array index, a plug-in file.
inline constexpr int NotFound = -999;
// Invalid value: a step or progress beyond its limit, a parameter limit or enumeration broken, a bad
// request body, a file that is not a plug-in.
inline constexpr int InvalidValue = -997;
// A schema leaf (a value that only describes its type) was read.
inline constexpr int SchemaLeafRead = -996;
// A routine type without factory, or a factory that made no routine.
inline constexpr int NoFactory = -992;
// Returned, never thrown: a routine's completion wait ended because the routine was aborted.
inline constexpr int WaitAborted = -988;
// A name registered already: a routine type name, a resource path.
inline constexpr int AlreadyRegistered = -987;
// A schema leaf was asked to become readable.
inline constexpr int SchemaLeafNotWriteOnly = -982;

}  // namespace Ny::Status

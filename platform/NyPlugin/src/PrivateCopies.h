// The plug-in manager's private copies of plug-in files (internal to NyPlugin).
//
// The manager never opens a plug-in file where the operator keeps it: it copies the file into a folder
// of its own and opens the copy (PluginManager.h says why). These helpers make that folder, copy a file
// into it while hashing what they copy, and hash a file in place to tell whether it changed. Plain
// functions with no state; the manager serializes their use.
#pragma once

#include <filesystem>
#include <string>

namespace NyPlugin::Internal {

// Makes a new folder that only this user may read, under $TMPDIR (when set to an absolute path) or
// /tmp. Throws Ny::Exception (Refused) when it cannot.
std::filesystem::path MakePrivateFolder();

// Copies `from` into the new file `to` (owner read and write only; an existing `to` is refused) and
// returns the SHA-256 of the bytes copied as 64 lower-case hex digits. On failure removes what it
// wrote and throws Ny::Exception naming `from`: NotFound when it does not exist, InvalidValue when it
// is no regular file (a folder, a named pipe: never blocks on one) or cannot be read or copied.
std::string CopyHashed(const std::filesystem::path& from, const std::filesystem::path& to);

// The SHA-256 of the content of `file`, as CopyHashed returns it. Throws as CopyHashed does.
std::string HashOf(const std::filesystem::path& file);

// Checks that the private copy `copy` of the plug-in file `file` is whole enough for the dynamic loader
// to map it: the loader maps each loadable segment's file range without checking it against the file's
// size, and a page past the end kills the process with SIGBUS. A file with the ELF magic must be of this
// machine's class and byte order, with its ELF header, program headers, every segment's file range and
// its section headers inside the file; otherwise throws Ny::Exception (InvalidValue) naming `file`:
// "Plug-in <file> is not a complete shared library: <what is wrong>". A file without the ELF magic
// passes: the loader refuses it from the header it reads, without mapping anything. The copy must be
// one that nobody writes any more.
void CheckComplete(const std::filesystem::path& copy, const std::string& file);

}  // namespace NyPlugin::Internal

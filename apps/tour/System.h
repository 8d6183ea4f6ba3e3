#pragma once

#include <filesystem>
#include <string>

namespace tour {

// What the tour asks of the system. Twin files: posix/System.cpp and windows/System.cpp.

/// The library from which the program has this function.
std::string LibraryOf(const void* function);

/// A new folder in the temporary directory, for this user alone; its name begins with `front`. Throws
/// std::runtime_error.
std::filesystem::path MakeTemporaryFolder(const std::string& front);

/// A TCP port of the loopback interface that is free at the moment; throws std::runtime_error.
int FreePort();

/// Sets a variable of this process's environment, and of those that it starts.
void SetVariable(const char* name, const std::string& value);

/// What a person types to run `program` with such a variable.
std::string WithVariable(const std::string& name, const std::string& value,
                         const std::filesystem::path& program, const std::string& arguments);

/// Makes the terminal show what is printed in UTF-8, where it has to be told.
void PrintInUtf8();

/// Whether stdout is a terminal that shows colours.
bool ShowsColours();

}  // namespace tour

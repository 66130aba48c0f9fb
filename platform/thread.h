#pragma once

#include <string>

// The appliance's library keeps the command line with its threads, and under these names.
namespace Thread {

/// Keeps the program's arguments for GetCommandLine. Called once, by main.
void SetCommandLine(int count, char** arguments);

/// Gives the number of arguments behind the program's name and, in `line`, the first of them
/// (empty when there is none).
int GetCommandLine(std::string& line);

}  // namespace Thread

#pragma once

#include <string>

/// Writes the files of a text of tests/inputs into the appliance that lies below `root`. "====
/// PATH" heads each, with what it holds below or behind ":" in the form that Unfolded knows, or
/// with " = factory NAME" when it is a file of the factory's.
void UnpackInput(const std::string& input, const std::string& root);

#pragma once

#include <string>
#include <vector>

/// Counts what the system refused, by errno, in reading, making, saving and removing. An error that
/// only says what stands under a name (nothing, a directory, a link that leads nowhere) is not the
/// disk's and counts as nothing: it is the same on every start.
void CountDiskFailure(int error);

/// The same, kept for the log: for what the step's own message does not give the reason of.
void CountDiskFailure(int error, const std::string& path);

/// How many there were since the program began. An upgrade with any of them is not the upgrade that
/// a healthy disk would have given.
unsigned DiskFailures();

/// The kept ones, "path: reason in words", and forgets them. Of many, the first.
std::vector<std::string> TakeDiskFailureTexts();

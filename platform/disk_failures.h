#pragma once

#include <string>
#include <vector>

/// Counts what the disk refused, by errno, in reading and in saving. An error that only says what
/// stands under a name (nothing, a directory, a link that leads nowhere) is not the disk's and
/// counts as nothing: it is the same on every start.
void CountDiskFailure(int error);

/// The same for a file whose reader does not say why it could not be read: kept for the log.
void CountDiskFailure(int error, const std::string& path);

/// How many there were since the program began. An upgrade with any of them is not the upgrade that
/// a healthy disk would have given.
unsigned DiskFailures();

/// The kept ones, "path: reason in words", and forgets them. Of many, the first.
std::vector<std::string> TakeDiskFailureTexts();

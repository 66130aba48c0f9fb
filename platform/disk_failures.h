#pragma once

/// Counts what the disk refused, by errno, in reading and in saving. An error that only says what
/// stands under a name (nothing, a directory, a link that leads nowhere) is not the disk's and
/// counts as nothing: it is the same on every start.
void CountDiskFailure(int error);

/// How many there were since the program began. An upgrade with any of them is not the upgrade that
/// a healthy disk would have given.
unsigned DiskFailures();

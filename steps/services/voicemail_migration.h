#pragma once

#include <cstdint>

/// A mailbox's share of the storage in percent, as the mailbox keeps it: rounded down and cut to 8
/// bits, so that 300 becomes 44. 0 when there is nothing to share.
std::uint8_t MailboxPortion(std::uint64_t mailboxSize, std::uint64_t storageSize);

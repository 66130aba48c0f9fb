#pragma once

#include "rehearse/sandbox/order.h"

namespace rehearse {

/// In the sandbox: makes the tree again what it was, with its directories in an order. False when
/// the file system keeps an order of its own.
bool RestoreTree(Order order);
/// The order alone.
bool OrderTree(Order order);

}  // namespace rehearse

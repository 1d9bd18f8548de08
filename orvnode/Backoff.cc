#include "orvnode/Backoff.h"

#include <algorithm>

namespace orvnode {

Backoff::Backoff(Duration first, Duration ceiling)
    : first_(std::max(first, Duration(1))), ceiling_(std::max(ceiling, first_)), current_(first_) {}

Backoff::Duration Backoff::next() {
    Duration pause = current_;
    // Halving the ceiling first keeps the doubling from overflowing.
    current_ = current_ > ceiling_ / 2 ? ceiling_ : current_ * 2;
    return pause;
}

}  // namespace orvnode

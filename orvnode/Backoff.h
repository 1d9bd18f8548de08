// How long the node agent waits between attempts to reach a server that
// does not answer: doubling from a first pause up to a ceiling, back to the
// first pause after a success. Pure value; not thread-safe.
#pragma once

#include <chrono>

namespace orvnode {

class Backoff {
public:
    using Duration = std::chrono::milliseconds;

    // `first` > 0; `ceiling` >= `first`.
    Backoff(Duration first, Duration ceiling);
    // The pause before the next attempt; each call doubles the next, up to the ceiling.
    Duration next();
    // After a success: the next pause is the first again.
    void reset() { current_ = first_; }

private:
    Duration first_;
    Duration ceiling_;
    Duration current_;
};

}  // namespace orvnode

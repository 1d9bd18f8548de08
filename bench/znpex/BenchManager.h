// The resource manager the request benchmark talks to: one class,
// "Bench.Node", whose enumeration answers four fixed handles at once, on the
// framework's dispatch threads and its connection to the service. Owns its
// control point and connection; start() returns once registered.
#pragma once

#include <memory>

#include "tarn_rmf2v/RMRmcp.h"
#include "tarn_rmf2v/link/RMServiceConnection.h"

namespace znpexbench {

inline constexpr char kBenchClass[] = "Bench.Node";

class BenchManager {
public:
    explicit BenchManager(unsigned dispatchThreads);
    ~BenchManager();
    // Connects to the service under the state root; false when it did not
    // register within the time given.
    bool start(int timeoutMs);

private:
    std::unique_ptr<tarn_rmf2v::RMRmcp> rmcp_;
    std::unique_ptr<tarn_rmf2v::RMServiceConnection> conn_;
};

}  // namespace znpexbench

// Memory for the rows of a table load, asked of the kernel in large blocks
// (huge pages where it offers them) rather than page by page on first touch,
// which at 100,000 rows costs more than reading them. Each row placed in a
// block holds it; the block is returned to the kernel when its last row goes,
// so rows deleted or replaced after a load keep their block until then.
// Blocks count their rows atomically (rows are released from any thread); a
// pool is filled by one loading thread.
#pragma once

#include <atomic>
#include <cstddef>

namespace tarn_rmf {

class RMRowArena {
public:
    // A block with room for at least `bytes`; null when the kernel says no.
    static RMRowArena* create(size_t bytes);

    // `n` bytes (16-aligned) from the block, or null when it is full. The
    // caller then holds one reference.
    void* allocate(size_t n);
    void retain() { refs_.fetch_add(1, std::memory_order_relaxed); }
    // Drops a reference; the block goes with the last one.
    void release();

private:
    RMRowArena(size_t mapped, size_t used) : mapped_(mapped), used_(used) {}
    size_t mapped_;
    size_t used_;
    std::atomic<size_t> refs_{1};  // the pool's own, until it moves on
};

// The blocks one load fills, one after another.
class RMRowArenaPool {
public:
    RMRowArenaPool() = default;
    RMRowArenaPool(const RMRowArenaPool&) = delete;
    RMRowArenaPool& operator=(const RMRowArenaPool&) = delete;
    ~RMRowArenaPool();

    // `n` bytes and the block that holds them (null block: plain heap memory
    // from ::operator new, when no block could be had).
    void* allocate(size_t n, RMRowArena*& owner);

private:
    RMRowArena* current_ = nullptr;
};

}  // namespace tarn_rmf

#include "tarn_rmf/registry/RMRowArena.h"

#include <sys/mman.h>

#include <new>

namespace tarn_rmf {
namespace {

constexpr size_t kBlock = 32u << 20;  // a multiple of the 2 MiB huge page
constexpr size_t kAlign = 16;

size_t roundUp(size_t n, size_t to) {
    return (n + to - 1) / to * to;
}

}  // namespace

RMRowArena* RMRowArena::create(size_t bytes) {
    size_t header = roundUp(sizeof(RMRowArena), kAlign);
    size_t mapped = roundUp(header + bytes, kBlock);
    void* mem = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        return nullptr;
    }
    // A hint: where huge pages are offered only on request, ask for them.
    madvise(mem, mapped, MADV_HUGEPAGE);
    return new (mem) RMRowArena(mapped, header);
}

void* RMRowArena::allocate(size_t n) {
    size_t need = roundUp(n, kAlign);
    if (need > mapped_ - used_) {
        return nullptr;
    }
    void* p = reinterpret_cast<char*>(this) + used_;
    used_ += need;
    retain();
    return p;
}

void RMRowArena::release() {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        size_t mapped = mapped_;
        this->~RMRowArena();
        munmap(this, mapped);
    }
}

RMRowArenaPool::~RMRowArenaPool() {
    if (current_ != nullptr) {
        current_->release();
    }
}

void* RMRowArenaPool::allocate(size_t n, RMRowArena*& owner) {
    void* p = current_ != nullptr ? current_->allocate(n) : nullptr;
    if (p == nullptr) {
        if (current_ != nullptr) {
            current_->release();
        }
        current_ = RMRowArena::create(n);
        p = current_ != nullptr ? current_->allocate(n) : nullptr;
    }
    owner = p != nullptr ? current_ : nullptr;
    return p != nullptr ? p : ::operator new(n);
}

}  // namespace tarn_rmf

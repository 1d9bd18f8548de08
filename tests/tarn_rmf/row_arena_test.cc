// Row blocks of a table load: allocations are aligned, never overlap, spill
// into new blocks, and a block goes back to the kernel with its last row.
#include <gtest/gtest.h>

#include <cstdint>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "tarn_rmf/registry/RMRowArena.h"

namespace {

using tarn_rmf::RMRowArena;
using tarn_rmf::RMRowArenaPool;

// Whether `p` lies in a mapping of this process.
bool mapped(const void* p) {
    auto a = reinterpret_cast<uintptr_t>(p);
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        uintptr_t lo = 0, hi = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx", &lo, &hi) == 2 && a >= lo && a < hi) {
            return true;
        }
    }
    return false;
}

TEST(RegistryRowArena, RowsFillBlocksWithoutOverlapAndBlocksGoWithTheirLastRow) {
    struct Piece {
        unsigned char* p;
        size_t n;
        RMRowArena* block;
    };
    std::vector<Piece> pieces;
    std::mt19937 rng(3);
    {
        RMRowArenaPool pool;
        // Enough to need more than one 32 MiB block.
        for (size_t total = 0; total < (48u << 20);) {
            size_t n = 200 + rng() % 3000;
            RMRowArena* block = nullptr;
            auto* p = static_cast<unsigned char*>(pool.allocate(n, block));
            ASSERT_NE(block, nullptr);
            ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
            std::memset(p, static_cast<int>(pieces.size() & 0xFF), n);
            pieces.push_back({p, n, block});
            total += n;
        }
    }  // the pool lets go of its block; the rows still hold theirs
    RMRowArena* first = pieces.front().block;
    RMRowArena* last = pieces.back().block;
    ASSERT_NE(first, last);
    for (size_t i = 0; i < pieces.size(); ++i) {
        const Piece& pc = pieces[i];
        for (size_t k = 0; k < pc.n; k += 97) {
            ASSERT_EQ(pc.p[k], static_cast<unsigned char>(i & 0xFF)) << "piece " << i;
        }
    }
    // Release in random order; each block stays mapped until its last row goes.
    std::shuffle(pieces.begin(), pieces.end(), rng);
    size_t firstLeft = 0;
    for (const Piece& pc : pieces) {
        firstLeft += pc.block == first ? 1 : 0;
    }
    for (const Piece& pc : pieces) {
        bool lastOfFirst = pc.block == first && --firstLeft == 0;
        if (lastOfFirst) {
            EXPECT_TRUE(mapped(first));
        }
        pc.block->release();
        if (lastOfFirst) {
            EXPECT_FALSE(mapped(first));
        }
    }
    EXPECT_FALSE(mapped(last));
}

TEST(RegistryRowArena, AnOversizedRowGetsABlockOfItsOwn) {
    RMRowArenaPool pool;
    RMRowArena* small = nullptr;
    RMRowArena* big = nullptr;
    pool.allocate(100, small);
    void* p = pool.allocate(40u << 20, big);
    ASSERT_NE(big, nullptr);
    EXPECT_NE(big, small);
    std::memset(p, 1, 40u << 20);
    small->release();
    big->release();
}

}  // namespace

#include "orvnode/Backoff.h"

#include <gtest/gtest.h>

namespace {

using orvnode::Backoff;
using ms = std::chrono::milliseconds;

TEST(Backoff, DoublesUpToTheCeilingAndStartsOverAfterASuccess) {
    Backoff b(ms(1000), ms(5000));
    for (long want : {1000, 2000, 4000, 5000, 5000}) {
        EXPECT_EQ(b.next().count(), want);
    }
    b.reset();
    EXPECT_EQ(b.next().count(), 1000);
}

TEST(Backoff, OddSettingsStaySane) {
    struct Case {
        ms first, ceiling;
        std::vector<long> pauses;
    };
    const Case cases[] = {
        {ms(0), ms(0), {1, 1, 1}},        // never zero: no busy loop
        {ms(300), ms(100), {300, 300}},   // a ceiling below the first pause
        {ms(3), ms(10), {3, 6, 10, 10}},  // a ceiling that is no power of two
        // No overflow near the largest duration: doubling stops at the ceiling.
        {ms::max() / 2,
         ms::max(),
         {ms::max().count() / 2, ms::max().count() - 1, ms::max().count()}},
    };
    for (const Case& c : cases) {
        Backoff b(c.first, c.ceiling);
        for (long want : c.pauses) {
            EXPECT_EQ(b.next().count(), want) << c.first.count() << "/" << c.ceiling.count();
        }
    }
}

}  // namespace

// The difference of two expanded lists as membership reports give it, and
// duplicate detection.
#include <gtest/gtest.h>

#include "orvrm/nodegroup/MemberLists.h"

namespace orvrm {
namespace {

TEST(MemberListsTest, DifferenceMatchesEntriesOneForOne) {
    struct Case {
        const char* what;
        NameList before, now;
        bool differs;
        NameList added, removed;
    };
    const Case cases[] = {
        {"same", {"a", "b"}, {"a", "b"}, false, {}, {}},
        {"order only", {"a", "b", "c"}, {"c", "a", "b"}, false, {}, {}},
        {"both empty", {}, {}, false, {}, {}},
        {"added in the new order", {"a"}, {"c", "a", "b"}, true, {"c", "b"}, {}},
        {"removed in the old order", {"c", "a", "b"}, {"a"}, true, {}, {"c", "b"}},
        {"both ways", {"a", "b"}, {"b", "c"}, true, {"c"}, {"a"}},
        {"a repeat left over", {"a", "a"}, {"a"}, true, {}, {"a"}},
        {"a repeat added", {"a", "b"}, {"a", "b", "a"}, true, {"a"}, {}},
        {"repeats matched first", {"a", "b", "a"}, {"b", "a"}, true, {}, {"a"}},
    };
    for (const Case& c : cases) {
        NameList added{"junk"}, removed{"junk"};
        EXPECT_EQ(getDifference(c.before, c.now, &added, &removed), c.differs) << c.what;
        EXPECT_EQ(added, c.added) << c.what;
        EXPECT_EQ(removed, c.removed) << c.what;
    }
}

TEST(MemberListsTest, DuplicatesAreFoundAnywhere) {
    EXPECT_FALSE(checkForDuplicateStrings({}));
    EXPECT_FALSE(checkForDuplicateStrings({"a", "b", "+a"}));
    EXPECT_TRUE(checkForDuplicateStrings({"a", "b", "a"}));
    EXPECT_TRUE(checkForDuplicateStrings({"", ""}));
}

TEST(MemberListsTest, ArraysRoundTrip) {
    zn::OwnedValue v = stringArray({"x", "", "y"});
    EXPECT_EQ(namesOf(v.value().ptr_array), (NameList{"x", "", "y"}));
    EXPECT_EQ(namesOf(static_cast<const zn_array*>(nullptr)), NameList{});
}

}  // namespace
}  // namespace orvrm

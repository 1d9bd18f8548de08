// The string lists node groups are made of (member lists, expanded lists,
// action inputs): conversion between the registry's and the wire's string
// arrays and plain vectors, duplicate detection, and the difference of an
// old and a new list as membership reports give it. Pure functions.
#pragma once

#include <string>
#include <vector>

#include "platform/zn_owned.h"
#include "tarn_rmf/registry/RMValueView.h"

namespace orvrm {

using NameList = std::vector<std::string>;

// The strings of a string-array view or array (null entries read as "").
NameList namesOf(const tarn_rmf::RMValueView& array);
NameList namesOf(const zn_array* array);
// A new string array holding copies of the names; throws std::bad_alloc.
zn::OwnedValue stringArray(const NameList& names);

// True when two entries are equal; an empty list has no duplicates.
bool checkForDuplicateStrings(const NameList& names);

// The entries of `now` are matched one for one against `before` (the first
// equal entry not yet matched): what is left of `now` is `added` (in its
// order), what is left of `before` is `removed` (in its order). True when
// anything is left, so two lists that differ only in order do not differ.
bool getDifference(const NameList& before, const NameList& now, NameList* added, NameList* removed);

}  // namespace orvrm

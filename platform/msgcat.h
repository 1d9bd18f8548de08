// Message catalogue lookup: the text of (catalogue, set, number) from a
// translated catalogue installed for the locale (catopen/catgets, found through
// NLSPATH), or the compiled default when none is installed or it lacks the
// message.
#pragma once

#include <string>

namespace zn {

// Returns the catalogue's text, or `defaultText` (or "" if that is null).
std::string catalogText(const char* catalog, int set, int number, const char* defaultText);

// Forgets opened catalogues so the next lookup opens them again (tests change
// NLSPATH between cases).
void resetCatalogCache();

}  // namespace zn

// Removing resources the commands name: one request for them all, each
// reported by its name as removed or refused, and the summary -o json
// prints.
#pragma once

#include <string>
#include <vector>

#include "znpex/cli/CliSession.h"
#include "znpex/proto/Json.h"

namespace orvctl {

using znpex::cli::CliSession;

struct Named {
    zn_resource_handle handle;
    std::string name;
};

struct Removal {
    znpex::proto::Json removed = znpex::proto::Json::array();  // names
    znpex::proto::Json refused = znpex::proto::Json::array();  // {"name", "error"}
    znpex::proto::Json missing = znpex::proto::Json::array();  // names nothing has
};

// Undefines `targets` of `className`, printing "Removed NAME" for each one
// removed (table output) and the catalogue's text for each refusal, and
// recording both in `r`; a refusal sets *status to kExitFailed. False after
// printing why when the request failed as a whole.
bool undefineNamed(CliSession& cli, const char* className, const std::vector<Named>& targets,
                   Removal& r, int* status);
// With -o json, prints {"removed": [...]} with "refused" and "missing" when
// there are any.
void printRemoval(CliSession& cli, const Removal& r);

}  // namespace orvctl

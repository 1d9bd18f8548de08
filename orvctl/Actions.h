// Running an action for the commands: on the class, on one resource or on
// the resources a selection picks, with the answer checked and its data
// handed back.
#pragma once

#include <string>

#include "platform/zn_owned.h"
#include "znpex/cli/CliSession.h"

namespace orvctl {

using znpex::cli::CliSession;

// Whom an action is for: the class, one resource, or the resources a
// selection picks.
struct ActionTarget {
    const char* className;
    const zn_resource_handle* handle;  // null: not one resource
    const std::string* selection;      // null: not a selection
};
inline ActionTarget classTarget(const char* className) {
    return {className, nullptr, nullptr};
}
inline ActionTarget resourceTarget(const char* className, const zn_resource_handle* handle) {
    return {className, handle, nullptr};
}
inline ActionTarget selectionTarget(const char* className, const std::string* selection) {
    return {className, nullptr, selection};
}

enum class Ran { Done, NoResource, Failed };

// Runs `action` with `input` (may be null). Done with the data the (first)
// resource returned in *data (null when none); NoResource when a selection
// picked nothing (nothing printed); Failed after printing why: the request
// failed, or the manager refused it (its catalogue text as sent).
Ran runAction(CliSession& cli, const ActionTarget& target, const char* action,
              const zn_structured_data* input, zn::SdPtr* data);

}  // namespace orvctl

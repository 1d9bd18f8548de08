// Numbered trace points of the daemon spine (entry, exit and milestones of
// start-up, class creation and shutdown), written under "_OVD" Info.
#pragma once

namespace orvrm {

void traceRecord(int id, const char* text);
void traceRecordInt(int id, const char* text, long value);

}  // namespace orvrm

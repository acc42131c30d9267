#pragma once

namespace zandor {

// Hands the memory the allocator keeps free back to the system. A recording or a replay frees tens
// of megabytes of encoder state on threads of their own; glibc keeps what a thread's arena freed for
// later use, so without this every recording of a long session would leave the process a few
// megabytes larger.
void releaseFreeMemory();

} // namespace zandor

// Which of the process's threads stand for what, so that a soak can split the CPU the process takes
// between the simulated cameras and frame server, a baseline run beside them, and the rest (the
// transform's own threads and the platform's).
#pragma once

#include <map>

#include "platform/WindowsSdk.h"

namespace sim {

enum class ThreadRole { Camera, FrameServer, Baseline };

// Called by the thread itself when it starts.
void NoteThreadRole(ThreadRole role);
// Every thread that said what it is, by thread identifier.
std::map<DWORD, ThreadRole> ThreadRoles();

}  // namespace sim

#include "sim/ThreadRoles.h"

#include <mutex>

namespace sim {

namespace {

std::mutex &RolesLock() {
  static std::mutex lock;
  return lock;
}

std::map<DWORD, ThreadRole> &Roles() {
  static std::map<DWORD, ThreadRole> roles;
  return roles;
}

}  // namespace

void NoteThreadRole(ThreadRole role) {
  std::lock_guard<std::mutex> lock(RolesLock());
  Roles()[GetCurrentThreadId()] = role;
}

std::map<DWORD, ThreadRole> ThreadRoles() {
  std::lock_guard<std::mutex> lock(RolesLock());
  return Roles();
}

}  // namespace sim

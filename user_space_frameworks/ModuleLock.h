// The module lock count: the DLL may be unloaded only while it is zero. LockServer and every live COM
// object of the module hold it: class factories, transforms, and the callbacks the platform keeps.
#pragma once

#include <atomic>

namespace user_space_frameworks {

class ModuleLock {
 public:
  static void Lock() { count.fetch_add(1, std::memory_order_relaxed); }
  static void Unlock() { count.fetch_sub(1, std::memory_order_release); }
  static long Count() { return count.load(std::memory_order_acquire); }

 private:
  static std::atomic<long> count;
};

// Holds the module for as long as the object that owns it lives.
class ModuleReference {
 public:
  ModuleReference() { ModuleLock::Lock(); }
  ModuleReference(const ModuleReference &) { ModuleLock::Lock(); }
  ModuleReference &operator=(const ModuleReference &) = default;
  ~ModuleReference() { ModuleLock::Unlock(); }
};

}  // namespace user_space_frameworks

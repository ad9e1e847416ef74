#include "user_space_frameworks/ModuleLock.h"

namespace user_space_frameworks {

std::atomic<long> ModuleLock::count{0};

}  // namespace user_space_frameworks

#pragma once

namespace user_space_frameworks {

// Common base of framework objects: a virtual destructor and a name for traces.
class Object {
 public:
  virtual ~Object() = default;
  virtual const char *GetTraceName() const { return "Object"; }
};

}  // namespace user_space_frameworks

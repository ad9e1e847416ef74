// A shared, type-erased member-function callback: an object pointer plus a member function.
#pragma once

#include <stdexcept>

namespace user_space_frameworks {

template <typename Arg, typename Result = void>
class ICallback {
 public:
  virtual ~ICallback() = default;
  virtual Result Invoke(Arg argument) = 0;
  Result operator()(Arg argument) { return Invoke(argument); }
};

template <typename T, typename Arg, typename Result = void>
class Callback : public ICallback<Arg, Result> {
 public:
  using Method = Result (T::*)(Arg);
  Callback() = default;
  Callback(T *instance, Method method) : instance(instance), method(method) {}

  Result Invoke(Arg argument) override {
    if (instance == nullptr || method == nullptr) throw std::invalid_argument("no callback function or instance");
    return (instance->*method)(argument);
  }

 private:
  T *instance = nullptr;
  Method method = nullptr;
};

}  // namespace user_space_frameworks

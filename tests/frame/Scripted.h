#pragma once

#include <functional>
#include <mutex>
#include <type_traits>
#include <utility>

namespace tolm::test {

template <typename Signature>
class Scripted;

/// What a stand-in does when it is called: a function that a test may replace at any time, also while
/// the old one runs on another thread. At first one that does nothing and gives a default value.
template <typename Result, typename... Arguments>
class Scripted<Result(Arguments...)> {
 public:
  using Function = std::function<Result(Arguments...)>;

  template <typename F>
  requires std::is_invocable_v<F&, Arguments...> Scripted& operator=(F function) {
    const std::lock_guard lock(mutex_);
    function_ = std::move(function);
    return *this;
  }

  /// The same answer to every call.
  template <typename Value>
  requires(!std::is_invocable_v<Value&, Arguments...> && !std::is_void_v<Result>) Scripted& operator=(
      Value answer) {
    return *this = [answer](Arguments...) -> Result { return static_cast<Result>(answer); };
  }

  Result operator()(Arguments... arguments) const {
    Function function;
    {
      const std::lock_guard lock(mutex_);
      function = function_;
    }
    return function(std::forward<Arguments>(arguments)...);
  }

 private:
  mutable std::mutex mutex_;
  Function function_ = [](Arguments...) { return Result(); };
};

}  // namespace tolm::test

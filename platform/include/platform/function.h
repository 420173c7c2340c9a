// Callable wrappers: what a handler or a predicate is held in. An empty one tests false.
#pragma once

#include <functional>

namespace Tessaro::Iot::Component {

template <class Result>
using TFunction0 = std::function<Result()>;

template <class Result, class Argument>
using TFunction1 = std::function<Result(Argument)>;

template <class Result, class First, class Second>
using TFunction2 = std::function<Result(First, Second)>;

template <class Result, class First, class Second, class Third>
using TFunction3 = std::function<Result(First, Second, Third)>;

}  // namespace Tessaro::Iot::Component

#pragma once

namespace rrm {

/// One visitor made of several lambdas, for std::visit.
template <class... Lambdas>
struct Overloaded : Lambdas... {
  using Lambdas::operator()...;
};
template <class... Lambdas>
Overloaded(Lambdas...) -> Overloaded<Lambdas...>;

}  // namespace rrm

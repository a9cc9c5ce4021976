// zel::types::range_t: a pair of iterators that names a run of elements
// owned by somebody else.
#pragma once

#include <cstddef>
#include <iterator>

namespace zel::types {

template <class It>
struct range_t {
  It first{};
  It last{};

  It begin() const noexcept { return first; }
  It end() const noexcept { return last; }
  std::size_t size() const noexcept { return static_cast<std::size_t>(std::distance(first, last)); }
  bool empty() const noexcept { return first == last; }
};

template <class It>
range_t(It, It) -> range_t<It>;

}  // namespace zel::types

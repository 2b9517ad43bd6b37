#pragma once

#include <cstddef>
#include <functional>

/// Work in a child process that dies in the middle of it, as a process that is killed does: nothing
/// is unwound, flushed or closed.
///
/// Threading: from a test without threads of its own, since the child is a fork of it.
namespace rrm::test {

/// Kills the child as it is about to make its `call`-th call that changes files (from 1).
/// @return whether it came so far; false when the work was done before
bool killed_at_file_call(int call, const std::function<void()>& work);

/// Lets the child die at the first byte that it writes to any file behind the first `bytes`.
/// @return whether it came so far
bool killed_at_file_size(std::size_t bytes, const std::function<void()>& work);

}  // namespace rrm::test

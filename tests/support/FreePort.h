#pragma once

namespace rrm::test {

/// A TCP port that nobody uses at the moment. It is none of those that the system gives to outgoing
/// connections and to listeners without a wish, so that it is still free when a test opens it.
int free_port();

}  // namespace rrm::test

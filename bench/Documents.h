#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace rrm::bench {

struct Document {
  std::string name;
  std::string text;
  bool from_access_point;  ///< the messages that the parse figures are about
};

/// Documents with the members and the proportions of real ones, the same in every run.
std::vector<Document> sample_documents();

}  // namespace rrm::bench

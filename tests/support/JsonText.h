#pragma once

#include <string>

#include "server/lib/JsonWriter.h"

/// The compact text of what a writer function puts into a new object or array.
namespace rrm::test {

template <class Fill>
std::string object_text(Fill fill) {
  JsonWriter root;
  fill(root);
  return root.str();
}

template <class Fill>
std::string array_text(Fill fill) {
  JsonWriter root;
  JsonWriter array = JsonWriter::array(root, "array");
  fill(array);
  return array.str();
}

}  // namespace rrm::test

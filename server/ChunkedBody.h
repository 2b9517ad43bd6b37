#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Decodes the chunked coding of a request body [RFC 9112, 7.1], piece by piece as it arrives.
///
/// Extensions of chunks and trailer fields are read and ignored.
/// Threading: none inside.
/// Errors:    told by the state; after Broken or TooLong the request is over.
class ChunkedBody {
 public:
  enum class State { Unfinished, Complete, Broken, TooLong };

  /// @param longest  bytes that `body` may have
  explicit ChunkedBody(std::size_t longest) : longest_(longest) {}

  /// Decodes the next bytes and appends their content to `body`; what follows the end is ignored.
  State take(std::string_view bytes, std::string& body);

 private:
  enum class Part { Size, Data, DataEnd, Trailer, Done };

  bool take_line(std::string_view& bytes);
  State take_size();

  std::size_t longest_;
  Part part_ = Part::Size;
  std::string line_;      ///< of a size or trailer, so far
  std::size_t left_ = 0;  ///< bytes of this chunk still to come
  State failure_ = State::Unfinished;
};

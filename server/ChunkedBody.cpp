#include "server/ChunkedBody.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr std::size_t kLongestLine = 4096;  // bytes

}  // namespace

ChunkedBody::State ChunkedBody::take(std::string_view bytes, std::string& body) {
  while (!bytes.empty() && failure_ == State::Unfinished && part_ != Part::Done) {
    if (part_ == Part::Data) {
      const std::size_t count = std::min(left_, bytes.size());
      body.append(bytes.substr(0, count));
      bytes.remove_prefix(count);
      left_ -= count;
      if (left_ == 0) part_ = Part::DataEnd;
      continue;
    }
    if (!take_line(bytes)) break;
    if (part_ == Part::Size) {
      failure_ = take_size();
      if (failure_ == State::Unfinished && left_ > longest_ - std::min(longest_, body.size()))
        failure_ = State::TooLong;
    } else if (part_ == Part::DataEnd) {
      if (!line_.empty()) failure_ = State::Broken;
      part_ = Part::Size;
    } else if (line_.empty()) {
      part_ = Part::Done;
    }
    line_.clear();
  }
  if (failure_ != State::Unfinished) return failure_;
  return part_ == Part::Done ? State::Complete : State::Unfinished;
}

/// Collects a line. @return whether it is whole, its end taken off
bool ChunkedBody::take_line(std::string_view& bytes) {
  const std::size_t end = bytes.find('\n');
  const std::size_t count = std::min(end, bytes.size());
  if (line_.size() + count > kLongestLine) {
    failure_ = State::Broken;
    return false;
  }
  line_.append(bytes.substr(0, count));
  bytes.remove_prefix(std::min(count + 1, bytes.size()));
  if (end == std::string_view::npos) return false;
  if (line_.ends_with('\r')) line_.pop_back();
  return true;
}

/// A line "1A" or "1A;extension".
ChunkedBody::State ChunkedBody::take_size() {
  const char* const end = line_.data() + line_.size();
  const auto [behind, error] = std::from_chars(line_.data(), end, left_, 16);
  if (error == std::errc::result_out_of_range) return State::TooLong;
  if (error != std::errc() || line_[0] == '-') return State::Broken;
  if (behind != end && *behind != ';' && *behind != ' ' && *behind != '\t') return State::Broken;
  part_ = left_ == 0 ? Part::Trailer : Part::Data;
  return State::Unfinished;
}

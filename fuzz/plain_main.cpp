// Main of a fuzz target in builds without libFuzzer: replays every file of the folders named on the
// command line, then runs mutations of them for about a second. The sequence of mutations is always
// the same. An input that crashes is left in the working folder as "crash-input".

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

constexpr auto kMutationTime = std::chrono::seconds(1);
constexpr std::size_t kMaxSize = 1 << 16;

using Input = std::vector<std::uint8_t>;

const Input* running_input = nullptr;

void keep_crashing_input(int signal) {
  if (running_input != nullptr) {
    const int file = ::open("crash-input", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (file >= 0 && ::write(file, running_input->data(), running_input->size()) >= 0)
      ::close(file);
  }
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void run(const Input& input) {
  // A copy of exactly the size, so that a byte read beyond the end is seen by the sanitizers.
  const Input exact(input.begin(), input.end());
  running_input = &exact;
  LLVMFuzzerTestOneInput(exact.data(), exact.size());
  running_input = nullptr;
}

std::vector<Input> read_folders(int count, char** folders) {
  std::vector<std::filesystem::path> files;
  for (int i = 0; i < count; ++i) {
    if (!std::filesystem::is_directory(folders[i])) continue;
    for (const auto& entry : std::filesystem::directory_iterator(folders[i]))
      if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  std::vector<Input> inputs;
  for (const auto& path : files) {
    std::ifstream file(path, std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return inputs;
}

class Mutator {
 public:
  explicit Mutator(const std::vector<Input>& inputs) : inputs_(inputs) {}

  Input next() {
    Input input = inputs_[below(inputs_.size())];
    for (std::size_t step = 0; step <= below(6); ++step) mutate(input);
    if (input.size() > kMaxSize) input.resize(kMaxSize);
    return input;
  }

 private:
  std::size_t below(std::size_t limit) { return limit == 0 ? 0 : random_() % limit; }

  void mutate(Input& input) {
    const std::size_t place = below(input.size() + 1);
    const auto at = [&input](std::size_t index) {
      return input.begin() + static_cast<std::ptrdiff_t>(index);
    };
    const std::size_t length = below(std::min<std::size_t>(input.size() - place, 64) + 1);
    switch (below(6)) {
      case 0:
        if (place < input.size()) input[place] ^= static_cast<std::uint8_t>(1u << below(8));
        break;
      case 1:
        input.insert(at(place), static_cast<std::uint8_t>(below(256)));
        break;
      case 2:
        input.erase(at(place), at(place + length));
        break;
      case 3:
        input.resize(place);
        break;
      case 4: {  // repeat a piece
        const Input piece(at(place), at(place + length));
        for (std::size_t times = below(8); times > 0; --times)
          input.insert(at(place), piece.begin(), piece.end());
        break;
      }
      default: {  // a piece of another input
        const Input& other = inputs_[below(inputs_.size())];
        const std::size_t from = below(other.size() + 1);
        const std::size_t count = below(std::min<std::size_t>(other.size() - from, 64) + 1);
        const auto begin = other.begin() + static_cast<std::ptrdiff_t>(from);
        input.insert(at(place), begin, begin + static_cast<std::ptrdiff_t>(count));
        break;
      }
    }
  }

  const std::vector<Input>& inputs_;
  std::mt19937_64 random_{1};
};

}  // namespace

int main(int argc, char** argv) {
  for (const int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL})
    std::signal(signal, keep_crashing_input);
  std::vector<Input> inputs = read_folders(argc - 1, argv + 1);
  inputs.emplace_back();  // the empty input
  for (const Input& input : inputs) run(input);

  Mutator mutator(inputs);
  std::size_t runs = 0;
  const auto end = std::chrono::steady_clock::now() + kMutationTime;
  for (; std::chrono::steady_clock::now() < end; ++runs) run(mutator.next());
  std::printf("%zu files, %zu mutations\n", inputs.size() - 1, runs);
}

// The message ring beside a textbook ring of the same design, and what one whole enqueue on a
// worker costs: the message, the push and the wake-up of its thread.

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "bench/Interleaved.h"
#include "server/lib/MessageRing.h"
#include "server/lib/Worker.h"

namespace {

using rrm::bench::Contender;
using rrm::bench::keep;

constexpr std::size_t kCapacity = 2048;
constexpr int kBatch = 1024;

/// Dmitry Vyukov's bounded queue, as plain as it is written down: no checks, no moves out of the
/// way.
template <class T>
class PlainRing {
 public:
  explicit PlainRing(std::size_t capacity) : cells_(capacity), mask_(capacity - 1) {
    for (std::size_t i = 0; i < capacity; ++i) cells_[i].sequence.store(i);
  }

  bool enqueue(T&& value) {
    std::size_t position = enqueue_.load(std::memory_order_relaxed);
    Cell* cell = nullptr;
    for (;;) {
      cell = &cells_[position & mask_];
      const auto lead =
          static_cast<std::intptr_t>(cell->sequence.load(std::memory_order_acquire) - position);
      if (lead == 0 &&
          enqueue_.compare_exchange_weak(position, position + 1, std::memory_order_relaxed))
        break;
      if (lead < 0) return false;
      if (lead > 0) position = enqueue_.load(std::memory_order_relaxed);
    }
    cell->value = std::move(value);
    cell->sequence.store(position + 1, std::memory_order_release);
    return true;
  }

  bool dequeue(T& value) {
    std::size_t position = dequeue_.load(std::memory_order_relaxed);
    Cell* cell = nullptr;
    for (;;) {
      cell = &cells_[position & mask_];
      const auto lead = static_cast<std::intptr_t>(cell->sequence.load(std::memory_order_acquire) -
                                                   (position + 1));
      if (lead == 0 &&
          dequeue_.compare_exchange_weak(position, position + 1, std::memory_order_relaxed))
        break;
      if (lead < 0) return false;
      if (lead > 0) position = dequeue_.load(std::memory_order_relaxed);
    }
    value = std::move(cell->value);
    cell->sequence.store(position + mask_ + 1, std::memory_order_release);
    return true;
  }

 private:
  struct Cell {
    std::atomic<std::size_t> sequence;
    T value;
  };
  std::vector<Cell> cells_;
  const std::size_t mask_;
  alignas(64) std::atomic<std::size_t> enqueue_{0};
  alignas(64) std::atomic<std::size_t> dequeue_{0};
};

using Value = std::shared_ptr<int>;

/// Throws its messages away.
class IdleWorker : public rrm::Worker {
 public:
  IdleWorker() : Worker("idle", nullptr, kIdleWait_us, kCapacity, true) {}
  void process_message(const rrm::JsonReader&, const rrm::SessionAddress&) override {}
  void get_status(rrm::JsonWriter&) override {}
  void get_status_full(rrm::JsonWriter&) override {}
};

double median(std::vector<double> seconds) {
  const auto middle = seconds.begin() + static_cast<std::ptrdiff_t>(seconds.size() / 2);
  std::nth_element(seconds.begin(), middle, seconds.end());
  return *middle;
}

/// Median seconds of what any wake-up costs its caller: writing an eventfd that a thread polls.
double bare_wake_seconds() {
  const int wakeup = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  std::atomic<bool> stop{false};
  std::thread sleeper([&] {
    rrm::work_in_batches();
    while (!stop) {
      pollfd wait{wakeup, POLLIN, 0};
      std::uint64_t count = 0;
      if (poll(&wait, 1, 10) > 0) keep(read(wakeup, &count, sizeof count));
    }
  });
  std::vector<double> seconds;
  for (int i = 0; i < 2000; ++i) {
    usleep(200);
    const std::uint64_t one = 1;
    const auto begin = std::chrono::steady_clock::now();
    keep(write(wakeup, &one, sizeof one));
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
    seconds.push_back(passed.count());
  }
  stop = true;
  sleeper.join();
  close(wakeup);
  return median(std::move(seconds));
}

/// Median seconds of one enqueue on a worker that sleeps (`pause`), or that is at work.
double enqueue_seconds(bool pause) {
  const auto worker = std::make_shared<IdleWorker>();
  worker->start();
  std::vector<double> seconds;
  for (int i = 0; i < 2000; ++i) {
    rrm::JsonReader document(R"({"service":"rrm","cmd":"rrm-response"})", 8192);
    if (pause) usleep(200);
    const auto begin = std::chrono::steady_clock::now();
    worker->enqueue_message(std::move(document), rrm::kNoSession);
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
    seconds.push_back(passed.count());
  }
  worker->stop();
  return median(std::move(seconds));
}

}  // namespace

int main() {
  rrm::MessageRing<Value> ring(kCapacity);
  PlainRing<Value> plain(kCapacity);
  const auto value = std::make_shared<int>(1);
  const std::vector<Contender> contenders = {
      {"MessageRing",
       [&] {
         Value out;
         for (int i = 0; i < kBatch; ++i) ring.try_push(Value(value));
         for (int i = 0; i < kBatch; ++i) keep(ring.try_pop(out));
       }},
      {"plain ring",
       [&] {
         Value out;
         for (int i = 0; i < kBatch; ++i) plain.enqueue(Value(value));
         for (int i = 0; i < kBatch; ++i) keep(plain.dequeue(out));
       }},
  };
  const std::vector<double> seconds = rrm::bench::interleaved_medians(contenders, 51);
  for (std::size_t i = 0; i < contenders.size(); ++i)
    std::printf("%-12s %6.1f ns per push and pop\n", contenders[i].name.c_str(),
                seconds[i] / kBatch * 1e9);
  std::printf("speed, MessageRing / plain ring: %.2f (at least 0.9)\n", seconds[1] / seconds[0]);
  std::printf(
      "one enqueue (message, push, wake-up): %.2f us on a worker at work (at most 0.7), %.2f us on "
      "one that sleeps; the wake-up alone, a bare eventfd: %.2f us\n",
      enqueue_seconds(false) * 1e6, enqueue_seconds(true) * 1e6, bare_wake_seconds() * 1e6);
}

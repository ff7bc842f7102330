// The worker side of the parser road: one thread per task pool waits for
// events, lists the pool's clients with pending records and takes every
// finished header record, oldest first.
#pragma once

#include <boxlane/boxlane.h>

#include "tools/common/parse_samples.hpp"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace boxlane::tool {

class ParseWorkers {
 public:
  explicit ParseWorkers(int pools) : pools_(pools) {}
  ~ParseWorkers() { stop(); }
  ParseWorkers(const ParseWorkers&) = delete;
  ParseWorkers& operator=(const ParseWorkers&) = delete;

  void start();
  // Called once the last piece has been sent: every record queued by then is
  // taken before the workers leave.
  void stop();
  // The records taken so far; call after stop().
  std::vector<QORVANE_MP4HDR> take_records();
  // The track fragments taken so far; call after stop().
  FragmentLog take_fragments() { return std::move(fragments_); }

 private:
  void run(int pool);
  void drain(int pool);

  int pools_;
  std::vector<std::thread> threads_;
  std::atomic<bool> done_{false};
  std::atomic<int> running_{0};
  std::mutex stopped_mutex_;
  std::condition_variable stopped_;  // signalled as each worker leaves
  std::mutex records_mutex_;
  std::vector<QORVANE_MP4HDR> records_;
  FragmentLog fragments_;  // filled under the library gate
};

}  // namespace boxlane::tool

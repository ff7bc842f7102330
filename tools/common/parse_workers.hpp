// The worker side of the parser road: one thread per task pool waits for
// events, lists the pool's clients with pending records and takes every
// finished header record, oldest first.
#pragma once

#include <boxlane/boxlane.h>

#include "tools/common/box_walk.hpp"
#include "tools/common/parse_samples.hpp"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace boxlane::tool {

class ParseWorkers {
 public:
  // `keep_records` false: the records are only summed up (summary()), not
  // kept, so a stream of millions of boxes costs no memory per box.
  ParseWorkers(int pools, bool keep_records) : pools_(pools), keep_records_(keep_records) {}
  ~ParseWorkers() { stop(); }
  ParseWorkers(const ParseWorkers&) = delete;
  ParseWorkers& operator=(const ParseWorkers&) = delete;

  void start();
  // Called once the last piece has been sent: every record queued by then is
  // taken before the workers leave.
  void stop();
  // Takes the client's waiting records on the caller's thread, as a worker
  // would: the receiving loop calls it between Sends so that the records of
  // a large piece do not all queue in the parser at once.
  void drain_client(const char* client);
  // The records taken so far (none unless kept), and their summary; call
  // after stop().
  std::deque<BOXLANE_BOXINFO> take_records();
  RecordSummary summary() const { return summary_; }
  // The track fragments taken so far; call after stop().
  FragmentLog take_fragments() { return std::move(fragments_); }

 private:
  void run(int pool);
  void drain(int pool);
  // Takes every finished record of one client; under the library gate, so
  // records from two threads keep the parser's order.
  void take_from(const char* client);

  int pools_;
  std::vector<std::thread> threads_;
  std::atomic<bool> done_{false};
  std::atomic<int> running_{0};
  std::mutex stopped_mutex_;
  std::condition_variable stopped_;  // signalled as each worker leaves
  bool keep_records_;
  // Filled under the library gate.
  std::deque<BOXLANE_BOXINFO> records_;  // grows without moving what it holds
  BoxWalk walk_;
  RecordSummary summary_;
  FragmentLog fragments_;  // filled under the library gate
};

}  // namespace boxlane::tool

#include "tools/common/parse_workers.hpp"

#include "tools/common/library_gate.hpp"

#include <chrono>
#include <span>

namespace boxlane::tool {

void ParseWorkers::start() {
  running_ = pools_;
  threads_.reserve(static_cast<std::size_t>(pools_));
  for (int pool = 0; pool < pools_; ++pool) threads_.emplace_back([this, pool] { run(pool); });
}

void ParseWorkers::stop() {
  if (threads_.empty()) return;
  done_.store(true, std::memory_order_release);
  // A wake-up can land before a worker has begun to wait; repeat it until
  // every worker has seen the stop, returning as soon as the last one leaves.
  std::unique_lock lock(stopped_mutex_);
  while (running_.load(std::memory_order_acquire) > 0) {
    for (int pool = 0; pool < pools_; ++pool) {
      std::lock_guard gate(library_gate());
      Boxlane_Parse_ActiveEvent(pool);
    }
    stopped_.wait_for(lock, std::chrono::milliseconds(2),
                      [this] { return running_.load(std::memory_order_acquire) == 0; });
  }
  lock.unlock();
  for (auto& thread : threads_) thread.join();
  threads_.clear();
}

std::deque<BOXLANE_BOXINFO> ParseWorkers::take_records() {
  std::lock_guard gate(library_gate());
  return std::move(records_);
}

void ParseWorkers::drain_client(const char* client) {
  std::lock_guard gate(library_gate());
  take_from(client);
}

void ParseWorkers::take_from(const char* client) {
  BOXLANE_BOXINFO record{};
  // No record, or only an unfinished box: the next event brings more.
  while (Boxlane_Parse_RecvEx(client, &record, nullptr)) {
    // A moof's track fragments wait from the moment its record does:
    // taken now, oldest first, the parser keeps none of them.
    if (record.stHdr.enHType == ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MOOF) fragments_.take(client);
    summary_.add(walk_.place(record));
    if (keep_records_) records_.push_back(record);
  }
}

void ParseWorkers::run(int pool) {
  for (;;) {
    const bool last_round = done_.load(std::memory_order_acquire);
    // A wait that fails at once (no pool) must not turn into a busy loop.
    if (!last_round && !Boxlane_Parse_WaitEvent(pool, -1))
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    drain(pool);
    if (last_round) break;
  }
  std::lock_guard lock(stopped_mutex_);
  running_.fetch_sub(1, std::memory_order_release);
  stopped_.notify_all();
}

void ParseWorkers::drain(int pool) {
  QORVANE_RENDAVO_TASKEVENT** list = nullptr;
  int count = 0;
  {
    std::lock_guard gate(library_gate());
    if (!Boxlane_Parse_GetPool(pool, &list, &count)) return;
  }
  if (list && count > 0) {
    for (const QORVANE_RENDAVO_TASKEVENT* entry : std::span(list, static_cast<std::size_t>(count))) {
      std::lock_guard gate(library_gate());
      take_from(entry->tszClientAddr);
    }
  }
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
}

}  // namespace boxlane::tool

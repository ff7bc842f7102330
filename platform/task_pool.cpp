// Per-client event counts in N pools, each with a condition variable its
// workers wait on. Handles are serial numbers kept in a process-wide
// registry rather than addresses, so a destroyed handle can never alias a
// later pool that happens to reuse the memory.
#include "platform/task_pool.hpp"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

// Client strings must fit an event entry with their NUL.
constexpr std::size_t kMaxClientLen = sizeof(QORVANE_RENDAVO_TASKEVENT{}.tszClientAddr) - 1;

thread_local uint64_t t_last_error = 0;

bool fail(uint64_t code) noexcept {
  t_last_error = code;
  return false;
}

// One client of a pool. Its count is changed without the pool's mutex: a
// Send raising it and a Recv lowering it touch only this client's line (and
// read the pool's hint that some count is positive). Aligned to a cache
// line of its own, so that two threads' clients never share one.
struct alignas(64) Client {
  explicit Client(std::string_view a) : addr(a) {}
  std::string addr;
  std::atomic<int> events{0};  // kGone once it has left its pool
};

// A count that has left its pool: counts through an entry reference fail
// and change nothing.
constexpr int kGone = -1;

// The map's keys are views of the strings in the list nodes, so looking up a
// caller's const char* builds no std::string.
struct ViewHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};

struct Pool {
  // Guards the client list and index, the flags and the sleep of waiters;
  // never taken by a count that goes up or down, unless it wakes someone.
  std::mutex mutex;
  std::condition_variable wake;
  // Insertion order is what AddrGet hands out. Each client is shared with
  // the entry references handed out for it, and keeps its string (and so the
  // map's key) at a fixed address.
  std::list<std::shared_ptr<Client>> clients;
  std::unordered_map<std::string_view, std::list<std::shared_ptr<Client>>::iterator, ViewHash, std::equal_to<>> index;
  bool activated = false;
  bool closed = false;
  // Threads asleep in WaitEvent, and a hint that some client's count may
  // be positive. A count that rises from zero sets the hint (unless it is
  // set already: then the line stays shared, unwritten) and then reads
  // `waiters`; a waiter raises `waiters` (under the mutex) and then looks at
  // the hint and the counts. All sequentially consistent, so at least one
  // of them sees the other: the waiter does not sleep, or the count's owner
  // takes the mutex and wakes it. Only a waiter clears the hint, after a
  // look at every count found none positive.
  alignas(64) std::atomic<bool> maybe_ready{false};
  std::atomic<int> waiters{0};

  bool any_positive() const noexcept {
    for (const auto& node : clients)
      if (node->events.load() > 0) return true;
    return false;
  }
  // Under the mutex: whether some client has events. The hint is cleared
  // before a second look, so a count that rises during the first is seen
  // either by the second look or by its owner, who then sets the hint again.
  bool has_events() noexcept {
    if (!maybe_ready.load()) return false;
    if (any_positive()) return true;
    maybe_ready.store(false);
    if (!any_positive()) return false;
    maybe_ready.store(true);
    return true;
  }
  // Null when memory ran out; the pool is then unchanged.
  std::shared_ptr<Client> add(std::string_view addr) noexcept {
    try {
      clients.push_back(std::make_shared<Client>(addr));
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    const auto node = std::prev(clients.end());
    try {
      index.emplace(std::string_view((*node)->addr), node);
    } catch (const std::bad_alloc&) {
      clients.pop_back();
      return nullptr;
    }
    return *node;
  }
  // Under the mutex.
  void remove(std::list<std::shared_ptr<Client>>::iterator node) noexcept {
    Client& client = **node;
    client.events.store(kGone);
    index.erase(std::string_view(client.addr));  // before the node, whose string the key views
    clients.erase(node);
  }
  // Counts one event up (never past INT_MAX); false when the client has
  // left the pool. Needs no lock, and writes no line that other clients'
  // counts write: the pool's mutex is taken only to wake waiters when the
  // count rises from zero.
  bool raise(Client& client) noexcept {
    int count = client.events.load(std::memory_order_relaxed);
    do {
      if (count == kGone) return false;
      if (count == INT_MAX) return true;
    } while (!client.events.compare_exchange_weak(count, count + 1));
    if (count == 0) {
      if (!maybe_ready.load()) maybe_ready.store(true);
      if (waiters.load() > 0) {
        { std::lock_guard lock(mutex); }  // a waiter between its check and its sleep is asleep now
        wake.notify_all();
      }
    }
    return true;
  }
  // Counts one event down (never below zero); false when the client has
  // left the pool. Needs no lock.
  bool lower(Client& client) noexcept {
    int count = client.events.load(std::memory_order_relaxed);
    do {
      if (count == kGone) return false;
      if (count == 0) return true;
    } while (!client.events.compare_exchange_weak(count, count - 1));
    return true;
  }
};

struct PoolSet {
  explicit PoolSet(int n) : count(n), pools(new Pool[static_cast<std::size_t>(n)]) {}
  const int count;
  std::unique_ptr<Pool[]> pools;
  // Serialises Insert and Delete, so a string cannot land in two pools at
  // once. Taken before any pool mutex.
  std::mutex membership;
};

}  // namespace

struct RendavoEntry {
  std::shared_ptr<PoolSet> set;  // keeps the pool's memory while the entry is held
  Pool* pool;
  std::shared_ptr<Client> client;
};

namespace {

struct Registry {
  std::mutex mutex;
  std::unordered_map<uintptr_t, std::shared_ptr<PoolSet>> live;
  uintptr_t next = 1;
};

// Never destroyed: a singleton elsewhere may destroy its pool while the
// library unloads, after this file's statics would have gone.
Registry& registry() {
  static Registry* r = new Registry;
  return *r;
}

std::shared_ptr<PoolSet> lookup(void* handle) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  const auto it = r.live.find(reinterpret_cast<uintptr_t>(handle));
  return it == r.live.end() ? nullptr : it->second;
}

// The pool a call names, or null (with the code set) for a bad handle or index.
Pool* resolve(void* handle, int index, std::shared_ptr<PoolSet>& keep) {
  keep = lookup(handle);
  if (!keep || index < 0 || index >= keep->count) {
    fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
    return nullptr;
  }
  return &keep->pools[static_cast<std::size_t>(index)];
}

// As above, for the calls that also name a client.
Pool* resolve(void* handle, int index, const char* addr, std::shared_ptr<PoolSet>& keep) {
  if (addr == nullptr) {
    fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
    return nullptr;
  }
  return resolve(handle, index, keep);
}

bool valid_client(const char* addr) noexcept {
  return addr != nullptr && ::strnlen(addr, kMaxClientLen + 1) <= kMaxClientLen;
}

}  // namespace

void* Rendavo_TaskPool_CreateEx(int nPoolCount) {
  if (nPoolCount < 1) {
    fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
    return nullptr;
  }
  try {
    auto set = std::make_shared<PoolSet>(nPoolCount);
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    const uintptr_t id = r.next++;
    r.live.emplace(id, std::move(set));
    return reinterpret_cast<void*>(id);
  } catch (const std::bad_alloc&) {
    fail(RENDAVO_ERROR_TASKPOOL_MALLOC);
    return nullptr;
  }
}

bool Rendavo_TaskPool_DestoryEx(void* xhPool) {
  std::shared_ptr<PoolSet> set;
  {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    const auto it = r.live.find(reinterpret_cast<uintptr_t>(xhPool));
    if (it == r.live.end()) return fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
    set = std::move(it->second);
    r.live.erase(it);
  }
  // Each waiter holds its own reference, so the pools are freed by whoever
  // lets go last: this call or the last waiter to wake.
  for (int i = 0; i < set->count; ++i) {
    Pool& pool = set->pools[static_cast<std::size_t>(i)];
    {
      std::lock_guard lock(pool.mutex);
      pool.closed = true;
    }
    pool.wake.notify_all();
  }
  return true;
}

namespace {

// Finds the client in any pool, or puts it into the one with the fewest
// clients (lowest index on a tie). Null with the code set on failure.
std::shared_ptr<RendavoEntry> attach(void* handle, const char* addr_cstr, int* pool_index) noexcept {
  std::shared_ptr<PoolSet> set = lookup(handle);
  if (!set || !valid_client(addr_cstr) || pool_index == nullptr) {
    fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
    return nullptr;
  }
  const std::string_view addr(addr_cstr);
  std::lock_guard membership(set->membership);
  int fewest = 0;
  std::size_t fewest_size = SIZE_MAX;
  std::shared_ptr<Client> client;
  for (int i = 0; i < set->count && !client; ++i) {
    Pool& pool = set->pools[static_cast<std::size_t>(i)];
    std::lock_guard lock(pool.mutex);
    if (const auto it = pool.index.find(addr); it != pool.index.end()) {
      client = *it->second;
      fewest = i;
    } else if (pool.clients.size() < fewest_size) {
      fewest = i;
      fewest_size = pool.clients.size();
    }
  }
  Pool& pool = set->pools[static_cast<std::size_t>(fewest)];
  if (!client) {
    std::lock_guard lock(pool.mutex);
    client = pool.add(addr);
  }
  std::shared_ptr<RendavoEntry> entry;
  if (client) {
    try {
      entry = std::make_shared<RendavoEntry>(RendavoEntry{std::move(set), &pool, std::move(client)});
    } catch (const std::bad_alloc&) {
    }
  }
  if (!entry) {
    fail(RENDAVO_ERROR_TASKPOOL_MALLOC);
    return nullptr;
  }
  *pool_index = fewest;
  return entry;
}

}  // namespace

bool Rendavo_TaskPool_AddrInsertEx(void* xhPool, const char* lpszClientAddr, int* pInt_PoolIndex) {
  return attach(xhPool, lpszClientAddr, pInt_PoolIndex) != nullptr;
}

std::shared_ptr<RendavoEntry> Rendavo_TaskPool_AddrAttachEx(void* xhPool, const char* lpszClientAddr,
                                                            int* pInt_PoolIndex) {
  return attach(xhPool, lpszClientAddr, pInt_PoolIndex);
}

bool Rendavo_TaskPool_EntryDeleteEx(const RendavoEntry& entry) {
  std::lock_guard membership(entry.set->membership);
  std::lock_guard lock(entry.pool->mutex);
  if (entry.client->events.load() == kGone) return fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
  entry.pool->remove(entry.pool->index.find(std::string_view(entry.client->addr))->second);
  return true;
}

bool Rendavo_TaskPool_EntryIncEx(const RendavoEntry& entry) {
  return entry.pool->raise(*entry.client) || fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
}

bool Rendavo_TaskPool_EntryDecEx(const RendavoEntry& entry) {
  return entry.pool->lower(*entry.client) || fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
}

bool Rendavo_TaskPool_AddrDeleteEx(void* xhPool, int nPoolIndex, const char* lpszClientAddr) {
  std::shared_ptr<PoolSet> set;
  Pool* pool = resolve(xhPool, nPoolIndex, lpszClientAddr, set);
  if (pool == nullptr) return false;
  std::lock_guard membership(set->membership);
  std::lock_guard lock(pool->mutex);
  const auto it = pool->index.find(std::string_view(lpszClientAddr));
  if (it == pool->index.end()) return fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
  pool->remove(it->second);
  return true;
}

namespace {

// The client a count by name is for, kept alive past the pool's mutex (a
// Delete may remove it meanwhile; the count then fails as through an entry).
std::shared_ptr<Client> named(Pool& pool, const char* addr) {
  std::lock_guard lock(pool.mutex);
  const auto it = pool.index.find(std::string_view(addr));
  return it == pool.index.end() ? nullptr : *it->second;
}

}  // namespace

bool Rendavo_TaskPool_AddrIncEx(void* xhPool, int nPoolIndex, const char* lpszClientAddr) {
  std::shared_ptr<PoolSet> set;
  Pool* pool = resolve(xhPool, nPoolIndex, lpszClientAddr, set);
  if (pool == nullptr) return false;
  const std::shared_ptr<Client> client = named(*pool, lpszClientAddr);
  return (client && pool->raise(*client)) || fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
}

bool Rendavo_TaskPool_AddrDecEx(void* xhPool, int nPoolIndex, const char* lpszClientAddr) {
  std::shared_ptr<PoolSet> set;
  Pool* pool = resolve(xhPool, nPoolIndex, lpszClientAddr, set);
  if (pool == nullptr) return false;
  const std::shared_ptr<Client> client = named(*pool, lpszClientAddr);
  return (client && pool->lower(*client)) || fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
}

bool Rendavo_TaskPool_AddrGetEx(void* xhPool, int nPoolIndex, QORVANE_RENDAVO_TASKEVENT*** pppSt_ListAddr,
                                int* pInt_ListCount) {
  std::shared_ptr<PoolSet> set;
  Pool* pool = resolve(xhPool, nPoolIndex, set);
  if (pool == nullptr) return false;
  if (pppSt_ListAddr == nullptr || pInt_ListCount == nullptr) return fail(RENDAVO_ERROR_TASKPOOL_PARAMETER);
  // Each count is read once, under the mutex that holds the list still:
  // counts keep moving meanwhile, so a second read could list a different
  // set of clients than the first one sized the array for.
  thread_local std::vector<std::pair<const Client*, int>> positive;
  positive.clear();
  std::lock_guard lock(pool->mutex);
  try {
    for (const auto& node : pool->clients)
      if (const int events = node->events.load(); events > 0) positive.emplace_back(node.get(), events);
  } catch (const std::bad_alloc&) {
    return fail(RENDAVO_ERROR_TASKPOOL_MALLOC);
  }
  void** rows = nullptr;
  const int n = static_cast<int>(positive.size());
  if (!Fundrel_Memory_Malloc(&rows, n, static_cast<int>(sizeof(QORVANE_RENDAVO_TASKEVENT)))) {
    return fail(RENDAVO_ERROR_TASKPOOL_MALLOC);
  }
  for (int i = 0; i < n; ++i) {
    auto* entry = static_cast<QORVANE_RENDAVO_TASKEVENT*>(rows[i]);
    const auto& [client, events] = positive[static_cast<std::size_t>(i)];
    std::memcpy(entry->tszClientAddr, client->addr.data(), client->addr.size());
    entry->nEventCount = events;
  }
  *pppSt_ListAddr = reinterpret_cast<QORVANE_RENDAVO_TASKEVENT**>(rows);
  *pInt_ListCount = n;
  return true;
}

bool Rendavo_TaskPool_WaitEventEx(void* xhPool, int nPoolIndex, int nTimeout) {
  std::shared_ptr<PoolSet> set;
  Pool* pool = resolve(xhPool, nPoolIndex, set);
  if (pool == nullptr) return false;
  std::unique_lock lock(pool->mutex);
  bool events = false;
  const auto done = [pool, &events] {
    events = pool->has_events();
    return pool->closed || pool->activated || events;
  };
  if (!done() && nTimeout != 0) {
    ++pool->waiters;
    if (nTimeout < 0) {
      pool->wake.wait(lock, done);
    } else {
      pool->wake.wait_for(lock, std::chrono::milliseconds(nTimeout), done);
    }
    --pool->waiters;
  }
  if (pool->closed) return fail(RENDAVO_ERROR_TASKPOOL_CLOSED);
  if (pool->activated) {
    pool->activated = false;
    return true;
  }
  return events || fail(RENDAVO_ERROR_TASKPOOL_TIMEOUT);
}

bool Rendavo_TaskPool_ActiveEventEx(void* xhPool, int nPoolIndex) {
  std::shared_ptr<PoolSet> set;
  Pool* pool = resolve(xhPool, nPoolIndex, set);
  if (pool == nullptr) return false;
  {
    std::lock_guard lock(pool->mutex);
    pool->activated = true;
  }
  pool->wake.notify_all();
  return true;
}

uint64_t Rendavo_GetLastError(int* pInt_SysError) {
  if (pInt_SysError != nullptr) *pInt_SysError = errno;
  return t_last_error;
}

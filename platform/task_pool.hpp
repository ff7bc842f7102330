// A small task pool for the parser's events: per-client event counts in one
// or more pools, and a wait for the workers of each pool. Thread-safe; waits
// block on a condition variable. Error codes: RENDAVO_ERROR_TASKPOOL_* in
// boxlane.h, kept per thread and read with Rendavo_GetLastError.
#pragma once

#include <boxlane/boxlane.h>

#include <cstdint>
#include <memory>

// Makes nPoolCount pools (at least 1); null on failure.
void* Rendavo_TaskPool_CreateEx(int nPoolCount);
// Wakes every waiter (they return false with RENDAVO_ERROR_TASKPOOL_CLOSED)
// and frees the pool once they have left it.
bool Rendavo_TaskPool_DestoryEx(void* xhPool);
// Puts the client into the pool with the fewest clients (lowest index on a
// tie) and writes that index; a client already present keeps its entry.
bool Rendavo_TaskPool_AddrInsertEx(void* xhPool, const char* lpszClientAddr, int* pInt_PoolIndex);
// The client's own entry, as AddrInsertEx finds or makes it. Counts made
// through it reach that entry only: once it has left its pool (through
// EntryDeleteEx or AddrDeleteEx) they fail and change nothing, even when the
// same string has been entered again since.
struct RendavoEntry;
std::shared_ptr<RendavoEntry> Rendavo_TaskPool_AddrAttachEx(void* xhPool, const char* lpszClientAddr,
                                                            int* pInt_PoolIndex);
bool Rendavo_TaskPool_EntryDeleteEx(const RendavoEntry& entry);
bool Rendavo_TaskPool_EntryIncEx(const RendavoEntry& entry);
bool Rendavo_TaskPool_EntryDecEx(const RendavoEntry& entry);
bool Rendavo_TaskPool_AddrDeleteEx(void* xhPool, int nPoolIndex, const char* lpszClientAddr);
// Counts one event up (waking the pool's waiters) or down (never below 0).
bool Rendavo_TaskPool_AddrIncEx(void* xhPool, int nPoolIndex, const char* lpszClientAddr);
bool Rendavo_TaskPool_AddrDecEx(void* xhPool, int nPoolIndex, const char* lpszClientAddr);
// The pool's clients with a positive count, in insertion order, in an array
// made with Fundrel_Memory_Malloc (count 0 and null when none).
bool Rendavo_TaskPool_AddrGetEx(void* xhPool, int nPoolIndex, QORVANE_RENDAVO_TASKEVENT*** pppSt_ListAddr,
                                int* pInt_ListCount);
// nTimeout in milliseconds: negative waits without limit, 0 only looks.
bool Rendavo_TaskPool_WaitEventEx(void* xhPool, int nPoolIndex, int nTimeout);
bool Rendavo_TaskPool_ActiveEventEx(void* xhPool, int nPoolIndex);
// The calling thread's last task-pool error code; errno through the pointer.
uint64_t Rendavo_GetLastError(int* pInt_SysError);

// Scaffolding: replaced as the platform layer is built.
#include "platform/task_pool.hpp"
bool Fundrel_Memory_Malloc(void***, int, int) { return false; }
void Fundrel_Memory_Free(void***, int) {}
void* Rendavo_TaskPool_CreateEx(int) { return nullptr; }
bool Rendavo_TaskPool_DestoryEx(void*) { return false; }
bool Rendavo_TaskPool_AddrInsertEx(void*, const char*, int*) { return false; }
bool Rendavo_TaskPool_AddrDeleteEx(void*, int, const char*) { return false; }
bool Rendavo_TaskPool_AddrIncEx(void*, int, const char*) { return false; }
bool Rendavo_TaskPool_AddrDecEx(void*, int, const char*) { return false; }
bool Rendavo_TaskPool_AddrGetEx(void*, int, QORVANE_RENDAVO_TASKEVENT***, int*) { return false; }
bool Rendavo_TaskPool_WaitEventEx(void*, int, int) { return false; }
bool Rendavo_TaskPool_ActiveEventEx(void*, int) { return false; }
uint64_t Rendavo_GetLastError(int*) { return 0; }

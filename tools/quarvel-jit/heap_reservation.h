#ifndef QUARVEL_JIT_HEAP_RESERVATION_H
#define QUARVEL_JIT_HEAP_RESERVATION_H

// Reading traces builds a model of tens of megabytes out of many small
// allocations. Every fresh 4 KiB page of the heap costs a page fault, which
// on virtual machines costs as much as the reading itself; a heap that grows
// in large steps over memory marked for transparent huge pages faults once per
// 2 MiB instead. Where the system leaves huge pages to the program's request
// (the usual setting), this asks for them; elsewhere it only grows the heap in
// larger steps.

#include <cstddef>

namespace quarvel_jit {

// Grows the heap by `bytes` now (address space only: pages are taken when
// first written) and asks for huge pages over it.
void reserveHeap(size_t bytes);

} // namespace quarvel_jit

#endif

#ifndef QUARVEL_EXAMPLE_STACKS_H
#define QUARVEL_EXAMPLE_STACKS_H

#include <string>

// Writes call-stack samples over the example session into dir: stacks.txt as
// `perf script -F pid,tid,time,ip,sym,dso --ns` prints a recording with call
// chains, and stacks.csv with the same samples (time,address,pid,tid,host,stack).
bool writeExampleStacks(const std::string& dir);

#endif

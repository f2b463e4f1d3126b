#ifndef QUARVEL_JIT_SPEEDSCOPE_WRITER_H
#define QUARVEL_JIT_SPEEDSCOPE_WRITER_H

// A profile in speedscope's file format: one "sampled" profile whose samples
// are the distinct stacks, each weighted by its number of samples, so the
// file grows with the distinct stacks, not the samples. Frames carry their
// source file (the module for code without one) and, with lines kept, the line.

#include "stack_profile.h"

#include <ostream>
#include <string>

namespace quarvel_jit {

void writeSpeedscope(std::ostream& os, const StackProfile& profile, const std::string& name);

} // namespace quarvel_jit

#endif

#ifndef QUARVEL_JIT_FOLDED_WRITER_H
#define QUARVEL_JIT_FOLDED_WRITER_H

// Collapsed stacks, the input of flame graph tools: one line per distinct
// stack, its frame names from the root joined by ';', a space, and its number
// of samples. Lines are sorted, so equal profiles give equal files.

#include "stack_profile.h"

#include <ostream>
#include <string>

namespace quarvel_jit {

// A frame's name as it appears in a line: ';' (the separator) becomes ':',
// line breaks become spaces; with a line, ":<line>" follows, and with
// annotate the kind in brackets (" [inlined]").
std::string foldedFrameName(const FrameInfo& frame, unsigned line, bool annotate = false);

void writeFolded(std::ostream& os, const StackProfile& profile, bool annotate = false);

} // namespace quarvel_jit

#endif

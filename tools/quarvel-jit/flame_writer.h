#ifndef QUARVEL_JIT_FLAME_WRITER_H
#define QUARVEL_JIT_FLAME_WRITER_H

// An interactive flame graph in one self-contained file, an SVG document or
// an HTML page holding the same SVG: each box a frame on the path from the
// root, as wide as its share of the samples, coloured by kind (compiled,
// inlined, stub, native, kernel, unknown). In a browser: click a box to zoom
// to it, search by name (a regular expression) with the matched share shown,
// and a tooltip per box with method, module, kind, source lines and share.
// Everything the page runs is inside it; it fetches nothing.

#include "stack_profile.h"

#include <ostream>
#include <string>

namespace quarvel_jit {

enum class FlameFormat { Svg, Html };

struct FlameOptions {
    std::string title = "Flame graph";
    std::string subtitle;
    double width = 1200; // pixels
    // Boxes narrower than this many pixels are left out (with what is above
    // them), as a browser could not show them anyway.
    double minWidth = 0.1;
    // Each source line of a method its own box; otherwise one box per method,
    // its lines listed in the tooltip.
    bool linesApart = false;
};

// profile: with the lines the samples were at.
void writeFlame(std::ostream& os, FlameFormat format, const StackProfile& profile, const FlameOptions& options);

// The script and style of the page (flame.js, flame.css), built in.
extern const char* const kFlameScript;
extern const char* const kFlameStyle;

} // namespace quarvel_jit

#endif

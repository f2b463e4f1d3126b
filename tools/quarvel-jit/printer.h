#ifndef QUARVEL_JIT_PRINTER_H
#define QUARVEL_JIT_PRINTER_H

// Every output format of the tool lives here: text for people, CSV for
// spreadsheets, JSON (one document per run) for scripts. The JSON field names
// are part of the tool's interface (docs/cli.md); change them only on purpose.

#include "report.h"

#include <ostream>
#include <string>
#include <vector>

namespace quarvel_jit {

enum class Format { Text, Csv, Json };

// "resolved", "not_jit", ...: a sample's status as every format names it.
const char* statusName(SampleStatus status);
// "name (file:line)", or the name alone where the place is unknown.
std::string frameText(const SourcePoint& point);
// Whether a CSV field must be quoted: it holds a separator, a quote or a line break.
bool needsCsvQuotes(const std::string& text);
// Appends a CSV field, quoted only when it needs to be.
void appendCsvField(std::string& out, const std::string& text);

void printProcesses(std::ostream& os, Format format, const std::vector<ProcessRow>& rows);
void printSymbols(std::ostream& os, Format format, const std::vector<SymbolRow>& rows);
void printDump(std::ostream& os, Format format, const std::vector<DumpEntry>& entries);
void printSamples(std::ostream& os, Format format, const std::vector<SampleResult>& results,
                  const ResolveSummary& summary);
void printTop(std::ostream& os, Format format, const TopReport& report);
void printStats(std::ostream& os, Format format, const StatsReport& report);

// Call stacks: the summary of what reading and resolving met, for a person,
// each line starting with prefix; and the frames by self and total samples.
// (The profiles themselves have writers of their own: folded_writer,
// speedscope_writer, flame_writer.)
void printStackSummary(std::ostream& os, const StackSummary& summary, const std::string& prefix);
void printFrameTop(std::ostream& os, Format format, const FrameTopReport& report);

} // namespace quarvel_jit

#endif

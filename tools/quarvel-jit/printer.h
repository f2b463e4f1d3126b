#ifndef QUARVEL_JIT_PRINTER_H
#define QUARVEL_JIT_PRINTER_H

// Every output format of the tool lives here: text for people, CSV for
// spreadsheets, JSON (one document per run) for scripts. The JSON field names
// are part of the tool's interface (docs/cli.md); change them only on purpose.

#include "report.h"

#include <ostream>
#include <vector>

namespace quarvel_jit {

enum class Format { Text, Csv, Json };

void printProcesses(std::ostream& os, Format format, const std::vector<ProcessRow>& rows);
void printSymbols(std::ostream& os, Format format, const std::vector<SymbolRow>& rows);
void printDump(std::ostream& os, Format format, const std::vector<DumpEntry>& entries);
void printSamples(std::ostream& os, Format format, const std::vector<SampleResult>& results,
                  const ResolveSummary& summary);
void printTop(std::ostream& os, Format format, const TopReport& report);
void printStats(std::ostream& os, Format format, const StatsReport& report);

} // namespace quarvel_jit

#endif

#ifndef QUARVEL_INGEST_JIT_FILES_MANAGER_H
#define QUARVEL_INGEST_JIT_FILES_MANAGER_H

#include "ingest/address_ranges.h"
#include "ingest/jit_file_reader.h"
#include "ingest/trace_format.h"
#include "support/result.h"

#include <quarvel/generic_iterator.h>
#include <quarvel/types.h>

#include <boost/filesystem/path.hpp>
#include <boost/thread/mutex.hpp>

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

class JitDataManager;

// One trace file of the set. Its jit rva range is
// [jitRvaBase, jitRvaBase + JitFileReader::kJitRvaStride): a fixed stride per
// file, so that no file's code can run into the next file's range however
// its records are shaped.
struct JitFileInfo {
    TraceFormat format = TraceFormat::jitTrace;
    boost::filesystem::path path;
    std::string fileName;
    u64 jitRvaBase = 0;
    u64 size = 0;
    // Set once a pass went through the file, whatever became of it (read
    // whole, ended at a damaged record, or could not be opened), so that the
    // file is never registered twice nor retried by every query.
    bool read = false;
};

// The files of one process of one host, in the order they were added.
struct ProcessJitInfo {
    std::deque<JitFileInfo> files;
    // Tested before the reading lock is taken, hence atomic.
    std::atomic<bool> read{false};
    // Where the process's jitdumps and event traces put code, which its
    // perf maps leave to them; under the reading lock.
    AddressRanges jitdumpCode;
};

// The set of trace files: names parsed into host and process, files grouped
// by host id and pid, each file given its own jit rva range. Reads no record
// itself; readJitFiles runs the reading pass.
//
// Initialisation must not race with any other call; afterwards the reading
// pass is serialised by one mutex and the pid array by another, and lookups
// take no lock.
class JitFilesManager {
public:
    // Where the first file's jit rva range starts: no code ever gets jit rva
    // 0, which queries treat as "no answer". Each file's range is
    // JitFileReader::kJitRvaStride long.
    static constexpr u64 kFirstJitRva = 0x1000;

    JitFilesManager();
    ~JitFilesManager();
    JitFilesManager(const JitFilesManager&) = delete;
    JitFilesManager& operator=(const JitFilesManager&) = delete;

    // Adds the files named by paths (files or directories). Either every
    // path is accepted or nothing is added. A path that does not exist gives
    // meJitFileNotFound, a file name that does not parse meNotFound, a path
    // that is neither a regular file nor a directory (or whose size cannot be
    // read) meFileOpenError; each with an ERROR line naming the path.
    quarvel_error_t initialize(generic_iterator_t<const char*>& paths, target_arch_t arch);
    // The same for descriptors: pid and host come from the descriptor.
    quarvel_error_t initialize(generic_iterator_t<JitFileDescriptor>& descriptors, target_arch_t arch);
    // Why the last initialisation failed.
    const Reason& lastError() const { return m_lastError; }

    quarvel_error_t addJitFileInfo(const boost::filesystem::path& path, const std::string& fileName, u64& nextJitRva,
                                   const std::string& hostName, unsigned int pid);
    quarvel_error_t addJitFileInfo(const boost::filesystem::path& path, const std::string& fileName, u64& nextJitRva);

    // "<host><'.' or '-'><decimal pid>.<extension>"; meNotFound when the name has another form.
    quarvel_error_t parseJitFileName(const std::string& fileName, unsigned int& pid, std::string& hostName) const;

    // 0 for an unknown name.
    unsigned int getHostID(const std::string& name) const;
    // Null for id 0 or an unknown id.
    const char* getHostName(unsigned int id) const;

    // For each host in ascending id, its pids in ascending order. Built on the
    // first call that finds a process and kept; the iterator keeps the array alive.
    generic_iterator_t<unsigned> getJitPidArray() const;

    ProcessJitInfo* getProcessJitInfo(unsigned int pid, unsigned int hostId);
    const ProcessJitInfo* getProcessJitInfo(unsigned int pid, unsigned int hostId) const;

    // The jit rva range of the file with that name; meJitFileNotFound (outputs untouched) when none matches.
    quarvel_error_t getJitFileRange(const char* fileName, u64& base, u64& limit) const;

    // The reading pass for one process: meSuccess, meNotFound for an unknown
    // host or process, meInvalidPointer for an empty path. Every file of the
    // process is read once: one that cannot be opened or ends in a damaged
    // record is logged and counted (readStats) and the others are read all
    // the same, so an answer never depends on which query came first.
    quarvel_error_t readJitFiles(unsigned int pid, unsigned int hostId, decoding_mode_t mode,
                                 JitDataManager& dataManager);
    // The reading pass over every process not read yet; failing files are logged and skipped.
    quarvel_error_t readJitFiles(decoding_mode_t mode, JitDataManager& dataManager);

    // meSuccess when read, meNotFound for an unknown process, meEndOfData while it waits to be read.
    quarvel_error_t processState(unsigned int pid, unsigned int hostId) const;
    bool isWholeSetRead() const { return m_wholeSetRead.load(); }
    // Every process was read whole: no reading pass will change the model
    // again (until files are added).
    bool isEveryProcessRead() const { return m_everyProcessRead.load(); }

    target_arch_t targetArchitecture() const { return m_targetArch; }
    size_t fileCount() const;
    // What the reading passes did so far.
    JitReadStats readStats() const;

private:
    struct PendingFile;
    void markUnread(ProcessJitInfo& process, bool added);
    void markRead(ProcessJitInfo& process);
    quarvel_error_t refuseInit(quarvel_error_t code, const std::string& message) const;
    quarvel_error_t collectPath(const char* path, std::vector<PendingFile>& pending) const;
    quarvel_error_t collectFile(const boost::filesystem::path& path, bool explicitPath,
                                std::vector<PendingFile>& pending) const;
    void addPending(const std::vector<PendingFile>& pending, target_arch_t arch);
    quarvel_error_t readProcessFiles(ProcessJitInfo& process, unsigned int pid, unsigned int hostId,
                                     decoding_mode_t mode, JitDataManager& dataManager, bool logFailures);
    // One file, by its format.
    quarvel_error_t readFile(const JitFileInfo& file, ProcessJitInfo& process, unsigned int pid, unsigned int hostId,
                             decoding_mode_t mode, JitDataManager& dataManager);

    typedef std::map<unsigned int, ProcessJitInfo> ProcessMap;

    std::deque<std::string> m_hostNames; // index = host id; index 0 is unused
    std::map<std::string, unsigned int> m_hostIds;
    std::map<unsigned int, ProcessMap> m_processes;
    target_arch_t m_targetArch = taAny;
    u64 m_nextJitRva = kFirstJitRva; // continues over re-initialisations so ranges stay disjoint
    mutable boost::mutex m_readMutex;
    mutable boost::mutex m_pidArrayMutex;
    mutable std::shared_ptr<const std::vector<unsigned>> m_pidArray;
    std::atomic<bool> m_wholeSetRead{false};
    std::atomic<bool> m_everyProcessRead{false};
    size_t m_unreadProcesses = 0; // set up before reading, then under m_readMutex
    JitReadStats m_stats;       // under m_readMutex
    ModuleCache m_modules;      // under m_readMutex
    mutable Reason m_lastError; // of the last initialisation, which runs alone
};

QUARVEL_NAMESPACE_END

#endif

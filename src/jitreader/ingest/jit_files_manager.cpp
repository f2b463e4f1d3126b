#include "ingest/jit_files_manager.h"

#include "format/jit_file_decoder.h"
#include "index/jit_data_manager.h"
#include "ingest/jitdump_file_reader.h"
#include "ingest/nettrace_file_reader.h"
#include "ingest/perf_map_file_reader.h"
#include "ingest/trace_format.h"
#include "support/assertion.h"
#include "support/bulk_memory.h"
#include "support/log.h"

#include <boost/filesystem/operations.hpp>

#include <fstream>
#include <limits>
#include <sstream>

QUARVEL_NAMESPACE_BEGIN

namespace fs = boost::filesystem;

// Refuses an initialisation: the reason is logged and kept for lastError().
#define QV_REFUSE_INIT(code, expr)                  \
    do {                                            \
        std::ostringstream qv_message_;             \
        qv_message_ << expr;                        \
        return refuseInit(code, qv_message_.str()); \
    } while (0)

struct JitFilesManager::PendingFile {
    TraceFormat format = TraceFormat::jitTrace;
    fs::path path;
    std::string fileName;
    std::string hostName;
    unsigned int pid = 0;
    u64 size = 0;
};

namespace {

// The formats the reading pass knows how to read (JitFilesManager::readFile).
bool isReadable(TraceFormat format) {
    switch (format) {
    case TraceFormat::jitTrace:
    case TraceFormat::jitdump:
    case TraceFormat::perfMap:
    case TraceFormat::nettrace:
        return true;
    }
    return false;
}

// A process's perf maps are read after its other files: they leave to its
// jitdumps the code those describe.
int readingRound(TraceFormat format) {
    return format == TraceFormat::perfMap ? 1 : 0;
}
constexpr int kReadingRounds = 2;

// A non-empty run of decimal digits that fits 32 bits.
bool parsePid(const std::string& text, unsigned int& pid) {
    if (text.empty() || text.size() > 10)
        return false;
    u64 value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + static_cast<u64>(c - '0');
    }
    if (value > std::numeric_limits<unsigned int>::max())
        return false;
    pid = static_cast<unsigned int>(value);
    return true;
}

} // namespace

JitFilesManager::JitFilesManager() {
    m_hostNames.emplace_back();
}

quarvel_error_t JitFilesManager::refuseInit(quarvel_error_t code, const std::string& message) const {
    QV_ERROR(message);
    m_lastError = code == meJitFileNotFound ? Reason::notFound(message, code) : Reason::badInput(message, code);
    return code;
}

JitFilesManager::~JitFilesManager() = default;

quarvel_error_t JitFilesManager::parseJitFileName(const std::string& fileName, unsigned int& pid,
                                                  std::string& hostName) const {
    if (fileName.empty())
        return meNotFound;
    // The last "."-token is the extension, the one before it carries the pid.
    const size_t extDot = fileName.rfind('.');
    if (extDot == std::string::npos || extDot == 0 || extDot + 1 == fileName.size())
        return meNotFound;
    const size_t pidDot = fileName.rfind('.', extDot - 1);
    const size_t pidStart = pidDot == std::string::npos ? 0 : pidDot + 1;
    const std::string pidToken = fileName.substr(pidStart, extDot - pidStart);

    unsigned int parsedPid = 0;
    std::string host;
    if (pidDot != std::string::npos && parsePid(pidToken, parsedPid)) {
        // "<host>.<pid>.<ext>": the host keeps its own dots and dashes.
        host = fileName.substr(0, pidDot);
    } else {
        // "<host>-<pid>.<ext>": the pid follows the token's last dash.
        const size_t dash = pidToken.rfind('-');
        if (dash == std::string::npos || dash == 0 || !parsePid(pidToken.substr(dash + 1), parsedPid))
            return meNotFound;
        host = fileName.substr(0, pidStart + dash);
    }
    if (host.empty())
        return meNotFound;
    pid = parsedPid;
    hostName = host;
    return meSuccess;
}

// Every file is routed by its content. Our own traces name their host and
// process in the file name; the files runtimes write for profilers name only
// the process (in the name or the content) and come from this host. A file
// named explicitly whose content is of no known format is taken as one of our
// traces when its name says so: reading it then says what is wrong.
quarvel_error_t JitFilesManager::collectFile(const fs::path& path, bool explicitPath,
                                             std::vector<PendingFile>& pending) const {
    PendingFile file;
    file.path = path;
    file.fileName = path.filename().string();
    boost::system::error_code ec;
    file.size = fs::file_size(path, ec);
    if (ec) {
        if (explicitPath) {
            QV_REFUSE_INIT(meFileOpenError,
                           "Couldn't read the size of jit file " << path.string() << ": " << ec.message());
        }
        QV_INFO("Skipped " << path.string() << ": couldn't read its size: " << ec.message());
        return meSuccess;
    }
    const std::optional<TraceFormat> detected = detectTraceFormat(path.string(), file.size);
    if (!detected && !explicitPath) {
        QV_INFO("Skipped " << path.string() << ": its content is of no trace format read here");
        return meSuccess;
    }
    file.format = detected.value_or(TraceFormat::jitTrace);
    if (!isReadable(file.format)) {
        if (explicitPath) {
            QV_REFUSE_INIT(meNotFound, "Jit file " << path.string() << " is a " << traceFormatName(file.format)
                                                   << " file, which is not read yet");
        }
        QV_INFO("Skipped " << path.string() << ": a " << traceFormatName(file.format)
                           << " file, which is not read yet");
        return meSuccess;
    }
    if (file.format == TraceFormat::jitTrace) {
        if (parseJitFileName(file.fileName, file.pid, file.hostName) != meSuccess) {
            if (explicitPath) {
                QV_REFUSE_INIT(meNotFound, "Jit file name "
                                               << path.string()
                                               << " does not have the form <host>.<pid>.<ext> or <host>-<pid>.<ext>");
            }
            QV_INFO("Skipped " << path.string() << ": not a jit file name (<host>.<pid>.<ext> or <host>-<pid>.<ext>)");
            return meSuccess;
        }
    } else {
        if (!processOfRuntimeFile(file.format, path.string(), file.fileName, file.pid)) {
            if (explicitPath) {
                QV_REFUSE_INIT(meNotFound, "Couldn't tell which process wrote " << traceFormatName(file.format)
                                                                                << " file " << path.string());
            }
            QV_INFO("Skipped " << path.string() << ": couldn't tell which process wrote it");
            return meSuccess;
        }
        file.hostName = localHostName();
    }
    pending.push_back(file);
    return meSuccess;
}

quarvel_error_t JitFilesManager::collectPath(const char* text, std::vector<PendingFile>& pending) const {
    if (!text || !*text) {
        QV_REFUSE_INIT(meJitFileNotFound, "An empty jit file path was given");
    }
    const fs::path path(text);
    boost::system::error_code ec;
    const fs::file_status status = fs::status(path, ec);
    if (status.type() == fs::file_not_found || (ec && status.type() == fs::status_error)) {
        QV_REFUSE_INIT(
            meJitFileNotFound, "Jit file path "
                                   << path.string() << " does not exist"
                                   << (ec && status.type() == fs::status_error ? ": " + ec.message() : std::string()));
    }
    if (fs::is_regular_file(status))
        return collectFile(path, true, pending);
    if (!fs::is_directory(status)) {
        QV_REFUSE_INIT(meFileOpenError,
                       "Jit file path " << path.string() << " is neither a regular file nor a directory");
    }

    // Entries in ascending name order, each name once.
    std::map<std::string, fs::path> entries;
    fs::directory_iterator it(path, ec);
    if (ec) {
        QV_REFUSE_INIT(meFileOpenError, "Couldn't list jit file directory " << path.string() << ": " << ec.message());
    }
    for (; it != fs::directory_iterator(); it.increment(ec)) {
        if (ec)
            break;
        entries.emplace(it->path().filename().string(), it->path());
    }
    if (ec) {
        QV_REFUSE_INIT(meFileOpenError, "Couldn't list jit file directory " << path.string() << ": " << ec.message());
    }
    for (const auto& entry : entries) {
        // Links, devices and subdirectories are passed over: a trace is read only through its real path.
        const fs::file_status entryStatus = fs::symlink_status(entry.second, ec);
        if (ec || !fs::is_regular_file(entryStatus)) {
            QV_INFO("Skipped " << entry.second.string() << ": not a regular file");
            continue;
        }
        const quarvel_error_t ret = collectFile(entry.second, false, pending);
        if (ret != meSuccess)
            return ret;
    }
    return meSuccess;
}

void JitFilesManager::addPending(const std::vector<PendingFile>& pending, target_arch_t arch) {
    m_targetArch = arch;
    for (const PendingFile& file : pending) {
        u64 next = m_nextJitRva;
        JitFileInfo info;
        info.path = file.path;
        info.fileName = file.fileName;
        info.format = file.format;
        info.jitRvaBase = next;
        info.size = file.size;
        // Sizes were read while collecting; file them without touching the file system again.
        unsigned int hostId = getHostID(file.hostName);
        if (hostId == 0) {
            m_hostNames.push_back(file.hostName);
            hostId = static_cast<unsigned int>(m_hostNames.size() - 1);
            m_hostIds.emplace(file.hostName, hostId);
        }
        const auto slot = m_processes[hostId].try_emplace(file.pid);
        ProcessJitInfo& process = slot.first->second;
        process.files.push_back(info);
        markUnread(process, slot.second);
        m_nextJitRva = next + JitFileReader::kJitRvaStride;
    }
}

quarvel_error_t JitFilesManager::initialize(generic_iterator_t<const char*>& paths, target_arch_t arch) {
    std::vector<PendingFile> pending;
    for (generic_iterator_t<const char*> it(paths); !it.atEnd(); it.advance()) {
        const quarvel_error_t ret = collectPath(it.current(), pending);
        if (ret != meSuccess)
            return ret;
    }
    addPending(pending, arch);
    return meSuccess;
}

quarvel_error_t JitFilesManager::initialize(generic_iterator_t<JitFileDescriptor>& descriptors, target_arch_t arch) {
    std::vector<PendingFile> pending;
    for (generic_iterator_t<JitFileDescriptor> it(descriptors); !it.atEnd(); it.advance()) {
        const JitFileDescriptor descriptor = it.current();
        if (!descriptor.path || !*descriptor.path) {
            QV_REFUSE_INIT(meJitFileNotFound, "A jit file descriptor without a path was given");
        }
        const fs::path path(descriptor.path);
        boost::system::error_code ec;
        const fs::file_status status = fs::status(path, ec);
        if (!fs::exists(status)) {
            QV_REFUSE_INIT(meJitFileNotFound, "Jit file path " << path.string() << " does not exist");
        }
        if (!fs::is_regular_file(status)) {
            QV_REFUSE_INIT(meFileOpenError, "Jit file path " << path.string() << " is not a regular file");
        }
        PendingFile file;
        file.path = path;
        file.fileName = path.filename().string();
        file.pid = descriptor.pid;
        file.hostName = descriptor.hostName ? descriptor.hostName : "";
        file.size = fs::file_size(path, ec);
        if (ec) {
            QV_REFUSE_INIT(meFileOpenError,
                           "Couldn't read the size of jit file " << path.string() << ": " << ec.message());
        }
        // The descriptor names the process and host; the content names the format.
        file.format = detectTraceFormat(path.string(), file.size).value_or(TraceFormat::jitTrace);
        if (!isReadable(file.format)) {
            QV_REFUSE_INIT(meNotFound, "Jit file " << path.string() << " is a " << traceFormatName(file.format)
                                                   << " file, which is not read yet");
        }
        pending.push_back(file);
    }
    addPending(pending, arch);
    return meSuccess;
}

quarvel_error_t JitFilesManager::addJitFileInfo(const fs::path& path, const std::string& fileName, u64& nextJitRva,
                                                const std::string& hostName, unsigned int pid) {
    boost::system::error_code ec;
    const u64 size = fs::file_size(path, ec);
    if (ec) {
        QV_ERROR("Couldn't read the size of jit file " << path.string() << ": " << ec.message());
        return meFileOpenError;
    }
    unsigned int hostId = getHostID(hostName);
    if (hostId == 0) {
        m_hostNames.push_back(hostName);
        hostId = static_cast<unsigned int>(m_hostNames.size() - 1);
        m_hostIds.emplace(hostName, hostId);
    }
    const auto slot = m_processes[hostId].try_emplace(pid);
    ProcessJitInfo& process = slot.first->second;
    JitFileInfo info;
    info.path = path;
    info.fileName = fileName;
    info.jitRvaBase = nextJitRva;
    info.size = size;
    nextJitRva += JitFileReader::kJitRvaStride;
    process.files.push_back(info);
    markUnread(process, slot.second);
    if (nextJitRva > m_nextJitRva)
        m_nextJitRva = nextJitRva;
    return meSuccess;
}

quarvel_error_t JitFilesManager::addJitFileInfo(const fs::path& path, const std::string& fileName, u64& nextJitRva) {
    unsigned int pid = 0;
    std::string host;
    const quarvel_error_t ret = parseJitFileName(fileName, pid, host);
    if (ret != meSuccess)
        return ret;
    return addJitFileInfo(path, fileName, nextJitRva, host, pid);
}

unsigned int JitFilesManager::getHostID(const std::string& name) const {
    const auto it = m_hostIds.find(name);
    return it == m_hostIds.end() ? 0 : it->second;
}

const char* JitFilesManager::getHostName(unsigned int id) const {
    if (id == 0 || id >= m_hostNames.size())
        return nullptr;
    return m_hostNames[id].c_str();
}

generic_iterator_t<unsigned> JitFilesManager::getJitPidArray() const {
    // The lock is taken on every call (it is cheap): the array pointer is
    // never read while another thread publishes it.
    boost::unique_lock<boost::mutex> lock(m_pidArrayMutex);
    if (!m_pidArray || m_pidArray->empty()) {
        auto pids = std::make_shared<std::vector<unsigned>>();
        for (const auto& host : m_processes)
            for (const auto& process : host.second)
                pids->push_back(process.first);
        m_pidArray = pids;
    }
    const std::shared_ptr<const std::vector<unsigned>> held = m_pidArray;
    return generic_iterator_t<unsigned>(held->begin(), held->end(), held);
}

ProcessJitInfo* JitFilesManager::getProcessJitInfo(unsigned int pid, unsigned int hostId) {
    const auto host = m_processes.find(hostId);
    if (host == m_processes.end())
        return nullptr;
    const auto process = host->second.find(pid);
    return process == host->second.end() ? nullptr : &process->second;
}

const ProcessJitInfo* JitFilesManager::getProcessJitInfo(unsigned int pid, unsigned int hostId) const {
    return const_cast<JitFilesManager*>(this)->getProcessJitInfo(pid, hostId);
}

quarvel_error_t JitFilesManager::getJitFileRange(const char* fileName, u64& base, u64& limit) const {
    if (!fileName)
        return meJitFileNotFound;
    const std::string name = fs::path(fileName).filename().string();
    const JitFileInfo* match = nullptr;
    unsigned int pid = 0;
    std::string host;
    if (parseJitFileName(name, pid, host) == meSuccess) {
        if (const ProcessJitInfo* process = getProcessJitInfo(pid, getHostID(host))) {
            for (const JitFileInfo& file : process->files)
                if (file.fileName == name) {
                    match = &file;
                    break;
                }
        }
    }
    if (!match) {
        // Files given by descriptors are filed under the descriptor's pid and
        // host, which the name need not show: look through every file.
        for (const auto& hostEntry : m_processes) {
            for (const auto& process : hostEntry.second) {
                for (const JitFileInfo& file : process.second.files)
                    if (file.fileName == name) {
                        match = &file;
                        break;
                    }
                if (match)
                    break;
            }
            if (match)
                break;
        }
    }
    if (!match)
        return meJitFileNotFound;
    base = match->jitRvaBase;
    limit = match->jitRvaBase + JitFileReader::kJitRvaStride;
    return meSuccess;
}

quarvel_error_t JitFilesManager::processState(unsigned int pid, unsigned int hostId) const {
    const ProcessJitInfo* process = getProcessJitInfo(pid, hostId);
    if (!process)
        return meNotFound;
    return process->read.load() ? meSuccess : meEndOfData;
}

size_t JitFilesManager::fileCount() const {
    size_t n = 0;
    for (const auto& host : m_processes)
        for (const auto& process : host.second)
            n += process.second.files.size();
    return n;
}

JitReadStats JitFilesManager::readStats() const {
    boost::unique_lock<boost::mutex> lock(m_readMutex);
    return m_stats;
}

quarvel_error_t JitFilesManager::readFile(const JitFileInfo& file, ProcessJitInfo& process, unsigned int pid,
                                          unsigned int hostId, decoding_mode_t mode, JitDataManager& dataManager) {
    RuntimeFileContext context;
    context.path = file.path.string();
    context.pid = pid;
    context.hostId = hostId;
    context.jitRvaBase = file.jitRvaBase;
    context.mode = mode;
    switch (file.format) {
    case TraceFormat::jitTrace: {
        JitFileDecoder decoder(context.path, pid, hostId, file.jitRvaBase, mode);
        return JitFileReader(&m_stats, m_modules).readJitFile(decoder, m_targetArch, dataManager);
    }
    case TraceFormat::jitdump:
        return JitdumpFileReader(&m_stats, m_modules).readFile(context, dataManager, &process.jitdumpCode);
    case TraceFormat::perfMap:
        return PerfMapFileReader(&m_stats, m_modules)
            .readFile(context, dataManager, process.jitdumpCode.empty() ? nullptr : &process.jitdumpCode);
    case TraceFormat::nettrace:
        return NettraceFileReader(&m_stats, m_modules).readFile(context, dataManager, &process.jitdumpCode);
    }
    // The set takes no file of a format it cannot read.
    QV_CHECK(isReadable(file.format), (void)0);
    return meNotFound;
}

quarvel_error_t JitFilesManager::readProcessFiles(ProcessJitInfo& process, unsigned int pid, unsigned int hostId,
                                                  decoding_mode_t mode, JitDataManager& dataManager, bool logFailures) {
    for (int round = 0; round < kReadingRounds; ++round) {
        for (JitFileInfo& file : process.files) {
            if (file.read || readingRound(file.format) != round)
                continue;
            if (file.path.empty()) {
                if (!logFailures)
                    return meInvalidPointer;
                QV_ERROR("Skip reading jit file because path is empty");
                continue;
            }
            quarvel_error_t status;
            try {
                status = readFile(file, process, pid, hostId, mode, dataManager);
            } catch (const std::exception& e) {
                // Nothing leaves the library; what the file gave before stays registered.
                QV_ERROR("Stopped reading jit file " << file.path.string() << ": " << e.what());
                m_stats.addRefusal(Reason::internal(e.what(), meBadRecord).inFile(file.path.string()));
                status = meBadRecord;
            }
            // Read once, whatever happened: the reasons are in the statistics.
            file.read = true;
            if (status != meSuccess)
                QV_ERROR("Could not read jit file " << file.path.string());
        }
    }
    return meSuccess;
}

quarvel_error_t JitFilesManager::readJitFiles(unsigned int pid, unsigned int hostId, decoding_mode_t mode,
                                              JitDataManager& dataManager) {
    ProcessJitInfo* process = getProcessJitInfo(pid, hostId);
    if (!process)
        return meNotFound;
    if (process->read.load())
        return meSuccess;
    boost::unique_lock<boost::mutex> lock(m_readMutex);
    if (process->read.load())
        return meSuccess;
    const bulk_memory::PageRecycling recycling;
    const quarvel_error_t status = readProcessFiles(*process, pid, hostId, mode, dataManager, false);
    // Queries must see the normalised inline jit rvas of what was read, even after a failure.
    dataManager.finalize();
    if (status != meSuccess)
        return status;
    markRead(*process);
    return meSuccess;
}

quarvel_error_t JitFilesManager::readJitFiles(decoding_mode_t mode, JitDataManager& dataManager) {
    if (m_wholeSetRead.load() || m_everyProcessRead.load())
        return meSuccess;
    boost::unique_lock<boost::mutex> lock(m_readMutex);
    if (m_wholeSetRead.load() || m_everyProcessRead.load())
        return meSuccess;
    const bulk_memory::PageRecycling recycling;
    std::vector<ProcessJitInfo*> read;
    for (auto& host : m_processes) {
        for (auto& entry : host.second) {
            ProcessJitInfo& process = entry.second;
            if (process.read.load())
                continue;
            if (readProcessFiles(process, entry.first, host.first, mode, dataManager, true) == meSuccess)
                read.push_back(&process);
        }
    }
    dataManager.finalize();
    // Marked only once the model is final: with every process read, queries
    // take no lock, and one asked before finalize() would find nothing.
    for (ProcessJitInfo* process : read)
        markRead(*process);
    m_wholeSetRead = true;
    return meSuccess;
}

// A process that gained files (or is new) has something to read again.
void JitFilesManager::markUnread(ProcessJitInfo& process, bool added) {
    if (added || process.read.load())
        ++m_unreadProcesses;
    process.read = false;
    m_wholeSetRead = false;
    m_everyProcessRead = false;
}

// With m_readMutex held, once the process's pass wrote all it writes: the
// last process read leaves the model for queries alone.
void JitFilesManager::markRead(ProcessJitInfo& process) {
    process.read = true;
    if (--m_unreadProcesses == 0)
        m_everyProcessRead = true;
}

QUARVEL_NAMESPACE_END

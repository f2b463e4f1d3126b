// The C interface of the trace writer: converts the caller's plain records
// into the C++ ones and appends them through JitTraceWriter.

#include <quarvel/jittrace_writer.h>

#include <cerrno>
#include <limits>
#include <mutex>
#include <new>
#include <string>

struct quarvel_trace_writer {
    quarvel::JitTraceWriter writer;
    mutable std::mutex errorMutex;
    std::string error;
};

namespace {

using namespace quarvel;

constexpr size_t kMaxCount = 0xFFFF;

// Refuses what the file's u16 counts cannot hold instead of cutting it.
struct Converter {
    std::string error;

    bool text(const char* s, const char* field, std::string& out) {
        out = s ? s : "";
        if (out.size() > kMaxCount) {
            error = std::string(field) + " is longer than 65535 bytes";
            return false;
        }
        return true;
    }

    bool table(const quarvel_trace_line_table& t, const char* field, std::vector<quarvel_line_number_entry>& out) {
        if (t.count > kMaxCount || (t.count && !t.entries)) {
            error =
                std::string(field) + (t.count > kMaxCount ? " has more than 65535 rows" : " has rows but no entries");
            return false;
        }
        out.assign(t.entries, t.entries + t.count);
        return true;
    }

    bool region(const quarvel_trace_region& r, TraceCodeRegion& out) {
        if (r.byte_count && !r.bytes) {
            error = "a region has a byte count but no bytes";
            return false;
        }
        out.startAddress = r.start_address;
        out.codeSize = r.code_size;
        out.bytes.assign(r.bytes, r.bytes + r.byte_count);
        return true;
    }

    bool tail(const quarvel_trace_method_tail& t, TraceMethodTail& out) {
        out.moduleArch = t.module_arch;
        out.checksumType = t.checksum_type;
        out.language = t.language;
        out.metadataToken = t.metadata_token;
        return text(t.module_name, "module_name", out.moduleName) &&
               text(t.method_name, "method_name", out.methodName) && text(t.class_name, "class_name", out.className) &&
               text(t.source_file, "source_file", out.sourceFile) && text(t.checksum, "checksum", out.checksum) &&
               table(t.managed_to_source, "managed_to_source", out.lines.managedToSource) &&
               table(t.native_to_managed, "native_to_managed", out.lines.nativeToManaged) &&
               table(t.native_to_source, "native_to_source", out.lines.nativeToSource);
    }

    bool load(const quarvel_trace_method_load& l, TraceMethodLoad& out) {
        if (l.region_count > kMaxCount || (l.region_count && !l.regions)) {
            error = l.region_count > kMaxCount ? "more than 65535 regions" : "a region count but no regions";
            return false;
        }
        out.hashKey = l.hash_key;
        out.methodId = l.method_id;
        out.inlineFlag = l.inline_flag;
        out.loadTime = l.load_time;
        out.regions.resize(l.region_count);
        for (uint32_t i = 0; i < l.region_count; ++i)
            if (!region(l.regions[i], out.regions[i]))
                return false;
        return tail(l.tail, out.tail);
    }
};

void setError(quarvel_trace_writer* w, std::string text) {
    std::lock_guard<std::mutex> lock(w->errorMutex);
    w->error = std::move(text);
}

// Runs one append: builds the record with convert, writes it with write.
template <typename Build, typename Write>
int append(quarvel_trace_writer* w, const void* record, Build build, Write write) {
    if (!w)
        return quarvel_trace_invalid_argument;
    if (!record) {
        setError(w, "the record is null");
        return quarvel_trace_invalid_argument;
    }
    try {
        Converter c;
        if (!build(c)) {
            setError(w, c.error);
            return quarvel_trace_invalid_argument;
        }
        if (!write()) {
            setError(w, w->writer.errorText());
            return quarvel_trace_write_failed;
        }
        return quarvel_trace_ok;
    } catch (const std::bad_alloc&) {
        setError(w, "out of memory");
        return quarvel_trace_no_memory;
    }
}

} // namespace

extern "C" {

QUARVEL_API int quarvel_trace_writer_open(const char* path, int append, quarvel_trace_writer** writer) {
    if (!writer)
        return quarvel_trace_invalid_argument;
    *writer = nullptr;
    if (!path || !*path) {
        errno = EINVAL;
        return quarvel_trace_invalid_argument;
    }
    quarvel_trace_writer* w = new (std::nothrow) quarvel_trace_writer;
    if (!w) {
        errno = ENOMEM;
        return quarvel_trace_no_memory;
    }
    if (!w->writer.open(path, append != 0)) {
        const int saved = errno;
        delete w;
        errno = saved;
        return quarvel_trace_open_failed;
    }
    *writer = w;
    return quarvel_trace_ok;
}

QUARVEL_API void quarvel_trace_writer_close(quarvel_trace_writer* writer) {
    delete writer;
}

QUARVEL_API const char* quarvel_trace_writer_error(const quarvel_trace_writer* writer) {
    if (!writer)
        return "the writer is null";
    std::lock_guard<std::mutex> lock(writer->errorMutex);
    return writer->error.c_str();
}

QUARVEL_API uint64_t quarvel_trace_writer_bytes_written(const quarvel_trace_writer* writer) {
    return writer ? writer->writer.bytesWritten() : 0;
}

QUARVEL_API int quarvel_trace_write_magic(quarvel_trace_writer* writer, uint32_t value) {
    static const int dummy = 0;
    return append(
        writer, &dummy, [](Converter&) { return true; }, [&] { return writer->writer.writeMagic(value); });
}

QUARVEL_API int quarvel_trace_write_collector_type(quarvel_trace_writer* writer, uint32_t type) {
    static const int dummy = 0;
    return append(
        writer, &dummy, [](Converter&) { return true; }, [&] { return writer->writer.writeCollectorType(type); });
}

QUARVEL_API int quarvel_trace_write_method_load(quarvel_trace_writer* writer, int version, int is64,
                                                const quarvel_trace_method_load* load) {
    TraceMethodLoad record;
    return append(
        writer, load,
        [&](Converter& c) {
            if (version < 0 || version > 3) {
                c.error = "unknown method load version " + std::to_string(version);
                return false;
            }
            return c.load(*load, record);
        },
        [&] { return writer->writer.writeMethodLoad(version, is64 != 0, record); });
}

QUARVEL_API int quarvel_trace_write_method_update(quarvel_trace_writer* writer,
                                                  const quarvel_trace_method_load* update) {
    TraceMethodLoad record;
    return append(
        writer, update, [&](Converter& c) { return c.load(*update, record); },
        [&] { return writer->writer.writeMethodUpdate(record); });
}

QUARVEL_API int quarvel_trace_write_inline_load(quarvel_trace_writer* writer, int is64,
                                                const quarvel_trace_inline_load* load) {
    TraceInlineLoad record;
    return append(
        writer, load,
        [&](Converter& c) {
            record.methodId = load->method_id;
            record.parentId = load->parent_id;
            record.loadTime = load->load_time;
            return c.region(load->region, record.region) && c.tail(load->tail, record.tail);
        },
        [&] { return writer->writer.writeInlineLoad(is64 != 0, record); });
}

QUARVEL_API int quarvel_trace_write_update_v2(quarvel_trace_writer* writer, const quarvel_trace_update_v2* update) {
    TraceUpdateV2 record;
    return append(
        writer, update,
        [&](Converter& c) {
            if (update->byte_count && !update->bytes) {
                c.error = "a byte count but no bytes";
                return false;
            }
            record.methodId = update->method_id;
            record.loadTime = update->load_time;
            record.startAddress = update->start_address;
            record.length = update->length;
            record.bytes.assign(update->bytes, update->bytes + update->byte_count);
            return true;
        },
        [&] { return writer->writer.writeUpdateV2(record); });
}

QUARVEL_API int quarvel_trace_write_runtime_info(quarvel_trace_writer* writer, const quarvel_trace_runtime_info* info) {
    TraceRuntimeInfo record;
    return append(
        writer, info,
        [&](Converter& c) {
            record.runtimeType = info->runtime_type;
            return c.text(info->version, "version", record.version) && c.text(info->name, "name", record.name);
        },
        [&] { return writer->writer.writeRuntimeInfo(record); });
}

} // extern "C"

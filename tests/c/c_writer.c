/* Compiled as C: proves the writer header is C and exercises every call. */

#include "c_writer.h"

#include <quarvel/jittrace_writer.h>

#include <pthread.h>
#include <stddef.h>
#include <string.h>

static const uint8_t kCode[16] = {0x55, 0x48, 0x89, 0xe5, 0x90, 0x90, 0x90, 0x90,
                                  0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0xc9, 0xc3};
static const quarvel_line_number_entry kLines[2] = {{0, 8, 10}, {8, 16, 11}};

static quarvel_trace_method_tail tail(const char* method) {
    quarvel_trace_method_tail t;
    memset(&t, 0, sizeof t);
    t.module_name = "c.jar";
    t.module_arch = quarvel_arch_vx64;
    t.method_name = method;
    t.class_name = "demo.CWritten";
    t.source_file = "CWritten.java";
    t.checksum_type = 1;
    t.checksum = "abc";
    t.language = 0;
    t.native_to_source.entries = kLines;
    t.native_to_source.count = 2;
    return t;
}

int c_write_every_record(const char* path) {
    quarvel_trace_writer* w = NULL;
    int rc = quarvel_trace_writer_open(path, 0, &w);
    if (rc != quarvel_trace_ok)
        return rc;

    quarvel_trace_region region = {0x10000, 16, kCode, 16};
    quarvel_trace_method_load load;
    memset(&load, 0, sizeof load);
    load.hash_key = 7;
    load.method_id = 7;
    load.load_time = 100;
    load.regions = &region;
    load.region_count = 1;
    load.tail = tail("run");

    quarvel_trace_inline_load inl;
    memset(&inl, 0, sizeof inl);
    inl.method_id = 8;
    inl.parent_id = 7;
    inl.load_time = 100;
    inl.region.start_address = 0x10004;
    inl.region.code_size = 8;
    inl.region.bytes = kCode + 4;
    inl.region.byte_count = 8;
    inl.tail = tail("helper");

    const uint8_t patch[2] = {0xcc, 0xcc};
    quarvel_trace_update_v2 upd = {7, 150, 0x10006, 2, patch, 2};
    quarvel_trace_runtime_info info = {quarvel_runtime_java, "17.0.2", "OpenJDK 64-Bit Server VM"};

    quarvel_trace_method_load update = load;
    quarvel_trace_region updated = {0x10000, 16, kCode, 16};
    update.regions = &updated;
    update.load_time = 120;

    if ((rc = quarvel_trace_write_magic(w, 0)) == 0 && (rc = quarvel_trace_write_collector_type(w, 1)) == 0 &&
        (rc = quarvel_trace_write_runtime_info(w, &info)) == 0 &&
        (rc = quarvel_trace_write_method_load(w, 3, 1, &load)) == 0 &&
        (rc = quarvel_trace_write_inline_load(w, 1, &inl)) == 0 &&
        (rc = quarvel_trace_write_method_update(w, &update)) == 0)
        rc = quarvel_trace_write_update_v2(w, &upd);
    quarvel_trace_writer_close(w);
    return rc;
}

struct job {
    quarvel_trace_writer* writer;
    unsigned first_id;
    int count;
    int rc;
};

static void* append_loads(void* arg) {
    struct job* j = (struct job*)arg;
    for (int i = 0; i < j->count && j->rc == 0; ++i) {
        quarvel_trace_region region = {0x200000 + 0x100 * (uint64_t)(j->first_id + (unsigned)i), 16, kCode, 16};
        quarvel_trace_method_load load;
        memset(&load, 0, sizeof load);
        load.method_id = j->first_id + (unsigned)i;
        load.hash_key = load.method_id;
        load.load_time = 1000 + load.method_id;
        load.regions = &region;
        load.region_count = 1;
        load.tail = tail("threaded");
        j->rc = quarvel_trace_write_method_load(j->writer, 3, 1, &load);
    }
    return NULL;
}

int c_write_threaded(const char* path, int threads, int records_each) {
    quarvel_trace_writer* w = NULL;
    int rc = quarvel_trace_writer_open(path, 0, &w);
    if (rc != quarvel_trace_ok)
        return rc;
    pthread_t ids[16];
    struct job jobs[16];
    if (threads > 16)
        threads = 16;
    int started = 0;
    for (int t = 0; t < threads; ++t) {
        jobs[t].writer = w;
        jobs[t].first_id = 1 + (unsigned)(t * records_each);
        jobs[t].count = records_each;
        jobs[t].rc = 0;
        if (pthread_create(&ids[t], NULL, append_loads, &jobs[t]) != 0)
            break;
        ++started;
    }
    for (int t = 0; t < started; ++t) {
        pthread_join(ids[t], NULL);
        if (jobs[t].rc != 0)
            rc = jobs[t].rc;
    }
    quarvel_trace_writer_close(w);
    return started == threads ? rc : -1;
}

int c_check_refusals(const char* path) {
    quarvel_trace_writer* w = NULL;
    if (quarvel_trace_writer_open(NULL, 0, &w) != quarvel_trace_invalid_argument || w != NULL)
        return 1;
    if (quarvel_trace_writer_open("/nonexistent-dir/x.jit", 0, &w) != quarvel_trace_open_failed || w != NULL)
        return 2;
    if (quarvel_trace_writer_open(path, 0, &w) != quarvel_trace_ok)
        return 3;
    quarvel_trace_method_load load;
    memset(&load, 0, sizeof load);
    int rc = 0;
    if (quarvel_trace_write_method_load(w, 4, 1, &load) != quarvel_trace_invalid_argument ||
        strstr(quarvel_trace_writer_error(w), "version 4") == NULL)
        rc = 4;
    else if (quarvel_trace_write_method_load(w, 3, 1, NULL) != quarvel_trace_invalid_argument)
        rc = 5;
    else {
        load.region_count = 1; /* a count without regions */
        if (quarvel_trace_write_method_load(w, 3, 1, &load) != quarvel_trace_invalid_argument)
            rc = 6;
        else if (quarvel_trace_write_magic(NULL, 0) != quarvel_trace_invalid_argument)
            rc = 7;
        else if (quarvel_trace_writer_bytes_written(w) != 0)
            rc = 8; /* nothing refused reached the file */
    }
    quarvel_trace_writer_close(w);
    return rc;
}

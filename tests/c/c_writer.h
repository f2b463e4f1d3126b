#ifndef QUARVEL_TESTS_C_WRITER_H
#define QUARVEL_TESTS_C_WRITER_H

/* Trace files written through the C interface by code compiled as C. */

#ifdef __cplusplus
extern "C" {
#endif

/* One record of every kind; 0 on success, else the failing call's status. */
int c_write_every_record(const char* path);
/* threads threads append records_each method loads each to one handle. */
int c_write_threaded(const char* path, int threads, int records_each);
/* The refusals of bad arguments; 0 when each came back as documented. */
int c_check_refusals(const char* path);

#ifdef __cplusplus
}
#endif

#endif

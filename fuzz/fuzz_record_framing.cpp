// The record framing: the input as a trace file's bytes, read record by record.

#include "fuzz_support.h"

#include "format/jit_file_decoder.h"
#include "format/record.h"

#include <cstdlib>

using namespace quarvel;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quarvel_fuzz::setUpLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    JitFileDecoder decoder("framing-1.jit", ByteSpan(data, size));
    Record record;
    u64 consumed = 0;
    quarvel_error_t status = meSuccess;
    // Every accepted record consumes at least 8 bytes, so the loop ends.
    while ((status = decoder.getNextRecord(record)) == meSuccess) {
        // A record lies inside the file, starts where the previous one ended
        // and never carries more body than the file holds.
        if (record.offset != consumed || record.data.size() > size || decoder.position() > size ||
            decoder.position() <= record.offset ||
            (record.data.size() && (record.data.data() < data || record.data.end() > data + size)))
            std::abort();
        consumed = decoder.position();
    }
    if (status != meEndOfData && status != meBadRecord)
        std::abort();
    // Once the stream has ended it stays ended.
    if (status == meEndOfData && decoder.getNextRecord(record) != meEndOfData)
        std::abort();
    return 0;
}

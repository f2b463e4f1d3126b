#ifndef QUARVEL_JITREADER_H
#define QUARVEL_JITREADER_H

// Everything a caller of the jit reader may use.

#include <quarvel/base_object.h>
#include <quarvel/byte_buffer.h>
#include <quarvel/converters.h>
#include <quarvel/dotnet.h>
#include <quarvel/exception.h>
#include <quarvel/export.h>
#include <quarvel/facades.h>
#include <quarvel/generic_iterator.h>
#include <quarvel/symbol.h>
#include <quarvel/types.h>

#endif

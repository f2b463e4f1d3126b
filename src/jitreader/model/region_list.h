#ifndef QUARVEL_MODEL_REGION_LIST_H
#define QUARVEL_MODEL_REGION_LIST_H

#include "model/ref_list.h"
#include "model/region.h"

QUARVEL_NAMESPACE_BEGIN

// A method's code regions, in the order they were added. Every method has
// one (most have one to three, an inlined method exactly one), so the list
// holds its only region in place and needs no block for it.
typedef RefList<Region> RegionList;

QUARVEL_NAMESPACE_END

#endif

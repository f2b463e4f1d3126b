#include "model/base_method_id.h"

#include <iomanip>

QUARVEL_NAMESPACE_BEGIN

std::ostream& operator<<(std::ostream& os, const BaseMethodId& id) {
    const std::ios_base::fmtflags flags = os.flags();
    const char fill = os.fill('0');
    os << std::hex << std::setw(16) << id.part0 << std::setw(16) << id.part1;
    os.fill(fill);
    os.flags(flags);
    return os;
}

QUARVEL_NAMESPACE_END

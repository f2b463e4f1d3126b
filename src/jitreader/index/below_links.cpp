#include "index/below_links.h"

QUARVEL_NAMESPACE_BEGIN

u32 BelowLinks::capacity(const Run& run) {
    if (!run.roomy || run.count == 0)
        return run.count;
    u32 room = 1;
    while (room < run.count)
        room <<= 1;
    return room;
}

size_t BelowLinks::replace(u32 slot, size_t first, size_t last, const std::vector<Link>& with) {
    Run& run = m_runs[slot];
    const u32 count = run.count;
    const size_t newCount = count - (last - first) + with.size();
    size_t written = with.size();
    if (count && newCount <= capacity(run)) {
        // In place: the links after the window move by what it grew or shrank.
        Link* const links = m_links.data() + run.at;
        if (with.size() > last - first)
            std::move_backward(links + last, links + count, links + newCount);
        else if (with.size() < last - first)
            std::move(links + last, links + count, links + first + with.size());
        if (with.size() != last - first)
            written += count - last;
        std::copy(with.begin(), with.end(), links + first);
    } else {
        // Moved to the end with room to grow; the old place is given up.
        Run grown;
        grown.at = static_cast<u32>(m_links.size());
        grown.count = static_cast<u32>(newCount);
        grown.roomy = 1;
        std::vector<Link> links;
        links.reserve(capacity(grown));
        links.insert(links.end(), m_links.begin() + run.at, m_links.begin() + run.at + first);
        links.insert(links.end(), with.begin(), with.end());
        links.insert(links.end(), m_links.begin() + run.at + last, m_links.begin() + run.at + count);
        links.resize(capacity(grown), Link{0, kNone, kNone});
        m_links.insert(m_links.end(), links.begin(), links.end());
        run = grown;
        written = newCount;
    }
    run.count = static_cast<u32>(newCount);
    m_live = m_live - count + newCount;
    return written;
}

void BelowLinks::setDown(Link& link, unsigned height, unsigned l, u32 slot) {
    if (height == 0) {
        link.jump = slot;
        return;
    }
    if (link.jump == kNone) {
        if (m_towers.size() + height + 1 >= kNone)
            return; // no room to say where it starts: the link goes without
        link.jump = static_cast<u32>(m_towers.size());
        m_towers.resize(m_towers.size() + height + 1, u32(kNone));
    }
    m_towers[link.jump + l - 1] = slot;
}

void BelowLinks::clear() {
    GrowingArray<Run>().swap(m_runs);
    std::vector<Link>().swap(m_links);
    std::vector<u32>().swap(m_towers);
    m_live = 0;
}

QUARVEL_NAMESPACE_END

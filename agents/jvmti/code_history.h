#ifndef QUARVEL_JVMTI_CODE_HISTORY_H
#define QUARVEL_JVMTI_CODE_HISTORY_H

// Who occupied which code addresses, so that each load gets a time stamp a
// sampled pc can be compared with. Load events arrive after the code is
// installed and may already be running; the unload of the previous occupant
// is posted before its memory is reused. So a load is stamped with the latest
// unload among the code it replaces, or with the agent's start when its range
// was never used: any earlier sample in the range then still belongs to the
// old occupant, and no sample of the new code falls before its stamp.

#include <cstddef>
#include <cstdint>
#include <map>

namespace quarvel_jvmti {

class CodeHistory {
public:
    explicit CodeHistory(uint64_t startTime) : m_startTime(startTime) {}

    // Whether exactly this range is loaded and not unloaded: a replayed event.
    bool isLive(uint64_t start, uint64_t size) const;

    // Records code loaded at [start, start + size) whose event came at now and
    // returns its stamp. Stamps of overlapping code strictly increase.
    uint64_t load(uint64_t start, uint64_t size, uint64_t now);

    // Records the unload of the code that starts at start; false when no live
    // code starts there.
    bool unload(uint64_t start, uint64_t now);

    size_t liveCount() const { return m_live.size(); }

private:
    struct Piece {
        uint64_t end;
        uint64_t serial;
        uint64_t stamp;
        uint64_t unloadTime; // 0 while live
    };
    struct Live {
        uint64_t size;
        uint64_t serial;
    };

    // The latest occupant of each address; pieces never overlap.
    std::map<uint64_t, Piece> m_pieces;
    // Loaded code by start address; never overlapping either.
    std::map<uint64_t, Live> m_live;
    uint64_t m_startTime;
    uint64_t m_nextSerial = 1;
};

} // namespace quarvel_jvmti

#endif

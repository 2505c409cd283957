// SPDX-License-Identifier: MIT
// The ring of tracks. Its head is the tracker's own record, which is not an ox_track_t: it is told by its address
// before anything is read or written through it, so the ring holds under strict aliasing too.
#pragma once

#include "ox.h"

namespace ox {

inline ox_track_t* ring_end(ox_tracker_t& tracker) { return reinterpret_cast<ox_track_t*>(&tracker); }

inline void set_next(ox_tracker_t& tracker, ox_track_t* node, ox_track_t* next) {
  (node == ring_end(tracker) ? tracker.next : node->next) = next;
}

inline void set_prev(ox_tracker_t& tracker, ox_track_t* node, ox_track_t* prev) {
  (node == ring_end(tracker) ? tracker.prev : node->prev) = prev;
}

inline void append(ox_tracker_t& tracker, ox_track_t* track) {
  track->next = ring_end(tracker);
  track->prev = tracker.prev;
  set_next(tracker, tracker.prev, track);
  tracker.prev = track;
  tracker.track_count += 1;
}

inline void unlink(ox_tracker_t& tracker, ox_track_t* track) {
  set_next(tracker, track->prev, track->next);
  set_prev(tracker, track->next, track->prev);
  tracker.track_count -= 1;
}

// Calls f for each track, oldest first. f may free the track it is given.
template <class F> inline void for_each_track(ox_tracker_t& tracker, F&& f) {
  for (ox_track_t* t = tracker.next; t != ring_end(tracker);) {
    ox_track_t* const next = t->next;
    f(*t);
    t = next;
  }
}

}  // namespace ox

// SPDX-License-Identifier: MIT
// soak FRAMES: one tracker, that many generated frames. Ten objects at a time appear, cross, are missed and seen
// twice, and disappear. Checked after every frame: the blocks allocated are those that the live tracks account for,
// the identities are in their range, given in order and held once, no number of a track is a NaN. After every tenth
// all objects go until no track is left: then the bytes in use and the memory of the process must not be above those
// after the first tenth. In the end the identities must have come round. From a million frames on the last tenth must
// also be about as fast as the first.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "alloc_hook.h"
#include "ox.h"

namespace {

constexpr int kTenths = 10;
constexpr int kObjects = 10;
constexpr int kCapacity = 32;
constexpr std::int32_t kLastId = 1048574;  // 1 follows it
constexpr std::int32_t kConfirmHits = 2;
constexpr std::int32_t kMaxMisses = 3;
constexpr long kTrackerBlocks = 8;
constexpr long kTimedFrames = 1000000;
constexpr double kSlowest = 1.5;
// Blocks are counted exactly; of bytes the allocator keeps some freed ones in its caches, more or less.
constexpr std::size_t kBytesSlack = 8 * 1024;
constexpr long kResidentSlack = 256 * 1024;  // the kernel counts in batches, and code is still paged in

[[noreturn]] void fail(long frame, const char* what) {
  std::printf("FAILED at frame %ld: %s\n", frame, what);
  std::exit(1);
}

std::uint64_t state = 88172645463325252u;  // xorshift64, G. Marsaglia, "Xorshift RNGs", 2003

std::uint32_t below(std::uint32_t n) {
  state ^= state << 13;
  state ^= state >> 7;
  state ^= state << 17;
  return static_cast<std::uint32_t>(state >> 32) % n;
}
float between(float low, float high) { return low + (high - low) * static_cast<float>(below(1u << 20)) / 1048575.0f; }

struct Object {
  float cx, cy, w, h, vx, vy;
  std::uint32_t frames_left;
};

// Somewhere in a square in which ten objects meet often.
Object new_object() {
  Object o{};
  o.cx = between(0, 150);
  o.cy = between(0, 150);
  o.w = between(8, 24);
  o.h = between(8, 24);
  o.vx = between(-3, 3);
  o.vy = between(-3, 3);
  o.frames_left = 10 + below(50);
  return o;
}

// A full list would hold more than ten objects seen twice: it always ends with a zero.
float boxes[kCapacity + 1][6];
float results[kCapacity][8];

void draw(Object* objects) {
  int count = 0;
  const auto see = [&](const Object& o, float jitter) {
    const float cx = o.cx + between(-jitter, jitter), cy = o.cy + between(-jitter, jitter);
    const float box[6] = {1, cx - o.w / 2, cy - o.h / 2, cx + o.w / 2, cy + o.h / 2, between(0, 1)};
    std::memcpy(boxes[count++], box, sizeof box);
  };
  for (int i = 0; i < kObjects; ++i) {
    Object& o = objects[i];
    if (o.frames_left-- == 0) o = new_object();
    o.cx += o.vx;
    o.cy += o.vy;
    if (below(20) == 0) continue;
    see(o, 0.5f);
    if (below(40) == 0) see(o, 3.0f);
  }
  boxes[count][0] = 0.0f;
}

bool has_nan(const float* values, int count) {
  bool nan = false;
  for (int i = 0; i < count; ++i) nan |= values[i] != values[i];
  return nan;
}
bool has_nan(const ox_mat_t* m) { return has_nan(static_cast<const float*>(m->data), m->rows * m->cols); }

bool has_nan(const ox_track_t& t) {
  const float box[] = {t.cx, t.cy, t.w, t.h, t.prev_cx, t.prev_cy, t.prev_w, t.prev_h,
                       t.pred_cx, t.pred_cy, t.pred_w, t.pred_h};
  if (has_nan(box, 12)) return true;
  // meas has no defined contents before the first correction.
  return t.kf && (has_nan(t.kf->state_post) || has_nan(t.kf->error_cov_post));
}

bool is_head(const ox_tracker_t* tracker, const ox_track_t* t) {
  return static_cast<const void*>(t) == static_cast<const void*>(tracker);
}

struct Totals {
  long identities = 0;  // given
  long wraps = 0;
};

void check(long frame, const ox_tracker_t* tracker, std::int32_t next_before, Totals& totals) {
  std::int32_t ids[kCapacity];
  int confirmed = 0, tracks = 0;
  // As many identities were given as next_id went on; each of them is on a live track, once.
  const std::int32_t given = (tracker->next_id - next_before + kLastId) % kLastId;
  std::int32_t new_ones = 0;
  for (const ox_track_t* t = tracker->next; !is_head(tracker, t); t = t->next) {
    if (++tracks > kCapacity) fail(frame, "more tracks than capacity");
    if (has_nan(*t)) fail(frame, "a track holds a NaN");
    if ((t->id > 0) != (t->kf != nullptr) || (t->id > 0) != (t->meas != nullptr))
      fail(frame, "an identity without a filter, or a filter without one");
    if (t->id == -1) continue;
    if (t->id < 1 || t->id > kLastId) fail(frame, "an identity is out of range");
    if (std::find(ids, ids + confirmed, t->id) != ids + confirmed) fail(frame, "two live tracks have one identity");
    ids[confirmed++] = t->id;
    if ((t->id - next_before + kLastId) % kLastId < given) ++new_ones;
  }
  if (tracks != tracker->track_count) fail(frame, "track_count is wrong");
  if (tracker->next_id < 1 || tracker->next_id > kLastId) fail(frame, "next_id is out of range");
  if (new_ones != given) fail(frame, "identities are not given in order");
  if (alloc_hook::live() != kTrackerBlocks + tracks + 2 * confirmed) fail(frame, "blocks leak or are missing");
  totals.identities += given;
  if (tracker->next_id < next_before) ++totals.wraps;
  int reported = 0;
  for (; reported < kCapacity && results[reported][0] != -1.0f; ++reported) {
    if (has_nan(results[reported], 6)) fail(frame, "a result is a NaN");
    const auto id = static_cast<std::int32_t>(results[reported][0]);
    if (std::find(ids, ids + confirmed, id) == ids + confirmed) fail(frame, "a result has no live track's identity");
  }
  if (reported > confirmed) fail(frame, "more results than confirmed tracks");
}

// Without stdio, whose buffers would count among the bytes in use.
long resident_bytes() {
  char text[128] = {};
  const int file = open("/proc/self/statm", O_RDONLY);
  const bool had = file >= 0 && read(file, text, sizeof text - 1) > 0;
  close(file);
  long pages = 0, resident = 0;
  if (!had || std::sscanf(text, "%ld %ld", &pages, &resident) != 2) fail(0, "/proc/self/statm cannot be read");
  return resident * sysconf(_SC_PAGESIZE);
}

}  // namespace

int main(int argc, char** argv) {
  const long frames = argc == 2 ? std::atol(argv[1]) : 0;
  if (frames < 1000) {
    std::fprintf(stderr, "usage: soak FRAMES (a thousand at least)\n");
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const long per_tenth = frames / kTenths;
  std::vector<std::uint32_t> times(static_cast<std::size_t>(per_tenth), 1);  // its pages are touched here

  alloc_hook::reset();
  ox_tracker_t* const tracker = ox_tracker_create(0, 0, kCapacity, kConfirmHits, kMaxMisses, 0, 1.0f, 0.2f);
  if (!tracker) fail(0, "no memory");
  // About three objects in ten frames are new. Where that does not bring the identities round, they begin close to
  // their end.
  const long expected = frames / 4;
  if (expected < kLastId) tracker->next_id = kLastId - static_cast<std::int32_t>(expected / 2);
  std::printf("%ld frames, identities from %d\n", kTenths * per_tenth, tracker->next_id);

  Object objects[kObjects];
  for (Object& o : objects) o = new_object();
  Totals totals;
  long frame = 0, busy_tracks = 0;
  double first_median = 0;
  std::size_t idle_bytes = 0;
  long idle_resident = 0;
  for (int tenth = 1; tenth <= kTenths; ++tenth) {
    long tracks = 0;
    for (long i = 0; i < per_tenth; ++i, ++frame) {
      draw(objects);
      const std::int32_t next_before = tracker->next_id;
      const auto start = std::chrono::steady_clock::now();
      ox_tracker_process(tracker, &boxes[0][0], &results[0][0]);
      const auto end = std::chrono::steady_clock::now();
      times[static_cast<std::size_t>(i)] = static_cast<std::uint32_t>((end - start).count());
      check(frame, tracker, next_before, totals);
      tracks += tracker->track_count;
    }
    busy_tracks += tracks;
    const auto middle = times.begin() + per_tenth / 2;
    std::nth_element(times.begin(), middle, times.end());
    const double median = *middle;

    boxes[0][0] = 0.0f;
    for (int i = 0; i <= kMaxMisses; ++i) ox_tracker_process(tracker, &boxes[0][0], &results[0][0]);
    if (tracker->track_count != 0) fail(frame, "tracks outlive max_misses");
    if (alloc_hook::live() != kTrackerBlocks) fail(frame, "blocks are left without a track");
    const std::size_t bytes = mallinfo2().uordblks;
    const long resident = resident_bytes();
    std::printf("%3d%%: median %.0f ns a frame, %.1f tracks; %ld identities, next %d, wrapped %ld; %zu bytes in use, "
                "%ld KiB resident\n", 10 * tenth, median, static_cast<double>(tracks) / static_cast<double>(per_tenth),
                totals.identities, tracker->next_id, totals.wraps, bytes, resident / 1024);
    if (tenth == 1) {
      first_median = median;
      idle_bytes = bytes;
      idle_resident = resident;
    }
    if (bytes > idle_bytes + kBytesSlack) fail(frame, "bytes in use grew");
    if (resident > idle_resident + kResidentSlack) fail(frame, "the process grew");
    if (tenth == kTenths && frames >= kTimedFrames && median > kSlowest * first_median)
      fail(frame, "frames became slower");
  }
  if (totals.wraps == 0) fail(frame, "identities did not come round");
  if (busy_tracks < frames * kObjects / 2) fail(frame, "too few tracks for a test of anything");
  for (ox_mat_t* m : {tracker->transition_matrix, tracker->measurement_matrix, tracker->process_noise_cov,
                      tracker->measurement_noise_cov})
    ox_mat_release(m);
  ox_tracker_release(tracker);
  if (alloc_hook::live() != 0) fail(frame, "blocks are left at the end");
  std::printf("all well: %ld frames, %ld identities, wrapped %ld\n", frame, totals.identities, totals.wraps);
  return 0;
}

// SPDX-License-Identifier: MIT
#include "oxscene/score.h"

#include <algorithm>
#include <optional>
#include <set>

namespace scene {
namespace {

constexpr double kPaired = 0.5;       // least intersection over union
constexpr double kWellVisible = 0.5;  // share of the box
constexpr std::int64_t kUnlabelledArea = 13;

struct Object {
  std::int64_t frames = 0, paired = 0;                            // to be scored
  std::int64_t well_visible_frames = 0, well_visible_paired = 0;  // and at least half visible
  std::optional<std::int64_t> last_identity;
  bool changed = false;

  bool kept_identity() const {
    if (!last_identity || changed) return false;
    return well_visible_frames > 0 ? 2 * well_visible_paired >= well_visible_frames : 2 * paired >= frames;
  }
};

struct Pair {
  std::size_t truth, result;
  double overlap;
};

std::set<std::int64_t> labels_of(const Table& table) {
  std::set<std::int64_t> labels;
  for (const auto& frame : table)
    for (const Row& row : frame.second) labels.insert(row.label);
  return labels;
}

bool labels_count(const Table& truth, const Table& results) {
  const std::set<std::int64_t> classes = labels_of(truth), labels = labels_of(results);
  return labels.size() > 1 && std::includes(classes.begin(), classes.end(), labels.begin(), labels.end());
}

class Scorer {
 public:
  Scorer(bool labels_matter, const SequenceInfo& info) : labels_matter_(labels_matter), info_(info) {}

  void frame(const std::vector<Row>& truth, const std::vector<Row>& results) {
    const std::vector<std::size_t> partner = pair_up(truth, results);
    std::vector<bool> used(results.size(), false);
    std::map<std::int64_t, std::int64_t> pairs;
    for (std::size_t i = 0; i < truth.size(); ++i) {
      if (!scored(truth[i])) continue;
      const bool paired = partner[i] < results.size();
      const bool well_visible = truth[i].visible >= kWellVisible;
      Object& object = objects_[truth[i].identity];
      ++object.frames;
      object.well_visible_frames += well_visible;
      ++total_.true_boxes;
      if (!paired) continue;
      ++object.paired;
      object.well_visible_paired += well_visible;
      ++total_.pairs;
      used[partner[i]] = true;
      const std::int64_t identity = results[partner[i]].identity;
      if (object.last_identity && *object.last_identity != identity) {
        object.changed = true;
        ++total_.switches;
      }
      object.last_identity = identity;
      pairs[truth[i].identity] = identity;
    }
    for (std::size_t j = 0; j < results.size(); ++j)
      if (!used[j] && !excused(truth, results[j].box)) ++total_.wrong;
    last_pairs_ = pairs;
  }

  Score total() const {
    Score out = total_;
    out.objects = static_cast<std::int64_t>(objects_.size());
    for (const auto& object : objects_) out.kept_identity += object.second.kept_identity();
    return out;
  }

 private:
  // For each true box the number of its box in the results, or results.size().
  std::vector<std::size_t> pair_up(const std::vector<Row>& truth, const std::vector<Row>& results) const {
    std::vector<Pair> kept, others;
    for (std::size_t i = 0; i < truth.size(); ++i) {
      if (!scored(truth[i])) continue;
      const auto last = last_pairs_.find(truth[i].identity);
      for (std::size_t j = 0; j < results.size(); ++j) {
        if (labels_matter_ && truth[i].label != results[j].label) continue;
        const double overlap = iou(truth[i].box, results[j].box);
        if (overlap < kPaired) continue;
        const bool keep = last != last_pairs_.end() && last->second == results[j].identity;
        (keep ? kept : others).push_back({i, j, overlap});
      }
    }
    std::stable_sort(others.begin(), others.end(), [](const Pair& a, const Pair& b) { return a.overlap > b.overlap; });
    std::vector<std::size_t> partner(truth.size(), results.size());
    std::vector<bool> used(results.size(), false);
    for (const std::vector<Pair>* pairs : {&kept, &others})
      for (const Pair& pair : *pairs) {
        if (partner[pair.truth] < results.size() || used[pair.result]) continue;
        partner[pair.truth] = pair.result;
        used[pair.result] = true;
      }
    return partner;
  }

  bool scored(const Row& row) const {
    return row.seventh != 0 && (info_.labels.empty() || info_.labels.count(row.label) > 0);
  }

  bool excused(const std::vector<Row>& truth, const Box& box) const {
    if (box.height <= info_.least_height) return true;
    return std::any_of(truth.begin(), truth.end(), [&](const Row& row) {
      if (scored(row)) return false;
      if (row.label == kUnlabelledArea && 2 * shared_area(row.box, box) >= box.area()) return true;
      return iou(row.box, box) >= kPaired;
    });
  }

  const bool labels_matter_;
  const SequenceInfo info_;
  std::map<std::int64_t, Object> objects_;
  std::map<std::int64_t, std::int64_t> last_pairs_;  // true identity: identity in the results, of the last frame
  Score total_;
};

}  // namespace

Score score(const Table& truth, const Table& results, const SequenceInfo& info) {
  Scorer scorer(labels_count(truth, results), info);
  std::set<std::int64_t> frames;
  for (const Table* table : {&truth, &results})
    for (const auto& frame : *table) frames.insert(frame.first);
  const std::vector<Row> none;
  const auto rows = [&](const Table& table, std::int64_t frame) -> const std::vector<Row>& {
    const auto found = table.find(frame);
    return found == table.end() ? none : found->second;
  };
  std::optional<std::int64_t> last;
  for (const std::int64_t frame : frames) {
    // The frame before counts as the last one only when it is the frame before.
    if (last && frame != *last + 1) scorer.frame({}, {});
    scorer.frame(rows(truth, frame), rows(results, frame));
    last = frame;
  }
  return scorer.total();
}

}  // namespace scene

// SPDX-License-Identifier: MIT
// How well results agree with true boxes.
//
// Frame by frame, boxes of results and true boxes to be scored are paired one to one; a pair overlaps by at least
// half (intersection over union). A pair of identities of the frame before is kept while it still does; after that
// the best overlap goes first, and with equal ones the earlier line. When the results hold several labels and each of
// them is a class of the true boxes, only equal ones are paired.
//
// To be scored are the true boxes with a seventh column other than 0 and, where a seqinfo.ini beside them lists labels,
// of one of those classes. A box of the results that is left over is wrong, unless it overlaps by at least half a true
// box not to be scored, lies for at least half of its area in one of the class of areas in which nothing was labelled,
// or is no taller than the sequence's least height.
//
//   true objects            identities with a box to be scored
//   kept one identity       of these, the ones that are paired in at least half of the frames in which they are to be
//                           scored and at least half visible (in none so visible: of all in which they are to be
//                           scored), and in all frames in which they are paired, with the same identity
//   identity switches       pairings of an object with another identity than at its last pairing
//   recall                  pairs, of the true boxes to be scored
//   precision               pairs, of pairs and wrong boxes
#pragma once

#include <cstdint>

#include "oxscene/sequence.h"
#include "oxscene/table.h"

namespace scene {

struct Score {
  std::int64_t objects = 0;
  std::int64_t kept_identity = 0;
  std::int64_t switches = 0;
  std::int64_t true_boxes = 0;
  std::int64_t pairs = 0;
  std::int64_t wrong = 0;
};

Score score(const Table& truth, const Table& results, const SequenceInfo& info);

}  // namespace scene

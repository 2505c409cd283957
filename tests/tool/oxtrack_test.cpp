// SPDX-License-Identifier: MIT
#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <map>
#include <set>

#include "command.h"

namespace {

using command::quote;
using command::Result;

constexpr const char *kByteOrderMark = "\xEF\xBB\xBF";

struct Row {
  long long frame, id;
  double left, top, width, height, score;
  std::string label;
};

std::vector<std::string> split(const std::string &text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
  return parts;
}

std::vector<Row> rows(const std::string &text) {
  std::vector<Row> out;
  for (const std::string &line : split(text, '\n')) {
    const std::vector<std::string> f = split(line, ',');
    EXPECT_EQ(f.size(), 10u) << line;
    if (f.size() != 10) continue;
    EXPECT_EQ(f[8] + f[9], "-1-1") << line;
    out.push_back({std::stoll(f[0]), std::stoll(f[1]), std::stod(f[2]), std::stod(f[3]), std::stod(f[4]),
                   std::stod(f[5]), std::stod(f[6]), f[7]});
  }
  return out;
}

std::string detection(long long frame, double left, double top = 200, double width = 40, double height = 80,
                      const std::string &tail = "0.5") {
  std::ostringstream line;
  line.precision(17);
  line << frame << ",-1," << left << ',' << top << ',' << width << ',' << height << ',' << tail << '\n';
  return line.str();
}

// A box that stands still in frames first to last.
std::string standing(long long first, long long last, const std::string &tail = "0.5", double left = 100) {
  std::string out;
  for (long long frame = first; frame <= last; ++frame) out += detection(frame, left, 200, 40, 80, tail);
  return out;
}

// Two walkers that meet, one of them missed now and then.
std::string walkers(double pixels = 1) {
  std::string out;
  for (int frame = 1; frame <= 40; ++frame) {
    out += detection(frame, pixels * (100 + 4 * frame), pixels * 200, pixels * 40, pixels * 80, "0.75,1,-1,-1");
    if (frame % 7 != 0)
      out += detection(frame, pixels * (400 - 3 * frame), pixels * 230, pixels * 44, pixels * 90, "0.5,1,-1,-1");
  }
  return out;
}

class Oxtrack : public command::Directory {
 protected:
  // Tracks the text; the run must succeed.
  std::string tracked(const std::string &detections, const std::string &options = "--confirm-hits 1") const {
    const Result result = track(options + " " + quote(write("det.txt", detections)));
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
  }

  // The run must fail with the message alone, status 2 and no output.
  void expect_refused(const std::string &arguments, const std::string &message) const {
    const Result result = track(arguments);
    EXPECT_EQ(result.status, 2) << arguments;
    EXPECT_EQ(result.out, "") << arguments;
    EXPECT_EQ(result.err.substr(0, 9), "oxtrack: ") << arguments;
    EXPECT_NE(result.err.find(message), std::string::npos) << arguments << "\n" << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
};

// --- input -------------------------------------------------------------------------------------------------------

TEST_F(Oxtrack, WritesOneLinePerTrackAndFrame) {
  EXPECT_EQ(tracked(standing(1, 3)),
            "1,1,100.000,200.000,40.000,80.000,0.5,1,-1,-1\n"
            "2,1,100.000,200.000,40.000,80.000,0.5,1,-1,-1\n"
            "3,1,100.000,200.000,40.000,80.000,0.5,1,-1,-1\n");
}

TEST_F(Oxtrack, ReportsFromTheConfirmingMatchOn) {
  EXPECT_EQ(rows(tracked(standing(1, 5), "--confirm-hits 4")).front().frame, 4);
}

TEST_F(Oxtrack, ReadsTheLargestScoreAsItWritesIt) {
  const std::string most = "3.4028235e+38";
  const Result result = track("--confirm-hits 1 " + quote(write("det.txt", standing(1, 1, most))));
  EXPECT_NE(result.out.find(',' + most + ','), std::string::npos) << result.out;
  expect_refused(" " + quote(write("det.txt", standing(1, 1, "3.4028236e+38"))), "is out of range");
}

TEST_F(Oxtrack, ReadsStandardInput) {
  const std::string file = write("det.txt", standing(1, 3));
  const Result result = track("--confirm-hits 1 - <" + quote(file));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, tracked(standing(1, 3)));
}

TEST_F(Oxtrack, AcceptsLineEndsBlanksSpacesAndByteOrderMark) {
  const std::string plain = tracked(standing(1, 2));
  EXPECT_EQ(
      tracked(kByteOrderMark + std::string("1,-1,100,200,40,80,0.5\r\n\r\n  \n 2 ,\t-1, 100 ,200,  40,80 , 0.5 ")),
      plain);
  EXPECT_EQ(tracked("1,-1,+100,2e2,40.,80.000,.5\n2.0,-1,100,200,40,80,5e-1"), plain);
}

TEST_F(Oxtrack, AcceptsEmptyInput) {
  for (const std::string text : {"", "\n", "\r\n \n", kByteOrderMark}) {
    const Result result = track(quote(write("det.txt", text)));
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find("frames      0\n"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("detections  0 read"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("tracks      0\n"), std::string::npos) << result.err;
  }
  EXPECT_EQ(track("/dev/null").status, 0);
}

TEST_F(Oxtrack, AcceptsColumnsBeyondTheLabelWhateverTheyHold) {
  EXPECT_EQ(tracked("1,-1,100,200,40,80,0.5,1,x,,nan\n"), tracked("1,-1,100,200,40,80,0.5\n"));
}

TEST_F(Oxtrack, SortsFramesAndKeepsTheOrderWithinAFrame) {
  // The boxes of a frame are born in the order of their lines, so the identities show that order.
  const std::string second = detection(2, 100) + detection(2, 500), first = detection(1, 100) + detection(1, 500);
  const std::string sorted = tracked(first + second);
  EXPECT_EQ(tracked(second + first), sorted);
  EXPECT_EQ(tracked(detection(2, 100) + first + detection(2, 500)), sorted);
  EXPECT_EQ(rows(sorted).at(0).left, 100);
  EXPECT_EQ(rows(tracked(detection(1, 500) + detection(1, 100))).at(0).left, 500);
}

TEST_F(Oxtrack, CountsFramesFromZeroOrAnyNumber) {
  EXPECT_EQ(rows(tracked(standing(0, 1))).front().frame, 0);
  EXPECT_EQ(rows(tracked(standing(9223372036854775805, 9223372036854775806))).back().frame, 9223372036854775806);
}

TEST_F(Oxtrack, PassesFramesWithoutDetectionsThroughTheTracker) {
  // A gap of max_misses keeps the track, a longer one ends it.
  const std::string options = "--confirm-hits 1 --max-misses 4";
  EXPECT_EQ(rows(tracked(standing(1, 3) + standing(8, 9), options)).back().id, 1);
  EXPECT_EQ(rows(tracked(standing(1, 3) + standing(9, 9), options)).back().id, 2);
}

TEST_F(Oxtrack, SkipsAGapOfTwoBillionFramesAtOnce) {
  const auto start = std::chrono::steady_clock::now();
  const Result result =
      track("--confirm-hits 1 " + quote(write("det.txt", standing(1, 3) + standing(2000000000, 2000000001))));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(rows(result.out).back().frame, 2000000001);
  EXPECT_NE(result.err.find("frames      2000000001 (1 to 2000000001)"), std::string::npos) << result.err;
}

TEST_F(Oxtrack, LeavesOutDetectionsBelowMinScore) {
  const std::string file =
      write("det.txt", detection(1, 100, 200, 40, 80, "0.3") + detection(1, 500, 200, 40, 80, "0.29999"));
  const Result result = track("--confirm-hits 1 --min-score 0.3 " + quote(file));
  EXPECT_EQ(rows(result.out).size(), 1u);
  EXPECT_NE(result.err.find("2 read, 1 below the lowest score, 0 dropped"), std::string::npos) << result.err;
  EXPECT_EQ(rows(track("--confirm-hits 1 --min-score -5 " + quote(file)).out).size(), 2u);
}

TEST_F(Oxtrack, CountsFramesWhoseDetectionsAllScoreTooLow) {
  const Result result = track("--min-score 0.3 " +
                              quote(write("det.txt", standing(1, 2, "0.1") + standing(3, 4) + standing(5, 6, "0.1"))));
  EXPECT_NE(result.err.find("frames      6 (1 to 6)"), std::string::npos) << result.err;
}

// --- numbers -----------------------------------------------------------------------------------------------------

TEST_F(Oxtrack, WritesScoresThatReadBackToTheSameFloat) {
  for (const std::string score :
       {"0.1", "0.30000001", "0.9999999", "1e-30", "16777216", "-2.5", "3.4028234e38", "1e-300"}) {
    const std::string out = tracked("1,-1,100,200,40,80," + score + "\n");
    const std::string written = split(out, ',').at(6);
    EXPECT_EQ(std::strtof(written.c_str(), nullptr), static_cast<float>(std::stod(score))) << out;
    EXPECT_LE(written.size(), 14u) << out;
  }
  EXPECT_EQ(split(tracked("1,-1,100,200,40,80,0.1000000000\n"), ',').at(6), "0.1");
}

TEST_F(Oxtrack, RoundsWhatIsTooNearToZeroForADouble) {
  EXPECT_EQ(split(tracked("1,-1,1e-400,200,40,80,1e-400\n"), ',').at(6), "0");
  EXPECT_EQ(rows(tracked("1,-1,100,200,40,80,0.5\n", "--confirm-hits 1 --min-score 1e-400")).size(), 1u);
}

TEST_F(Oxtrack, NeverWritesANegativeZero) {
  const std::string out = tracked("1,-1,-0.00001,-0.0,40,80,0.5\n1,-1,-500,-0.0004,0,-0,0.5\n");
  EXPECT_EQ(out.find("-0.000"), std::string::npos) << out;
  EXPECT_EQ(rows(out).size(), 2u);
}

TEST_F(Oxtrack, TakesNoNoticeOfTheLocale) {
  const std::string file = quote(write("det.txt", walkers()));
  const std::string plain = track(file).out;
  EXPECT_FALSE(plain.empty());
  EXPECT_EQ(shell("export LC_ALL=de_DE.UTF-8 LANG=de_DE.UTF-8; " + tool(OXTRACK_PATH) + file).out, plain);
}

TEST_F(Oxtrack, GivesTheSameTracksWhenPixelsAndGateGrowTogether) {
  const std::vector<Row> plain = rows(tracked(walkers(), "--gate 80"));
  ASSERT_GT(plain.size(), 60u);
  for (const double factor : {0.25, 4.0, 1024.0}) {
    const std::vector<Row> scaled = rows(tracked(walkers(factor), "--gate " + std::to_string(80 * factor)));
    ASSERT_EQ(scaled.size(), plain.size());
    for (std::size_t i = 0; i < plain.size(); ++i) {
      EXPECT_EQ(scaled[i].frame, plain[i].frame);
      EXPECT_EQ(scaled[i].id, plain[i].id);
      EXPECT_NEAR(scaled[i].left, plain[i].left * factor, 0.0005 * (1 + factor));
      EXPECT_NEAR(scaled[i].top, plain[i].top * factor, 0.0005 * (1 + factor));
      EXPECT_NEAR(scaled[i].width, plain[i].width * factor, 0.0005 * (1 + factor));
      EXPECT_NEAR(scaled[i].height, plain[i].height * factor, 0.0005 * (1 + factor));
    }
  }
}

TEST_F(Oxtrack, GateIsTheDistanceThatACentreMayMove) {
  const std::string options = "--confirm-hits 1 --near-dist2 0 --iou-threshold 0 ";
  const std::string near = detection(1, 100, 200, 200, 200) + detection(2, 159, 200, 200, 200);
  const std::string at = detection(1, 100, 200, 200, 200) + detection(2, 160, 200, 200, 200);
  EXPECT_EQ(rows(tracked(near, options + "--gate 60")).back().id, 1);
  EXPECT_EQ(rows(tracked(at, options + "--gate 60")).back().id, 2);
  EXPECT_EQ(rows(tracked(at, options)).back().id, 1) << "the default is 80";
}

// --- labels ------------------------------------------------------------------------------------------------------

TEST_F(Oxtrack, KeepsEveryLabelZeroAndNegativeOnesIncluded) {
  const std::vector<std::string> labels = {"0",
                                           "-1",
                                           "1",
                                           "2147483648",
                                           "-2147483649",
                                           "16777217",
                                           "16777216",
                                           "9223372036854775807",
                                           "-9223372036854775808",
                                           "18446744073709551615"};
  std::string text;
  for (int frame = 1; frame <= 4; ++frame)
    for (const std::string &label : labels) text += detection(frame, 100, 200, 40, 80, "0.5," + label + ",-1,-1");
  const std::vector<Row> out = rows(tracked(text, ""));
  ASSERT_EQ(out.size(), 2 * labels.size());
  for (std::size_t i = 0; i < out.size(); ++i) {
    EXPECT_EQ(out[i].label, labels[i % labels.size()]) << "boxes in one place, told apart by their labels";
    EXPECT_EQ(out[i].id, static_cast<long long>(i % labels.size()) + 1);
  }
}

TEST_F(Oxtrack, TakesDifferentSpellingsOfALabelForOne) {
  const std::vector<Row> out = rows(tracked(standing(1, 1, "0.5,7") + standing(2, 2, "0.5,7.0") +
                                            standing(3, 3, "0.5,+07") + standing(4, 4, "0.5,0.7e1")));
  ASSERT_EQ(out.size(), 4u);
  for (const Row &row : out) {
    EXPECT_EQ(row.id, 1);
    EXPECT_EQ(row.label, "7");
  }
  EXPECT_EQ(rows(tracked(standing(1, 1, "0.5,-0"))).at(0).label, "0");
}

TEST_F(Oxtrack, LabelIsOneInLinesWithoutColumnEight) {
  const std::vector<Row> out = rows(tracked(standing(1, 2) + standing(1, 2, "0.5,3", 500)));
  ASSERT_EQ(out.size(), 4u);
  EXPECT_EQ(out[0].label, "1");
  EXPECT_EQ(out[1].label, "3");
}

TEST_F(Oxtrack, ReadsTheLabelFromTheColumnGiven) {
  EXPECT_EQ(rows(tracked(standing(1, 1, "0.5,3,4,5"), "--confirm-hits 1 --label-column 10")).at(0).label, "5");
  EXPECT_EQ(rows(tracked(standing(1, 1, "0.5,3,4,5"), "--confirm-hits 1 --label-column 2")).at(0).label, "-1");
  EXPECT_EQ(rows(tracked(standing(1, 1, "0.5,x,4,5"), "--confirm-hits 1 --label-column 0")).at(0).label, "1");
}

TEST_F(Oxtrack, RefusesALineWithoutTheLabelColumnGiven) {
  const std::string file = write("det.txt", standing(1, 1, "0.5,3") + standing(2, 2));
  expect_refused("--label-column 8 " + quote(file), file + ":2: 7 columns and no label in column 8");
}

TEST_F(Oxtrack, MatchesOtherLabelsOnlyWhenAsked) {
  const std::string text = standing(1, 2, "0.5,1") + standing(3, 4, "0.5,2");
  EXPECT_EQ(rows(tracked(text)).back().id, 2);
  const Row last = rows(tracked(text, "--confirm-hits 1 --any-label")).back();
  EXPECT_EQ(last.id, 1);
  EXPECT_EQ(last.label, "2") << "the track takes the new label";
}

// --- what is written ---------------------------------------------------------------------------------------------

TEST_F(Oxtrack, CoastingWritesMissedTracksForTwoFrames) {
  const std::string text = standing(1, 3) + standing(8, 8, "0.5", 800);
  const std::vector<Row> matched = rows(tracked(text));
  ASSERT_EQ(matched.size(), 4u);
  EXPECT_EQ(matched[3].id, 2);
  const std::vector<Row> all = rows(tracked(text, "--confirm-hits 1 --coasting"));
  ASSERT_EQ(all.size(), 6u);
  for (const std::size_t i : {3u, 4u}) {
    EXPECT_EQ(all[i].frame, static_cast<long long>(i) + 1);
    EXPECT_EQ(all[i].id, 1);
    EXPECT_EQ(all[i].left, all[2].left) << "with its last box";
  }
}

TEST_F(Oxtrack, SummaryCountsFramesDetectionsAndTracks) {
  const Result result = track(quote(write("det.txt", walkers())));
  EXPECT_NE(result.err.find("frames      40 (1 to 40)\n"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("detections  75 read, 0 below the lowest score, 0 dropped\n"), std::string::npos);
  std::set<long long> ids;
  for (const Row &row : rows(result.out)) ids.insert(row.id);
  EXPECT_NE(result.err.find("tracks      " + std::to_string(ids.size()) + "\n"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find(" us a frame on average, "), std::string::npos);
  EXPECT_LE(std::count(result.err.begin(), result.err.end(), '\n'), 20);
}

TEST_F(Oxtrack, SaysHowManyDetectionsExceedTheCapacity) {
  std::string text;
  for (int frame = 1; frame <= 3; ++frame)
    for (int i = 0; i < 5; ++i) text += detection(frame, 100 + 200 * i);
  const std::string file = quote(write("det.txt", text));
  const Result small = track("--confirm-hits 1 --capacity 2 " + file);
  EXPECT_EQ(small.status, 0);
  EXPECT_EQ(rows(small.out).size(), 6u);
  EXPECT_NE(small.err.find("oxtrack: 9 detections dropped"), std::string::npos) << small.err;
  EXPECT_NE(small.err.find("15 read, 0 below the lowest score, 9 dropped"), std::string::npos) << small.err;
  const Result enough = track("--confirm-hits 1 --capacity 5 " + file);
  EXPECT_EQ(enough.err.find("oxtrack: "), std::string::npos) << enough.err;
  EXPECT_EQ(rows(enough.out).size(), 15u);
}

TEST_F(Oxtrack, SaysHowManyDetectionsFoundNoRoomForATrack) {
  // The first two stay alive unseen, and the capacity is theirs.
  const std::string file = quote(write("det.txt", detection(1, 100) + detection(1, 400) + detection(2, 700)));
  const Result result = track("--confirm-hits 1 --capacity 2 " + file);
  EXPECT_EQ(rows(result.out).size(), 2u);
  EXPECT_NE(result.err.find("oxtrack: 1 detection began no track"), std::string::npos) << result.err;
}

TEST_F(Oxtrack, DefaultCapacityLosesNothing) {
  // One detection a frame, each in another place: as many tracks are alive as frames fit into max_misses.
  std::string text;
  for (int frame = 1; frame <= 60; ++frame) text += detection(frame, 300 * frame);
  const std::string file = quote(write("det.txt", text));
  const Result result = track("--confirm-hits 1 --max-misses 50 " + file);
  EXPECT_EQ(rows(result.out).size(), 60u);
  EXPECT_EQ(result.err.find("oxtrack: "), std::string::npos) << result.err;
  EXPECT_EQ(track("--confirm-hits 1 --max-misses 50 --capacity 2147483647 " + file).out, result.out);
}

TEST_F(Oxtrack, PassesEveryCreationParameterOn) {
  const std::string file = quote(write("det.txt", walkers()));
  EXPECT_EQ(
      track("--aux0 4294967295 --aux1 7 --capacity 100 --confirm-hits 2 --max-misses 5 --any-label --near-dist2 0.5 "
            "--iou-threshold 0.25 " +
            file)
          .status,
      0);
  // A box twice as far as near_dist2 reaches must overlap; one within it need not.
  const std::string text = detection(1, 100, 200, 4, 4) + detection(2, 106, 200, 4, 4);
  EXPECT_EQ(rows(tracked(text, "--confirm-hits 1 --near-dist2 1")).back().id, 1);
  EXPECT_EQ(rows(tracked(text, "--confirm-hits 1 --near-dist2 0.5")).back().id, 2);
  const std::string half = detection(1, 100, 200, 40, 80) + detection(2, 120, 200, 40, 80);
  EXPECT_EQ(rows(tracked(half, "--confirm-hits 1 --iou-threshold 0.3")).back().id, 1);
  EXPECT_EQ(rows(tracked(half, "--confirm-hits 1 --iou-threshold 0.34")).back().id, 2);
}

// --- bad input ---------------------------------------------------------------------------------------------------

struct BadLine {
  const char *line;
  const char *message;
};

const BadLine kBadLines[] = {
    {"a line of text", "1 columns where at least 7 are needed"},
    {"1,-1,100,200,40,80", "6 columns where at least 7 are needed"},
    {"1 -1 100 200 40 80 0.5", "1 columns where"},
    {"frame,id,left,top,width,height,score", "frame 'frame' is not a number"},
    {"x,-1,100,200,40,80,0.5", "frame 'x' is not a number"},
    {"1,x,100,200,40,80,0.5", "id 'x' is not a number"},
    {"1,-1,1o0,200,40,80,0.5", "left '1o0' is not a number"},
    {"1,-1,100,0x10,40,80,0.5", "top '0x10' is not a number"},
    {"1,-1,100,200,4 0,80,0.5", "width '4 0' is not a number"},
    {"1,-1,100,200,40,,0.5", "height '' is not a number"},
    {"1,-1,100,200,40,80,", "score '' is not a number"},
    {"1,-1,100,200,40,80,+-1", "score '+-1' is not a number"},
    {"1,-1,nan,200,40,80,0.5", "left 'nan' is not a finite number"},
    {"1,-1,100,inf,40,80,0.5", "top 'inf' is not a finite number"},
    {"1,-1,100,200,-inf,80,0.5", "width '-inf' is not a finite number"},
    {"1,-1,100,200,40,80,NaN", "score 'NaN' is not a finite number"},
    {"1,-1,100,200,-1,80,0.5", "width '-1' is negative"},
    {"1,-1,100,200,40,-0.001,0.5", "height '-0.001' is negative"},
    {"1.5,-1,100,200,40,80,0.5", "frame '1.5' is not a whole number"},
    {"-1,-1,100,200,40,80,0.5", "frame '-1' is negative"},
    {"inf,-1,100,200,40,80,0.5", "frame 'inf' is not a finite number"},
    {"9223372036854775807,-1,100,200,40,80,0.5", "frame '9223372036854775807' is out of range"},
    {"99999999999999999999,-1,100,200,40,80,0.5", "is out of range"},
    {"1,-1,1e39,200,40,80,0.5", "left '1e39' is out of range"},
    {"1,-1,100,-1e400,40,80,0.5", "top '-1e400' is out of range"},
    {"1,-1,100,200,1e39,80,0.5", "width '1e39' is out of range"},
    {"1,-1,100,200,40,80,1e39", "score '1e39' is out of range"},
    {"1,-1,100,200,40,80,0.5,x", "label 'x' in column 8 is not a number; --label-column 0 reads no labels"},
    {"1,-1,100,200,40,80,0.5,1.5", "label '1.5' in column 8 is not a whole number"},
    {"1,-1,100,200,40,80,0.5,", "label '' in column 8 is not a number"},
    {"1,-1,100,200,40,80,0.5,nan", "label 'nan' in column 8 is not a finite number"},
};

TEST_F(Oxtrack, RefusesBadLinesWithFileAndLine) {
  for (const BadLine &bad : kBadLines) {
    const std::string file = write("det.txt", detection(1, 100) + "\n" + bad.line + "\n" + detection(2, 100));
    expect_refused(quote(file), file + ":3: ");
    expect_refused(quote(file), bad.message);
  }
}

TEST_F(Oxtrack, LeavesTheExistingOutputAloneOnBadInput) {
  const std::string before = "what was there\n";
  write("out.txt", before);
  for (const BadLine &bad : {kBadLines[0], kBadLines[6], kBadLines[12], kBadLines[16], kBadLines[19], kBadLines[23]}) {
    const std::string file = write("det.txt", std::string(bad.line) + "\n");
    expect_refused("-o " + quote(path("out.txt")) + " " + quote(file), bad.message);
    EXPECT_EQ(read("out.txt"), before);
    EXPECT_EQ(names(), (std::vector<std::string>{"det.txt", "out.txt"}));
  }
  expect_refused("-o " + quote(path("out.txt")) + " " + quote(path("missing.txt")), "missing.txt");
  EXPECT_EQ(read("out.txt"), before);
}

TEST_F(Oxtrack, NamesStandardInputInMessages) {
  write("det.txt", detection(1, 100) + "x\n");
  expect_refused("- <" + quote(path("det.txt")), "standard input:2: ");
}

TEST_F(Oxtrack, ShowsStrangeTextShortenedAndWithoutControlCharacters) {
  const std::string file = write("det.txt", "1,-1," + std::string(500, 'x') + ",200,40,80,0.5\n");
  EXPECT_LT(track(quote(file)).err.size(), file.size() + 150);
  write("det.txt", "1,-1,\x1b[2J\a,200,40,80,0.5\n");
  EXPECT_EQ(track(quote(file)).err.find('\x1b'), std::string::npos);
}

TEST_F(Oxtrack, RefusesAMissingFile) { expect_refused(quote(path("none.txt")), path("none.txt") + ": No such file"); }

TEST_F(Oxtrack, RefusesADirectory) { expect_refused(quote(path("")), "Is a directory"); }

TEST_F(Oxtrack, RefusesAnUnreadableFile) {
  if (geteuid() == 0) GTEST_SKIP() << "root may read everything";
  const std::string file = write("det.txt", standing(1, 3));
  chmod(file.c_str(), 0);
  expect_refused(quote(file), "Permission denied");
}

TEST_F(Oxtrack, RefusesAClosedStandardInput) { expect_refused("- <&-", "standard input: "); }

// --- output ------------------------------------------------------------------------------------------------------

TEST_F(Oxtrack, WritesTheOutputFile) {
  const std::string file = quote(write("det.txt", standing(1, 3)));
  const std::string expected = track("--confirm-hits 1 " + file).out;
  for (const std::string option : {"-o ", "--output ", "--output="}) {
    const Result result = track("--confirm-hits 1 " + option + quote(path("out.txt")) + " " + file);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(read("out.txt"), expected);
    EXPECT_EQ(names(), (std::vector<std::string>{"det.txt", "out.txt"}));
  }
}

TEST_F(Oxtrack, MayReplaceItsOwnInput) {
  const std::string file = write("det.txt", standing(1, 3));
  EXPECT_EQ(track("--confirm-hits 1 -o " + quote(file) + " " + quote(file)).status, 0);
  EXPECT_EQ(rows(read("det.txt")).size(), 3u);
}

TEST_F(Oxtrack, KeepsTheModeOfAnExistingOutputFile) {
  const std::string file = quote(write("det.txt", standing(1, 3)));
  write("out.txt", "old");
  chmod(path("out.txt").c_str(), 0751);
  EXPECT_EQ(track("-o " + quote(path("out.txt")) + " " + file).status, 0);
  EXPECT_EQ(mode("out.txt"), 0751u);
}

TEST_F(Oxtrack, GivesANewOutputFileTheUsualMode) {
  const std::string file = quote(write("det.txt", standing(1, 3)));
  shell("umask 027; " + tool(OXTRACK_PATH) + "-o " + quote(path("out.txt")) + " " + file);
  EXPECT_EQ(mode("out.txt"), 0640u);
}

TEST_F(Oxtrack, ReplacesTheTargetOfASymbolicLink) {
  const std::string file = quote(write("det.txt", standing(1, 3)));
  std::filesystem::create_directory(path("real"));
  write("real/out.txt", "old");
  std::filesystem::create_symlink("real/out.txt", path("middle"));
  std::filesystem::create_symlink(path("middle"), path("link"));
  EXPECT_EQ(track("--confirm-hits 1 -o " + quote(path("link")) + " " + file).status, 0);
  EXPECT_TRUE(std::filesystem::is_symlink(path("link")));
  EXPECT_TRUE(std::filesystem::is_symlink(path("middle")));
  EXPECT_EQ(rows(read("real/out.txt")).size(), 3u);
}

TEST_F(Oxtrack, MakesTheMissingTargetOfASymbolicLink) {
  const std::string file = quote(write("det.txt", standing(1, 3)));
  std::filesystem::create_symlink("new.txt", path("link"));
  EXPECT_EQ(track("-o " + quote(path("link")) + " " + file).status, 0);
  EXPECT_TRUE(std::filesystem::is_symlink(path("link")));
  EXPECT_TRUE(exists("new.txt"));
}

TEST_F(Oxtrack, RefusesALoopOfSymbolicLinks) {
  const std::string file = quote(write("det.txt", standing(1, 3)));
  std::filesystem::create_symlink("b", path("a"));
  std::filesystem::create_symlink("a", path("b"));
  expect_refused("-o " + quote(path("a")) + " " + file, path("a") + ": ");
}

TEST_F(Oxtrack, WritesToAnOpenDescriptorWhereItStands) {
  const std::string file = " --confirm-hits 1 " + quote(write("det.txt", standing(1, 3)));
  const std::string result = track(file).out;
  std::filesystem::create_symlink("/dev/stdout", path("link"));
  for (const std::string &name : {std::string("/dev/stdout"), path("link"), std::string("1")}) {
    const std::string run = tool(OXTRACK_PATH) + "-o " + quote(name) + file;
    const Result written = shell("cd /proc/self/fd; echo before; " + run + "; echo after");
    EXPECT_EQ(written.out, "before\n" + result + "after\n") << name;
  }
  write("out.txt", "before\n");
  EXPECT_EQ(shell("exec 3>>" + quote(path("out.txt")) + "; " + tool(OXTRACK_PATH) + "-o /dev/fd/3" + file).status, 0);
  EXPECT_EQ(read("out.txt"), "before\n" + result);
  // A file that is gone: nothing takes its place.
  const std::string gone = quote(path("gone.txt"));
  EXPECT_EQ(shell("exec 3>" + gone + "; rm " + gone + "; " + tool(OXTRACK_PATH) + "-o /dev/fd/3" + file).status, 0);
  EXPECT_EQ(names(), (std::vector<std::string>{"det.txt", "link", "out.txt"}));
}

TEST_F(Oxtrack, WritesDevicesAndPipesDirectly) {
  const std::string file = quote(write("det.txt", standing(1, 3)));
  EXPECT_EQ(track("-o /dev/null " + file).status, 0);
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  const Result result = shell("cat " + quote(path("pipe")) + " & " + tool(OXTRACK_PATH) + "--confirm-hits 1 -o " +
                              quote(path("pipe")) + " " + file + "; status=$?; wait; exit $status");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(rows(result.out).size(), 3u);
  EXPECT_TRUE(std::filesystem::is_fifo(path("pipe")));
}

TEST_F(Oxtrack, FailsOnAFullDisk) {
  if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no /dev/full here";
  const std::string file = quote(write("det.txt", standing(1, 3)));
  expect_refused("--confirm-hits 1 " + file + " >/dev/full", "standard output: No space left");
  expect_refused("--confirm-hits 1 -o /dev/full " + file, "/dev/full: No space left");
  expect_refused("--help >/dev/full", "standard output: No space left");
}

TEST_F(Oxtrack, LeavesTheOutputAloneWhenTheFileSystemRefuses) {
  // A limit on the size of files stands for a disk that fills up half way.
  const std::string file = quote(write("det.txt", standing(1, 3000)));
  write("out.txt", "what was there\n");
  for (const std::string caller : {"", "trap '' XFSZ; "}) {  // whether it ignores the signal, which would kill, or not
    const Result result =
        shell("ulimit -f 1; " + caller + tool(OXTRACK_PATH) + "-o " + quote(path("out.txt")) + " " + file);
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("out.txt: "), std::string::npos) << result.err;
    EXPECT_EQ(read("out.txt"), "what was there\n");
    EXPECT_EQ(names(), (std::vector<std::string>{"det.txt", "out.txt"}));
  }
}

TEST_F(Oxtrack, FailsOnAClosedStandardOutput) {
  const std::string file = quote(write("det.txt", standing(1, 3)));
  expect_refused("--confirm-hits 1 " + file + " >&-", "standard output: ");
}

TEST_F(Oxtrack, KeepsMessagesOutOfTheOutputWhenStandardErrorIsClosed) {
  const std::string file = quote(write("det.txt", standing(1, 3)));
  EXPECT_EQ(track("--confirm-hits 1 -o " + quote(path("out.txt")) + " " + file + " 2>&-").status, 0);
  EXPECT_EQ(rows(read("out.txt")).size(), 3u);
}

TEST_F(Oxtrack, FailsOnABrokenPipe) {
  const std::string file = quote(write("det.txt", standing(1, 5000)));
  const Result result = shell("{ " + tool(OXTRACK_PATH) + file + "; echo $? >" + quote(path("status")) + "; } | true");
  EXPECT_EQ(read("status"), "2\n") << result.err;
}

TEST_F(Oxtrack, RefusesAnOutputDirectoryThatIsMissingOrNone) {
  const std::string file = quote(write("det.txt", standing(1, 3)));
  expect_refused("-o " + quote(path("none/out.txt")) + " " + file, path("none/out.txt") + ": No such file");
  expect_refused("-o " + quote(path("det.txt/out.txt")) + " " + file, "Not a directory");
  expect_refused("-o " + quote(path("")) + " " + file, "Is a directory");
}

TEST_F(Oxtrack, RefusesAReadOnlyDirectory) {
  if (geteuid() == 0) GTEST_SKIP() << "root may write everywhere";
  const std::string file = quote(write("det.txt", standing(1, 3)));
  std::filesystem::create_directory(path("closed"));
  write("closed/out.txt", "old");
  chmod(path("closed").c_str(), 0555);
  expect_refused("-o " + quote(path("closed/out.txt")) + " " + file, "Permission denied");
  EXPECT_EQ(read("closed/out.txt"), "old");
  chmod(path("closed").c_str(), 0755);
}

TEST_F(Oxtrack, RefusesAReadOnlyOutputFile) {
  if (geteuid() == 0) GTEST_SKIP() << "root may write everything";
  const std::string file = quote(write("det.txt", standing(1, 3)));
  write("out.txt", "old");
  chmod(path("out.txt").c_str(), 0444);
  expect_refused("-o " + quote(path("out.txt")) + " " + file, "Permission denied");
  EXPECT_EQ(read("out.txt"), "old");
}

// --- command line ------------------------------------------------------------------------------------------------

TEST_F(Oxtrack, PrintsHelpAndVersion) {
  const Result help = track("--help");
  EXPECT_EQ(help.status, 0);
  for (const std::string option :
       {"--output", "--aux0", "--aux1", "--capacity", "--confirm-hits", "--max-misses", "--any-label", "--near-dist2",
        "--iou-threshold", "--min-score", "--label-column", "--gate", "--coasting", "--version"})
    EXPECT_NE(help.out.find(option), std::string::npos) << option;
  const Result version = track("--version");
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.substr(0, 8), "oxtrack ");
}

// The words behind "(default" that follow each "--option" at the start of an entry.
std::map<std::string, std::string> defaults(std::string text, const std::string &entry) {
  std::map<std::string, std::string> found;
  const std::string name = "abcdefghijklmnopqrstuvwxyz0123456789-";
  for (std::size_t at = text.find(entry); at != std::string::npos;) {
    const std::size_t start = text.find("--", at), next = text.find(entry, at + entry.size());
    const std::string part = text.substr(start, next - start);
    const std::size_t given = part.find("(default");
    if (given != std::string::npos) {
      const std::size_t value = part.find_first_not_of(" :", given + 8), end = part.find_first_of(",;)\n ", value);
      found[part.substr(0, part.find_first_not_of(name))] = part.substr(value, end - value);
    }
    at = next;
  }
  return found;
}

TEST_F(Oxtrack, GivesTheDefaultsOfItsManualPage) {
  std::stringstream text;
  text << std::ifstream(OXTRACK_MANUAL).rdbuf();
  std::string manual = text.str();
  manual.erase(std::remove(manual.begin(), manual.end(), '\\'), manual.end());
  const std::map<std::string, std::string> helped = defaults(track("--help").out, "\n  -");
  const std::map<std::string, std::string> written = defaults(manual, "\n.TP\n");
  for (const char *option : {"--gate", "--confirm-hits", "--max-misses", "--iou-threshold", "--near-dist2", "--aux0"}) {
    ASSERT_EQ(helped.count(option) + written.count(option), 2u) << option;
    EXPECT_EQ(helped.at(option), written.at(option)) << option;
  }
}

TEST_F(Oxtrack, RefusesWrongCommandLines) {
  const std::string file = " " + quote(write("det.txt", standing(1, 3)));
  const std::vector<std::string> wrong = {"",
                                          "--nonsense" + file,
                                          "-x" + file,
                                          "''",
                                          "--gate" + file,
                                          "--gate ''" + file,
                                          "--gate=" + file,
                                          "--output=" + file,
                                          "-o ''" + file,
                                          file + " --min-score=",
                                          file + file,
                                          "--gate 0" + file,
                                          "--gate -80" + file,
                                          "--gate nan" + file,
                                          "--gate inf" + file,
                                          "--gate 80px" + file,
                                          "--gate 1e400" + file,
                                          "--gate 80 --gate 40" + file,
                                          "--confirm-hits 0" + file,
                                          "--confirm-hits 1.5" + file,
                                          "--confirm-hits 2147483648" + file,
                                          "--max-misses 0" + file,
                                          "--max-misses x" + file,
                                          "--iou-threshold 1.1" + file,
                                          "--iou-threshold -0.1" + file,
                                          "--near-dist2 2" + file,
                                          "--near-dist2 nan" + file,
                                          "--capacity 0" + file,
                                          "--capacity -1" + file,
                                          "--aux0 -1" + file,
                                          "--aux1 4294967296" + file,
                                          "--label-column -1" + file,
                                          "--label-column x" + file,
                                          "--min-score nan" + file,
                                          "--min-score x" + file};
  for (const std::string &arguments : wrong) {
    const Result result = track(arguments);
    EXPECT_EQ(result.status, 2) << arguments << "\n" << result.err;
    EXPECT_EQ(result.out, "") << arguments;
    EXPECT_EQ(result.err.substr(0, 9), "oxtrack: ") << arguments;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << arguments << "\n" << result.err;
  }
}

TEST_F(Oxtrack, TakesAFileNamedLikeAnOptionAfterTwoDashes) {
  write("-x", standing(1, 3));
  EXPECT_EQ(shell("cd " + quote(path("")) + " && " + tool(OXTRACK_PATH) + "-- -x").status, 0);
}

// --- scenes ------------------------------------------------------------------------------------------------------

class Oxscene : public command::Directory {
 protected:
  std::string score_of(const std::string &truth, const std::string &results) const {
    const Result result = scene("score " + quote(write("gt.txt", truth)) + " " + quote(write("res.txt", results)));
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
  }

  static std::string box(int frame, int identity, double left, const std::string &tail) {
    std::ostringstream line;
    line << frame << ',' << identity << ',' << left << ",100,50,100," << tail << '\n';
    return line.str();
  }
};

std::uint64_t fnv1a(const std::string &text) {
  std::uint64_t hash = 0xcbf29ce484222325u;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3u;
  return hash;
}

TEST_F(Oxscene, MakesTheSameSceneForASeedOnEveryMachine) {
  ASSERT_EQ(scene("make " + quote(path("a/b")) + " --seed 5 --frames 300").status, 0);
  ASSERT_EQ(scene("make " + quote(path("c")) + " --frames 300 --seed 5").status, 0);
  for (const std::string name : {"/det.txt", "/gt.txt", "/seqinfo.ini"}) {
    EXPECT_EQ(read("a/b" + name), read("c" + name));
    EXPECT_FALSE(read("c" + name).empty());
  }
  EXPECT_EQ(fnv1a(read("c/det.txt")), 0x6b6d3b7dbe754bccu);
  EXPECT_EQ(fnv1a(read("c/gt.txt")), 0xae28bad2435358d4u);
  ASSERT_EQ(scene("make " + quote(path("d")) + " --frames 300 --seed 6").status, 0);
  EXPECT_NE(read("d/det.txt"), read("c/det.txt"));
}

TEST_F(Oxscene, MakesPeopleAndVehiclesThatStopAndHide) {
  ASSERT_EQ(scene("make " + quote(path("s"))).status, 0);
  struct Life {
    int frames = 0, standing = 0, hidden = 0;
    double last = -1e9;
    std::string kind;
  };
  std::map<std::string, Life> lives;
  for (const std::string &line : split(read("s/gt.txt"), '\n')) {
    const std::vector<std::string> f = split(line, ',');
    ASSERT_EQ(f.size(), 9u);
    Life &life = lives[f[1]];
    const double middle = std::stod(f[2]) + std::stod(f[4]) / 2;
    life.standing += std::fabs(middle - life.last) < 0.01 && std::stod(f[8]) > 0;
    life.hidden += std::stod(f[8]) < 0.5;
    life.last = middle;
    life.kind = f[7];
    ++life.frames;
    EXPECT_EQ(f[6], std::stod(f[8]) >= 0.15 ? "1" : "0");
  }
  int people = 0, vehicles = 0, stopped = 0, hidden = 0;
  for (const auto &entry : lives) {
    (entry.second.kind == "1" ? people : vehicles) += 1;
    stopped += entry.second.standing > 20;
    hidden += entry.second.hidden > 10;
  }
  EXPECT_GE(people, 10);
  EXPECT_GE(vehicles, 5);
  EXPECT_GE(stopped, 3);
  EXPECT_GE(hidden, 5);
  for (const std::string &line : split(read("s/det.txt"), '\n')) EXPECT_EQ(split(line, ',').size(), 10u) << line;
  EXPECT_NE(read("s/seqinfo.ini").find("seqLength=600"), std::string::npos);
}

TEST_F(Oxscene, TracksOfItsSceneKeepMostIdentities) {
  ASSERT_EQ(scene("make " + quote(path("s"))).status, 0);
  ASSERT_EQ(track("-o " + quote(path("r.txt")) + " " + quote(path("s/det.txt"))).status, 0);
  const std::string score = scene("score " + quote(path("s/gt.txt")) + " " + quote(path("r.txt"))).out;
  int objects = 0, kept = 0, switches = 0;
  ASSERT_EQ(std::sscanf(score.c_str(), "true objects %d, kept one identity %d, identity switches %d", &objects, &kept,
                        &switches),
            3);
  EXPECT_GT(2 * kept, objects) << score;
  EXPECT_LT(switches, 2 * objects) << score;
}

TEST_F(Oxscene, ScoresAPerfectResult) {
  const std::string truth = box(1, 1, 100, "1,1,1") + box(2, 1, 100, "1,1,1");
  EXPECT_EQ(score_of(truth, box(1, 9, 100, "0.5,1,-1,-1") + box(2, 9, 100, "0.5,1,-1,-1")),
            "true objects 1, kept one identity 1, identity switches 0, recall 100.0 %, precision 100.0 %\n");
}

TEST_F(Oxscene, CountsASwitchOfIdentity) {
  const std::string truth = box(1, 1, 100, "1,1,1") + box(2, 1, 100, "1,1,1");
  EXPECT_EQ(score_of(truth, box(1, 9, 100, "0.5,1,-1,-1") + box(2, 8, 100, "0.5,1,-1,-1")),
            "true objects 1, kept one identity 0, identity switches 1, recall 100.0 %, precision 100.0 %\n");
}

TEST_F(Oxscene, WantsHalfOfTheFramesThatShowHalfOfTheObject) {
  const std::string truth =
      box(1, 1, 100, "1,1,1") + box(2, 1, 100, "1,1,0.5") + box(3, 1, 100, "1,1,0.4") + box(4, 1, 100, "1,1,0.4");
  EXPECT_NE(score_of(truth, box(1, 9, 100, "0.5,1,-1,-1")).find("kept one identity 1,"), std::string::npos);
  EXPECT_NE(score_of(truth, box(3, 9, 100, "0.5,1,-1,-1")).find("kept one identity 0,"), std::string::npos);
}

TEST_F(Oxscene, KeepsAPairThatStillOverlapsBeforeABetterOne) {
  const std::string truth = box(1, 1, 100, "1,1,1") + box(2, 1, 110, "1,1,1");
  const std::string results =
      box(1, 9, 100, "0.5,1,-1,-1") + box(2, 8, 110, "0.5,1,-1,-1") + box(2, 9, 100, "0.5,1,-1,-1");
  EXPECT_EQ(score_of(truth, results),
            "true objects 1, kept one identity 1, identity switches 0, recall 100.0 %, precision 66.7 %\n");
}

TEST_F(Oxscene, DoesNotScoreWhatDoesNotCount) {
  const std::string truth = box(1, 1, 100, "1,1,1") + box(1, 2, 300, "0,8,1") + "1,3,600,0,400,400,0,13,0\n";
  const std::string on_both =
      box(1, 9, 100, "0.5,1,-1,-1") + box(1, 8, 300, "0.5,1,-1,-1") + box(1, 7, 700, "0.5,1,-1,-1");
  EXPECT_EQ(score_of(truth, on_both),
            "true objects 1, kept one identity 1, identity switches 0, recall 100.0 %, precision 100.0 %\n");
  EXPECT_NE(score_of(truth, on_both + box(1, 6, 1200, "0.5,1,-1,-1")).find("precision 50.0 %"), std::string::npos);
}

TEST_F(Oxscene, ScoresOnlyClassesThatTheDetectorKnows) {
  const std::string truth = box(1, 1, 100, "1,1,1") + box(1, 2, 300, "1,4,1");
  const std::string results = box(1, 9, 300, "0.5,1,-1,-1") + "1,8,600,100,10,20,0.5,1,-1,-1\n";
  EXPECT_EQ(score_of(truth, results).substr(0, 15), "true objects 2,");
  write("seqinfo.ini", "[Sequence]\r\nlabels=1:car,2:pedestrian\r\nminHeight=25\r\n");
  EXPECT_EQ(score_of(truth, results),
            "true objects 1, kept one identity 0, identity switches 0, recall 0.0 %, precision 0.0 %\n");
}

TEST_F(Oxscene, ComparesLabelsWhenTheyAreClasses) {
  const std::string truth = box(1, 1, 100, "1,1,1") + box(1, 2, 300, "1,2,1");
  EXPECT_NE(score_of(truth, box(1, 9, 100, "0.5,2,-1,-1") + box(1, 8, 300, "0.5,1,-1,-1")).find("recall 0.0 %"),
            std::string::npos);
  EXPECT_NE(score_of(truth, box(1, 9, 100, "0.5,1,-1,-1") + box(1, 8, 300, "0.5,1,-1,-1")).find("recall 100.0 %"),
            std::string::npos);
  EXPECT_NE(score_of(truth, box(1, 9, 100, "0.5,7,-1,-1") + box(1, 8, 300, "0.5,0,-1,-1")).find("recall 100.0 %"),
            std::string::npos);
}

TEST_F(Oxscene, RefusesWrongArgumentsAndFiles) {
  const std::string good = quote(write("gt.txt", box(1, 1, 100, "1,1,1")));
  const std::string bad = quote(write("bad.txt", box(1, 1, 100, "1,1,1") + "1,2,x\n"));
  for (const std::string &arguments :
       {std::string(), std::string("make"), std::string("make ''"), std::string("draw x"),
        "make " + quote(path("s")) + " --seed", "make " + quote(path("s")) + " --seed -1",
        "make " + quote(path("s")) + " --frames x", "score " + good, "score " + good + " " + quote(path("none")),
        "score " + bad + " " + good, "make " + quote(path("gt.txt"))}) {
    const Result result = scene(arguments);
    EXPECT_EQ(result.status, 2) << arguments;
    EXPECT_EQ(result.err.substr(0, 9), "oxscene: ") << arguments;
  }
  EXPECT_NE(scene("score " + bad + " " + good).err.find("bad.txt:2: 'x' is not a number"), std::string::npos);
}

}  // namespace

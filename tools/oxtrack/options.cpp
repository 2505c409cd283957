// SPDX-License-Identifier: MIT
#include "oxtrack/options.h"

#include <ox.h>

#include <CLI/CLI.hpp>
#include <vector>

#include "common/failure.h"
#include "common/files.h"
#include "common/numbers.h"

namespace tool {
namespace {

constexpr std::int64_t kLargestInt32 = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kLargestUint32 = std::numeric_limits<std::uint32_t>::max();

// Far outside any image, and far enough from the ends of float that neither the scale nor its inverse reaches them.
constexpr double kSmallestGate = 1e-30;
constexpr double kLargestGate = 1e30;

constexpr const char* kDescription =
    "Tracks the boxes that a detector found in the frames of a video.\n\n"
    "DETECTIONS has one box a line, in any order of frames; the id is not used:\n"
    "  frame,id,left,top,width,height,score[,label,...]\n"
    "The result has one box a line, by frame:\n"
    "  frame,id,left,top,width,height,score,label,-1,-1\n";

[[noreturn]] void refuse(const std::string& option, const std::string& text, const std::string& wanted) {
  throw Failure(option + ": " + in_quotes(text) + " is not " + wanted);
}

std::string shown(double value) {
  std::string out;
  append_shortest(out, static_cast<float>(value));
  return out;
}

// Options are read by the functions that read the input, so that both take the same numbers. Their defaults are the
// values that the fields hold.
class Reader {
 public:
  explicit Reader(CLI::App& app) : app_(app) {}

  template <class Field>
  void whole(const std::string& name, Field& field, std::int64_t least, std::int64_t most, const std::string& help) {
    const std::string wanted = "a whole number from " + std::to_string(least) + " to " + std::to_string(most);
    add(name, "N", help, [&field, name, least, most, wanted](const std::string& text) {
      const Parsed<std::int64_t> number = parse_whole(text);
      if (number.problem || number.value < least || number.value > most) refuse(name, text, wanted);
      field = static_cast<typename ValueOf<Field>::Type>(number.value);
    });
  }

  template <class Field>
  void real(const std::string& name, const std::string& unit, Field& field, double least, double most,
            const std::string& wanted, const std::string& help) {
    add(name, unit, help, [&field, name, least, most, wanted](const std::string& text) {
      const Parsed<double> number = parse_real(text);
      if (number.problem || number.value < least || number.value > most) refuse(name, text, wanted);
      field = static_cast<Field>(number.value);
    });
  }

  template <class Take>
  void add(const std::string& name, const std::string& unit, const std::string& help, const Take& take) {
    app_.add_option_function<std::string>(name, take, help)->type_name(unit);
  }

 private:
  template <class Field> struct ValueOf { using Type = Field; };
  template <class Field> struct ValueOf<std::optional<Field>> { using Type = Field; };

  CLI::App& app_;
};

// The parser would take the next argument for the value of "--output=".
void refuse_empty_values(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--") return;
    if (argument.size() > 3 && argument.compare(0, 2, "--") == 0 && argument.back() == '=' &&
        argument.find('=') == argument.size() - 1)
      throw Failure(argument.substr(0, argument.size() - 1) + ": the value is empty");
  }
}

std::string version_text() {
  return "oxtrack " + std::to_string(OX_VERSION_MAJOR) + "." + std::to_string(OX_VERSION_MINOR) + "." +
         std::to_string(OX_VERSION_PATCH);
}

}  // namespace

Options parse_options(int argc, char** argv) {
  Options options;
  TrackerParameters& tracker = options.tracker;
  CLI::App app(kDescription, "oxtrack");
  app.get_formatter()->column_width(26);
  Reader reader(app);

  app.add_option("DETECTIONS", options.input, "The detections; - reads standard input")->required()->type_name("");
  reader.add("-o,--output", "FILE", "Write here, not to standard output; replaced only when all went well",
             [&options](const std::string& text) {
               if (text.empty()) throw Failure("--output: the value is empty");
               options.output = text;
             });
  reader.real("--gate", "PIXELS", options.gate, kSmallestGate, kLargestGate, "a number from 1e-30 to 1e30",
              "How far a centre may be from where it is expected (default " + shown(options.gate) +
                  ");\nthe library's gate is 10 units: coordinates go in times 10/PIXELS");
  constexpr double kLargestDouble = std::numeric_limits<double>::max();
  reader.real("--min-score", "SCORE", options.min_score, -kLargestDouble, kLargestDouble, "a finite number",
              "Leave out detections that score less (default: none)");
  reader.whole("--label-column", options.label_column, 0, kLargestInt32,
               "Column of the label, counted from 1 (default: 8 in lines that have it,\n"
               "else the label is 1); 0: labels are not read, all are 1");
  app.add_flag("--coasting", options.coasting,
               "Also write tracks missed in this frame, up to two in a row, with their last box");
  reader.whole("--confirm-hits", tracker.confirm_hits, 1, kLargestInt32,
               "Matched frames that make a track, counted from its first (default " +
                   std::to_string(tracker.confirm_hits) + ")");
  reader.whole("--max-misses", tracker.max_misses, 1, kLargestInt32,
               "Frames in a row that a track may be missed in (default " + std::to_string(tracker.max_misses) + ")");
  reader.real(
      "--iou-threshold", "X", tracker.iou_threshold, 0, 1, "a number from 0 to 1",
      "Overlap (intersection over union) that a match must exceed (default " + shown(tracker.iou_threshold) + ")");
  reader.real("--near-dist2", "X", tracker.near_dist2, 0, 1, "a number from 0 to 1",
              "Squared distance of centres up to which boxes match whatever their overlap,\nin the library's units: 1 "
              "is the square of a tenth of the gate (default " +
                  shown(tracker.near_dist2) + ")");
  app.add_flag("--any-label", tracker.any_label, "Match boxes of different labels too");
  reader.whole("--capacity", tracker.capacity, 1, kLargestInt32,
               "Most detections, live tracks and boxes written per frame\n(default: what the input needs)");
  reader.whole("--aux0", tracker.aux0, 0, kLargestUint32, "Kept in the tracker, used by nothing (default 0)");
  reader.whole("--aux1", tracker.aux1, 0, kLargestUint32, "Kept in the tracker, used by nothing (default 0)");
  app.set_version_flag("--version", version_text(), "Print the version and end");
  app.set_help_flag("-h,--help", "Print this text and end");

  refuse_empty_values(argc, argv);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    options.information = app.help();
  } catch (const CLI::CallForVersion&) {
    options.information = version_text() + "\n";
  } catch (const CLI::ParseError& error) {
    throw Failure(std::string(error.what()) + " (oxtrack --help lists the options)");
  }
  if (options.information.empty() && options.input.empty()) throw Failure("DETECTIONS: the value is empty");
  return options;
}

}  // namespace tool

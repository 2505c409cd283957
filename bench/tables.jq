# SPDX-License-Identifier: MIT
# Google Benchmark's JSON to one Markdown table for each contest; goals.json holds titles and goals.
#   jq -r --slurpfile goals goals.json -f tables.jq TOPIC.json

def thousands:
  tostring | until(test("^\\d{1,3}(,|$)"); sub("(?<head>\\d)(?<tail>\\d{3})(?=(,|$))"; .head + "," + .tail));
def nanoseconds:
  if . >= 99.95 then round | thousands
  else . * 10 | round / 10 | tostring | if test("\\.") then . else . + ".0" end end;
def ratio:
  . * 100 | round / 100 | tostring
  | if test("\\.\\d$") then . + "0" elif test("\\.") then . else . + ".00" end;
def pad($width; $left): (" " * ($width - length) // "") as $space | if $left then . + $space else $space + . end;

# rows: arrays of text, the first is the head; the first column is flush left.
def markdown:
  . as $rows
  | [range($rows[0] | length) | . as $c | $rows | map(.[$c] | length) | max] as $widths
  | def line($fields): [range($fields | length) | . as $c | $fields[$c] | pad($widths[$c]; $c == 0)]
      | "| " + join(" | ") + " |";
  line($rows[0]),
  ("|" + ([range($widths | length) | . as $c | if $c == 0 then "-" * ($widths[$c] + 2)
    else "-" * ($widths[$c] + 1) + ":" end] | join("|")) + "|"),
  ($rows[1:][] | line(.));

# CPU time: that of others on a shared machine is not in it. A manual time is a median of its own.
{"ns": 1, "us": 1000, "ms": 1000000, "s": 1000000000} as $unit
| [.benchmarks[] | select(.aggregate_name == "median" or .aggregate_name == "cv")
   | (.run_name | split("/")) as $name
   | (if .run_name | test("manual_time") then .real_time else .cpu_time end) as $time
   | {table: $name[0], row: $name[1], column: $name[2], order: .family_index, is_median: (.aggregate_name == "median"),
      value: (if .aggregate_name == "median" then $time * $unit[.time_unit] else $time end)}]
| group_by(.table) | sort_by(map(.order) | min)[]
| . as $cells
| $cells[0].table as $table
| ($goals[0] | map(select(.table == $table))) as $here
| (map(.column) | unique | map(. as $c | {c: $c, o: ($cells | map(select(.column == $c).order) | min)})
   | sort_by(.o) | map(.c)) as $columns
| ([$columns[] | select(. != "ox")] | length > 0) as $has_rivals
| "## \($here[0].title // $table)", "", "Nanoseconds. Goal: \($here[0].goal // "none").", "",
  (($cells | group_by(.row) | sort_by(map(.order) | min)
    | map(
        . as $row
        | (map(select(.is_median) | {(.column): .value}) | add) as $time
        | $time.ox as $ours
        | ($row | map(select(.column == "ox" and (.is_median | not)).value)[0]) as $cv
        | ([$here[] | select((.row // ".") as $pattern | $row[0].row | test($pattern))][0]) as $goal
        | ([$time | to_entries[] | select(.key != "ox" and .key != "ox created")
            | select(.key | test($here[0].limit // "^$") | not)]) as $rivals
        | ($goal.against // $here[0].against) as $against
        | ([$time | to_entries[] | select(.key != "ox" and .key != "ox created")
            | select($against != null) | select(.key | test($against))] | min_by(.value)) as $best
        | (if $goal == null then "" elif $goal.at_most_ns then $ours <= $goal.at_most_ns
           elif $best == null then "" else $ours * $goal.times <= $best.value end) as $met
        | [$row[0].row]
          + [$columns[] | . as $c
             | if $time[$c] == null then "-"
               else ($time[$c] | nanoseconds)
                 + (if ($rivals | any(.key == $c and .value < $ours)) then "*" else "" end) end]
          + [if $cv == null then "-" else ($cv * 100 | round | tostring) + " %" end]
          + (if $has_rivals then [if $best == null then "-" else ($best.value / $ours | ratio) end] else [] end)
          + [if $met == true then "yes" elif $met == false then "NO" else "-" end]))
   | . as $rows
   | ($rows | map(.[-1]) | [(map(select(. == "yes")) | length), (map(select(. != "-")) | length)]) as $score
   | ([[$here[0].first // "row"] + $columns + ["spread of ox"] + (if $has_rivals then ["best rival / ox"] else [] end)
       + ["goal met"]] + $rows | markdown),
     "", "Goal met in \($score[0]) of \($score[1]) rows.", "")

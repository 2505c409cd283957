// SPDX-License-Identifier: MIT
// Whole files in and out. Every failure is a Failure that names the file.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// "-" stands for standard input or output.
constexpr const char* kStandardStream = "-";

std::string read_whole(const std::string& path);

// The name that messages give to what read_whole reads.
std::string input_name(const std::string& path);

void write_standard_output(std::string_view text);

// Replaces the file at once or leaves it as it was: the text goes to a new file in the same directory, which is
// renamed at the end. The mode is kept; of a symbolic link, the target is replaced. What is no regular file
// (a device, a pipe) is written directly, and an open descriptor (/dev/stdout, /dev/fd/3) where it stands.
void replace_file(const std::string& path, std::string_view text);

// Fills closed standard streams with something on which reading and writing fail, so that no file opened later
// takes their numbers and receives what was meant for them. A broken pipe, or a file at its limit of size, becomes a
// failed write.
void guard_standard_streams();

}  // namespace tool

// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <string>

namespace scene {

// Writes det.txt, gt.txt and seqinfo.ini into the directory, which is made when it is missing.
void make(const std::string& directory, std::uint32_t seed, std::int64_t frames);

}  // namespace scene

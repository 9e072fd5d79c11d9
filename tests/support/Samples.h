// Small hives laid out by the builder, shared by the damage tests and the
// fuzz seeds: sound trees of every list kind and version, and lies that break
// one rule each (cycles, counts past their cells, names past their cells,
// db records at odds with their length, bin chains that lead nowhere).
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "support/Files.h"

namespace TamvikTest {

using Sample = std::pair<std::string, Bytes>;

std::vector<Sample> SoundSamples();
std::vector<Sample> DamagedSamples();

}  // namespace TamvikTest

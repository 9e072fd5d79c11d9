// Follows every reference between the cells of a hive file, from the root
// key down: subkey lists, keys, value lists, values, data, security cells.
#pragma once

#include <vector>

#include "store/HiveScan.h"

namespace TamvikTool {

struct StructureReport {
    std::vector<Tamvik::Finding> findings;
    std::uint64_t keys = 0, values = 0;  // reached from the root
};

StructureReport CheckStructure(const Tamvik::HiveScan& file);

}  // namespace TamvikTool

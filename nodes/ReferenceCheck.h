// The integrity check of the references between the cells of a hive file,
// run over the scan of its bins and cells: from the root key down through
// subkey lists, keys, value lists, values, data and security cells, with
// what doesn't hold reported where it is found. It reads only, follows a
// reference only into an allocated cell and enters each key once, so it
// ends on any bytes.
#pragma once

#include <cstdint>
#include <vector>

#include "store/Finding.h"
#include "store/HiveScan.h"

namespace Tamvik {

struct ReferenceReport {
    std::vector<Finding> findings;
    std::uint64_t keys = 0, values = 0;  // reached from the root
};

ReferenceReport CheckReferences(const HiveScan& file);

}  // namespace Tamvik

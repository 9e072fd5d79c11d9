// A bounded walk of a whole hive through every read function, wide and
// narrow, with buffers of exactly the capacity announced (so that a sanitizer
// sees any byte touched behind them), for hives that may be damaged in any
// way. Whatever breaks the contract (a result outside the seven numbers, a
// number a function never gives, a write into a refused out-argument) is
// written down. The damage tests and the fuzz harnesses share it.
#pragma once

#include <RegAPI.h>

#include <string>
#include <vector>

namespace TamvikTest {

struct ProbeLimits {
    int maxDepth = 48;
    int maxKeys = 1500;               // keys visited in all
    RegAPI::DWORD maxIndex = 96;      // entries looked at per list
    RegAPI::DWORD maxData = 256 << 10;  // largest value buffer handed over
    bool everyCapacity = true;        // else buffers only of the size (and one short), few lookups by path
};

struct ProbeResult {
    int keys = 0, values = 0;
    std::vector<std::u16string> paths;  // keys below the root, components joined by '\'
    std::vector<std::string> violations;
};

ProbeResult Probe(RegAPI::HKEY hive, const ProbeLimits& limits = {});

// Whether a number is one of the seven any function may give.
bool IsResultNumber(RegAPI::LONG result);

}  // namespace TamvikTest

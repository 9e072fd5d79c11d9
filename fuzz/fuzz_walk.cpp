// Fuzz harness: the input is a hive file, opened writable (so that a stray
// write would land and be seen) and walked twice through every read
// function. A walk only reads: the file must come out as it went in.
#include "Driver.h"

namespace TamvikFuzz {

void Harness(Bytes bytes) {
    FixBaseBlock(bytes);
    HiveUnderTest hive(bytes);
    if (hive.Open() != RegAPI::Result::Ok) return;
    Require(TamvikTest::Probe(hive.Handle(), kWalkLimits));
    Require(TamvikTest::Probe(hive.Handle(), kSessionWalkLimits));
    hive.Close();
    Require(hive.DeviceWrites() == 0 && hive.Contents() == bytes, "a walk changed the file");
}

}  // namespace TamvikFuzz

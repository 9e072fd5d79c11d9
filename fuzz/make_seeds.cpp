// Writes the builder's sound and damaged sample hives into the seed folders
// of the harnesses; the edit harness gets each behind a few scripts.
// Usage: make_seeds WALK_DIR EDIT_DIR
#include <fstream>

#include "support/Samples.h"

using namespace TamvikTest;

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    // Create a key, add a value, rewrite, delete a value, delete a key; and create and fill.
    const Bytes scripts[] = {{0x05, 0, 0, 1, 0, 1, 0, 5, 0x48, 2, 1, 0, 0x10, 4, 0, 0, 0, 5, 0, 3, 0x60},
                             {0x03, 0, 2, 4, 0x70, 1, 0, 12, 0x88, 3, 0, 1, 0x20}};
    std::vector<Sample> samples = SoundSamples();
    for (Sample& sample : DamagedSamples()) samples.push_back(std::move(sample));
    for (const auto& [name, hive] : samples) {
        std::ofstream(std::string(argv[1]) + "/builder-" + name, std::ios::binary)
            .write(reinterpret_cast<const char*>(hive.data()), static_cast<std::streamsize>(hive.size()));
        for (std::size_t i = 0; i < std::size(scripts); ++i) {
            std::ofstream out(std::string(argv[2]) + "/builder-" + name + "-" + std::to_string(i), std::ios::binary);
            out.write(reinterpret_cast<const char*>(scripts[i].data()), static_cast<std::streamsize>(scripts[i].size()));
            out.write(reinterpret_cast<const char*>(hive.data()), static_cast<std::streamsize>(hive.size()));
        }
    }
    return 0;
}

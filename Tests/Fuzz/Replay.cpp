// SPDX-License-Identifier: MIT
//
// Runs a target over the files of the folders that are named, as the fuzzer would.

#include "FuzzTarget.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

namespace {

void runFile(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    // A vector's block has the input's very size, so that a read past its end is seen.
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
}

} // namespace

int main(int argc, char *argv[])
{
    std::size_t files = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            std::cerr << entry.path().string() << std::endl;
            runFile(entry.path());
            ++files;
        }
    }
    std::cout << files << " inputs" << std::endl;
    return files > 0 ? 0 : 1;
}

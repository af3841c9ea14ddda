// Writes a small file of every datatype as a starting point for the fuzzer: seeds FOLDER
#include "tests/scan/nifti_files.h"

int main(int, char** argv) {
  using namespace test_files;
  const fs::path folder = argv[1];
  fs::create_directories(folder);
  const std::vector<char> voxels(120 * 16, 5);
  for (const int datatype : kDatatypes)
    for (const int version : {1, 2})
      for (const bool swapped : {false, true}) {
        const fs::path seed = folder / (std::to_string(datatype) + "-" + std::to_string(version) +
                                        (swapped ? "-swapped" : ""));
        writeNifti(
            seed,
            {.datatype = datatype, .version = version, .swapped = swapped, .slope = 2, .inter = 1},
            voxels.data());
        Bytes bytes = readBytes(seed);
        bytes.insert(bytes.begin(), '\0');
        writeBytes(seed, bytes);
      }
}

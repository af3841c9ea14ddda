// Writes a small file of every datatype as a starting point for the fuzzer: seeds FOLDER
#include "tests/scan/nifti_files.h"

int main(int, char** argv) {
  using namespace test_files;
  const fs::path folder = argv[1];
  fs::create_directories(folder);
  const std::vector<char> voxels(120 * 16, 5);
  for (const int datatype : {2, 4, 8, 16, 64, 256, 512, 768, 1024, 1280, 1536})
    for (const int fileType : {NIFTI_FTYPE_NIFTI1_1, NIFTI_FTYPE_NIFTI2_1})
      for (const bool swapped : {false, true}) {
        const fs::path plain = folder / "seed.nii";
        FileLayout layout{.datatype = datatype, .fileType = fileType, .slope = 2, .inter = 1};
        writeNifti(plain, layout, voxels.data());
        int size = 0, swapSize = 0;
        nifti_datatype_sizes(datatype, &size, &swapSize);
        if (swapped) swapByteOrder(plain, size);
        Bytes bytes = readBytes(plain);
        bytes.insert(bytes.begin(), '\0');
        writeBytes(folder / (std::to_string(datatype) + "-" + std::to_string(fileType) +
                             (swapped ? "-swapped" : "")),
                   bytes);
        fs::remove(plain);
      }
}

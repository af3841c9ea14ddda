// The raw-volume command: arguments, echo lines, files. The work is in the stages of voxPipeline.h.

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "arguments.h"
#include "exact/memory.h"
#include "vox3DMat.h"
#include "voxPara.h"
#include "voxPipeline.h"
#include "voxRawVolumeData.h"
#include "threads.h"

namespace {

constexpr int floatFormat = 2;
constexpr std::string_view formatWords[] = {"byte", "word", "float"};

/// The voxel format code of a word on the command line, -1 if there is none.
int formatCode(std::string_view word) {
  for (int code = 0; code < 3; ++code) {
    if (word == formatWords[code]) return code;
  }
  return -1;
}

/// Whether the machine can hold what every voxel takes at the finest level: prepared image and
/// level-set function, input, mask, sides, index map. The narrow band comes on top. Without
/// this check the system would end the process.
bool memoryFits(const voxPara& P) {
  constexpr std::uint64_t bytesPerVoxel = 2 * sizeof(double) + 3 * sizeof(char) + sizeof(int);
  const std::uint64_t memory = tavrel::machineMemory();
  const std::uint64_t voxels = static_cast<std::uint64_t>(1LL * P.sizeX * P.sizeY * P.sizeZ);
  return memory == 0 || voxels <= memory / bytesPerVoxel;
}

void echoArguments(int width, int height, int slices, const char* image, int format, double W5,
                   const char* mask, const char* stripped, const char* phi) {
  std::cout << "nImgWidth\t" << width << "\nnImgHeight\t" << height << "\nnImgSlices\t" << slices
            << "\nsImgFilePath\t" << image << "\nsImgMaskFilePath\t" << mask << "\nsImgSSFilePath\t"
            << stripped << "\nsImgPhiFilePath\t" << phi << "\nW5\t" << W5 << "\nnImgFormat\t"
            << format << "\n";
}

template <typename T, typename U>
void writeVolume(const vox3DMat<T, U>& volume, const std::string& path, int format) {
  const std::size_t voxels = static_cast<std::size_t>(volume.mxn) * volume.sizeZ;
  tavrel::writeRaw(path.c_str(), format, volume.p, voxels);
}

/// Throws std::bad_alloc if the machine has too little memory, but leaves it to the reader to tell
/// of a volume without voxels or a file that is not there.
void requireMemory(const voxPara& P) {
  if (std::min({P.sizeX, P.sizeY, P.sizeZ}) <= 0) return;
  if (!std::ifstream(P.ori_fn)) tavrel::unreadable(P.ori_fn);
  if (!memoryFits(P)) throw std::bad_alloc();
}

/// Small volumes are done before more threads are of use.
int threadsFor(const voxPara& P) {
  constexpr double kVoxelsAThread = 500000;
  if (tavrel::threadsAsked() < 0) std::cerr << tavrel::wrongThreadsVariable() << std::endl;
  const double voxels = double(P.sizeX) * P.sizeY * P.sizeZ;
  return std::max(1, std::min(tavrel::usualThreads(), static_cast<int>(voxels / kVoxelsAThread)));
}

/// Reads, strips and writes a volume whose file holds values of type T, which is also how it is
/// kept: as doubles it would take several times the memory.
template <class T>
void strip(const voxPara& P, const std::string& phiPath) {
  requireMemory(P);
  voxRawVolumeData<T, char> R(P.ori_fn, P.ori_datatype, P.sizeX, P.sizeY, P.sizeZ);
  R.read();
  vox3DMat<T, char>& D = *R.getMatobject();

  tavrel::PreparedVolumes volumes = tavrel::prepare(D, P, &std::cout);
  tavrel::EvolutionObserver observer;
  observer.onLevel = [&](int, vox3DMat<double, char>& Phi) {
    writeVolume(Phi, phiPath, floatFormat);
  };
  tavrel::evolve(volumes, P, observer, threadsFor(P));
  volumes.image.reset();
  tavrel::finish(*volumes.mask, P);

  writeVolume(*volumes.mask, P.mask_fn, P.mask_datatype);
  const std::size_t voxels = static_cast<std::size_t>(D.mxn) * D.sizeZ;
  tavrel::multiply(D.p, voxels, volumes.mask->p, D.p);
  writeVolume(D, P.SS_fn, P.SS_datatype);
}

int reportMemory(char** argv) {
  std::cout << "Not enough memory for a volume of " << argv[2] << " x " << argv[3] << " x "
            << argv[4] << " voxels." << std::endl;
  return 1;
}

}  // namespace

/// Strips one raw volume: reads it, prepares, evolves and finishes the mask, and writes the three
/// outputs (the level-set function at the end of every level, then mask and stripped image).
/// @param nImgFormat  0 byte, 1 word, 2 float; any other code gives a message and false
/// @return true when the outputs are written; errors of files end the process
bool Tavrel(int nImgWidth, int nImgHeight, int nImgSlices, char* sImgFilePath, int nImgFormat,
            double dW5, char* sImgMaskFilePath, char* sImgSSFilePath, char* sImgPhiFilePath) {
  echoArguments(nImgWidth, nImgHeight, nImgSlices, sImgFilePath, nImgFormat, dW5, sImgMaskFilePath,
                sImgSSFilePath, sImgPhiFilePath);
  if (nImgFormat < 0 || nImgFormat > floatFormat) {
    std::cout << "Skull stripping only works on grayscale images." << std::endl;
    return false;
  }
  std::cout << nImgWidth << "\t" << nImgHeight << "\t" << nImgSlices << "\n"
            << nImgFormat << "\n"
            << dW5 << "\n";
  std::string pImgFilePath = sImgFilePath, pImgMaskFilePath = sImgMaskFilePath,
              pImgSSFilePath = sImgSSFilePath, pImgPhiFilePath = sImgPhiFilePath;
  std::cout << sImgFilePath << "\n"
            << sImgMaskFilePath << "\n"
            << sImgSSFilePath << "\n"
            << sImgPhiFilePath << "\n"
            << pImgFilePath << "\n"
            << pImgMaskFilePath << "\n"
            << pImgSSFilePath << "\n"
            << pImgPhiFilePath << "\n";

  voxPara P;
  tavrel::setupPipeline(P, pImgFilePath.data(), pImgMaskFilePath.data(), pImgSSFilePath.data(),
                        nImgFormat, nImgWidth, nImgHeight, nImgSlices, dW5);
  tavrel::withFileType(nImgFormat, [&](auto zero) { strip<decltype(zero)>(P, pImgPhiFilePath); });
  return true;
}

int main(int argc, char** argv) {
#ifdef SIGXFSZ
  std::signal(SIGXFSZ, SIG_IGN);  // a limit on the size of files fails the write, as a full disk
#endif
  if (argc <= 9) {
    std::cout << "Usuage:Tavrel [W5] [ImgWidth] [ImgHeight] [ImgSlices] [RawImageFileName] "
                 "[ImageDataFormat: byte, word or float]"
              << std::endl
              << std::string(26, ' ') << "[RawMaskFileName] [RawSSFileName] [RawPhiFileName]"
              << std::endl;
    return 1;
  }
  const double dW5 = tavrel::toReal(argv[1]);
  const int nImgWidth = tavrel::toInteger(argv[2]);
  const int nImgHeight = tavrel::toInteger(argv[3]);
  const int nImgSlices = tavrel::toInteger(argv[4]);
  const int nImgFormat = formatCode(argv[6]);
  if (nImgFormat < 0) {
    std::cout << "For data format, please enter: byte, word or float." << std::endl;
    return 1;
  }
  if (!tavrel::Pyramid::fits(nImgWidth, nImgHeight, nImgSlices)) {
    std::cout << "Image sizes must not be negative, and the volume must have fewer than 2^31 "
                 "voxels (sizes rounded up to multiples of 4): "
              << argv[2] << " x " << argv[3] << " x " << argv[4] << std::endl;
    return 1;
  }
  try {
    if (Tavrel(nImgWidth, nImgHeight, nImgSlices, argv[5], nImgFormat, dW5, argv[7], argv[8],
               argv[9])) {
      return 0;
    }
  } catch (const std::bad_alloc&) {
    return reportMemory(argv);
  }
  std::cout << "Skull stripping failed." << std::endl;
  return 1;
}

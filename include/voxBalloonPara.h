// The settings of a single balloon run, an older and smaller record than voxPara.
//
// Sizes and paddings are in voxels; formats are the codes of voxRawVolumeData.h with -1 for unset.
// Path strings are borrowed: they must outlive the record.
#pragma once

/// The parameter record of a balloon run.
class voxBalloonPara {
 public:
  char* fn = nullptr;                   ///< input path
  char* out_fn = nullptr;               ///< output path
  int datatype = -1;                    ///< voxel format code of the input
  int out_datatype = -1;                ///< voxel format code of the output
  int sizeX = 0, sizeY = 0, sizeZ = 0;  ///< input dimensions
  int dnX = 0, dnY = 0, dnZ = 0;        ///< halvings of the padded image
  int seg_dn = 0;                       ///< further halvings to the coarsest level
  int Xn = 0, Xp = 0;                   ///< padding before and after along x
  int Yn = 0, Yp = 0;                   ///< padding before and after along y
  int Zn = 0, Zp = 0;                   ///< padding before and after along z
  double gamma = 0.0;                   ///< exponent of the gamma adjustment

  voxBalloonPara() = default;
  /// Reads, from argv[1] on: input path and format, three sizes, three halvings, seg_dn, gamma,
  /// output path and format. Computes the padding and prints the record. The vector has to reach to
  /// the twelfth argument; null pointers in it count as 0, or null for a path.
  explicit voxBalloonPara(char** argv);
  ~voxBalloonPara();
  voxBalloonPara(const voxBalloonPara&) = delete;
  voxBalloonPara& operator=(const voxBalloonPara&) = delete;

  /// Prints the record on standard output.
  void printPara() const;
};

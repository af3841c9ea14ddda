// The settings of one stripping run, its filling operations and the padding rule.
//
// Sizes and paddings are in voxels, seed extents are fractions of the (padded) sizes, formats are
// the codes of voxRawVolumeData.h with -1 for unset. Path strings are borrowed: they must outlive
// the record. Nothing is validated here.
#pragma once

/// Padding before and after that makes `size` a multiple of 2^dn: a new array {before, after},
/// which the caller releases with `delete[]`. An odd voxel goes after. Paddings beyond the range of
/// int are held at its largest value.
int* calextension(int size, int dn);

/// The parameter record of a run.
class voxPara {
 public:
  char* mask_fn = nullptr;              ///< path of the mask to write
  char* ori_fn = nullptr;               ///< path of the input image
  char* SS_fn = nullptr;                ///< path of the skull-stripped image to write
  char* template_fn = nullptr;          ///< path of a template mask (two-volume setting only)
  int mask_datatype = -1;               ///< voxel format code of the mask
  int ori_datatype = -1;                ///< voxel format code of the input
  int SS_datatype = -1;                 ///< voxel format code of the skull-stripped image
  int template_datatype = -1;           ///< voxel format code of the template
  int sizeX = 0, sizeY = 0, sizeZ = 0;  ///< input dimensions
  int dnX = 0, dnY = 0, dnZ = 0;        ///< halvings of the padded image before the 3-D stage
  int seg_dn = 0;      ///< further halvings to the coarsest level; there are seg_dn + 1 levels
  int Xn = 0, Xp = 0;  ///< padding before and after along x
  int Yn = 0, Yp = 0;  ///< padding before and after along y
  int Zn = 0, Zp = 0;  ///< padding before and after along z
  double gamma = 0.0;  ///< exponent of the gamma adjustment
  double seedxmin = 0.0, seedxmax = 0.0;  ///< seed box along x
  double seedymin = 0.0, seedymax = 0.0;  ///< seed box along y
  double seedzmin = 0.0, seedzmax = 0.0;  ///< seed box along z
  double w1 = 0.0, w2 = 0.0, w3 = 0.0, w4 = 0.0, w5 = 0.0, w6 = 0.0, w7 = 0.0;  ///< speed weights
  int* max_iter = nullptr;  ///< iteration limit of every level, coarsest first; owned

  voxPara() = default;
  ~voxPara();
  voxPara(const voxPara&) = delete;
  voxPara& operator=(const voxPara&) = delete;

  /// Fills the record of a single-volume run, with the padding. The three limits serve the levels
  /// in turn and the last one every further level. The template fields stay as they are.
  void setupBalloonParameters(char* tempFn, char* maskFn, char* ssFn, int nTempDataType,
                              int nMaskDataType, int nSSDataType, int nSizeX, int nSizeY,
                              int nSizeZ, int nDnX, int nDnY, int nDnZ, int nSegDn, double dGamma,
                              double dXMin, double dXMax, double dYMin, double dYMax, double dZMin,
                              double dZMax, double dW1, double dW2, double dW3, double dW4,
                              double dW5, double dW6, double dW7, int nMaxIter0, int nMaxIter1,
                              int nMaxIter2);

  /// The same for a target image with a template mask.
  void setup2VolumeParameters(char* targFn, char* maskFn, char* ssFn, char* tempMaskFn,
                              int nTargDataType, int nMaskDataType, int nSSDataType,
                              int nTempMaskDataType, int nSizeX, int nSizeY, int nSizeZ, int nDnX,
                              int nDnY, int nDnZ, int nSegDn, double dGamma, double dXMin,
                              double dXMax, double dYMin, double dYMax, double dZMin, double dZMax,
                              double dW1, double dW2, double dW3, double dW4, double dW5,
                              double dW6, double dW7, int nMaxIter0, int nMaxIter1, int nMaxIter2);

  /// Fill the record from an argument vector (argv[0] is not looked at) and print it. The arguments
  /// come in this order: input, mask and skull-stripped paths [template path], their formats
  /// [template format], sizes, halvings, seg_dn, gamma, [seed extents], w1 to w7, and an iteration
  /// limit for every level. The template arguments belong to the 2Volume forms; the 2-D forms have
  /// no z arguments; `setup2D2Volume` has no seed. Fields without an argument keep their values.
  /// The vector has to reach to the last limit; null pointers in it count as 0, or null for a path.
  void setupBalloon(char** argv);
  void setup2Volume(char** argv);
  void setup2DBalloon(char** argv);
  void setup2D2Volume(char** argv);

  /// Prints the record on standard output.
  void printPara() const;

  /// The iteration limits that `max_iter` holds: seg_dn + 1 of them, none if that is negative, and
  /// at most 32, more levels than a size of 31 bits can be halved into.
  int levels() const;

 private:
  struct Layout;
  void setup(char** argv, const Layout& layout);
  void newLimits();
};

// What programs of others make of the outputs, and of being the one who calls.
#include "cohort.h"

namespace {

using namespace test_cohort;

class Others : public Cohort {
 protected:
  static bool has(const std::string& program) {
    return std::system(("command -v " + program + " >/dev/null").c_str()) == 0;
  }
  /// Runs a script of the shell in the test's folder, with the command in PATH and a home of its
  /// own.
  Result shell(const std::string& script) const {
    const std::string path = fs::path(TAVREL_BIDS_COMMAND).parent_path();
    const std::string home = folder_ / "home";
    fs::create_directory(home);
    return Process("/bin/bash", {"-euc", "cd '" + folder_.path().string() + "'; export PATH='" +
                                             path + "':$PATH HOME='" + home + "'; " + script})
        .wait();
  }
};

TEST_F(Others, TheValidatorTakesTheInputs) {
  if (!fs::exists(BIDS_VALIDATOR)) GTEST_SKIP() << "bids-validator is not installed";
  addSubjects(2);
  addScan("sub-03/ses-a/anat/sub-03_ses-a_acq-hi_run-1_T1w.nii.gz");
  put("README", std::string(200, 'x'));
  const Result result = shell("'" BIDS_VALIDATOR "' raw");
  EXPECT_EQ(result.status, 0) << result.out << result.err;
}

TEST_F(Others, NibabelReadsEveryOutputAndAgrees) {
  if (std::system("/usr/bin/python3 -c 'import nibabel' 2>/dev/null") != 0)
    GTEST_SKIP() << "nibabel is not installed";
  addSubjects(2);
  addScan("sub-03/anat/sub-03_T1w.nii", 3, {40, 36, 44});
  ASSERT_EQ(bids().status, 0);
  const Result result = shell(R"(/usr/bin/python3 - <<'END'
import glob, nibabel, numpy
masks = glob.glob('raw/derivatives/tavrel/sub-*/anat/*_mask.nii.gz')
assert len(masks) == 3
for path in masks:
    mask, brain = nibabel.load(path), nibabel.load(path.replace('_mask.nii', '_T1w.nii'))
    scan = nibabel.load(glob.glob('raw/' + path.split('/')[3] + '/anat/*_T1w.nii*')[0])
    for image in mask, brain:
        assert (image.affine == scan.affine).all() and image.shape == scan.shape
        for field in 'qform_code', 'sform_code', 'xyzt_units', 'pixdim':
            assert (image.header[field] == scan.header[field]).all(), field
        assert (image.get_qform() == scan.get_qform()).all()
    inside = numpy.asarray(mask.dataobj)
    assert inside.dtype == numpy.uint8 and set(numpy.unique(inside)) == {0, 1}
    assert (numpy.asarray(brain.dataobj) == numpy.asarray(scan.dataobj) * inside).all()
    assert brain.get_data_dtype() == scan.get_data_dtype()
END
)");
  EXPECT_EQ(result.status, 0) << result.err;
}

TEST_F(Others, SnakemakeRunsTheDocumentedFile) {
  if (!has("snakemake")) GTEST_SKIP() << "snakemake is not installed";
  addSubjects(3);
  const std::string call = "snakemake -s '" SNAKEFILE "' --cores 2 --config bids=raw out=out";
  const Result result = shell(call);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(tableOf(folder_ / "out/tavrel.tsv").size(), 3u);
  EXPECT_NE(shell(call).err.find("Nothing to be done"), std::string::npos);
}

TEST_F(Others, DataladRunTwiceLeavesNothingToSave) {
  if (!has("datalad") || !has("git-annex")) GTEST_SKIP() << "datalad is not installed";
  addSubjects(2);
  const Result result = shell(R"sh(
    git config --global user.name T; git config --global user.email t@localhost
    cd raw; datalad create -f . ; datalad save -m raw
    run() { datalad run -m strip "tavrel-bids . derivatives/tavrel participant"; }
    run; first=$(git rev-parse HEAD); run; second=$(git rev-parse HEAD)
    echo "commits: $first $second"; [ $first = $second ]
    [ -z "$(git status --porcelain)" ]; [ -L derivatives/tavrel/tavrel.tsv ])sh");

  EXPECT_EQ(result.status, 0) << result.out << result.err;
}

}  // namespace

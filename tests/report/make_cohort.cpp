// An output folder with its report, for the tests with a browser: make_cohort OUTPUT SCANS FILES
// writes a table of SCANS scans, of which the first FILES have pictures and masks. The second scan
// failed and the third is named to do harm.
#include <cstdlib>

#include "cohort.h"

int main(int argc, char** argv) {
  if (argc != 4) return 64;
  tavrel::report::ReportInput input{argv[1], {}, "1.0.0", "Tiny <heads> & \"friends\""};
  for (int i = 0; i < std::atoi(argv[2]); ++i) input.rows.push_back(test_cohort::makeRow(i + 1));
  for (auto& row : input.rows) row.maskSha256 = std::string(64, '1');
  auto& failed = input.rows.at(1);
  failed = {};
  failed.participant = failed.scan = "sub-0002";
  failed.status = "failed";
  failed.reason = "is truncated (1024 of 2048 bytes of voxels)";
  auto& evil = input.rows.at(2);
  evil.scan = evil.participant + "_acq-<img src=x onerror=document.title='hurt'>\"'&\n\tx";
  evil.comment = "</script><script>document.title = 'hurt'</script>\ttab\nline \\n";
  evil.rating = "maybe";
  for (int i = 0; i < std::atoi(argv[3]); ++i)
    if (input.rows[i].status == "done")
      test_cohort::writeScan(input.output, input.rows[i], {136, 150, 60});
  writeReports(input);
}
